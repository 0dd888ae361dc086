#pragma once
#include <array>
#include <string>
#include <vector>

#include "beam/Particle.h"
#include "beam/SynParticle.h"

// One aperture section of the boundary list. Tokens: 0 shape (1 circular
// pipe, 2 open), 1 name, 2 length (m), 3 radius (m) for a pipe, then
// optionally "RLP" and the placement dz, dx, dy (m) and three angles (deg).
class Geometry {
 public:
  std::vector<std::string> parameter;
  std::vector<double> placement = std::vector<double>(6, 0.0);  // dz, dx, dy (m), three angles (rad)
  double zStart = 0.0;  // m
  int index = 0;
  std::vector<double> shapeParameter;  // length, radius, ...
  int shape = 0;                       // 1 circular pipe, 2 open
  std::string name;

  void SetParameter(int sectionIndex, double start, std::vector<std::string> const& token);

  // Loss test of one particle that moved from `previousRow` to its current
  // state in the step of length timeStep ending at `time`. A particle
  // outside the pipe is marked lost and its crossing of the wall is appended
  // to outputPath + "collisionData.txt".
  int Boundary(double time, double timeStep, Particle& particle, const std::array<double, 6>& previousRow,
               const std::string& outputPath);
  // The synchronous particle is never lost here; only the shape is checked.
  int Boundary(double time, double timeStep, SynParticle& particle, const std::vector<double>& previousRow);

 private:
  // Position in the section's frame.
  void ToSection(const double* c, double& x, double& y, double& z) const;
  void CheckShape() const;
};
