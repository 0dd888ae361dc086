#pragma once
// A field-free beamline and a cold bunch for the benchmarks.
#include <cmath>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"

namespace keldbench {

// `count` drifts of `length` metres end to end, closed by a plane at the end.
inline void MakeDriftLattice(Lattice& lattice, int count, double length) {
  for (int k = 0; k < count; ++k)
    lattice.SetElement({"drift", std::to_string(length), "1.0", "0"}, new Drift());
  std::vector<double> closing(7, 0.0);
  closing[6] = lattice.zEnd.back();
  lattice.outputPlane.push_back(closing);
}

// N protons of gamma beta z `gbz` spread over [-spread, 0] in z with small
// transverse offsets, plus a reference slot at the centre.
inline void MakeBunch(Beam& beam, int N, double gbz, double spread) {
  beam.particleNumber = N;
  beam.particle = new Particle[N + 1]();
  beam.frequency = 352.2e6;
  for (int i = 0; i <= N; ++i) {
    Particle& p = beam.particle[i];
    const double u = (i + 0.5) / N;
    p.coordinate[0] = 1e-3 * std::sin(12.9898 * i);
    p.coordinate[1] = 1e-4 * std::cos(78.233 * i);
    p.coordinate[2] = 1e-3 * std::cos(39.3468 * i);
    p.coordinate[3] = 1e-4 * std::sin(11.135 * i);
    p.coordinate[4] = i == N ? -0.5 * spread : -spread * u;
    p.coordinate[5] = gbz;
    p.chargeMassRatio = 1.60217653e-19 / 1.67262171e-27;
    p.restEnergy = 938.272029;
    for (int k = 0; k < 6; ++k) p.relativeCoordinate[k] = p.coordinate[k];
  }
  beam.zMin = -spread;
  beam.zMax = 0.0;
}

}  // namespace keldbench
