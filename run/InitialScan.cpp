// The phase scan: one synchronous particle flown through the lattice finds,
// cavity by cavity, the entrance phase that gives the wanted synchronous
// phase.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "beam/PhysicalConstants.h"
#include "beam/SynParticle.h"
#include "beamline/PlaneFrame.h"
#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "run/OutputFile.h"

namespace {

using constants::kLightSpeed;
using constants::kPi;

constexpr int kTrials = 21;  // entrance phases -180, -162, ..., 180 deg
constexpr double kSlowestFlight = 1000.0;  // times the flight time at the entry speed
// Steps of the synchronous particle that a scan may take: a few seconds each
// hundred million.
constexpr double kMaxScanSteps = 1e9;

double Kinetic(const SynParticle& syn) {
  const double g = syn.coordinate[5];
  return (std::sqrt(1.0 + g * g) - 1.0) * syn.restEnergy;
}

// Fills the phase tables from a scan table: entrance phase, then arrival time.
void ReadScanTable(std::ifstream& in, FieldMatrix& fieldM) {
  std::string line;
  std::vector<std::string> field;
  for (int lineNumber = 1; GetDeckLine(in, line); ++lineNumber) {
    StringSplit(line, field);
    if (field.empty()) continue;
    try {
      if (field.size() < 2) throw std::out_of_range("one value");
      const double phase = DeckReal(field[0]), time = DeckReal(field[1]);
      fieldM.phase.push_back(phase);
      fieldM.time.push_back(time);
    } catch (const DeckValueError& e) {
      Initial::errorOut("scanData.txt line " + std::to_string(lineNumber) + ": " + e.what() + " in \"" + line + "\"");
    } catch (const std::out_of_range&) {
      Initial::errorOut("scanData.txt line " + std::to_string(lineNumber) +
                        ": a cavity line needs an entrance phase and an arrival time, in \"" + line + "\"");
    }
  }
}

// Radio-frequency elements of the lattice: the places of the phase tables.
std::size_t CavityCount(const Lattice& lattice) {
  std::size_t count = 0;
  for (const Element* e : lattice.element) {
    const std::vector<std::string>& token = e->parameter;
    if (token.size() > 14 && (token[0] == "field" || token[0] == "rfq") && DeckReal(token[5]) != 0.0)
      count = std::max(count, static_cast<std::size_t>(DeckInteger(token[14])) + 1);
  }
  return count;
}

// One cavity's worth of the scan, with the particle's entry state kept.
class CavityScan {
 public:
  CavityScan(SynParticle& syn, Lattice& lattice, int element, double dt, double stepLimit)
      : syn_(syn), lattice_(lattice), element_(element), dt_(dt), stepLimit_(stepLimit) {
    const std::vector<std::string>& token = lattice.element[element]->parameter;
    omega_ = constants::kTwoPi * DeckReal(token.at(5));
    wanted_ = DeckReal(token.at(6));
    cavity_ = DeckInteger(token.at(14));
    start_ = lattice.zStart[element];
    end_ = lattice.zEnd[element];
    z0_ = syn.coordinate[4];
    g0_ = syn.coordinate[5];
    // A flight that takes a thousand times as long as at the entry speed has
    // been stopped or turned back by the field; without this bound it would
    // go on for all of runperiod, minutes of stepping.
    const double speed = constants::kLightSpeed * g0_ / std::sqrt(1.0 + g0_ * g0_);
    const double flightSteps = kSlowestFlight * (end_ - start_) / speed / dt_;
    stalled_ = flightSteps < stepLimit_;
    if (stalled_) stepLimit_ = flightSteps;
  }

  int cavity() const { return cavity_; }
  double wanted() const { return wanted_; }
  double frequency() const { return omega_ / constants::kTwoPi; }

  // Puts the entry state back and flies through the cavity with entrance
  // phase `phase` (deg). Returns the synchronous phase in degrees: the phase
  // of the sum of exp(i a) Ez dz along the flight. `exitNudge` keeps the exit
  // point inside the next element.
  double Fly(double phase, double t0, double exitNudge, double& gExit) {
    std::vector<double>& q = syn_.coordinate;
    q.assign({0.0, 0.0, 0.0, 0.0, z0_, g0_});
    syn_.indexElem = element_;
    syn_.phaseList[cavity_] = phase;
    double t = t0, c = 0.0, s = 0.0, zOld = z0_, gOld = g0_;
    double a = phase / 180.0 * kPi;
    for (double steps = 0.0;; ++steps) {
      if (steps > stepLimit_) StepLimitStop();
      syn_.GetField(t, lattice_);
      zOld = q[4];
      gOld = q[5];
      syn_.Update(dt_);
      if (q[4] > end_) break;
      a = phase / 180.0 * kPi + omega_ * (t - t0);
      c += std::cos(a) * syn_.axialField * (q[4] - zOld);
      s += std::sin(a) * syn_.axialField * (q[4] - zOld);
      t += dt_;
    }
    const double f = (end_ - zOld) / (q[4] - zOld);
    q[4] = (q[4] - zOld) * f + zOld + exitNudge;
    q[5] = (q[5] - gOld) * f + gOld;
    // The last part-step enters with the fraction taken twice, as it always has.
    c += std::cos(a) * syn_.axialField * f * (q[4] - zOld);
    s += std::sin(a) * syn_.axialField * f * (q[4] - zOld);
    gExit = q[5];
    return std::atan(s / c) / kPi * 180.0;
  }

  // The last flight with the phase found: the particle leaves the cavity for
  // good, with its time.
  void FinalFlight(double phase, double& t) {
    std::vector<double>& q = syn_.coordinate;
    q.assign({0.0, 0.0, 0.0, 0.0, z0_, g0_});
    syn_.indexElem = element_;
    syn_.phaseList[cavity_] = phase;
    std::cout << "Entry  time " << t << "  Entering energy " << Kinetic(syn_) << std::endl;
    double zOld = z0_, gOld = g0_;
    for (double steps = 0.0;; ++steps) {
      if (steps > stepLimit_) StepLimitStop();
      syn_.GetField(t, lattice_);
      zOld = q[4];
      gOld = q[5];
      syn_.Update(dt_);
      t += dt_;
      if (q[4] > end_) break;
      if (q[4] < start_) Initial::errorOut("Synchronous particle reverse motion, program stopped");
    }
    const double f = (end_ - zOld) / (q[4] - zOld);
    q[4] = (q[4] - zOld) * f + zOld + 1e-13;
    q[5] = (q[5] - gOld) * f + gOld;
    t = t - dt_ + f * dt_;
    std::cout << "Export time " << t << "    Export energy " << Kinetic(syn_) << std::endl;
  }

 private:
  [[noreturn]] void StepLimitStop() const {
    Initial::errorOut("The synchronous particle does not leave cavity " + std::to_string(cavity_ + 1) +
                      (stalled_ ? " within 1000 times its flight time at the entry speed"
                                : " within the scan's step limit (runperiod)") +
                      "; its field stops or turns it back");
  }

  SynParticle& syn_;
  Lattice& lattice_;
  int element_;
  double dt_, stepLimit_;
  bool stalled_ = false;  // the step limit is the stalled flight's, not runperiod's
  double omega_ = 0.0, wanted_ = 0.0;
  int cavity_ = 0;
  double start_ = 0.0, end_ = 0.0, z0_ = 0.0, g0_ = 0.0;
};

bool Distinct(double p, double q) {
  const double d = std::fabs(p - q);
  return d >= 90.0 && std::fabs(d - 360.0) > 0.5;
}

// The bracket around index i on a rising branch of the exit momentum: the
// neighbour on the side of the wanted phase. False when there is none.
bool BracketOf(int i, const double* S, const double* G, double T, int& low, int& high) {
  if (S[i] < T && i + 1 < kTrials && G[i + 1] - G[i] > 0.0) {
    low = i, high = i + 1;
    return true;
  }
  if (S[i] > T && i - 1 >= 0 && G[i] - G[i - 1] > 0.0) {
    low = i - 1, high = i;
    return true;
  }
  return false;
}

// An RFQ takes the synchronous particle through all its cells in one call.
// Its entrance phase puts the first cell's field at its crest (cos phi = 1 at
// pi/2 - o); if the particle loses energy on that half-wave, the other one.
void ScanRFQ(SynParticle& syn, Lattice& lattice, int element, double& t) {
  const std::vector<std::string>& token = lattice.element[element]->parameter;
  const double frequency = DeckReal(token.at(5));
  const int cavity = DeckInteger(token.at(14));
  std::vector<double>& q = syn.coordinate;
  if (static_cast<int>(syn.timeList.size()) <= cavity) syn.timeList.resize(cavity + 1, 0.0);
  if (static_cast<int>(syn.phaseList.size()) <= cavity) syn.phaseList.resize(cavity + 1, 0.0);
  const double o = 2.0 * kPi * frequency * t;
  const double z0 = q[4], g0 = q[5];
  syn.timeList[cavity] = t;
  syn.phaseList[cavity] = (kPi / 2.0 - o) / kPi * 180.0;
  std::cout << "RFQ Complete phase scanning, phi_0:" << syn.phaseList[cavity] << "  frequency is " << frequency
            << std::endl;
  syn.GetField(t, lattice);
  if (q[1] == 1.0) {
    q[1] = 0.0;
    q[4] = z0;
    q[5] = g0;
    syn.timeList[cavity] = t;
    syn.phaseList[cavity] = (-kPi / 2.0 - o) / kPi * 180.0;
    std::cout << "RFQ Rescan phase,phi_0:" << syn.phaseList[cavity] << "  frequency is " << frequency << std::endl;
    syn.GetField(t, lattice);
    if (q[1] == 1.0) Initial::errorOut("RFQ scanning phase abnormality");
  }
  t = q[0];
  q[0] = 0.0;
}

}  // namespace

void Initial::CheckScanSteps(const Lattice& lattice, const SynParticle& syn, double dt) const {
  // One flight along the lattice and 28 more through each cavity, at the
  // entry speed: a bound on the scan's steps that the settings ask for.
  const double g = syn.coordinate[5];
  const double speed = kLightSpeed * g / std::sqrt(1.0 + g * g);
  double length = lattice.zEnd.empty() ? 0.0 : lattice.zEnd.back();
  for (std::size_t i = 0; i < lattice.element.size(); ++i) {
    const Element* e = lattice.element[i];
    if (e->type == "field" && DeckReal(e->parameter.at(5)) != 0.0)
      length += (kTrials + 7) * (lattice.zEnd[i] - lattice.zStart[i]);
  }
  const double steps = length / speed / dt;
  if (!(steps > kMaxScanSteps)) return;
  errorOut("The phase scan would take about " + FormatNumber(steps) + " steps with steppercycle " +
           FormatNumber(stepPerCycle) + " and scantstep " + FormatNumber(scanTStep) +
           "; at most 1e+09 are allowed, raise scantstep or lower steppercycle");
}

int Initial::SetSynPhase(Lattice& lattice) {
  FieldMatrix& fieldM = lattice.fieldM;
  if (scanPhase == 0) return 0;
  if (scanPhase == 2) {
    std::ifstream in;
    if (IsFolder(inputFilePath + "scanData.txt"))
      errorOut("scanData.txt in the input folder is a folder, not a file");
    in.open(inputFilePath + "scanData.txt");
    if (!in.is_open()) errorOut("scan phase file read error, check scanData.txt");
    const std::size_t before = fieldM.phase.size();
    ReadScanTable(in, fieldM);
    // A table from another lattice would leave cavities without a phase.
    const std::size_t cavities = CavityCount(lattice), read = fieldM.phase.size() - before;
    if (read < cavities)
      errorOut("scanData.txt holds " + std::to_string(read) + " cavities, but the lattice has " +
               std::to_string(cavities) + ": cavity " + std::to_string(read + 1) +
               " has no phase; scan again (scanphase 1)");
    return 0;
  }

  std::cout << "Start scan phase...." << std::endl;
  SynParticle syn;
  syn.SetUpSynParticle(particleDistributionPath, numOfCharge, atomicMass, inputFilePath, secondaryBeam);
  syn.dimension = 0;
  CheckScanSteps(lattice, syn, scanTStep / syn.frequency / stepPerCycle);
  OutputText scanLog(outputFilePath + "scanPhaseData.txt", WriteStage::kSetUp);
  OutputText phaseLog(outputFilePath + "Phase.txt", WriteStage::kSetUp);
  scanLog << std::fixed << std::setprecision(10);
  phaseLog << std::fixed << std::setprecision(13);

  const double dt = scanTStep / syn.frequency / stepPerCycle;
  const double stepLimit = stepPerCycle * runPeriod / scanTStep;
  std::vector<double>& q = syn.coordinate;
  const double zLast = lattice.zEnd.empty() ? 0.0 : lattice.zEnd.back();
  double t = 0.0, zOld = q[4], gOld = q[5];
  bool ended = false;

  auto plainStep = [&]() {
    zOld = q[4];
    gOld = q[5];
    syn.GetField(t, lattice);
    syn.Update(dt);
    t += dt;
  };

  for (double steps = 0.0; !ended && !(q[4] > zLast) && steps < stepLimit; ++steps) {
    const double z = q[4];
    if (z < 0.0 || z >= zLast) {
      plainStep();
      continue;
    }
    int& i = syn.indexElem;
    while (z >= lattice.zEnd[i]) ++i;
    while (z < lattice.zStart[i]) --i;
    Element* e = lattice.element[i];
    if (e->type != "field" && e->type != "rfq") {
      plainStep();
      continue;
    }
    if (DeckReal(e->parameter.at(5)) == 0.0) {
      // Static step: through a curved stretch the particle moves in all
      // three planes and is caught at the rotated plane that closes it.
      zOld = q[4];
      gOld = q[5];
      const std::vector<double> before = q;
      syn.GetField(t, lattice);
      if (e->outputMark != 0) syn.dimension = 1;
      syn.Update(dt);
      t += dt;
      if (lattice.planeIndex < static_cast<int>(lattice.outputPlane.size()) && e->outputMark != 0) {
        // The plane's frame is the one the bunch crosses: the design particle
        // goes on behind it with its momentum turned into the new axis.
        const std::vector<double>& plane = lattice.outputPlane[lattice.planeIndex];
        double at[6], f;
        if (PlaneFrame(plane).Crossing(lattice.zStart[i], before.data(), q.data(), at, f)) {
          q.assign(at, at + 6);
          q[4] = plane[6];
          t = t - dt + f * dt;
          if (plane[6] == zLast) {
            ended = true;
            continue;
          }
          syn.dimension = 0;
          lattice.planeIndex += 1;
        }
      }
      continue;
    }

    // Entry: the last step overshot the start of the element.
    if (q[4] != zOld) {
      const double f = (lattice.zStart[i] - zOld) / (q[4] - zOld);
      q[4] = (q[4] - zOld) * f + zOld + 1e-15;
      q[5] = (q[5] - gOld) * f + gOld;
      t = t - dt + f * dt;
    }
    if (e->type == "rfq") {
      ScanRFQ(syn, lattice, i, t);
      zOld = q[4];
      gOld = q[5];
      continue;
    }

    CavityScan scan(syn, lattice, i, dt, stepLimit);
    const int cavity = scan.cavity();
    const double T = scan.wanted();
    if (cavity < 0) errorOut("Cavity index " + std::to_string(cavity) + " of lattice element " + std::to_string(i));
    if (static_cast<int>(syn.timeList.size()) <= cavity) syn.timeList.resize(cavity + 1, 0.0);
    if (static_cast<int>(syn.phaseList.size()) <= cavity) syn.phaseList.resize(cavity + 1, 0.0);
    const double t0 = t;
    syn.timeList[cavity] = t0;
    syn.phaseList[cavity] = -180.0;
    const double entryEnergy = Kinetic(syn);
    phaseLog << cavity + 1 << "  " << t0 << "  " << q[4] << "  " << entryEnergy << "\n" << std::flush;
    const double g0 = q[5];

    // Coarse pass over the whole turn.
    double P[kTrials], S[kTrials], G[kTrials];
    for (int n = 0; n < kTrials; ++n) {
      P[n] = -180.0 + 18.0 * n;
      S[n] = scan.Fly(P[n], t0, 1e-15, G[n]);
      scanLog << "Entrance phase " << P[n] << " Synchronous phase" << S[n] << "  Energy of entry" << entryEnergy
              << "  Export energy" << Kinetic(syn) << "\n";
    }
    if (!std::isfinite(S[0]))
      errorOut("The field of cavity " + std::to_string(cavity + 1) +
               " gives the synchronous particle no longitudinal kick: its phase cannot be scanned");

    // The best and the second-best trial, on different branches of S(P).
    int best = -1, second = -1;
    double bestDiff = 1e10, secondDiff = 1e10;
    for (int n = 0; n < kTrials; ++n) {
      const double d = std::fabs(S[n] - T);
      if (!(d < secondDiff)) continue;
      if (d < bestDiff) {
        if (best < 0 || !Distinct(P[n], P[best])) {
          best = n, bestDiff = d;
        } else {
          second = best, secondDiff = bestDiff;
          best = n, bestDiff = d;
        }
      } else if (Distinct(P[n], P[best])) {
        second = n, secondDiff = d;
      }
    }
    // The first and last trials are the same phase.
    const int L = kTrials - 1;
    auto seam = [&](int& k) {
      if (k == 0 && S[0] > T) k = L;
      else if (k == L && S[L] < T) k = 0;
    };
    if (best >= 0) seam(best);
    if (second >= 0) seam(second);
    int low = 0, high = 0;
    double pl = 0.0, sl = 0.0, ph = 0.0, sh = 0.0;
    bool decelerates = false;
    auto take = [&](int lo, int hi) { pl = P[lo], sl = S[lo], ph = P[hi], sh = S[hi]; };
    const bool bestBracket = best >= 0 && BracketOf(best, S, G, T, low, high);
    if (!bestBracket) {
      if (second >= 0 && BracketOf(second, S, G, T, low, high)) take(low, high);
    } else if (G[best] >= g0) {
      take(low, high);
    } else {
      int lowC = 0, highC = 0;
      if (second >= 0 && G[second] > g0 && BracketOf(second, S, G, T, lowC, highC)) {
        take(lowC, highC);
      } else {
        take(low, high);
        decelerates = true;
      }
    }
    if (pl == 0.0 && sl == 0.0 && ph == 0.0 && sh == 0.0)
      errorOut("Scan phase error, unexpected situation, check code");
    if (decelerates) std::cout << "Note that the energy of the particle decreases after it passes through the cavity"
                               << std::endl;

    // Secant refinement inside the bracket.
    double p = pl, s = sl;
    if (sl == T) {
      p = pl, s = sl;
    } else if (sh == T) {
      p = ph, s = sh;
    } else {
      if (std::fabs(sl - T) > 90.0)
        sl -= 180.0;
      else if (std::fabs(sh - T) > 90.0)
        sh = ph + 180.0;  // kept as it has always been: adds to the phase
      for (int k = 0; k < 6; ++k) {
        p = (T - sl) * (ph - pl) / (sh - sl) + pl;
        double gExit;
        s = scan.Fly(p, t0, 1e-13, gExit);
        bool hit = false;
        if (!(std::fabs(s - T) > 90.0)) {
          if (s == T) hit = true;
          else if (s > T) ph = p, sh = s;
          else pl = p, sl = s;
        } else if (s < T) {
          ph = p, sh = s + 180.0;
        } else if (s > T) {
          pl = p, sl = s - 180.0;
        }
        scanLog << "Entrance phase " << p << " Synchronous phase" << s << " Energy of entry " << entryEnergy
                << " Export energy " << Kinetic(syn) << "\n";
        if (hit) break;
      }
      if (!std::isfinite(p) || !std::isfinite(s))
        errorOut("The phase scan of cavity " + std::to_string(cavity + 1) + " did not converge to the wanted phase " +
                 FormatNumber(T) + " deg");
    }
    scanLog << std::string(99, '*') << "\n";
    std::cout << "The " << cavity + 1 << " field, phi_0:" << p << "    phi_s:" << s << "  Frequency is "
              << scan.frequency() << std::endl;
    syn.phaseList[cavity] = p;
    scan.FinalFlight(p, t);
    syn.indexElem += 1;
    phaseLog << cavity + 1 << "  " << t << "  " << q[4] << "  " << Kinetic(syn) << "\n" << std::flush;
    zOld = q[4];
    gOld = q[5];
  }

  // A scan stopped by its step limit would leave the cavities behind that
  // point unphased and the run would track with the deck's phases.
  if (!ended && !(q[4] > zLast)) {
    for (std::size_t i = 0; i < lattice.element.size(); ++i) {
      const Element* e = lattice.element[i];
      if (e->type != "field" || DeckReal(e->parameter.at(5)) == 0.0 || !(lattice.zEnd[i] > q[4])) continue;
      errorOut("The phase scan stops at z = " + FormatNumber(q[4]) + " m when runperiod " + std::to_string(runPeriod) +
               " periods have passed, before the cavity at " + FormatNumber(lattice.zStart[i]) +
               " m; raise runperiod");
    }
  }
  scanLog << "************************************************end******************************************************"
          << "\n";
  scanLog.close();
  phaseLog.close();
  lattice.planeIndex = 0;
  for (const std::string& folder : {inputFilePath, outputFilePath}) {
    // Written whole under another name and then renamed, so that the runs of
    // a study spread over processes, which all write the same table into the
    // same input folder, never read one half-written.
    const std::string name = folder + "scanData.txt", part = name + "." + std::to_string(getpid());
    std::ostringstream out;
    for (std::size_t k = 0; k < syn.phaseList.size(); ++k)
      out << std::fixed << std::setprecision(10) << syn.phaseList[k] << "   " << std::setprecision(20)
          << syn.timeList[k] << "\n";
    WriteOutput(part, out.str(), WriteStage::kSetUp);
    if (std::rename(part.c_str(), name.c_str()) != 0)
      errorOut("The phase table " + part + " cannot be renamed to " + name + ": " + std::strerror(errno));
  }
  std::cout << "Scan phase data saved, ready to start multi-particle operation" << std::endl;
  std::ifstream back(inputFilePath + "scanData.txt");
  if (!back.is_open()) errorOut("Scan phase file reading error");
  ReadScanTable(back, fieldM);
  return 0;
}
