#pragma once
#include <vector>

#include "beam/Beam.h"
#include "spacecharge/Mesh.h"

// The particle-in-cell solver object of one run. This build carries its
// settings, counters and time accounts; the self-field solvers themselves are
// not part of it yet, and a run refuses to start with space charge on.
class PIC {
 public:
  int callCount = 0;   // calls of the solve-cadence test
  int solveCount = 0;  // solves actually made
  double kernelMode = 1.0;
  // Microseconds spent in: deposition, deposition reduction, kernel table,
  // convolution, convolution reduction, gradient, gather.
  double timeWeight = 0.0;
  double timeWeightReduce = 0.0;
  double timeTable = 0.0;
  double timeConvolution = 0.0;
  double timeConvolutionReduce = 0.0;
  double timeGradient = 0.0;
  double timeAllocate = 0.0;
  int lpBoundary = 0;
  double scMethod = 1.0;  // 0.0 FFT, otherwise S-PICNIC

  PIC() = default;
  PIC(Mesh& mesh, Beam& beam, std::vector<double>& parameters, int lpBoundaryIn);
};
