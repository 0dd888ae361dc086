// keld: the small host program. It hands the two folders to the library and
// runs one simulation.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "host/Arguments.h"
#include "host/HostRun.h"
#include "host/RunSummary.h"

namespace {

void PrintUsage() {
  std::cout << "Usage: keld [INPUT_DIR OUTPUT_DIR] [--samples FIRST-LAST] [--seed N]\n"
               "\n"
               "Runs one Keld simulation from the decks in INPUT_DIR and writes its results\n"
               "to OUTPUT_DIR (which must exist and must not be INPUT_DIR). Without folders\n"
               "the library's default folders ./inputFile/ and ./outputFile/ are used.\n"
               "\n"
               "Options:\n"
               "  --samples FIRST-LAST  for an error study, run only the samples FIRST to LAST\n"
               "                        (from 0), each in its OUTPUT_DIR/output_<i> as the\n"
               "                        whole study would; keld-mpi spreads a study over MPI\n"
               "                        ranks the same way\n"
               "  --seed N              seed the bunch generator with N (0 to 4294967295):\n"
               "                        runs with the same seed draw the same bunch bit for\n"
               "                        bit, and every sample of a study draws from it.\n"
               "                        Without it each bunch is seeded from the clock. The\n"
               "                        error sets of a study are the same with or without.\n"
               "\n"
               "Decks read from INPUT_DIR:\n"
               "  input.txt     run settings (time steps, space charge, threads, outputs)\n"
               "  beam.txt      the bunch: species, energy, current, Twiss parameters\n"
               "  lattice.txt   the beamline between 'start' and 'end', output planes, errors\n"
               "  boundary.txt  apertures, read when input.txt says boundary 1\n"
               "  field maps    the files of each field line's map set (.edx ... .bsz)\n"
               "  rfqinputAnn.txt, rfqinputV.txt  the RFQ's coefficient and cell tables, merged\n"
               "                into rfqinput.txt (the cell table) and E0-z.txt in INPUT_DIR\n"
               "  scanData.txt  entrance phases to reuse (scanphase 2)\n"
               "  distribution  the file named by readparticledistribution in beam.txt: a\n"
               "                binary bunch (inData.dst or outData_<z>.dst of an earlier run),\n"
               "                or for secondarybeam a text list, one particle a line\n"
               "\n"
               "Files written to OUTPUT_DIR:\n"
               "  DataSet.txt             one line of bunch statistics per time step\n"
               "  synParticle.txt         the reference particle's track\n"
               "  SeSynParticle.txt       the reference particle after each of its pushes\n"
               "  inData.dst              the generated or loaded start distribution (binary)\n"
               "  SingleParticle.txt      the start state of a one-particle run\n"
               "  outData_<z>.dst         the bunch at each output plane (binary); a later run\n"
               "                          can start from it with readparticledistribution\n"
               "  outData_<z>.txt         secondary beam: one line per particle reaching the plane\n"
               "  BeamSet.plt             particle dumps every dumpperiodicity steps (binary)\n"
               "  collisionData.txt       lost particles with where they hit the aperture\n"
               "  scanData.txt            entrance phase and arrival time of each cavity (also\n"
               "                          written to INPUT_DIR, where scanphase 2 reuses it)\n"
               "  scanPhaseData.txt       every trial of the phase scan\n"
               "  Phase.txt               time, z and energy of the design particle at each cavity\n"
               "  RFQsynPhaseEG.txt       phase and exit energy of the design particle in each RFQ cell\n"
               "  test.txt, testP.txt     diagnostic dumps, emptied at the start of a run\n"
               "  SimulationTime.txt      timing of the run\n"
               "  ErrorLog.txt            one stamped line per failed run\n"
               "  output_<i>/             one folder per sample of an error study, each with\n"
               "                          StaticErrorData.txt and DynamicErrorData.txt\n"
               "\n"
               "Exit status: 0 on success, 1 for refused arguments or a failure while\n"
               "setting up (a deck value, a file that cannot be written, outputs larger\n"
               "than the free space of OUTPUT_DIR), 2 for a failure during tracking, a\n"
               "failed write included.\n";
}

// "FIRST-LAST" into two sample numbers from 0 to the largest int.
bool ParseRange(const std::string& text, int& first, int& last) {
  const std::size_t dash = text.find('-');
  unsigned long long a = 0, b = 0;
  if (dash == std::string::npos || !host::ParseWhole(text.substr(0, dash), 2147483647ULL, a) ||
      !host::ParseWhole(text.substr(dash + 1), 2147483647ULL, b) || a > b)
    return false;
  first = static_cast<int>(a);
  last = static_cast<int>(b);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    PrintUsage();
    return 0;
  }
  // Two folders or none, then the options in any order; every refusal ends
  // with status 1 before the library is called.
  std::vector<const char*> folders;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg != "--samples" && arg != "--seed") {
      if (arg.rfind("--", 0) == 0 || folders.size() == 2) {
        std::cout << "keld: unexpected argument " << arg << "\n\n";
        PrintUsage();
        return 1;
      }
      folders.push_back(argv[i]);
      continue;
    }
    if (i + 1 == argc) {
      std::cout << arg << " wants a value" << std::endl;
      return 1;
    }
    const std::string value = argv[++i];
    if (arg == "--seed") {
      unsigned int seed = 0;
      if (!host::ParseSeed(value, seed)) return 1;
      random_seed(seed);
      continue;
    }
    int first = 0, last = 0;
    if (!ParseRange(value, first, last)) {
      std::cout << "--samples wants FIRST-LAST, two sample numbers from 0 to 2147483647 with FIRST <= LAST, got "
                << value << std::endl;
      return 1;
    }
    sample_range(first, last);
  }
  if (folders.size() == 1) {
    std::cout << "keld: an output folder is needed beside the input folder " << folders[0] << "\n\n";
    PrintUsage();
    return 1;
  }
  if (folders.size() == 2) path(folders[0], folders[1]);
  // A study leaves outputFilePath at its last sample: keep the folders first.
  const std::string input = inputFilePath, output = outputFilePath;
  const std::vector<int> samplesBefore = host::SampleFolders(output);
  const auto start = std::chrono::system_clock::now();
  const int status = host::RunSimulation();
  if (status == 0) host::PrintRunSummary(input, output, samplesBefore, start);
  return status;
}
