#include "run/OutputChecks.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cmath>
#include <cstdio>

#include "beam/Beam.h"
#include "beam/PhysicalConstants.h"
#include "beamline/Lattice.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"

namespace {

// Bytes of one line of the per-step text files, a little above what the
// stream formats print: DataSet.txt (40 numbers), synParticle.txt (a stamp
// and nine numbers) and SeSynParticle.txt (ten numbers).
constexpr double kStepLineBytes = 520.0 + 200.0 + 180.0;
constexpr double kPlaneLineBytes = 140.0;      // a particle line of outData_<z>.txt
constexpr double kCollisionLineBytes = 180.0;  // a line of collisionData.txt

bool SameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// The names a run writes into its output folder.
bool IsOutputName(const std::string& name) {
  static const char* const kNames[] = {"DataSet.txt",        "synParticle.txt",   "SeSynParticle.txt",
                                       "BeamSet.plt",        "collisionData.txt", "SimulationTime.txt",
                                       "ErrorLog.txt",       "inData.dst",        "SingleParticle.txt",
                                       "scanData.txt",       "scanPhaseData.txt", "Phase.txt",
                                       "RFQsynPhaseEG.txt",  "test.txt",          "testP.txt",
                                       "StaticErrorData.txt", "DynamicErrorData.txt"};
  for (const char* n : kNames)
    if (name == n) return true;
  const auto ends = [&name](const char* tail) {
    const std::string t = tail;
    return name.size() >= t.size() && name.compare(name.size() - t.size(), t.size(), t) == 0;
  };
  return name.rfind("outData_", 0) == 0 && (ends(".dst") || ends(".txt"));
}

// Bytes in decimal units with three significant digits: "7.81 GB".
std::string InUnits(double bytes) {
  static const char* const kUnits[] = {"bytes", "kB", "MB", "GB", "TB", "PB", "EB"};
  int u = 0;
  while (bytes >= 1000.0 && u < 6) bytes /= 1000.0, ++u;
  char text[64];
  std::snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.3g %s", bytes, kUnits[u]);
  return text;
}

}  // namespace

void CheckFoldersApart() {
  if (SameFile(inputFilePath, outputFilePath))
    Initial::errorOut("The input folder " + inputFilePath + " is also the output folder " + outputFilePath +
                      ": the results would overwrite inputs of the same name; give the run an output folder of its "
                      "own");
}

void CheckDistributionKept(const std::string& distributionName) {
  if (distributionName == "unknown") return;
  const std::string path = inputFilePath + distributionName;
  const std::size_t slash = path.rfind('/');
  const std::string folder = path.substr(0, slash + 1), name = path.substr(slash + 1);
  if (IsOutputName(name) && SameFile(folder, outputFilePath))
    Initial::errorOut("beam.txt: the distribution file " + distributionName + " lies in the output folder " +
                      outputFilePath + ", where the run writes a file of that name; copy it elsewhere or give the "
                      "run another output folder");
}

OutputEstimate EstimateOutput(const Initial& init, const Beam& beam, const Lattice& lattice) {
  OutputEstimate e;
  if (lattice.zEnd.empty() || beam.particle == nullptr) return e;
  const double N = beam.particleNumber;
  const double* reference = beam.particle[beam.particleNumber].coordinate;
  const double distance = lattice.zEnd.back() - reference[4];
  const double planes = static_cast<double>(init.outputPlanes.size());
  if (init.secondaryBeam != 0) {
    // The reference advances about releaseDistance per step; each particle
    // leaves one line in the file of every plane it reaches.
    e.steps = distance / init.releaseDistance;
    e.total = e.steps * 180.0 + planes * N * kPlaneLineBytes;
  } else {
    const double pz = reference[5];
    const double beta = pz / std::sqrt(1.0 + pz * pz);
    // The head of the bunch moves at about the reference speed from the
    // start; the tail follows phaseStart later.
    e.steps = (distance / (beta * constants::kLightSpeed) + beam.phaseStart) * init.frequency * init.stepPerCycle;
    const double record = 25.0 + 52.0 * N;
    if (init.dumpPeriodicity > 0) e.beamSet = 34.0 + (std::floor(e.steps / init.dumpPeriodicity) + 2.0) * record;
    e.total = e.steps * kStepLineBytes + e.beamSet + planes * (31.0 + 48.0 * N);
  }
  if (init.boundary == 1) e.total += N * kCollisionLineBytes;
  // A setting that gives no finite count is refused by the readers; nothing
  // to estimate here.
  if (!std::isfinite(e.total) || e.total < 0.0) e = OutputEstimate();
  return e;
}

void CheckOutputSpace(const Initial& init, const Beam& beam, const Lattice& lattice, int runs) {
  const OutputEstimate e = EstimateOutput(init, beam, lattice);
  struct statvfs disk;
  if (e.total == 0.0 || statvfs(outputFilePath.c_str(), &disk) != 0) return;
  const double free = static_cast<double>(disk.f_bavail) * static_cast<double>(disk.f_frsize);
  const double need = e.total * runs;
  if (need <= free) return;
  std::string what = runs > 1 ? "The " + std::to_string(runs) + " runs still to come of the study would write about "
                              : "The run would write about ";
  what += InUnits(need) + " into the output folder " + outputFilePath;
  if (e.beamSet > 0.5 * e.total)
    what += " (BeamSet.plt about " + InUnits(e.beamSet) + " a run: " + std::to_string(beam.particleNumber) +
            " particles a dump, dumpperiodicity " + std::to_string(init.dumpPeriodicity) + ", about " +
            FormatNumber(e.steps) + " time steps)";
  Initial::errorOut(what + ", but only " + InUnits(free) + " are free there; free space, dump less often or write "
                    "the results elsewhere");
}
