// Cost of the stateful element lookup per particle: a particle that stays in
// its element, and one that moves on by one element per call.
#include <benchmark/benchmark.h>

#include "BenchSupport.h"

// 100 drifts of 0.1 m and a particle in the middle of element 50.
struct Stretch {
  Lattice lattice;
  Particle p{};
  Stretch() {
    keldbench::MakeDriftLattice(lattice, 100, 0.1);
    p.indexElem = 50;
    p.coordinate[4] = 5.05;
  }
};

static void BM_LookupStaying(benchmark::State& state) {
  Stretch s;
  Lattice& lattice = s.lattice;
  Particle& p = s.p;
  for (auto _ : state) {
    lattice.LocateElement(p);
    benchmark::DoNotOptimize(p.indexElem);
  }
}
BENCHMARK(BM_LookupStaying);

static void BM_LookupStepping(benchmark::State& state) {
  Lattice lattice;
  keldbench::MakeDriftLattice(lattice, 100, 0.1);
  Particle p{};
  int k = 0;
  for (auto _ : state) {
    p.coordinate[4] = 0.1 * k + 0.05;  // the next element each call
    lattice.LocateElement(p);
    benchmark::DoNotOptimize(p.indexElem);
    if (++k == 100) {
      k = 0;
      p.indexElem = 0;
    }
  }
}
BENCHMARK(BM_LookupStepping);

// Lookup plus the virtual field call of the element, as the kernel does it.
static void BM_LookupAndField(benchmark::State& state) {
  Stretch s;
  Lattice& lattice = s.lattice;
  Particle& p = s.p;
  for (auto _ : state) {
    lattice.LocateElement(p);
    lattice.element[p.indexElem]->GetField(0.0, p, lattice.fieldM);
    benchmark::DoNotOptimize(p.externalField[0]);
  }
}
BENCHMARK(BM_LookupAndField);

BENCHMARK_MAIN();
