// Time to draw the error sets of a study: 1000 samples over a lattice of 200
// field elements (100 quadrupole maps, 100 cavities), static and dynamic
// errors in every place. Prints the drawing time and the size of the sets.
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
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"

int main() {
  char pattern[] = "/tmp/keld_error_bench_XXXXXX";
  const std::string folder = std::string(mkdtemp(pattern)) + "/";
  for (const char* ext : {".bsx", ".bsy", ".bsz", ".edx", ".edy", ".edz", ".bdx", ".bdy", ".bdz"}) {
    std::string text = "2 0.1\n2 -0.05 0.05\n2 -0.05 0.05\n1\n";
    for (int node = 0; node < 27; ++node) text += "1\n";
    std::ofstream(folder + (ext[2] == 's' ? "q" : "c") + ext) << text;
  }
  std::string deck = "start\nerr_step 100 10\n"
                     "err_quad_ncpl_stat 200 1 1e-4 1e-4 1e-4 1e-3 1e-3 1e-3 0.01 0.01 1\n"
                     "err_quad_ncpl_dyn 200 2 1e-4 1e-4 1e-4 1e-3 1e-3 1e-3 0.01 0.01 1\n"
                     "err_cav_ncpl_stat 200 1 1e-4 1e-4 1e-4 1e-3 1e-3 1e-3 0.01 0.01 1\n"
                     "err_cav_ncpl_dyn 200 2 1e-4 1e-4 1e-4 1e-3 1e-3 1e-3 0.01 0.01 1\n"
                     "err_quad_stat_on 1 1 1 1 1 1 1 1 1\nerr_quad_dyn_on 1 1 1 1 1 1 1 1 1\n"
                     "err_cav_stat_on 1 1 1 1 1 1 1 1 1\nerr_cav_dyn_on 1 1 1 1 1 1 1 1 1\n";
  for (int k = 0; k < 100; ++k) deck += "field 0.1 0.05 0 3 0 0 0 1 q\nfield 0.1 0.05 0 1 352.2e6 -30 1 0 c\n";
  std::ofstream(folder + "lattice.txt") << deck << "end\n";
  inputFilePath = outputFilePath = folder;
  Initial init;
  ErrorParameter error;
  Lattice lattice;
  Boundary boundary;
  std::ostringstream quiet;
  std::streambuf* console = std::cout.rdbuf(quiet.rdbuf());
  init.InitLattice(lattice, error, boundary);
  std::cout.rdbuf(console);
  const auto t0 = std::chrono::steady_clock::now();
  GenerateErrorSet(error, lattice);
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  std::printf("error sets of 1000 samples over 200 field elements, static and dynamic: %.1f ms (%zu + %zu sets)\n", ms,
              error.staticSets.size(), error.dynamicSets.size());
  std::system(("rm -rf '" + folder + "'").c_str());
  return 0;
}
