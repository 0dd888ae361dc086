#pragma once
#include <string>
#include <vector>

class Lattice;

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
  // The design particle at the start of the beamline: its energy from the
  // distribution file `kind` (binary form, mode 0) or from beam.txt in the
  // folder `path`. The mass follows from the rest energy read.
  void SetUpSynParticle(std::string kind, double chargeNumber, double massNumber, std::string path, int mode);
  // The field of the element the particle stands in; none outside the
  // tracked stretch.
  void GetField(double t, Lattice& lattice);
};
