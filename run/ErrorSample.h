#pragma once
#include <vector>

// An error set: row 0 belongs to the beam, row i + 1 to lattice element i.
using ErrorSet = std::vector<std::vector<double>>;

// One sample of an error study, handed to the beam set-up and the tracking.
struct ErrorSample {
  std::vector<int> onFlag = std::vector<int>(4, 0);  // static beam, dynamic beam, static element, dynamic element
  ErrorSet dynamicSet;
  ErrorSet staticSet;
  int sampleNumber = 0;   // from 1
  int errorSelector = 0;
};
