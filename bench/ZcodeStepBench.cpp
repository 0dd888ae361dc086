// The z code's map step of 10^6 particles through a hard-edge quadrupole on 1
// and 2 threads: a plain step, a step behind a space-charge kick, and a whole
// element cut at its middle with the preparation and an FFT solve (32^3)
// between its halves. In particle-steps per second.
#include <chrono>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "BenchSupport.h"
#include "beamline/Quadrupole.h"
#include "spacecharge/Mesh.h"
#include "spacecharge/PIC.h"
#include "tracking/MethodMP.h"

namespace {

// Rows of a Gaussian bunch of 3 MeV protons (rms 1 mm, 1 mrad, 0.1 ns)
// carrying 10 mA at 352.2 MHz, all alive, from a fixed sequence of numbers.
void MakeRows(Beam& beam, CrossingTable& rows, int N) {
  keldbench::MakeBunch(beam, N, 0.08, 0.01);
  keldbench::NormalSequence normal;
  rows.Reset(N + 1);
  const double charge = 0.01 / 352.2e6 / N;
  for (int i = 0; i < N; ++i) {
    const double gbz = 0.08 * (1.0 + 1e-3 * normal());
    rows[i] = {1e-3 * normal(), 1e-3 * normal() * gbz, 1e-3 * normal(), 1e-3 * normal() * gbz, 0.0, gbz,
               1e-10 * normal(), 1.0};
    beam.particle[i].charge = charge;
  }
  rows[N] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.08, 0.0, 1.0};
  beam.gamma = std::sqrt(1.0 + 0.08 * 0.08);
}

double Seconds(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Processor time of the whole process, all threads: on a shared machine the
// rate per processor-second is the steadier figure of the cost per core.
double ProcessorSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

}  // namespace

int main(int argc, char** argv) {
  const int N = argc > 1 ? std::atoi(argv[1]) : 1000000;
  const int steps = 10;
  Lattice lattice;
  lattice.SetElement({"drift", "0.1", "1.0", "0"}, new Drift());
  lattice.SetElement({"quad", "0.1", "1.0", "0", "10", "0", "0"}, new Quadrupole());
  lattice.SetElement({"quad", "0.1", "1.0", "0", "0", "0", "0"}, new Quadrupole());  // no gradient: a drift

  std::printf("z-code map step through a quadrupole, %d particles\n", N);
  std::printf("%-34s %7s %12s %16s %12s %14s\n", "case", "threads", "s per step", "particle-steps/s", "per thread",
              "per cpu-second");
  for (int threads : {1, 2}) {
    Beam beam;
    CrossingTable rows;
    MakeRows(beam, rows, N);
    MethodMP mp;
    mp.cores = {threads, threads, threads, threads, threads, threads, threads, threads, threads, threads};
    mp.timeStep = 1.0 / 352.2e6 / 100.0;
    int kick = 0;
    double timeOut = 0.0;
    mp.HardEdgeTrans(1, 0.1, 0.2, rows, beam, lattice, kick, timeOut);  // first touch of every page

    double cpu0 = 0.0;
    auto report = [&](const char* name, double seconds, double particleSteps, int repeats) {
      const double rate = particleSteps / seconds;
      const double perCpu = particleSteps * repeats / (ProcessorSeconds() - cpu0);
      std::printf("%-34s %7d %12.5f %16.3e %12.3e %14.3e\n", name, threads, seconds, rate, rate / threads, perCpu);
    };

    cpu0 = ProcessorSeconds();
    auto t0 = std::chrono::steady_clock::now();
    for (int s = 0; s < steps; ++s) {
      kick = 0;
      mp.HardEdgeTrans(1, 0.1, 0.2, rows, beam, lattice, kick, timeOut);
    }
    report("map step, no kick", Seconds(t0) / steps, N, steps);

    cpu0 = ProcessorSeconds();
    t0 = std::chrono::steady_clock::now();
    for (int s = 0; s < steps; ++s) {
      kick = 0;
      mp.HardEdgeTrans(2, 0.2, 0.3, rows, beam, lattice, kick, timeOut);
    }
    report("map step, gradient 0 (memory only)", Seconds(t0) / steps, N, steps);

    cpu0 = ProcessorSeconds();
    t0 = std::chrono::steady_clock::now();
    for (int s = 0; s < steps; ++s) {
      kick = 1;  // the field of the particles is whatever they hold: the cost is the same
      mp.HardEdgeTrans(1, 0.1, 0.2, rows, beam, lattice, kick, timeOut);
    }
    report("map step behind a kick", Seconds(t0) / steps, N, steps);

    // A whole element with the self-field: half, preparation, solve, half.
    std::vector<int> grid = {32, 32, 32};
    Mesh mesh;
    mesh.Initial(grid, N);
    std::vector<double> parameters(20, static_cast<double>(threads));
    parameters[0] = 0.0;
    parameters[1] = parameters[2] = parameters[3] = 6.5;
    parameters[4] = parameters[5] = parameters[6] = 8.0;
    parameters[7] = -1.0;
    parameters[8] = 0.07;
    parameters[9] = 1.0;
    PIC pic(mesh, beam, parameters, 0);
    const int elements = 3;
    double prepare = 0.0, solve = 0.0;
    cpu0 = ProcessorSeconds();
    t0 = std::chrono::steady_clock::now();
    for (int s = 0; s < elements; ++s) {
      kick = 2;
      mp.HardEdgeTrans(1, 0.1, 0.15, rows, beam, lattice, kick, timeOut);
      auto t1 = std::chrono::steady_clock::now();
      mp.HESCFieldPre(beam, rows, lattice, timeOut);
      prepare += Seconds(t1);
      t1 = std::chrono::steady_clock::now();
      if (pic.Weight(mesh, beam, mp.timeStep) != 0) {
        std::printf("mesh fit failed: %s\n", pic.fitFailure.c_str());
        return 1;
      }
      pic.FFT(mesh);
      pic.Allocate(mesh, beam);
      solve += Seconds(t1);
      kick = 1;
      mp.HardEdgeTrans(1, 0.15, 0.2, rows, beam, lattice, kick, timeOut);
      mp.HardEdgeTrans(1, rows, beam, lattice);
    }
    const double element = Seconds(t0) / elements;
    report("element with kick (2 maps+solve)", element, N, elements);
    std::printf("    of which preparation %.1f%%, FFT solve %.1f%%\n", 100.0 * prepare / elements / element,
                100.0 * solve / elements / element);
    delete[] beam.particle;
  }
  return 0;
}
