// keld: the small host program. It hands the two folders to the library and
// runs one simulation.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "host/HostRun.h"
#include "host/RunSummary.h"

namespace {

void PrintUsage() {
  std::cout << "Usage: keld [INPUT_DIR OUTPUT_DIR [--samples FIRST-LAST]]\n"
               "\n"
               "Runs one Keld simulation from the decks in INPUT_DIR and writes its results\n"
               "to OUTPUT_DIR (which must exist). Without arguments the library's default\n"
               "folders ./inputFile/ and ./outputFile/ are used. For an error study,\n"
               "--samples runs only the samples FIRST to LAST (from 0), each in its\n"
               "OUTPUT_DIR/output_<i> as the whole study would; keld-mpi spreads a study\n"
               "over MPI ranks the same way.\n"
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
               "Exit status: 0 on success, 1 for a failure while reading the decks\n"
               "(a value that is no number included), 2 for a failure during tracking.\n";
}

// "FIRST-LAST" into two sample numbers.
bool ParseRange(const char* text, int& first, int& last) {
  char dash = 0, rest = 0;
  return std::sscanf(text, "%d%c%d%c", &first, &dash, &last, &rest) == 3 && dash == '-' && first >= 0 &&
         last >= first;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    PrintUsage();
    return 0;
  }
  const bool withSamples = argc == 5 && std::strcmp(argv[3], "--samples") == 0;
  if (argc != 1 && argc != 3 && !withSamples) {
    PrintUsage();
    return 64;
  }
  if (withSamples) {
    int first = 0, last = 0;
    if (!ParseRange(argv[4], first, last)) {
      std::cout << "--samples wants FIRST-LAST, two sample numbers from 0 with FIRST <= LAST, got " << argv[4]
                << std::endl;
      return 64;
    }
    sample_range(first, last);
  }
  if (argc >= 3) path(argv[1], argv[2]);
  // A study leaves outputFilePath at its last sample: keep the folders first.
  const std::string input = inputFilePath, output = outputFilePath;
  const std::vector<int> samplesBefore = host::SampleFolders(output);
  const auto start = std::chrono::system_clock::now();
  const int status = host::RunSimulation();
  if (status == 0) host::PrintRunSummary(input, output, samplesBefore, start);
  return status;
}
