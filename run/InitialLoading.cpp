// The three ways of loading a bunch instead of generating it: a plain run
// from a binary distribution file, and a secondary beam from such a file or
// from a text list of particles.
#include <algorithm>
#include <cmath>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "beam/PhysicalConstants.h"
#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "run/OutputFile.h"

using namespace constants;

namespace {

// Bytes of the fixed parts of the binary layout: header and rest energy.
constexpr long long kHeaderBytes = 23;
constexpr long long kRowBytes = 48;
// cm: no beam pipe is wider than this.
constexpr double kFarOffAxis = 100.0;

// Enough digits to tell two rest energies apart.
std::string Precise(double value) {
  std::ostringstream s;
  s << std::setprecision(12) << value;
  return s.str();
}

bool AllFinite(const std::vector<double>& values) {
  for (double v : values)
    if (!std::isfinite(v)) return false;
  return true;
}

}  // namespace

void Initial::ReadDistributionFile(const std::string& name, LoadedDistribution& file) {
  std::cout << "Start reading initial beam distribution..." << std::endl;
  if (IsFolder(inputFilePath + name)) errorOut(name + " in the input folder is a folder, not a file");
  std::ifstream in(inputFilePath + name, std::ios::binary);
  if (!in.is_open()) errorOut("The initial bunch distribution file cannot be opened, check particleDistributionPath");
  in.seekg(0, std::ios::end);
  const long long size = static_cast<long long>(in.tellg());
  in.seekg(0, std::ios::beg);
  if (size < kHeaderBytes)
    errorOut(name + ": the distribution file holds " + std::to_string(size) + " bytes, fewer than its 23-byte header");

  in.read(&file.head[0], 2);
  in.read(reinterpret_cast<char*>(&file.count), sizeof file.count);
  in.read(reinterpret_cast<char*>(&file.currentmA), sizeof file.currentmA);
  in.read(reinterpret_cast<char*>(&file.frequencyMHz), sizeof file.frequencyMHz);
  in.read(&file.head[2], 1);
  const int N = file.count;
  std::cout << "total number of particles " << N << std::endl;
  std::cout << "current intensity " << file.currentmA << "(mA)" << std::endl;
  std::cout << "beam frequency " << file.frequencyMHz << "(MHz)" << std::endl;

  // A loaded bunch has no deck to fall back on: each of these would give a
  // bunch of zero rows or a run without a time scale.
  if (N <= 0)
    errorOut(name + ": the distribution file gives a particle count of " + std::to_string(N) +
             "; at least 1 is needed");
  const long long needed = kHeaderBytes + kRowBytes * static_cast<long long>(N) + 8;
  if (size < needed)
    errorOut(name + ": the distribution file holds " + std::to_string(size) + " bytes, but its " +
             std::to_string(N) + " particles and rest energy need " + std::to_string(needed));
  if (!std::isfinite(file.currentmA) || !std::isfinite(file.frequencyMHz) || !(file.frequencyMHz > 0.0))
    errorOut(name + ": the distribution file gives a current of " + FormatNumber(file.currentmA) +
             " mA and a frequency of " + FormatNumber(file.frequencyMHz) +
             " MHz; both must be finite and the frequency above 0");
  CheckMemoryFor(N);
  particleNumber = N;

  file.rows.assign(N, std::vector<double>(6, 0.0));
  for (int i = 0; i < N; ++i) {
    std::vector<double>& q = file.rows[i];
    in.read(reinterpret_cast<char*>(q.data()), 6 * sizeof(double));
    const std::string particle = name + ": particle " + std::to_string(i) + " of the distribution file ";
    if (!AllFinite(q)) errorOut(particle + "has a coordinate that is not finite");
    // A particle at rest never reaches a plane, and one metres off the axis
    // is no part of a beam; both would spoil the statistics of the bunch.
    if (!(q[5] > 0.0)) errorOut(particle + "has a kinetic energy of " + FormatNumber(q[5]) + " MeV; it must be above 0");
    if (!(std::fabs(q[0]) <= kFarOffAxis && std::fabs(q[2]) <= kFarOffAxis))
      errorOut(particle + "stands at x = " + FormatNumber(q[0]) + " cm, y = " + FormatNumber(q[2]) +
               " cm; a particle of the beam lies within 100 cm of the axis");
  }
  in.read(reinterpret_cast<char*>(&file.restEnergy), sizeof file.restEnergy);
  std::cout << "Particle rest mass " << file.restEnergy << "(MeV)" << std::endl;
  // The energies of the file are turned into momenta with the deck's rest
  // energy; a bunch of another species would be tracked at the wrong speed.
  if (!(std::fabs(file.restEnergy - particleRestMass) <= 1e-9 * particleRestMass))
    errorOut(name + ": the distribution file gives a rest energy of " + Precise(file.restEnergy) +
             " MeV, but beam.txt gives particlerestmass " + Precise(particleRestMass) + " MeV");
  if (!chargeGiven)
    errorOut("beam.txt lacks the keyword numofcharge, which the loading of " + name + " needs");
}

void Initial::ApplyLoadedBeamErrors(LoadedDistribution& file, const std::vector<double>* beamErrors) {
  if (!beamErrors) return;
  const std::vector<double>& E = *beamErrors;
  file.currentmA += E[13];
  // Offsets in the file form, as the generation adds them.
  for (std::vector<double>& q : file.rows) AddBeamErrorOffsets(q.data(), E);
}

// The beam's error offsets on one point in the file form (x and y in cm,
// phase in rad, kinetic energy in MeV). The x and y offsets are added to
// centimetres with the factor of a millimetre; kept as the error decks expect it.
void Initial::AddBeamErrorOffsets(double* q, const std::vector<double>& E) {
  q[0] += E[1] * 0.001;
  q[1] += E[4] * 0.001;
  q[2] += E[2] * 0.001;
  q[3] += E[5] * 0.001;
  q[4] += E[3] / 180.0 * kPi;
  q[5] += E[6];
}

// Returns true: a file that cannot be written whole ends the run.
bool Initial::WriteLoadedDistribution(const LoadedDistribution& file) const {
  std::string bytes(file.head, 2);
  auto put = [&bytes](const void* p, std::size_t n) { bytes.append(static_cast<const char*>(p), n); };
  put(&file.count, sizeof file.count);
  put(&file.currentmA, sizeof file.currentmA);
  put(&file.frequencyMHz, sizeof file.frequencyMHz);
  put(&file.head[2], 1);
  for (const std::vector<double>& q : file.rows) put(q.data(), 6 * sizeof(double));
  put(&file.restEnergy, sizeof file.restEnergy);
  WriteOutput(outputFilePath + "inData.dst", bytes, WriteStage::kSetUp,
              "Insufficient permissions to write file: inData.dst");
  return true;
}

// Frequency, current and macro charge from a loaded file; returns `macro`.
double Initial::TakeLoadedBeam(Beam& beam, const LoadedDistribution& file) {
  atomicMass = file.restEnergy / kMassUnit;
  std::cout << "atomic mass " << atomicMass << " electric charge of particles " << numOfCharge << std::endl;
  frequency = 1e6 * file.frequencyMHz;
  beam.frequency = frequency;
  current = file.currentmA / 1000.0;
  beam.current = current;
  beam.solverRecord = scSolverRecord;
  if (current == 0.0) {
    spaceCharge = 0;
    std::cout << "0 current, ignoring space charge effects" << std::endl;
  }
  return beam.current == 0.0 ? 1.0 : std::fabs(beam.current / beam.frequency / file.count / kElementaryCharge / numOfCharge);
}

void Initial::LoadDistribution(Beam& beam, const std::vector<double>* beamErrors) {
  LoadedDistribution file;
  ReadDistributionFile(particleDistributionPath, file);
  const int N = file.count;
  ApplySolverSettings(N);
  ApplyThreadSettings(N);
  beam.particleNumber = N;
  ApplyLoadedBeamErrors(file, beamErrors);
  const double macro = TakeLoadedBeam(beam, file);
  double energySum = 0.0;
  for (const std::vector<double>& q : file.rows) energySum += q[5];
  kineticEnergy = energySum / N;
  std::cout << "Average beam energy" << kineticEnergy << "(MeV)" << std::endl;
  // A bunch spread over too many periods is refused before anything is written.
  double maxPhase = 0.0, minPhase = 0.0;
  for (const std::vector<double>& q : file.rows) {
    maxPhase = std::max(maxPhase, q[4]);
    minPhase = std::min(minPhase, q[4]);
  }
  CheckStepCount((maxPhase - minPhase) / (kTwoPi * beam.frequency));
  if (!WriteLoadedDistribution(file)) errorOut("Insufficient permissions to write file: inData.dst");

  beam.particle = new Particle[N + 1]();
  if (beam.current != 0.0)
    std::cout << "The number of macroparticle representative particles is " << macro << std::endl;

  const double e = kElementaryCharge;
  for (int i = 0; i <= N; ++i) {
    Particle& p = beam.particle[i];
    const double weight = i < N ? macro : 1.0;
    p.charge = weight * numOfCharge * e;
    p.mass = weight * atomicMass * kProtonMass;
    p.chargeMassRatio = numOfCharge / atomicMass * e / kProtonMass;
    p.restEnergy = file.restEnergy;
    p.name = kindOfParticle;
    p.boundaryMode = boundary;
    if (i == N) break;
    std::copy(file.rows[i].begin(), file.rows[i].end(), p.coordinate);
  }
  beam.phaseStart = (maxPhase - minPhase) / (kTwoPi * beam.frequency);
  beam.phaseHead = minPhase / (kTwoPi * beam.frequency);

  if (transportCode == 1) {
    double gammaSum = 0.0;
    for (int i = 0; i < N; ++i) gammaSum += ToCommonTime(beam, beam.particle[i]);
    for (int i = 0; i < N; ++i)
      for (double v : beam.particle[i].coordinate)
        if (!std::isfinite(v))
          errorOut(particleDistributionPath + ": particle " + std::to_string(i) +
                   " has no finite state at the head's time; check its energy and angles");
    PlaceReference(beam, gammaSum / N);
    std::cout << "Synchronised particles have been added" << std::endl;
    std::cout << "Beam initialisation complete" << std::endl;
    std::cout << "  " << std::endl;
  } else if (transportCode == 0) {
    std::cout << "Inlet particle distribution is not appropriate" << std::endl;
  } else {
    std::cout << "zCode only" << std::endl;
  }
}

void Initial::LoadSecondaryDistribution(Beam& beam, const std::vector<double>* beamErrors) {
  LoadedDistribution file;
  ReadDistributionFile(particleDistributionPath, file);
  const int N = file.count;
  numOfGrid = {3, 3, 3};
  ApplyThreadSettings(N);
  beam.particleNumber = N;
  ApplyLoadedBeamErrors(file, beamErrors);
  if (!WriteLoadedDistribution(file)) std::cout << "Initial Particle Distribution Not Open" << std::endl;

  const double macro = TakeLoadedBeam(beam, file);
  beam.releaseDistance = releaseDistance;
  RequireReferenceEnergy();
  CheckStepCount(0.0);
  std::cout << "Synchronous particle energy " << kineticEnergy << "(MeV)" << std::endl;

  beam.particle = new Particle[N + 1]();
  if (beam.current != 0.0)
    std::cout << "The number of macroparticle representative particles is " << macro << std::endl;

  const double e = kElementaryCharge;
  const double c = kLightSpeed;
  double maxPhase = 0.0, minPhase = 0.0, phaseSum = 0.0;
  for (int i = 0; i <= N; ++i) {
    Particle& p = beam.particle[i];
    p.charge = macro * numOfCharge * e;
    p.mass = macro * atomicMass * kProtonMass;
    p.multiplicity = macro;
    p.chargeMassRatio = p.charge / p.mass;
    p.restEnergy = file.restEnergy;
    p.name = kindOfParticle;
    p.boundaryMode = boundary;
    p.nextBend = 0;
    if (i == N) break;
    const double phase = file.rows[i][4];
    maxPhase = std::max(maxPhase, phase);
    minPhase = std::min(minPhase, phase);
    phaseSum += phase;
  }
  beam.phaseStart = (maxPhase - minPhase) / (kTwoPi * beam.frequency);
  // The mean phase, not the head: release times are spread around zero.
  beam.phaseHead = phaseSum / N / (kTwoPi * beam.frequency);

  for (int i = 0; i < N; ++i) {
    const std::vector<double>& r = file.rows[i];
    Particle& p = beam.particle[i];
    const double gamma = r[5] / particleRestMass + 1.0;
    const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
    const double vz = beta * c / std::sqrt(r[1] * r[1] + r[3] * r[3] + 1.0);
    const double pz = vz / c * gamma;
    if (!(vz > 0.0))
      errorOut(particleDistributionPath + ": particle " + std::to_string(i) +
               " does not move forward (kinetic energy " + FormatNumber(r[5]) + " MeV)");
    p.startTime = r[4] / (kTwoPi * beam.frequency) - beam.phaseHead;
    p.delayTime = beam.releaseDistance / vz;
    p.index = i;
    double* q = p.coordinate;
    q[0] = r[0] / 100.0;
    q[1] = r[1] * pz;
    q[2] = r[2] / 100.0;
    q[3] = r[3] * pz;
    q[4] = 0.0;
    q[5] = pz;
  }
  AddSecondaryReference(beam, file.restEnergy);
}

void Initial::LoadSecondaryText(Beam& beam) {
  std::cout << "Start reading secondary particle distribution..." << std::endl;
  const std::string& name = particleDistributionPath;
  if (IsFolder(inputFilePath + name)) errorOut(name + " in the input folder is a folder, not a file");
  std::ifstream in(inputFilePath + name);
  if (!in.is_open()) errorOut("The initial bunch distribution file cannot be opened, check particleDistributionPath");
  std::vector<std::vector<double>> rows;
  std::vector<std::string> names;
  std::string line;
  std::vector<std::string> tokens;
  for (int lineNumber = 1; GetDeckLine(in, line); ++lineNumber) {
    const std::string where = name + " line " + std::to_string(lineNumber) + ": ";
    StringSplit(line, tokens);
    // Every line is a particle, a blank one included.
    if (tokens.size() < 11)
      errorOut(where + "the line holds " + std::to_string(tokens.size()) +
               " tokens; a particle line needs 11: x y z vx vy vz charge restenergy count time species");
    std::vector<double> row(10);
    try {
      for (int k = 0; k < 10; ++k) row[k] = DeckReal(tokens[k]);
    } catch (const DeckValueError& e) {
      errorOut(where + e.what() + " in \"" + line + "\"");
    }
    const double v = std::sqrt(row[3] * row[3] + row[4] * row[4] + row[5] * row[5]);
    if (!(row[5] > 0.0) || !(v < kLightSpeed))
      errorOut(where + "the velocity is not forward in z or not below the speed of light");
    if (!(row[7] > 0.0) || !(row[8] > 0.0)) errorOut(where + "the rest energy or the particle count is 0 or below");
    rows.push_back(row);
    names.push_back(tokens[10]);
  }
  // An empty list would run and track nothing.
  if (rows.empty()) errorOut(name + " holds no particle line");
  const int N = static_cast<int>(rows.size());
  particleNumber = N;
  numOfGrid = {3, 3, 3};
  ApplyThreadSettings(N);
  beam.particleNumber = N;
  beam.releaseDistance = releaseDistance;
  beam.frequency = 0.0;
  beam.current = 0.0;
  beam.solverRecord = scSolverRecord;
  RequireReferenceEnergy();
  // The list carries no frequency; the phase scan and the time step of the
  // reference take the deck's.
  if (!(frequency > 0.0))
    errorOut("beam.txt lacks the keyword frequency (or gives 0 or below), which the phase scan of a secondary beam "
             "needs");
  CheckStepCount(0.0);
  std::cout << "Synchronous particle energy " << kineticEnergy << "(MeV)" << std::endl;

  const double c = kLightSpeed;
  const double e = kElementaryCharge;
  beam.particle = new Particle[N + 1]();
  for (int i = 0; i < N; ++i) {
    const std::vector<double>& r = rows[i];
    Particle& p = beam.particle[i];
    const double v = std::sqrt(r[3] * r[3] + r[4] * r[4] + r[5] * r[5]);
    const double gamma = 1.0 / std::sqrt(1.0 - (v / c) * (v / c));
    double* q = p.coordinate;
    q[0] = r[0];
    q[1] = r[3] * gamma / c;
    q[2] = r[1];
    q[3] = r[4] * gamma / c;
    q[4] = r[2];
    q[5] = r[5] * gamma / c;
    p.startTime = r[9];
    p.delayTime = beam.releaseDistance / r[5];
    p.index = i;
    p.multiplicity = r[8];
    p.charge = r[8] * r[6] * e;
    p.mass = r[8] * r[7] * kProtonMass / kMassUnit;
    p.chargeMassRatio = p.charge / p.mass;
    p.restEnergy = r[7];
    p.name = names[i];
    p.boundaryMode = boundary;
  }
  AddSecondaryReference(beam, particleRestMass);
  Particle& reference = beam.particle[N];
  reference.charge = e * numOfCharge;
  reference.mass = particleRestMass * kProtonMass / kMassUnit;
  reference.chargeMassRatio = reference.charge / reference.mass;
  reference.multiplicity = 1.0;
  reference.restEnergy = particleRestMass;
  reference.name = kindOfParticle;
  beam.phaseStart = 0.0;
  beam.phaseHead = 0.0;
}

void Initial::RequireReferenceEnergy() const {
  // The reference particle of a secondary run takes its energy from the deck.
  if (!(kineticEnergy > 0.0))
    errorOut("beam.txt lacks the keyword kneticenergy (or gives 0 or below), which the reference particle of a "
             "secondary beam needs");
  if (!chargeGiven)
    errorOut("beam.txt lacks the keyword numofcharge, which the reference particle of a secondary beam needs");
  if (!(releaseDistance > 0.0)) errorOut("input.txt: the release distance, the second argument of steppercycle, must be above 0 for a secondary beam");
}

void Initial::AddSecondaryReference(Beam& beam, double restEnergy) {
  const int N = beam.particleNumber;
  Particle& reference = beam.particle[N];
  const double gamma = 1.0 + kineticEnergy / restEnergy;
  const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  double* q = reference.coordinate;
  q[0] = q[1] = q[2] = q[3] = q[4] = 0.0;
  q[5] = beta * gamma;
  reference.startTime = 0.0;
  reference.delayTime = beam.releaseDistance / (beta * kLightSpeed);
  reference.index = N;
  std::cout << "Synchronised particles have been added" << std::endl;
  std::cout << "Beam initialisation complete" << std::endl;
  std::cout << "  " << std::endl;
}
