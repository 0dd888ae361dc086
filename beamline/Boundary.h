#pragma once
#include <string>
#include <vector>

#include "beamline/Geometry.h"

// The aperture list: sections in order along z from z = 0, independent of
// the lattice. Sections are made with new by the deck reader and live for the
// process; the destructor releases the vectors only.
class Boundary {
 public:
  std::vector<Geometry*> geometry;
  std::vector<double> zEnd;    // m, exit of each section
  std::vector<double> zStart;  // m, entrance of each section
  std::vector<double> length;  // m, token 2 of each section

  // Appends a section behind the last one and configures it. Returns 0.
  int SetElement(std::vector<std::string> token, Geometry* section);
};
