#pragma once
// A field-free beamline and a cold bunch for the benchmarks.
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "run/ErrorSample.h"
#include "spacecharge/ThreadPool.h"
#include "tracking/TcodeTrans.h"

namespace keldbench {

// `count` drifts of `length` metres end to end, closed by a plane at the end.
inline void MakeDriftLattice(Lattice& lattice, int count, double length) {
  for (int k = 0; k < count; ++k)
    lattice.SetElement({"drift", std::to_string(length), "1.0", "0"}, new Drift());
  std::vector<double> closing(7, 0.0);
  closing[6] = lattice.zEnd.back();
  lattice.outputPlane.push_back(closing);
}

// N protons of gamma beta z `gbz` spread over [-spread, 0] in z with small
// transverse offsets, plus a reference slot at the centre.
inline void MakeBunch(Beam& beam, int N, double gbz, double spread) {
  beam.particleNumber = N;
  beam.particle = new Particle[N + 1]();
  beam.frequency = 352.2e6;
  for (int i = 0; i <= N; ++i) {
    Particle& p = beam.particle[i];
    const double u = (i + 0.5) / N;
    p.coordinate[0] = 1e-3 * std::sin(12.9898 * i);
    p.coordinate[1] = 1e-4 * std::cos(78.233 * i);
    p.coordinate[2] = 1e-3 * std::cos(39.3468 * i);
    p.coordinate[3] = 1e-4 * std::sin(11.135 * i);
    p.coordinate[4] = i == N ? -0.5 * spread : -spread * u;
    p.coordinate[5] = gbz;
    p.chargeMassRatio = 1.60217653e-19 / 1.67262171e-27;
    p.restEnergy = 938.272029;
    for (int k = 0; k < 6; ++k) p.relativeCoordinate[k] = p.coordinate[k];
  }
  beam.zMin = -spread;
  beam.zMax = 0.0;
}

// Standard normal numbers from a fixed sequence: the sum of twelve uniform
// draws of a linear congruential generator, so that every run of a benchmark
// sees the same bunch.
class NormalSequence {
 public:
  double operator()() {
    double s = 0.0;
    for (int k = 0; k < 12; ++k) {
      state_ = state_ * 1664525u + 1013904223u;
      s += (state_ >> 8) / 16777216.0;
    }
    return s - 6.0;
  }

 private:
  unsigned state_ = 12345u;
};

// The engine's pooled push of a whole bunch: `threads` contiguous ranges of
// slots on a pool, one TcodeTrans task each, with a single stop far ahead.
class PooledPush {
 public:
  PooledPush(Lattice& lattice, Beam& beam, int threads, double referenceZ)
      : lattice_(lattice), beam_(beam), threads_(threads), pool_(threads), sums_(threads),
        planeCrossing_(beam.particleNumber + 1), curveCrossing_(beam.particleNumber + 1),
        previous_(beam.particleNumber + 1) {
    reference_[4] = referenceZ;
    reference_[5] = 0.08;
    const long N = beam.particleNumber;
    for (int k = 0; k <= threads; ++k) rangeStart_.push_back(static_cast<int>(N * k / threads));
  }

  // One time step of dt; gamma is the bunch's, for the statistics.
  void Step(double dt, double gamma) {
    time_ += dt;
    for (RangeAccumulator& s : sums_) s.Reset();
    for (int k = 0; k < threads_; ++k)
      pool_.enqueue(TcodeTrans, std::ref(lattice_), std::ref(beam_), -1.0, std::ref(sample_), std::cref(stopZ_),
                    std::ref(planeCrossing_), std::ref(curveCrossing_), std::ref(previous_), time_, dt,
                    static_cast<const double*>(reference_), std::ref(sums_), gamma, k, rangeStart_[k],
                    rangeStart_[k + 1]);
    pool_.wait_until_empty();
    pool_.wait_until_nothing_in_flight();
  }

 private:
  Lattice& lattice_;
  Beam& beam_;
  int threads_;
  ThreadPool pool_;
  std::vector<RangeAccumulator> sums_;
  CrossingTable planeCrossing_, curveCrossing_;
  PreviousTable previous_;
  ErrorSample sample_;
  const std::vector<double> stopZ_ = {100.0};
  double reference_[6] = {0, 0, 0, 0, 0, 0};
  std::vector<int> rangeStart_;
  double time_ = 0.0;
};

}  // namespace keldbench
