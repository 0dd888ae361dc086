#pragma once
#include <vector>

#include "run/ErrorSample.h"

// The error definitions of lattice.txt and, once drawn, all sets of a study.
struct ErrorParameter {
  std::vector<int> errStep = {1, 1};  // draws per amplitude step, amplitude steps
  std::vector<ErrorSet> dynamicSets;  // one per sample
  std::vector<ErrorSet> staticSets;   // one per sample
  std::vector<double> beamError;      // blocks: mark, distribution type, values
  std::vector<std::vector<double>> elementError;  // rows of twenty
  std::vector<int> beamSwitch;        // blocks of thirty: mark, switches
  std::vector<std::vector<int>> elementSwitch;    // rows of twenty: kind, sense, switches
  int elementNumber = 0;
  std::vector<int> onFlag = std::vector<int>(4, 0);
};
