// The secondary-beam run against the bunch run: 10^3 and 10^4 protons through
// 1 m of drift, the same length per step, in particle-steps per second, with
// 1 and 2 threads for the pooled push. Secondary particles go one by one on
// the calling thread, so their rate does not change with the thread count;
// the figure to watch is how close it stays to the bunch's.
#include <fcntl.h>
#include <unistd.h>

#include <cmath>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "run/Keld.h"
#include "tracking/MethodMP.h"

namespace {

const double kStep = 1.0 / 352.2e6 / 100.0;  // s, bunch time step
const double kGbz = 0.08;

MethodMP* MakeEngine(int threads) {
  MethodMP* engine = new MethodMP();
  engine->timeStep = kStep;
  engine->spaceCharge = 0;
  engine->cores = {threads, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  engine->numOfGrid = {3, 3, 3};
  engine->outputPlanes = {1.0};
  return engine;
}

// The runs' console lines go to /dev/null; the table stays on the console.
struct Quiet {
  int saved;
  Quiet() : saved(dup(1)) {
    std::fflush(stdout);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~Quiet() {
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
  }
};

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main() {
  char folder[] = "/tmp/keld_bench_XXXXXX";
  if (!mkdtemp(folder)) return 1;
  outputFilePath = std::string(folder) + "/";
  const double vz = kGbz / std::sqrt(1.0 + kGbz * kGbz) * 299792458.0;

  std::printf("\nparticles threads   bunch (steps/s)   secondary (steps/s)   secondary / bunch\n");
  for (int N : {1000, 10000}) {
    for (int threads : {1, 2}) {
      Lattice lattice;
      keldbench::MakeDriftLattice(lattice, 1, 1.0);
      ErrorSample sample;
      Boundary boundary;

      Beam bunch;
      keldbench::MakeBunch(bunch, N, kGbz, 0.01);
      MethodMP* engine = MakeEngine(threads);
      double seconds;
      {
        Quiet quiet;
        const auto start = std::chrono::steady_clock::now();
        engine->Run(lattice, bunch, sample, boundary);
        seconds = Seconds(start);
      }
      const double bunchRate = static_cast<double>(engine->stepCounter) * (N + 1) / seconds;
      delete engine;
      delete[] bunch.particle;

      // The same particles released one by one at z 0, each stepping the
      // bunch's step length at its own speed.
      Beam single;
      keldbench::MakeBunch(single, N, kGbz, 0.01);
      single.releaseDistance = vz * kStep;
      for (int i = 0; i <= N; ++i) {
        Particle& p = single.particle[i];
        p.coordinate[4] = 0.0;
        p.delayTime = single.releaseDistance / vz;
        p.startTime = 0.0;
        p.index = i;
      }
      Lattice lattice2;
      keldbench::MakeDriftLattice(lattice2, 1, 1.0);
      engine = MakeEngine(threads);
      {
        Quiet quiet;
        const auto start = std::chrono::steady_clock::now();
        engine->SeRun(lattice2, single, sample, boundary);
        seconds = Seconds(start);
      }
      // One line of SeSynParticle.txt per push of the reference.
      double referenceSteps = 0.0;
      std::ifstream track(outputFilePath + "SeSynParticle.txt");
      for (std::string line; std::getline(track, line);) referenceSteps += 1.0;
      const double secondaryRate = referenceSteps * (N + 1) / seconds;
      delete engine;
      delete[] single.particle;
      std::printf("%9d %7d %17.3e %21.3e %19.2f\n", N, threads, bunchRate, secondaryRate,
                   secondaryRate / bunchRate);
    }
  }
  std::system((std::string("rm -rf ") + folder).c_str());
  return 0;
}
