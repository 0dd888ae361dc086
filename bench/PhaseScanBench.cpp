// Time of the phase scan per cavity: a lattice of 10 and of 50 gaps of
// uniform Ez with drifts between them, each scanned at -30 degrees. Prints
// milliseconds per cavity; one particle, one core.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "beamline/Boundary.h"
#include "beamline/Lattice.h"
#include "run/ErrorParameter.h"
#include "run/Initial.h"
#include "run/Keld.h"

namespace {

void Write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

double ScanMilliseconds(const std::string& folder, int cavities) {
  std::string lattice = "start\n";
  for (int k = 0; k < cavities; ++k) lattice += "drift 0.05 0.05 0\nfield 0.02 0.05 0 1 352.2e6 -30 1 0 cell\n";
  Write(folder + "lattice.txt", lattice + "drift 0.05 0.05 0\nend\n");
  inputFilePath = outputFilePath = folder;
  Initial init;
  init.numOfCharge = 1.0;
  init.frequency = 352.2e6;
  init.stepPerCycle = 100.0;
  ErrorParameter error;
  Lattice lat;
  Boundary boundary;
  std::ostringstream quiet;
  std::streambuf* console = std::cout.rdbuf(quiet.rdbuf());
  init.InitLattice(lat, error, boundary);
  const auto t0 = std::chrono::steady_clock::now();
  init.SetSynPhase(lat);
  const auto t1 = std::chrono::steady_clock::now();
  std::cout.rdbuf(console);
  return std::chrono::duration<double, std::milli>(t1 - t0).count();
}

}  // namespace

int main() {
  char pattern[] = "/tmp/keld_scan_bench_XXXXXX";
  const std::string folder = std::string(mkdtemp(pattern)) + "/";
  const char* ext[6] = {".edx", ".edy", ".edz", ".bdx", ".bdy", ".bdz"};
  for (int c = 0; c < 6; ++c) {
    std::string text = "4 0.02\n2 -0.05 0.05\n2 -0.05 0.05\n1\n";
    for (int node = 0; node < 45; ++node) text += c == 2 ? "2\n" : "0\n";
    Write(folder + "cell" + ext[c], text);
  }
  Write(folder + "beam.txt", "kneticenergy 3.0\nfrequency 352.2e6\n");
  for (int cavities : {10, 50}) {
    const double ms = ScanMilliseconds(folder, cavities);
    std::printf("phase scan, %2d cavities, scantstep 0.01, 100 steps per period: %8.1f ms in all, %6.2f ms per cavity\n",
                cavities, ms, ms / cavities);
  }
  std::system(("rm -rf '" + folder + "'").c_str());
  return 0;
}
