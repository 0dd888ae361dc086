#pragma once
#include <vector>

// The synchronous particle of the phase scan: one particle with its own
// field vectors, flown alone through the lattice.
class SynParticle {
 public:
  std::vector<double> coordinate;     // x, gbx, y, gby, z, gbz
  std::vector<double> electricField;  // V/m
  std::vector<double> magneticField;  // T
  std::vector<double> phaseList;      // deg, entrance phase per cavity
  std::vector<double> timeList;       // s, arrival time per cavity
  int indexElem = 0;
  int dimension = 0;  // 0: only the longitudinal motion is integrated
  double charge = 0.0;
  double mass = 0.0;
  double chargeMassRatio = 0.0;
  double restEnergy = 0.0;
  double axialField = 0.0;
  double frequency = 0.0;

  SynParticle();
  void Update(double dt);
};
