#include "beamline/Geometry.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/OutputFile.h"

void Geometry::SetParameter(int sectionIndex, double start, std::vector<std::string> const& token) {
  parameter = token;
  index = sectionIndex;
  shape = DeckInteger(token.at(0));
  name = token.at(1);
  zStart = start;
  std::size_t k = 2;
  for (; k < token.size() && token[k] != "RLP"; ++k) shapeParameter.push_back(DeckReal(token[k]));
  if (k < token.size()) {
    for (std::size_t q = 0; q < 6 && k + 1 + q < token.size(); ++q) placement[q] = DeckReal(token[k + 1 + q]);
    for (int q = 3; q < 6; ++q) placement[q] = placement[q] * 3.141592653589793 / 180.0;
  }
}

void Geometry::ToSection(const double* c, double& x, double& y, double& z) const {
  const std::vector<double>& p = placement;
  x = c[0] - p[1];
  y = c[2] - p[2];
  z = c[4] - zStart - p[0];
  FrameRotation(p[3], p[5], p[4]).Apply(x, y, z);
}

void Geometry::CheckShape() const {
  if (shape == 1 || shape == 2) return;
  std::cout << "Unknown geometric shapes have been set" << std::endl;
  std::exit(1);
}

int Geometry::Boundary(double time, double timeStep, Particle& particle, const std::array<double, 6>& previousRow,
                       const std::string& outputPath) {
  CheckShape();
  // The deck reader makes sure a pipe has its length and radius.
  if (shape != 1 || shapeParameter.size() < 2) return 0;
  const double length = shapeParameter[0], wall = shapeParameter[1];
  const double* c = particle.coordinate;
  double xs, ys, zs;
  ToSection(c, xs, ys, zs);
  if (!(zs > 0.0) || !(zs < length)) return 0;
  const double rs = std::sqrt(xs * xs + ys * ys);
  if (rs < wall) return 0;

  // The particle crossed the wall during the last step: interpolate to the
  // crossing, or to the entrance face when the path came in through it.
  const double* q = previousRow.data();
  double xp, yp, zp;
  ToSection(q, xp, yp, zp);
  const double rp = std::sqrt(xp * xp + yp * yp);
  double f = (wall - rp) / (rs - rp);
  if ((zs - zp) * f + zp < 0.0) f = (0.0 - zp) / (zs - zp);
  double at[6];
  for (int k = 0; k < 6; ++k) at[k] = q[k] + f * (c[k] - q[k]);
  const double crossingTime = time - (1.0 - f) * timeStep;

  std::ostringstream out;
  const double light = 299792458.0;
  out << at[0] << " " << at[2] << "  " << at[4] << "  " << at[1] * light << "  " << at[3] * light << "  "
      << at[5] * light << "  " << particle.charge / 1.60217653e-19 << "  " << particle.restEnergy << "  "
      << particle.multiplicity << "  " << crossingTime << "  " << particle.name << "\n";
  AppendOutput(outputPath + "collisionData.txt", out.str(), WriteStage::kTracking);
  particle.lost = 1;
  return 0;
}

int Geometry::Boundary(double, double, SynParticle&, const std::vector<double>&) {
  CheckShape();
  return 0;
}
