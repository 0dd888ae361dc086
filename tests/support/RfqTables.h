#pragma once
// A consistent pair of RFQ input tables for tests: rfqinputV.txt (geometry and
// voltage) and rfqinputAnn.txt (coefficients) of a short proton RFQ whose
// cells are matched to the design particle: each cell is as long as the
// particle travels in half a period plus the phase slip that takes it from
// the synchronous phase of this cell to that of the next.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace keldtest {

struct RfqDesign {
  double frequency = 352.2e6;  // Hz
  double voltage = 80.0;       // kV
  double energy = 0.05;        // MeV, protons at the entrance
  int cells = 8;
  double a1First = 0.03, a1Last = 0.06;      // accelerating term A1
  double phaseFirst = -60.0, phaseLast = -30.0;  // deg, synchronous phase
  double aperture = 0.3;                     // cm
  // Filled by WriteRfqTables: per cell, A1, phase (deg), entry energy, expected gain (MeV), length (m).
  std::vector<double> a1, phase, entryEnergy, gain, length;
};

// Gain of one cell: (pi / 4) q A1 V cos(phi_s).
inline double RfqCellGain(double a1, double voltageKilovolt, double phaseDeg) {
  return 3.141592653589793 / 4.0 * a1 * voltageKilovolt / 1000.0 * std::cos(phaseDeg / 180.0 * 3.141592653589793);
}

inline void WriteRfqTables(const std::string& folder, RfqDesign& d) {
  const double rest = 938.272029, c = 299792458.0, lambda = c / d.frequency;
  std::string v, ann;
  double w = d.energy, z = 0.0;
  d.a1.clear(), d.phase.clear(), d.entryEnergy.clear(), d.gain.clear(), d.length.clear();
  for (int i = 0; i < d.cells; ++i) {
    const double f = d.cells > 1 ? static_cast<double>(i) / (d.cells - 1) : 0.0;
    const double a1 = d.a1First + f * (d.a1Last - d.a1First);
    const double phase = d.phaseFirst + f * (d.phaseLast - d.phaseFirst);
    const double next = d.phaseFirst + std::min(1.0, (i + 1.0) / std::max(1, d.cells - 1)) * (d.phaseLast - d.phaseFirst);
    const double dw = RfqCellGain(a1, d.voltage, phase);
    const double g = 1.0 + (w + 0.5 * dw) / rest, beta = std::sqrt(1.0 - 1.0 / (g * g));
    const double slip = (next - phase) / 180.0 * 3.141592653589793;
    const double length = beta * lambda * (3.141592653589793 + slip) / (2.0 * 3.141592653589793);
    d.a1.push_back(a1), d.phase.push_back(phase), d.entryEnergy.push_back(w), d.gain.push_back(dw);
    d.length.push_back(length);
    char line[512];
    // cell, V (kV), -, -, profile, -, column 5, aperture (cm), column 4, -, -, -, length (cm), position (cm)
    std::snprintf(line, sizeof line, "%d %.6f 0 0 %.6f 0 %d %.6f %.6f 0 0 0 %.8f %.8f\n", i, d.voltage,
                  d.voltage / 100.0, i + 100, d.aperture, 1.0 + 0.01 * i, length * 100.0, (z + length) * 100.0);
    v += line;
    // -, -, -, -, -, A1, A0, A3, A2, A6, A4, A7, A5
    std::snprintf(line, sizeof line, "0 0 0 0 0 %.6f 0.5 0 0 0 0 0 0\n", a1);
    ann += line;
    w += dw;
    z += length;
  }
  std::ofstream(folder + "/rfqinputV.txt") << v;
  std::ofstream(folder + "/rfqinputAnn.txt") << ann;
}

}  // namespace keldtest
