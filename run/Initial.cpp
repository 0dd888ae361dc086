#include "run/Initial.h"

#include <omp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "beam/Generator.h"
#include "beam/PhysicalConstants.h"
#include "run/DeckReading.h"
#include "run/HelperFunc.h"
#include "run/Keld.h"
#include "run/OutputFile.h"
#include "tracking/MethodMP.h"

using namespace constants;

// More time steps than this would not end in any useful time; a step this
// fine comes from a misprint in steppercycle, frequency or a length.
constexpr double kMaxTimeSteps = 1e8;
using deck::AtMostThree;
using deck::ForEachTokenLine;
using deck::Lower;
using deck::NeedArguments;

Initial::Initial() : scParameters(20, 1.0), hardwareThreads(omp_get_max_threads()) {
  scParameters[1] = scParameters[2] = scParameters[3] = -1.0;
  scParameters[4] = scParameters[5] = scParameters[6] = -1.0;
  scParameters[7] = -1.0;
  scParameters[8] = 0.07;
}

void Initial::errorOut(std::string message) {
  std::cout << message << "\n" << std::flush;
  std::ofstream log(outputFilePath + "ErrorLog.txt", std::ios::app);
  log << TimeStamp() << "   Initialisation stage error: " << message << "\n" << std::flush;
  log.close();
  std::exit(1);
}

void Initial::CheckOutputFolder() const {
  struct stat info;
  const bool folder = stat(outputFilePath.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
  if (!folder || access(outputFilePath.c_str(), W_OK | X_OK) != 0)
    errorOut("The output folder " + outputFilePath + " does not exist or cannot be written");
}

void Initial::CheckStepCount(double bunchDuration) const {
  // The last output plane is the end of the lattice; the tail of the bunch
  // must pass it, bunchDuration after the head.
  if (outputPlanes.empty()) return;
  const double length = outputPlanes.back();
  const double gamma = 1.0 + kineticEnergy / particleRestMass;
  const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  const double steps = (length / (beta * kLightSpeed) + bunchDuration) * frequency * stepPerCycle;
  if (steps <= kMaxTimeSteps) return;
  const std::string count = FormatNumber(steps) + " time steps";
  const std::string limit = "; at most 1e+08 are allowed";
  if (bunchDuration == 0.0)
    errorOut("steppercycle " + FormatNumber(stepPerCycle) + " at frequency " + FormatNumber(frequency) +
             " Hz would take about " + count + " over the " + FormatNumber(length) + " m lattice" + limit);
  if (particleDistributionPath != "unknown")
    errorOut(particleDistributionPath + ": the loaded bunch takes " + FormatNumber(bunchDuration) +
             " s to pass a plane, which would need about " + count + limit + "; check the phases of its particles");
  errorOut("beam.txt: the generated bunch takes " + FormatNumber(bunchDuration) +
           " s to pass a plane, which would need about " + count + limit + "; check the twiss lines");
}

int Initial::Read() {
  std::ifstream file;
  if (!deck::OpenDeck(file, "input.txt"))
    errorOut("File \"input.txt\" cannot be opened, Check the inputFile routing and input.txt.");

  ForEachTokenLine(file, "input.txt", [this](std::vector<std::string>& token, int lineNumber, const std::string&) {
    const std::string key = Lower(token[0]);
    // Refuses a value that the run cannot use: the rule it breaks and the token.
    auto refuse = [&](const std::string& rule, const std::string& value) {
      deck::Refuse("input.txt", lineNumber, key + " " + rule + ", got " + value);
    };
    if (key == "method") {
      NeedArguments(token, 1);
      method = token[1];
    } else if (key == "secondarybeam") {
      NeedArguments(token, 1);
      secondaryBeam = DeckInteger(token[1]);
    } else if (key == "boundary") {
      NeedArguments(token, 1);
      boundary = DeckInteger(token[1]);
      // Any other value would switch off boundary.txt and the element
      // apertures alike.
      if (boundary != 0 && boundary != 1)
        refuse("must be 0 (apertures of the elements) or 1 (apertures from boundary.txt)", token[1]);
    } else if (key == "dimension") {
      errorOut("input.txt Contains unknown keywords: Dimension");
    } else if (key == "scmethod") {
      if (token.size() >= 2 && token[1] == "FFT")
        scParameters[0] = 0.0;
      else if (token.size() >= 2 && token[1] == "SPICNIC")
        scParameters[0] = 1.0;
      else if (token.size() >= 2 && token[1] == "IGF")
        scParameters[0] = 2.0;
      else
        errorOut("SCMethod Contains unknown item, available options include FFT / SPICNIC");
    } else if (key == "negligibleratio") {
      NeedArguments(token, 1);
      scParameters[8] = DeckReal(token[1]);
      // A fraction of the charge of the centre node: at 1 or above every
      // node's charge would be dropped.
      if (!(scParameters[8] >= 0.0 && scParameters[8] < 1.0)) refuse("must be at least 0 and below 1", token[1]);
    } else if (key == "lpboundary") {
      NeedArguments(token, 1);
      lpBoundary = DeckInteger(token[1]);
      if (lpBoundary != 0 && lpBoundary != 1) refuse("must be 0 (open mesh) or 1 (periodic along z)", token[1]);
    } else if (key == "meshrms") {
      AtMostThree(token);
      for (std::size_t k = 1; k < token.size(); ++k) {
        scParameters[k] = DeckReal(token[k]);
        // A mesh narrower than one rms size leaves most of the bunch off it,
        // a far wider one puts the bunch in a single cell.
        if (!(scParameters[k] >= 1.0 && scParameters[k] <= 1000.0))
          refuse("must lie between 1 and 1000 rms sizes", token[k]);
      }
    } else if (key == "integralgrid") {
      AtMostThree(token);
      for (std::size_t k = 1; k < token.size(); ++k) {
        scParameters[3 + k] = DeckReal(token[k]);
        // Each solve integrates over the near cells with this many points
        // per axis, cubed: beyond 32 a solve takes minutes and gains nothing.
        if (!(scParameters[3 + k] >= 1.0 && scParameters[3 + k] <= 32.0))
          refuse("must lie between 1 and 32 points per axis", token[k]);
      }
    } else if (key == "scutoffdistance") {
      NeedArguments(token, 1);
      scParameters[7] = static_cast<double>(DeckInteger(token[1]));
      if (!(scParameters[7] >= 1.0)) refuse("must be 1 or more cells", token[1]);
    } else if (key == "scantstep") {
      NeedArguments(token, 1);
      scanTStep = DeckReal(token[1]);
      // The scan steps this fraction of a time step: 0 never ends, and a
      // step longer than the transport's would jump over the cavities.
      if (!(scanTStep > 0.0 && scanTStep <= 1.0))
        refuse("must be above 0 and at most 1 (a fraction of a time step)", token[1]);
    } else if (key == "dumpperiodicity") {
      NeedArguments(token, 1);
      const double period = DeckReal(token[1]);
      if (!(period >= 0.0 && period < 2147483648.0)) refuse("must be 0 (no dumps) or a number of steps", token[1]);
      dumpPeriodicity = static_cast<int>(period);
    } else if (key == "spacecharge") {
      NeedArguments(token, 1);
      spaceCharge = DeckInteger(token[1]);
      if (spaceCharge == 0) std::cout << "Simulation ignores space charge effects" << std::endl;
    } else if (key == "scsolverrecord") {
      NeedArguments(token, 1);
      scSolverRecord = DeckInteger(token[1]);
    } else if (key == "numofgrid") {
      AtMostThree(token);
      for (std::size_t k = 1; k < token.size(); ++k) numOfGrid[k - 1] = DeckInteger(token[k]);
    } else if (key == "steppercycle") {
      NeedArguments(token, 1);
      stepPerCycle = DeckReal(token[1]);
      // The time step is one period over this number: it must move the
      // bunch forward, or no stop is ever reached.
      if (!(stepPerCycle > 0.0)) refuse("must be above 0 (time steps per period)", token[1]);
      if (token.size() > 2) releaseDistance = DeckReal(token[2]);
    } else if (key == "runperiod") {
      NeedArguments(token, 1);
      runPeriod = DeckInteger(token[1]);
      if (runPeriod < 1) refuse("must be 1 or more periods (the step limit of the phase scan)", token[1]);
    } else if (key == "track") {
      NeedArguments(token, 1);
      track = DeckInteger(token[1]);
    } else if (key == "scanphase") {
      NeedArguments(token, 1);
      scanPhase = DeckInteger(token[1]);
    } else if (key == "multithreading") {
      NeedArguments(token, 1);
      multithreading = DeckInteger(token[1]);
    } else if (key == "setnumberofcores") {
      if (token.size() < 11) errorOut("keyword: setnumberofcores, Insufficient parameters, need 10 parameters");
      std::vector<int> given(10);
      for (int k = 0; k < 10; ++k) {
        given[k] = DeckInteger(token[k + 1]);
        // -1 in the first place lets the bunch size choose all ten.
        if (given[k] < 1 && !(k == 0 && given[k] == -1))
          refuse("needs 1 or more threads in each place (or -1 first, to choose by bunch size)", token[k + 1]);
      }
      cores = given;
      const int available = omp_get_max_threads();
      for (int k = 0; k < 10; ++k) {
        if (cores[k] > available) cores[k] = available;
        scParameters[10 + k] = static_cast<double>(cores[k]);
      }
    } else if (key == "maxthreads") {
      NeedArguments(token, 1);
      maxThreads = DeckInteger(token[1]);
    } else {
      deck::UnknownKeyword("input.txt", lineNumber, token[0]);
    }
    return true;
  });
  file.close();

  if (secondaryBeam == 1) spaceCharge = 0;
  std::cout << "Parameters and functions are set" << std::endl;
  std::cout << "  " << std::endl;
  return 0;
}

int Initial::ReadBeam() {
  std::ifstream file;
  if (!deck::OpenDeck(file, "beam.txt"))
    errorOut("File \"beam.txt\" cannot be opened, Check the inputFile routing and beam.txt.");

  ForEachTokenLine(file, "beam.txt", [this](std::vector<std::string>& token, int lineNumber, const std::string&) {
    const std::string key = Lower(token[0]);
    if (key == "readparticledistribution") {
      NeedArguments(token, 1);
      particleDistributionPath = token[1];
    } else if (key == "numofcharge") {
      NeedArguments(token, 1);
      // Any charge state counts, -1 (a negative ion) included; none is above
      // that of the heaviest bare nucleus.
      numOfCharge = DeckReal(token[1]);
      chargeGiven = true;
      if (!(numOfCharge != 0.0 && std::fabs(numOfCharge) <= 118.0))
        deck::Refuse("beam.txt", lineNumber,
                     "numofcharge must be a charge state of 1 to 118 in magnitude, got " + token[1]);
    } else if (key == "particlerestmass") {
      NeedArguments(token, 1);
      particleRestMass = DeckReal(token[1]);
      // No charged particle is lighter than the electron (0.511 MeV).
      if (!(particleRestMass >= 0.5))
        deck::Refuse("beam.txt", lineNumber, "particlerestmass must be at least 0.5 MeV, got " + token[1]);
    } else if (key == "kindofparticle") {
      NeedArguments(token, 1);
      kindOfParticle = token[1];
    } else if (key == "distribution") {
      if (token.size() != 3)
        errorOut("The initial bunch distribution contains two parameters, separately in transvers and longitudinal");
      for (int k = 0; k < 2; ++k) {
        distributionType[k] = token[k + 1];
        const std::string& law = distributionType[k];
        if (law != "KV" && law != "WB" && law != "PB" && law != "GS")
          errorOut("Distribution Type Error, The Format is: distribution  KV/WB/PB/GS  KV/WB/PB/GS");
      }
    } else if (key == "twissx" || key == "twissy" || key == "twissz") {
      if (token.size() != 4) errorOut(key + " have 3 parameters, emittance, beta, alpha");
      // The line reads alpha, beta, emittance; the triple is stored reversed.
      const int plane = 3 * (key[5] - 'x');
      twiss[plane + 2] = DeckReal(token[1]);
      twiss[plane + 1] = DeckReal(token[2]);
      twiss[plane + 0] = DeckReal(token[3]);
    } else if (key == "particlenumber") {
      NeedArguments(token, 1);
      particleNumber = DeckInteger(token[1]);
    } else if (key == "displacepos") {
      AtMostThree(token);
      for (std::size_t k = 1; k < token.size(); ++k) displacePos[k - 1] = DeckReal(token[k]) * 0.001;
    } else if (key == "displacedpos") {
      AtMostThree(token);
      for (std::size_t k = 1; k < token.size(); ++k) displacedPos[k - 1] = DeckReal(token[k]) * 0.001;
    } else if (key == "frequency") {
      NeedArguments(token, 1);
      frequency = DeckReal(token[1]);
    } else if (key == "kneticenergy") {
      NeedArguments(token, 1);
      kineticEnergy = DeckReal(token[1]);
    } else if (key == "beamlength") {
      NeedArguments(token, 2);
      beamLength[0] = static_cast<double>(DeckInteger(token[1]));
      beamLength[1] = DeckReal(token[2]);
    } else if (key == "current") {
      NeedArguments(token, 1);
      current = DeckReal(token[1]);
    } else if (key == "bunchnumber") {
      NeedArguments(token, 1);
      bunchNumber = DeckInteger(token[1]);
    } else {
      deck::UnknownKeyword("beam.txt", lineNumber, token[0]);
    }
    return true;
  });
  file.close();
  return 0;
}


void Initial::ApplySolverSettings(int count) {
  if (spaceCharge != 1) {
    numOfGrid.assign(3, 3);
    return;
  }
  std::vector<double>& p = scParameters;
  if (p[0] == 0.0) {
    if (p[1] == -1.0) p[1] = p[2] = p[3] = 6.5;
    if (numOfGrid[0] == -1) numOfGrid.assign(3, 64);
  } else if (p[0] == 1.0) {
    // Mesh extent in rms sizes and grid size grow with the bunch.
    static const double limit[] = {30000, 80000, 300000, 800000, 3e6, 8e6, 3e7, 8e7};
    static const double meshValue[] = {3.5, 3.5, 4.0, 4.0, 5.0, 5.0, 6.0, 6.0, 7.0};
    static const int gridValue[] = {14, 18, 20, 26, 30, 40, 44, 56, 64};
    int row = 0;
    while (row < 8 && count > limit[row]) ++row;
    if (p[1] == -1.0) p[1] = p[2] = p[3] = meshValue[row];
    if (p[4] == -1.0) p[4] = p[5] = p[6] = 8.0;
    if (numOfGrid[0] == -1) numOfGrid.assign(3, gridValue[row]);
    if (p[7] == -1.0) p[7] = std::ceil(numOfGrid[0] / 3.0);
  } else if (p[0] == 2.0) {
    // Open boundaries need no margin for images: the mesh only has to hold
    // the bunch, so the same nodes give finer cells than the FFT solver's.
    if (p[1] == -1.0) p[1] = p[2] = p[3] = 4.0;
    if (numOfGrid[0] == -1) numOfGrid.assign(3, 64);
  }
  p[9] = static_cast<double>(multithreading);
}

void Initial::ApplyThreadSettings(int count) {
  static const double limit[] = {30000, 80000, 300000, 800000, 3e6, 8e6, 3e7};
  static const int table[8][10] = {
      {64, 54, 20, 24, 1, 48, 96, 12, 48, 12},  {72, 68, 24, 56, 22, 48, 96, 20, 48, 24},
      {96, 96, 32, 96, 26, 48, 96, 24, 48, 36}, {96, 96, 52, 96, 74, 48, 96, 48, 48, 96},
      {96, 96, 62, 96, 86, 48, 96, 48, 48, 96}, {96, 96, 82, 96, 92, 48, 96, 48, 48, 96},
      {96, 96, 92, 96, 96, 48, 96, 48, 48, 96}, {96, 96, 96, 96, 96, 48, 96, 48, 48, 96}};
  if (multithreading == 1 && cores[0] == -1) {
    int row = 0;
    while (row < 7 && count > limit[row]) ++row;
    cores.assign(table[row], table[row] + 10);
  }
  for (int k = 0; k < 10; ++k) {
    if (cores[k] > hardwareThreads) cores[k] = hardwareThreads;
    if (maxThreads >= 1 && maxThreads < cores[k]) cores[k] = maxThreads;
    scParameters[10 + k] = static_cast<double>(cores[k]);
  }
  // The solver settings are final here: refuse what the solvers cannot run
  // with before anything is tracked. A secondary run calls no solver.
  if (spaceCharge == 1 && secondaryBeam == 0) {
    const std::string problem = PIC::CheckSettings(numOfGrid, scParameters, lpBoundary, count);
    if (!problem.empty()) errorOut(problem);
  }
}

void Initial::CheckBeamValues() const {
  auto refuse = [](const std::string& what, double value) {
    errorOut("beam.txt: " + what + ", got " + FormatNumber(value));
  };
  if (!(std::isfinite(kineticEnergy) && kineticEnergy > 0.0)) refuse("kneticenergy must be a positive number of MeV", kineticEnergy);
  if (!(std::isfinite(frequency) && frequency > 0.0)) refuse("frequency must be a positive number of Hz", frequency);
  if (!(std::isfinite(current) && (current >= 0.0 || (current == -1.0 && particleNumber == 1))))
    refuse("current must be 0 or more mA", current);
  // Ion sources deliver beams above beta 0.001; anything slower comes from a
  // misprint in the energy or the rest mass and would crawl for hours.
  const double gamma = 1.0 + kineticEnergy / particleRestMass;
  const double speed = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  if (!(speed >= 1e-3))
    errorOut("beam.txt: kneticenergy " + FormatNumber(kineticEnergy) + " MeV at particlerestmass " +
             FormatNumber(particleRestMass) + " MeV gives beta " + FormatNumber(speed) +
             ", a beam needs at least 0.001");
  if (particleNumber == 1) return;  // one particle: no Twiss parameters are read
  static const char* const plane[3] = {"twissx", "twissy", "twissz"};
  for (int k = 0; k < 3; ++k) {
    const double emittance = twiss[3 * k], beta = twiss[3 * k + 1], alpha = twiss[3 * k + 2];
    if (emittance == -1.0 && beta == -1.0 && alpha == -1.0)
      errorOut(std::string("beam.txt lacks the keyword ") + plane[k] + ", which the bunch generation needs");
    if (!(std::isfinite(beta) && beta > 0.0)) refuse(std::string(plane[k]) + " beta must be above 0", beta);
    if (!(std::isfinite(emittance) && emittance > 0.0))
      refuse(std::string(plane[k]) + " emittance must be above 0 mm mrad", emittance);
    if (!std::isfinite(alpha)) refuse(std::string(plane[k]) + " alpha must be a finite number", alpha);
    // The rms angle (or relative momentum spread) of the plane: a beam moves
    // forward, so it lies far below 1.
    const double geometric = emittance / 1e6 / (speed * gamma);
    const double spread = std::sqrt(geometric * (1.0 + alpha * alpha) / beta);
    if (!(spread < 1.0))
      errorOut("beam.txt: " + std::string(plane[k]) + " gives an rms " +
               (k < 2 ? "divergence of " + FormatNumber(spread) + " rad" :
                        "relative momentum spread of " + FormatNumber(spread)) +
               ", a beam needs well below 1");
  }
  // A bunch sits in one radio-frequency bucket: longer than the distance the
  // beam travels in one period it is no bunch.
  const double length = std::sqrt(twiss[6] / 1e6 / (speed * gamma) * twiss[7]);
  const double period = speed * kLightSpeed / frequency;
  if (!(length < period))
    errorOut("beam.txt: twissz gives an rms bunch length of " + FormatNumber(length) + " m, longer than the " +
             FormatNumber(period) + " m the beam travels in one period");
}

void Initial::CheckMemoryFor(int count) const {
  // What one particle costs through a run: its record, its generated row,
  // two crossing rows, the previous state and its mesh cell, with the
  // allocator's overhead on each small vector.
  const double perParticle = static_cast<double>(sizeof(Particle)) + 88.0 + 2.0 * 104.0 + 48.0 + 56.0;
  const double needed = (static_cast<double>(count) + 1.0) * perParticle;
  double usable = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
  struct rlimit limit;
  if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
    usable = std::min(usable, static_cast<double>(limit.rlim_cur));
  // The slot count is particleNumber + 1 in a signed int.
  if (count >= 2147483647 || needed > usable) {
    std::ostringstream message;
    message << std::fixed << std::setprecision(1) << "beam.txt: particlenumber " << count << " needs about "
            << needed / 1073741824.0 << " GiB of memory, but only " << usable / 1073741824.0 << " GiB can be used";
    errorOut(message.str());
  }
}

int Initial::InitParticle(Beam& beam, ErrorSample& sample) {
  ReadBeam();

  // Beam errors act when either beam flag is on; their values are always in
  // row 0 of the dynamic set. A set that was never drawn counts as no error.
  const bool beamErrors = sample.onFlag[0] + sample.onFlag[1] != 0;
  const std::vector<double>* beamRow =
      beamErrors && !sample.dynamicSet.empty() && sample.dynamicSet[0].size() >= 14 ? &sample.dynamicSet[0] : nullptr;

  if (secondaryBeam != 0) {
    const std::size_t point = particleDistributionPath.rfind('.');
    if (point == std::string::npos)
      errorOut("The initial bunch distribution file cannot be opened, check particleDistributionPath");
    if (particleDistributionPath.substr(point + 1) == "dst")
      LoadSecondaryDistribution(beam, beamRow);
    else
      LoadSecondaryText(beam);
  } else if (particleDistributionPath != "unknown") {
    LoadDistribution(beam, beamRow);
  } else {
    GenerateBunch(beam, beamRow);
  }
  return 0;
}

void Initial::GenerateBunch(Beam& beam, const std::vector<double>* beamErrors) {
  const int N = particleNumber;
  // A bunch built from the "not given" start values would be nonsense.
  if (particleNumber == 0 || particleNumber < -1)
    errorOut("beam.txt: particlenumber must be at least 1 to generate a bunch");
  const char* missing = nullptr;
  if (particleNumber == -1) missing = "particlenumber";
  else if (kineticEnergy == -1.0) missing = "kneticenergy";
  else if (frequency == -1.0) missing = "frequency";
  else if (!chargeGiven) missing = "numofcharge";
  else if (current == -1.0 && N != 1) missing = "current";
  if (missing) errorOut(std::string("beam.txt lacks the keyword ") + missing + ", which the bunch generation needs");
  CheckBeamValues();
  CheckMemoryFor(N);
  CheckStepCount(0.0);

  const double W = kineticEnergy;
  const double m = particleRestMass;
  const double e = kElementaryCharge;
  const double mp = kProtonMass;
  const double c = kLightSpeed;

  std::cout << "Starting to generate initial bunch" << std::endl;
  beam.frequency = frequency;

  const double gamma = 1.0 + W / m;
  const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  const double bg = beta * gamma;
  atomicMass = m / kMassUnit;
  if (N == 1 && current == -1.0) current = 0.0;
  current /= 1000.0;
  beam.current = current;
  beam.solverRecord = scSolverRecord;

  const std::vector<double> noErrors(26, 0.0);
  const std::vector<double>& E = beamErrors ? *beamErrors : noErrors;
  if (beamErrors && E[0] == 1.0) {
    current += E[13] / 1000.0;
    beam.current += E[13] / 1000.0;
    for (int plane = 0; plane < 3; ++plane) {
      twiss[3 * plane] *= 1.0 + E[7 + plane] / 100.0;
      const double mismatch = (1.0 + E[10 + plane] / 100.0) * (1.0 + E[10 + plane] / 100.0);
      twiss[3 * plane + 1] *= mismatch;
      twiss[3 * plane + 2] *= mismatch;
    }
  }

  if (current == 0.0 || N == 1) {
    current = 0.0;
    beam.current = 0.0;
    spaceCharge = 0;
    std::cout << "0 intensity, stop SCfield calculations" << std::endl;
  }

  beam.particleNumber = N;
  // Value-initialised, so that every field not set below starts at zero.
  beam.particle = new Particle[N + 1]();

  double macro;
  if (beam.current == 0.0) {
    std::cout << "The intensity is set to 0" << std::endl;
    macro = 1.0;
  } else {
    macro = std::fabs(beam.current / beam.frequency / N / e / numOfCharge);
    std::cout << "The number of particles represented by a single macro particle: " << macro << std::endl;
  }

  ApplySolverSettings(N);
  ApplyThreadSettings(N);

  if (N == 1) {
    MakeSingleParticle(beam, bg, macro);
  } else {
    for (int plane = 0; plane < 3; ++plane) twiss[3 * plane] = twiss[3 * plane] / 1e6 / bg;

    std::vector<std::vector<double>> rows(N, std::vector<double>(6, 0.0));
    std::srand(BunchSeed());
    auto law = [](const std::string& word) {
      if (word == "KV") return KV2D;
      if (word == "WB") return WB2D;
      if (word == "PB") return PB2D;
      return GS2D;
    };
    law(distributionType[0])(twiss, rows);

    for (int i = 0; i < N; ++i)
      for (int k = 0; k < 4; ++k) beam.particle[i].coordinate[k] = rows[i][k];
    for (int i = 0; i <= N; ++i) {
      Particle& p = beam.particle[i];
      p.charge = macro * numOfCharge * e;
      p.mass = macro * atomicMass * mp;
      p.chargeMassRatio = numOfCharge / atomicMass * e / mp;
      p.restEnergy = m;
      p.name = kindOfParticle;
      p.boundaryMode = boundary;
      p.indexElem = p.indexBoundary = p.lost = p.indexPlane = 0;
    }

    if (dimension == 3) {
      const std::vector<double> longitudinal = {twiss[6], twiss[7], twiss[8], twiss[6], twiss[7], twiss[8], 0, 0, 0};
      law(distributionType[1])(longitudinal, rows);
      for (int i = 0; i < N; ++i) {
        beam.particle[i].coordinate[4] = rows[i][0];  // z, m
        beam.particle[i].coordinate[5] = rows[i][1];  // relative momentum deviation
      }
    }

    // File form: x (cm), x', y (cm), y', phase (rad), kinetic energy (MeV).
    // The phase grows towards the tail.
    double maxPhase = 0.0, minPhase = 0.0;
    for (int i = 0; i < N; ++i) {
      double* q = beam.particle[i].coordinate;
      const double pz = bg * (1.0 + q[5]);
      const double xp = q[1], yp = q[3];
      const double g = std::sqrt((xp * pz) * (xp * pz) + 1.0 + (yp * pz) * (yp * pz) + pz * pz);
      const double b = std::sqrt(1.0 - 1.0 / (g * g));
      const double vz = b * c / std::sqrt(xp * xp + yp * yp + 1.0);
      const double phase = -kTwoPi * beam.frequency * q[4] / vz;
      q[5] = (g - 1.0) * m;
      q[4] = phase;
      q[0] *= 100.0;
      q[2] *= 100.0;
      maxPhase = std::max(maxPhase, phase);
      minPhase = std::min(minPhase, phase);
    }

    if (beamErrors)
      for (int i = 0; i < N; ++i) AddBeamErrorOffsets(beam.particle[i].coordinate, E);

    CheckStepCount((maxPhase - minPhase) / (kTwoPi * beam.frequency));
    // Extreme but accepted values (an energy of 1e300 MeV) can still
    // overflow; such a bunch is refused before anything is written.
    for (int i = 0; i < N; ++i)
      for (double v : beam.particle[i].coordinate)
        if (!std::isfinite(v))
          errorOut("beam.txt: the generated bunch is not finite (particle " + std::to_string(i) +
                   "); check kneticenergy, particlerestmass and the twiss lines");
    WriteDistribution(beam, "inData.dst");

    beam.phaseStart = (maxPhase - minPhase) / (kTwoPi * beam.frequency);
    beam.phaseHead = minPhase / (kTwoPi * beam.frequency);
    double gammaSum = 0.0;
    for (int i = 0; i < N; ++i) gammaSum += ToCommonTime(beam, beam.particle[i]);
    PlaceReference(beam, gammaSum / N);
  }

  std::cout << "Synchron particle addition completed" << std::endl;
  std::cout << "Bunch initialisation complete" << std::endl;
  std::cout << "  " << std::endl;
}

void Initial::PlaceReference(Beam& beam, double meanGamma) const {
  Particle& reference = beam.particle[beam.particleNumber];
  const double g = meanGamma;
  const double b = std::sqrt(1.0 - 1.0 / (g * g));
  double* q = reference.coordinate;
  q[0] = q[1] = q[2] = q[3] = 0.0;
  q[4] = beam.phaseHead * b * kLightSpeed;
  q[5] = g * b;
  for (double& f : reference.spaceChargeField) f = 0.0;
  reference.relativeCoordinate[0] = reference.relativeCoordinate[1] = reference.relativeCoordinate[2] = 0.0;
}

double Initial::ToCommonTime(Beam& beam, Particle& p) const {
  const double c = kLightSpeed;
  double* q = p.coordinate;
  const double xp = q[1], yp = q[3];
  const double gamma = q[5] / particleRestMass + 1.0;
  const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  const double vz = beta * c / std::sqrt(xp * xp + yp * yp + 1.0);
  // How much later than the head the particle arrives; it is drifted back
  // along its own direction to the head's time.
  const double dt = q[4] / (kTwoPi * beam.frequency) - beam.phaseHead;
  const double pz = vz / c * gamma;
  q[0] = q[0] / 100.0 - xp * dt * vz;
  q[1] = xp * pz;
  q[2] = q[2] / 100.0 - yp * dt * vz;
  q[3] = yp * pz;
  q[4] = -dt * vz;
  q[5] = pz;
  for (int k = 0; k < 6; ++k) p.externalField[k] = p.spaceChargeField[k] = p.totalField[k] = 0.0;
  p.relativeCoordinate[0] = p.relativeCoordinate[1] = p.relativeCoordinate[2] = 0.0;
  return gamma;
}

void Initial::WriteDistribution(const Beam& beam, const std::string& name) const {
  const int N = beam.particleNumber;
  const char head[2] = {125, 100};
  const char mark = 125;
  const double currentmA = 1000.0 * current;
  const double frequencyMHz = beam.frequency / 1e6;
  std::string bytes(head, 2);
  auto put = [&bytes](const void* p, std::size_t n) { bytes.append(static_cast<const char*>(p), n); };
  put(&N, sizeof N);
  put(&currentmA, sizeof currentmA);
  put(&frequencyMHz, sizeof frequencyMHz);
  put(&mark, 1);
  for (int i = 0; i < N; ++i) put(beam.particle[i].coordinate, 6 * sizeof(double));
  put(&particleRestMass, sizeof particleRestMass);
  WriteOutput(outputFilePath + name, bytes, WriteStage::kSetUp, "Insufficient permissions to write file: " + name);
}

void Initial::MakeSingleParticle(Beam& beam, double betaGamma, double macro) {
  const double e = kElementaryCharge;
  for (int i = 0; i < 2; ++i) {
    Particle& p = beam.particle[i];
    p = Particle();
    p.charge = macro * numOfCharge * e;
    p.mass = macro * atomicMass * kProtonMass;
    p.chargeMassRatio = numOfCharge / atomicMass * e / kProtonMass;
    p.restEnergy = particleRestMass;
    p.coordinate[5] = betaGamma;
  }
  double* q = beam.particle[0].coordinate;
  q[0] = displacePos[0];
  q[1] = displacedPos[0] * betaGamma;
  q[2] = displacePos[1];
  q[3] = displacedPos[1] * betaGamma;
  q[4] = displacePos[2];
  q[5] = betaGamma;
  beam.phaseStart = 0.0;
  beam.phaseHead = 0.0;
  beam.zMin = displacePos[2];
  beam.zMax = displacePos[2];

  std::ostringstream out;
  out << "dx:" << q[0] * 1000.0 << "mm  dy:" << q[2] * 1000.0 << "mm  dz:" << q[4] * 1000.0 << "mm\n";
  out << "dpx:" << 1000.0 * q[1] / q[5] << "mrad  dpy:" << 1000.0 * q[3] / q[5] << "mrad  dpz:" << "--\n";
  out << "Energy:" << kineticEnergy << "MeV\n";
  WriteOutput(outputFilePath + "SingleParticle.txt", out.str(), WriteStage::kSetUp);
}

int Initial::InitMethodMP(MethodMP& engine) {
  engine.timeStep = 1.0 / frequency / stepPerCycle;
  engine.spaceCharge = spaceCharge;
  engine.track = track;
  engine.cores = cores;
  engine.scParameters = scParameters;
  engine.outputPlanes = outputPlanes;
  engine.numOfGrid = numOfGrid;
  engine.multithreading = multithreading;
  engine.dumpPeriodicity = dumpPeriodicity;
  engine.boundary = boundary;
  engine.lpBoundary = lpBoundary;
  return 0;
}
