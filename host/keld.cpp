// keld: the small host program. It hands the two folders to the library and
// runs one simulation.
#include <cstring>
#include <iostream>
#include <new>
#include <stdexcept>

#include "run/Keld.h"

namespace {

void PrintUsage() {
  std::cout << "Usage: keld [INPUT_DIR OUTPUT_DIR]\n"
               "\n"
               "Runs one Keld simulation from the decks in INPUT_DIR and writes its results\n"
               "to OUTPUT_DIR (which must exist). Without arguments the library's default\n"
               "folders ./inputFile/ and ./outputFile/ are used.\n"
               "\n"
               "Decks read from INPUT_DIR:\n"
               "  input.txt     run settings (time steps, space charge, threads, outputs)\n"
               "  beam.txt      the bunch: species, energy, current, Twiss parameters\n"
               "  lattice.txt   the beamline between 'start' and 'end', output planes, errors\n"
               "  boundary.txt  apertures, read when input.txt says boundary 1\n"
               "\n"
               "Files written to OUTPUT_DIR:\n"
               "  DataSet.txt             one line of bunch statistics per time step\n"
               "  synParticle.txt         the reference particle's track\n"
               "  SeSynParticle.txt       the reference particle after each of its pushes\n"
               "  inData.dst              the generated start distribution (binary)\n"
               "  SingleParticle.txt      the start state of a one-particle run\n"
               "  outData_<z>.dst         the bunch at each output plane (binary)\n"
               "  BeamSet.plt             particle dumps every dumpperiodicity steps (binary)\n"
               "  collisionData.txt       lost particles with where they hit the aperture\n"
               "  test.txt, testP.txt     diagnostic dumps, emptied at the start of a run\n"
               "  SimulationTime.txt      timing of the run\n"
               "  ErrorLog.txt            one stamped line per failed run\n"
               "  output_<i>/             one folder per sample of an error study, each with\n"
               "                          StaticErrorData.txt and DynamicErrorData.txt\n"
               "\n"
               "Exit status: 0 on success, 1 for a failure while reading the decks\n"
               "(a value that is no number included), 2 for a failure during tracking.\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    PrintUsage();
    return 0;
  }
  if (argc != 1 && argc != 3) {
    PrintUsage();
    return 64;
  }
  if (argc == 3) path(argv[1], argv[2]);
  // The library lets a token that is no number, or a number out of range,
  // escape from its string conversions; the host turns that into a plain
  // status 1 instead of an abort.
  try {
    main_agent();
  } catch (const std::invalid_argument& e) {
    std::cout << std::endl << "A deck holds a value that is not a number (" << e.what() << ")" << std::endl;
    return 1;
  } catch (const std::out_of_range& e) {
    std::cout << std::endl << "A deck holds a value out of range or a line with too few values (" << e.what() << ")"
              << std::endl;
    return 1;
  } catch (const std::bad_alloc&) {
    std::cout << std::endl << "The run needs more memory than this machine can give" << std::endl;
    return 1;
  }
  return 0;
}
