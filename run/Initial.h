#pragma once
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beam/PhysicalConstants.h"
#include "beamline/Boundary.h"
#include "beamline/Lattice.h"
#include "run/ErrorParameter.h"
#include "run/ErrorSample.h"

class MethodMP;

// The settings of a run and the readers of its decks. A value of -1 in a
// numerical setting means "not given": InitParticle chooses it by bunch size.
class Initial {
 public:
  int secondaryBeam = 0;
  std::string particleDistributionPath = "unknown";  // "unknown": generate the bunch
  double numOfCharge = -1.0;
  bool chargeGiven = false;  // beam.txt named numofcharge: -1 is a charge state too
  double atomicMass = -1.0;  // rest mass / 938.27187
  std::vector<std::string> distributionType = {"GS", "GS"};  // transverse, longitudinal
  int particleNumber = -1;
  std::vector<double> twiss = std::vector<double>(9, -1.0);  // per plane: emittance, beta, alpha
  std::vector<double> displacePos = std::vector<double>(3, 0.0);   // m
  std::vector<double> displacedPos = std::vector<double>(3, 0.0);  // rad
  std::vector<int> cores = {-1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  double particleRestMass = constants::kDefaultRestEnergy;  // MeV
  double current = -1.0;                 // mA as read, A after InitParticle
  double frequency = -1.0;               // Hz
  double kineticEnergy = -1.0;           // MeV
  std::string kindOfParticle = "proton";
  std::vector<double> beamLength = {0.0, 0.0};
  std::string method = "MP";
  int spaceCharge = 1;
  std::vector<double> scParameters;
  int transportCode = 1;
  double scanTStep = 0.01;
  int dimension = 3;
  int boundary = 0;
  int lpBoundary = 0;
  double stepPerCycle = 100.0;
  int dumpPeriodicity = 0;
  int runPeriod = 100000;
  int track = 0;
  std::vector<double> outputPlanes;  // m
  int scanPhase = 1;
  int scSolverRecord = 0;
  std::vector<int> numOfGrid = {-1, -1, -1};
  int bunchNumber = 0;
  int multithreading = 1;
  int maxThreads = -1;
  int hardwareThreads;
  double releaseDistance = 0.01;  // m

  Initial();

  int Read();                                                   // input.txt
  int ReadBeam();                                               // beam.txt
  int InitLattice(Lattice& lattice, ErrorParameter& error, Boundary& boundaryList);  // lattice.txt
  // Stops a run whose lattice cannot be tracked before anything is built:
  // no start or end line, or no element.
  void CheckLattice(const Lattice& lattice) const;
  // Stops a run whose output folder cannot take its files.
  void CheckOutputFolder() const;
  int InitParticle(Beam& beam, ErrorSample& sample);            // builds the bunch
  int SetSynPhase(Lattice& lattice);                             // entrance phase of each cavity
  int InitMethodMP(MethodMP& engine);

  // Reports a failure of the initialisation stage on the console and in
  // ErrorLog.txt, then ends the process with status 1.
  [[noreturn]] static void errorOut(std::string message);

 private:
  bool latticeStarted = false;  // lattice.txt had its start line
  bool latticeClosed = false;   // and its end line
  int setEndLine = 0;           // an end line used up by a set of superimposed fields
  void ApplySolverSettings(int count);
  void ApplyThreadSettings(int count);
  void GenerateBunch(Beam& beam, const std::vector<double>* beamErrors);
  // Refuse beam.txt values that cannot describe a real bunch.
  void CheckBeamValues() const;
  // Refuse a particle count whose records do not fit in memory.
  void CheckMemoryFor(int count) const;
  // Refuse a time step that would need more steps to cross the lattice than
  // any run can make.
  void CheckStepCount(double bunchDuration) const;
  // Refuse settings that would keep the phase scan stepping for minutes.
  void CheckScanSteps(const Lattice& lattice, const SynParticle& syn, double dt) const;
  void MakeSingleParticle(Beam& beam, double betaGamma, double macro);
  // Moves one particle from the file form to the head's time; returns its gamma.
  double ToCommonTime(Beam& beam, Particle& p) const;
  // The reference slot: on axis, at the centre of the bunch, with the mean
  // gamma of the bunch at the head's time.
  void PlaceReference(Beam& beam, double meanGamma) const;
  // The bunch in the binary distribution layout, in the output folder.
  void WriteDistribution(const Beam& beam, const std::string& name) const;

  // A binary distribution file as read: the file form of each particle.
  struct LoadedDistribution {
    char head[3] = {125, 100, 125};  // marker bytes, kept when rewritten
    int count = 0;
    double currentmA = 0.0;
    double frequencyMHz = 0.0;
    std::vector<std::vector<double>> rows;  // x (cm), x', y (cm), y', phase, energy (MeV)
    double restEnergy = 0.0;                // MeV
  };
  void ReadDistributionFile(const std::string& name, LoadedDistribution& file);
  void ApplyLoadedBeamErrors(LoadedDistribution& file, const std::vector<double>* beamErrors);
  static void AddBeamErrorOffsets(double* q, const std::vector<double>& E);
  bool WriteLoadedDistribution(const LoadedDistribution& file) const;
  double TakeLoadedBeam(Beam& beam, const LoadedDistribution& file);
  void LoadDistribution(Beam& beam, const std::vector<double>* beamErrors);
  void LoadSecondaryDistribution(Beam& beam, const std::vector<double>* beamErrors);
  void LoadSecondaryText(Beam& beam);
  void RequireReferenceEnergy() const;
  void AddSecondaryReference(Beam& beam, double restEnergy);
};
