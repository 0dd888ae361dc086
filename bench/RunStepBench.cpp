// One time step of the whole time code against the pooled push alone, for an
// example-sized bunch of 10^5 particles through 1 m of drift: how much of a
// step goes to statistics, file writing and the rest outside the push.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "run/Keld.h"
#include "tracking/MethodMP.h"

int main() {
  char folder[] = "/tmp/keld_bench_XXXXXX";
  if (!mkdtemp(folder)) return 1;
  outputFilePath = std::string(folder) + "/";

  const int N = 100000;
  Lattice lattice;
  keldbench::MakeDriftLattice(lattice, 1, 1.0);
  Beam beam;
  keldbench::MakeBunch(beam, N, 0.08, 0.01);
  beam.phaseHead = 0.0;
  ErrorSample sample;
  Boundary boundary;

  MethodMP engine;
  engine.timeStep = 1.0 / 352.2e6 / 100.0;
  engine.spaceCharge = 0;
  engine.cores = {2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  engine.numOfGrid = {3, 3, 3};
  engine.outputPlanes = {1.0};

  const auto start = std::chrono::steady_clock::now();
  engine.Run(lattice, beam, sample, boundary);
  const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const int steps = engine.stepCounter;
  const double push = engine.timePush / 1e6;

  std::printf("\n10^5 particles through 1 m of drift on 2 threads: %d steps\n", steps);
  std::printf("whole step  : %8.3f ms\n", 1e3 * total / steps);
  std::printf("push only   : %8.3f ms\n", 1e3 * push / steps);
  std::printf("outside push: %8.1f %% of a step (statistics merge, DataSet.txt, synParticle.txt, stops)\n",
              100.0 * (total - push) / total);
  std::system((std::string("rm -rf ") + folder).c_str());
  return 0;
}
