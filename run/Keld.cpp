#include "run/Keld.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include "beam/Beam.h"
#include "beamline/Boundary.h"
#include "beamline/Lattice.h"
#include "run/ErrorParameter.h"
#include "run/ErrorSample.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/OutputChecks.h"
#include "run/OutputFile.h"
#include "tracking/MethodMP.h"

std::string inputFilePath = "./inputFile/";
std::string outputFilePath = "./outputFile/";

int path(const char* inputFolder, const char* outputFolder) {
  std::cout << "The input path has been set to " << inputFolder << std::endl;
  std::string input = std::string(inputFolder) + "/";
  std::cout << "The output path has been set to " << outputFolder << std::endl;
  std::string output = std::string(outputFolder) + "/";
  inputFilePath = input;
  outputFilePath = output;
  return 0;
}

namespace {

// One tracked sample: the bunch, its engine and the run. The bunch array is
// released here, so that the samples of a study do not pile up in memory.
// `runs` counts this sample and those of the study still to come after it.
void RunSample(Initial& init, Lattice& lattice, Boundary& boundary, ErrorSample& sample,
               std::chrono::system_clock::time_point t0, bool reportInitialisation, int runs) {
  Beam beam;
  init.InitParticle(beam, sample);
  init.SetSynPhase(lattice);
  CheckOutputSpace(init, beam, lattice, runs);
  if (reportInitialisation) std::cout << "Initialization time: " << ElapsedSeconds(t0) << " s" << std::endl;
  {
    MethodMP engine;
    init.InitMethodMP(engine);
    if (init.secondaryBeam != 0)
      engine.SeRun(lattice, beam, sample, boundary);
    else
      engine.Run(lattice, beam, sample, boundary);
    std::cout << "Simulated total time: " << ElapsedSeconds(t0) << " s" << std::endl;
  }
  delete[] beam.particle;
  beam.particle = nullptr;
}

}  // namespace

namespace {

// The samples of a study that this process runs; all of them by default.
struct SampleSelection {
  int first = -1, last = -1;  // a range, when first >= 0
  int rank = 0, ranks = 1;    // else a slice
};
SampleSelection selection;

// First and one-past-last sample of the selection among `count`.
void SelectedSamples(int count, int& begin, int& end) {
  if (selection.first >= 0) {
    if (selection.last >= count)
      Initial::errorOut("Samples " + std::to_string(selection.first) + "-" + std::to_string(selection.last) +
                        " were asked for, but the study has " + std::to_string(count) + " samples (0-" +
                        std::to_string(count - 1) + ")");
    begin = selection.first;
    end = selection.last + 1;
    return;
  }
  begin = static_cast<int>(static_cast<long long>(count) * selection.rank / selection.ranks);
  end = static_cast<int>(static_cast<long long>(count) * (selection.rank + 1) / selection.ranks);
}

}  // namespace

int sample_range(int first, int last) {
  selection = SampleSelection();
  if (first >= 0 && last >= first) {
    selection.first = first;
    selection.last = last;
  }
  return 0;
}

int sample_slice(int rank, int ranks) {
  selection = SampleSelection();
  if (ranks >= 1 && rank >= 0 && rank < ranks) {
    selection.rank = rank;
    selection.ranks = ranks;
  }
  return 0;
}

namespace {
bool seedGiven = false;
unsigned int seedValue = 0;
}  // namespace

int random_seed(unsigned int seed) {
  seedGiven = true;
  seedValue = seed;
  return 0;
}

unsigned int BunchSeed() { return seedGiven ? seedValue : static_cast<unsigned int>(std::time(nullptr)); }

int main_agent() {
  std::cout << "The programme is running." << std::endl;
  const auto t0 = std::chrono::system_clock::now();
  ReportFileSizeLimitAsFailedWrite();

  Initial init;
  init.Read();
  // Nothing is tracked into a folder that cannot take the results.
  init.CheckOutputFolder();
  CheckFoldersApart();
  ErrorParameter error;
  Lattice lattice;
  Boundary boundary;
  init.InitLattice(lattice, error, boundary);
  init.CheckLattice(lattice);
  GenerateErrorSet(error, lattice);

  const int flagSum = error.onFlag[0] + error.onFlag[1] + error.onFlag[2] + error.onFlag[3];
  if (flagSum == 0) {
    ErrorSample sample;
    sample.onFlag = error.onFlag;
    // The distribution file is named in beam.txt, which InitParticle reads
    // again; read here, it is known before the first file is written.
    init.ReadBeam();
    CheckDistributionKept(init.particleDistributionPath);
    RunSample(init, lattice, boundary, sample, t0, true, 1);
    return 0;
  }

  // Error study: one run per sample, each in its own output folder.
  const std::string baseFolder = outputFilePath;
  int begin = 0, end = 0;
  SelectedSamples(error.errStep[0] * error.errStep[1], begin, end);
  for (int i = begin; i < error.errStep[0] * error.errStep[1] && i < end; ++i) {
    ErrorSample sample;
    const bool staticOn = error.onFlag[0] == 1 || error.onFlag[2] == 1;
    const bool dynamicOn = error.onFlag[1] == 1 || error.onFlag[3] == 1;
    if (staticOn) sample.staticSet = error.staticSets[i];
    if (dynamicOn) sample.dynamicSet = error.dynamicSets[i];
    sample.onFlag = error.onFlag;
    sample.sampleNumber = i + 1;
    sample.errorSelector = 0;

    const std::string folder = baseFolder + "output_" + std::to_string(i);
    if (mkdir(folder.c_str(), 0775) != 0) {
      std::cout << "Error output folder creation failure" << std::endl;
      std::exit(1);
    }
    outputFilePath = folder + "/";
    std::cout << "Sample " << i + 1 << " of " << error.errStep[0] * error.errStep[1] << " (output_" << i << ")"
              << std::endl;
    RunSample(init, lattice, boundary, sample, t0, false, end - i);
  }
  return 0;
}
