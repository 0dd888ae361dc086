// The z code's map step of 10^6 particles through a hard-edge quadrupole on 1
// and 2 threads: a plain step, a step behind a space-charge kick, and a whole
// element cut at its middle with the preparation and an FFT solve (32^3)
// between its halves. In particle-steps per second.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
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

// Seconds of wall-clock and processor time of one call of `work`, the
// fastest of `rounds`: on a shared machine the slower rounds measure the
// neighbours.
template <class F>
void Fastest(int rounds, F work, double& wall, double& cpu) {
  wall = cpu = 1e300;
  for (int r = 0; r < rounds; ++r) {
    const double cpu0 = ProcessorSeconds();
    const auto t0 = std::chrono::steady_clock::now();
    work();
    wall = std::min(wall, Seconds(t0));
    cpu = std::min(cpu, ProcessorSeconds() - cpu0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int N = argc > 1 ? std::atoi(argv[1]) : 1000000;
  const int steps = 10;
  Lattice lattice;
  lattice.SetElement({"drift", "0.1", "1.0", "0"}, new Drift());
  lattice.SetElement({"quad", "0.1", "1.0", "0", "10", "0", "0"}, new Quadrupole());
  lattice.SetElement({"quad", "0.1", "1.0", "0", "0", "0", "0"}, new Quadrupole());  // no gradient: a drift

  const char* names[4] = {"map step, no kick", "map step, gradient 0 (memory only)", "map step behind a kick",
                          "element with kick (2 maps+solve)"};
  double wall[2][4], cpu[2][4], prepare[2] = {0, 0}, solve[2] = {0, 0};
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
    const int t = threads - 1;

    // Each round is `steps` map steps; the figures are per step.
    auto maps = [&](int element, double from, double to, int mode) {
      return [&, element, from, to, mode]() {
        for (int s = 0; s < steps; ++s) {
          kick = mode;  // behind a kick the field is whatever the particles hold: the cost is the same
          mp.HardEdgeTrans(element, from, to, rows, beam, lattice, kick, timeOut);
        }
      };
    };
    Fastest(3, maps(1, 0.1, 0.2, 0), wall[t][0], cpu[t][0]);
    Fastest(3, maps(2, 0.2, 0.3, 0), wall[t][1], cpu[t][1]);
    Fastest(3, maps(1, 0.1, 0.2, 1), wall[t][2], cpu[t][2]);
    for (int c = 0; c < 3; ++c) wall[t][c] /= steps, cpu[t][c] /= steps;

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
    std::ostringstream quiet;
    std::streambuf* console = std::cout.rdbuf(quiet.rdbuf());
    PIC pic(mesh, beam, parameters, 0);
    std::cout.rdbuf(console);
    bool fitted = true;
    Fastest(3, [&]() {
      kick = 2;
      mp.HardEdgeTrans(1, 0.1, 0.15, rows, beam, lattice, kick, timeOut);
      auto t1 = std::chrono::steady_clock::now();
      mp.HESCFieldPre(beam, rows, lattice, timeOut);
      prepare[t] = Seconds(t1);
      t1 = std::chrono::steady_clock::now();
      fitted = fitted && pic.Weight(mesh, beam, mp.timeStep) == 0;
      pic.FFT(mesh);
      pic.Allocate(mesh, beam);
      solve[t] = Seconds(t1);
      kick = 1;
      mp.HardEdgeTrans(1, 0.15, 0.2, rows, beam, lattice, kick, timeOut);
      mp.HardEdgeTrans(1, rows, beam, lattice);
    }, wall[t][3], cpu[t][3]);
    if (!fitted) {
      std::printf("mesh fit failed: %s\n", pic.fitFailure.c_str());
      return 1;
    }
    delete[] beam.particle;
  }

  std::printf("z-code map step through a quadrupole, %d particles (particle-steps per second; per core = per\n"
              "second of processor time; fastest of three rounds of %d steps)\n", N, steps);
  std::printf("%-34s %12s %12s %12s %12s %9s\n", "case", "1 thread", "2 threads", "per core 1", "per core 2",
              "speed-up");
  for (int c = 0; c < 4; ++c)
    std::printf("%-34s %12.3e %12.3e %12.3e %12.3e %9.2f\n", names[c], N / wall[0][c], N / wall[1][c], N / cpu[0][c],
                N / cpu[1][c], wall[0][c] / wall[1][c]);
  std::printf("    element on 2 threads: preparation %.1f%%, FFT solve (32^3) %.1f%% of the last round\n",
              100.0 * prepare[1] / wall[1][3], 100.0 * solve[1] / wall[1][3]);
  std::printf("map step, no kick: %.3e per core, %.2f of the memory-only rate; target >= 3e7 per core and a\n"
              "speed-up >= 1.8: %s\n",
              N / cpu[0][0], cpu[0][1] / cpu[0][0],
              N / cpu[0][0] >= 3e7 && wall[0][0] / wall[1][0] >= 1.8 ? "met" : "missed");
  return 0;
}
