#include "beamline/RFQ.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>

#include "run/HelperFunc.h"
#include "run/Keld.h"
#include "run/OutputFile.h"

namespace {

constexpr double kPi = 3.141592653589793;

double Phase(double frequency, double t, const std::vector<double>& times, const std::vector<double>& phases,
             int cavity) {
  const std::size_t i = static_cast<std::size_t>(cavity);
  const double arrival = cavity >= 0 && i < times.size() ? times[i] : 0.0;
  const double phase = cavity >= 0 && i < phases.size() ? phases[i] : 0.0;
  return 6.283185307179586 * frequency * (t - arrival) + phase / 180.0 * kPi;
}

}  // namespace

// Gamma(k) for the whole numbers the series of orders 0 and 1 meet, taken
// once from the library: the same values as calling it term by term.
static const double* GammaTable() {
  static const struct Table {
    double value[22];
    Table() {
      for (int k = 0; k < 22; ++k) value[k] = std::tgamma(static_cast<double>(k));
    }
  } table;
  return table.value;
}

double Bessin(int n, double x) {
  const double* gamma = GammaTable();
  double sum = 0.0, inverseFactorial = 1.0;
  for (int m = 0; m < 20; ++m) {
    if (m > 0) inverseFactorial /= m;
    const int k = m + n + 1;
    sum += std::pow(x / 2.0, 2 * m + n) * inverseFactorial / (k < 22 ? gamma[k] : std::tgamma(k));
  }
  return sum;
}

double Bessi0(double x) { return Bessin(0, x); }
double Bessi1(double x) { return Bessin(1, x); }

RFQ::RFQ() { type = "drift"; }

void RFQ::SetParameter(double start, std::vector<std::string> const& token) {
  if (!EnoughTokens(token, 6)) return;
  SetBasicParameter(start, token);
  frequency = DeckReal(token.at(5));
  cavityIndex = DeckInteger(token.at(14));
  std::ifstream table(inputFilePath + token.at(7));
  if (!table.is_open()) {
    std::cout << "RFQ Structure path ERROR!" << std::endl;
    std::exit(1);
  }
  std::string line;
  std::vector<std::string> column;
  while (GetDeckLine(table, line)) {
    StringSplit(line, column);
    const double cell = DeckReal(column.at(1)) / 100.0;
    cellLength.push_back(cell);
    cellVoltage.push_back(DeckReal(column.at(2)) * 1000.0);
    cellRadius.push_back(DeckReal(column.at(3)) / 100.0);
    cellColumn4.push_back(DeckReal(column.at(4)));
    std::vector<double> a(8);
    for (int k = 0; k < 8; ++k) a[k] = DeckReal(column.at(6 + k));
    coefficient.push_back(a);
    const double begin = cellStart.empty() ? zStart : cellStart.back() + cellLength[cellLength.size() - 2];
    cellStart.push_back(begin);
    cellEnd.push_back(begin + cell);
  }
  endsAscend = std::is_sorted(cellEnd.begin(), cellEnd.end());
  endsChecked = cellEnd.size();
  std::cout << "RFQ cell number : " << cellLength.size() << std::endl;
  std::cout << "RFQ length      : " << (cellEnd.empty() ? 0.0 : cellEnd.back() - cellStart.front()) << std::endl;
}

int RFQ::getEleNum(double z) {
  // Cells stand end to end, so their ends ascend and the first end not below
  // z is found by halving; a table with a negative length is walked in order.
  if (endsAscend && endsChecked == cellEnd.size()) {
    const auto at = std::lower_bound(cellEnd.begin(), cellEnd.end(), z);
    if (at != cellEnd.end()) return static_cast<int>(at - cellEnd.begin());
  } else {
    for (std::size_t i = 0; i < cellEnd.size(); ++i)
      if (!(z > cellEnd[i])) return static_cast<int>(i);
  }
  std::cout << "Particle in RFQ error: exceed the RFQ length but still in RFQ" << std::endl;
  return -1;
}

double RFQ::getRadius(double z) {
  const int i = getEleNum(z);
  return i < 0 ? 1e99 : cellRadius[i];
}

void BesselPair(double x, double& i0, double& i1) {
  // Term m of I0 is (x/2)^2m / (m!)^2, of I1 (x/2)^(2m+1) / (m! (m+1)!): each
  // follows from the one before by a factor (x/2)^2 / (m m) or / (m (m+1)).
  static const struct Steps {
    double zero[20], one[20];
    Steps() {
      for (int m = 1; m < 20; ++m) zero[m] = 1.0 / (static_cast<double>(m) * m), one[m] = 1.0 / (m * (m + 1.0));
    }
  } steps;
  const double half = x / 2.0, q = half * half;
  double t0 = 1.0, t1 = half, s0 = 1.0, s1 = half;
  for (int m = 1; m < 20; ++m) {
    t0 *= q * steps.zero[m];
    t1 *= q * steps.one[m];
    s0 += t0;
    s1 += t1;
  }
  i0 = s0;
  i1 = s1;
}

// The gradient of (V / 2) times the eight-term potential of the cell. The
// forms are kept exactly as the cell tables were fitted to them: A2 enters
// Er with r^5 / a^6 and Etheta with (r / a)^6, A3 and A7 carry k in Er and Ez
// but not in Etheta, and the alternating sign s is on all but the two purely
// transverse terms. Off the axis the multiples of k zc and theta come from
// one sine and cosine each by the angle-sum rules, the powers by products and
// the Bessel functions by the recurrence of their terms: the same values as
// the library's pow and the series term by term, to a few units of the last
// place.
void RFQ::CellField(int i, double x, double y, double z, double& er, double& etheta, double& ez, double& cosTheta,
                    double& sinTheta) const {
  const std::vector<double>& A = coefficient[i];
  const double V = std::fabs(cellVoltage[i]);
  const double a = cellRadius[i];
  const double zc = z - cellStart[i];
  const double k = 3.141592653589793 / cellLength[i];
  const double s = i % 2 == 0 ? 1.0 : -1.0;
  const double r = std::sqrt(x * x + y * y);
  if (axisLimit > r) {
    // atan2(0, 0) is 0: the direction is x, and the transverse field is 0.
    const double theta = std::atan2(y, x);
    cosTheta = std::cos(theta), sinTheta = std::sin(theta);
    er = 0.0;
    etheta = 0.0;
    ez = -(V / 2.0) * s * k * (A[1] * Bessin(0, k * r) * std::cos(k * zc) + 3.0 * A[6] * std::cos(3.0 * k * zc));
    return;
  }
  const double c1 = std::cos(k * zc), s1 = std::sin(k * zc);
  const double c2 = c1 * c1 - s1 * s1, s2 = 2.0 * s1 * c1;
  const double c3 = c2 * c1 - s2 * s1, s3 = s2 * c1 + c2 * s1;
  const double ct = x / r, st = y / r;
  const double cos2 = ct * ct - st * st, sin2 = 2.0 * st * ct;
  const double cos4 = cos2 * cos2 - sin2 * sin2, sin4 = 2.0 * sin2 * cos2;
  const double cos6 = cos4 * cos2 - sin4 * sin2, sin6 = sin4 * cos2 + cos4 * sin2;
  cosTheta = ct, sinTheta = st;
  const double ra = r / a, a2 = a * a, r2 = r * r, ra2 = ra * ra;
  const double r5 = r2 * r2 * r, a6 = a2 * a2 * a2, ra6 = ra2 * ra2 * ra2;
  double i0, i1;
  BesselPair(k * r, i0, i1);
  er = (V / 2.0) * (2.0 * A[0] * r / a2 * cos2 + 6.0 * A[2] * r5 / a6 * cos6 +
                    s * k *
                        (A[1] * i1 * s1 + 3.0 * A[6] * s3 + A[3] * s1 * cos4 + 3.0 * A[7] * s3 * cos4 +
                         2.0 * A[4] * s2 * cos2 + 2.0 * A[5] * s2 * cos6));
  etheta = -(V / (2.0 * r)) * (2.0 * A[0] * ra2 * sin2 + 6.0 * A[2] * ra6 * sin6 +
                               s * (4.0 * A[3] * s1 * sin4 + 4.0 * A[7] * s3 * sin4 + 2.0 * A[4] * s2 * sin2 +
                                    6.0 * A[5] * s2 * sin6));
  ez = s * (V / 2.0) * k *
       (A[1] * i0 * c1 + 3.0 * A[6] * c3 + A[3] * c1 * cos4 + 3.0 * A[7] * c3 * cos4 + 2.0 * A[4] * c2 * cos2 +
        2.0 * A[5] * c2 * cos6);
}

double RFQ::AxialAmplitude(int i, double z) const {
  const std::vector<double>& A = coefficient[i];
  const double V = std::fabs(cellVoltage[i]);
  const double zc = z - cellStart[i];
  const double k = 3.141592653589793 / cellLength[i];
  const double s = i % 2 == 0 ? 1.0 : -1.0;
  return -(V / 2.0) * s * k * (A[1] * Bessin(0, k * 0.0) * std::cos(k * zc) + 3.0 * A[6] * std::cos(3.0 * k * zc));
}

void RFQ::GetField(double t, Particle& particle, FieldMatrix const& fieldM) {
  const double* c = particle.coordinate;
  double* f = particle.externalField;
  const int i = getEleNum(c[4]);
  if (i < 0) {
    // Past the last cell the field is nothing, not the tables at -1.
    for (int k = 0; k < 3; ++k) f[k] = zeroField[k], f[3 + k] = zeroField[k];
    return;
  }
  double er, etheta, ez, cosTheta, sinTheta;
  CellField(i, c[0], c[2], c[4], er, etheta, ez, cosTheta, sinTheta);
  const double time = std::cos(Phase(frequency, t, fieldM.time, fieldM.phase, cavityIndex));
  f[0] = (er * cosTheta - etheta * sinTheta) * time;
  f[1] = (er * sinTheta + etheta * cosTheta) * time;
  f[2] = ez * time;
  for (int k = 0; k < 3; ++k) f[3 + k] = zeroField[k];
}

void RFQ::GetSynField(double t, SynParticle& particle) {
  const double z = particle.coordinate[4];
  const int i = z > zStart + length ? -1 : getEleNum(z);
  if (i < 0) {
    particle.electricField.assign(3, 0.0);
    particle.magneticField.assign(3, 0.0);
    return;
  }
  const double amplitude = AxialAmplitude(i, z);
  const double phi = Phase(frequency, t, particle.timeList, particle.phaseList, cavityIndex);
  particle.electricField.assign({0.0, 0.0, amplitude * std::cos(phi)});
  particle.magneticField.assign(3, 0.0);
  particle.axialField = amplitude;
}

void RFQ::GetField(double t, SynParticle& particle, FieldMatrix const&) {
  std::vector<double>& q = particle.coordinate;
  const std::size_t cells = cellEnd.size();
  if (cells == 0) {
    // An RFQ that was never configured has no cells to pass.
    particle.electricField.assign(3, 0.0);
    particle.magneticField.assign(3, 0.0);
    return;
  }
  auto kinetic = [&]() { return (std::sqrt(1.0 + q[5] * q[5]) - 1.0) * particle.restEnergy; };
  const double dt = 0.05 / frequency / 500.0;
  std::cout << "RFQ entrance time " << t << "  energy " << kinetic() << std::endl;
  std::vector<double> phases, momenta, energies;
  double sc = 0.0, ss = 0.0;
  for (std::size_t i = 0; i < cells;) {
    const double z0 = q[4], p0 = q[5];
    GetSynField(t, particle);
    particle.Update(dt);
    const double phi = Phase(frequency, t, particle.timeList, particle.phaseList, cavityIndex);
    const double G = particle.axialField;
    if (!(q[4] > cellEnd[i])) {
      if (!(q[5] > 0.0)) {
        // Stopped or turned back: no exit to reach on this half-wave.
        q[1] = 1.0;
        return;
      }
      sc += G * std::cos(phi) * (q[4] - z0);
      ss += G * std::sin(phi) * (q[4] - z0);
      t += dt;
      continue;
    }
    const double f = (cellEnd[i] - z0) / (q[4] - z0);
    q[4] = (q[4] - z0) * f + z0 + 1e-15;
    q[5] = (q[5] - p0) * f + p0;
    sc += G * std::cos(phi) * (q[4] - z0);
    ss += G * std::sin(phi) * (q[4] - z0);
    phases.push_back(sc == 0.0 ? -90.0 : std::atan(ss / sc) / 3.141592653589793 * 180.0);
    momenta.push_back(q[5]);
    energies.push_back(kinetic());
    if (momenta.size() > 1 && momenta.back() < momenta[momenta.size() - 2]) {
      q[1] = 1.0;  // energy lost over a cell: the scan tries the other half-wave
      return;
    }
    ++i;
    t += f * dt;
    sc = ss = 0.0;
  }
  std::cout << "RFQ exit time " << t << "  energy " << kinetic() << std::endl;
  if (q[1] == 1.0) return;
  q[0] = t;
  std::ostringstream out;
  out << std::fixed << std::setprecision(10);
  for (std::size_t i = 0; i < phases.size(); ++i) out << phases[i] << "   " << energies[i] << "\n";
  WriteOutput(outputFilePath + "RFQsynPhaseEG.txt", out.str(), WriteStage::kSetUp);
}
