#pragma once
#include <vector>

#include "beamline/Lattice.h"

// The lattice cut into sections for the two transports. Codes: 0 or above a
// steerer's lattice index; -1 an output plane (at a stop, or inside a
// hard-edge element); -2 the end of a time-code section, or a plane at a
// hard-edge element's exit; -3 nothing to do.
struct SectionPlan {
  static constexpr int kTimeCode = 1;
  static constexpr int kZCode = 2;

  std::vector<int> sectionKind;                  // one per section, in lattice order
  std::vector<std::vector<double>> stopZ;        // per time-code section
  std::vector<std::vector<int>> stopCode;        // per time-code section
  std::vector<std::vector<int>> sectionElements; // per z-code section
  std::vector<std::vector<int>> elementCode;     // per z-code section

  // Walks the lattice once. A steerer belongs to no section: it acts at the
  // middle of the element behind it (or inside it, for a hard-edge one).
  static SectionPlan Build(const Lattice& lattice, const std::vector<double>& outputPlanes);
};
