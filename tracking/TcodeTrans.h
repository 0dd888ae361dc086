#pragma once
#include <array>
#include <vector>

#include "beam/Beam.h"
#include "beamline/Lattice.h"
#include "run/ErrorSample.h"
#include "tracking/CrossingTable.h"

using PreviousTable = std::vector<std::array<double, 6>>;

// Partial sums of one thread range. Each range writes only its own entry,
// and entries are padded to a cache line so that ranges never share one.
struct alignas(64) RangeAccumulator {
  double absMax[6];     // largest |deviation| of x, x', y, y', z, d
  double sumSquare[6];  // sums of their squares
  double sumCross[3];   // x x', y y', z d
  double sumValue[6];   // relative coordinates after the push
  double sumRestLength; // (gamma dz)^2
  double rangeZMin;
  double rangeZMax;
  int aliveCount;
  int crossedCount;  // crossings of the rotated plane
  int passedCount;   // slots that have crossed exactly one stop of this call

  void Reset() {
    for (int k = 0; k < 6; ++k) absMax[k] = sumSquare[k] = sumValue[k] = 0.0;
    sumCross[0] = sumCross[1] = sumCross[2] = 0.0;
    sumRestLength = 0.0;
    rangeZMin = 1e10;
    rangeZMax = -1e10;
    aliveCount = crossedCount = passedCount = 0;
  }
};

// Advances slots [first, end) by one time step. In the same pass: statistics
// of the state before the push, the push itself, relative coordinates in the
// frame of the statistics, the external field for the next step, crossings of
// the current stop into planeCrossing and of a rotated plane into
// curveCrossing. `time` is the time at the end of the step. No allocation.
void TcodeTrans(Lattice& lattice, Beam& beam, double startPlane, ErrorSample& sample,
                const std::vector<double>& stopZ, CrossingTable& planeCrossing, CrossingTable& curveCrossing,
                PreviousTable& previous, double time, double timeStep, const double* referenceCoordinate,
                std::vector<RangeAccumulator>& accumulators, double gamma, int range, int first, int end);
