#pragma once
#include <array>
#include <string>
#include <vector>

#include "beam/Particle.h"

// One aperture section of the boundary list, standing end to end from z = 0.
class Geometry {
 public:
  std::vector<std::string> parameter;
  std::vector<double> placement = std::vector<double>(6, 0.0);  // dz, dx, dy (m), three angles (rad)
  double zStart = 0.0;
  int index = 0;
  std::vector<double> shapeParameter;  // length, radius, ...
  int shape = 0;                       // 1 circular pipe, 2 open
  std::string name;

  // Aperture test of one particle between its previous and current state.
  // No shape is tested yet: every particle passes.
  int Boundary(double time, double timeStep, Particle& particle, const std::array<double, 6>& previousRow,
               const std::string& outputPath);
};
