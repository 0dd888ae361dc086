#pragma once
#include <vector>

#include "beamline/Geometry.h"

// The aperture list: sections in order along z, independent of the lattice.
// Sections are made with new by the deck reader and live for the process.
class Boundary {
 public:
  std::vector<Geometry*> geometry;
  std::vector<double> zEnd;
  std::vector<double> zStart;
  std::vector<double> length;
};
