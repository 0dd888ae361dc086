#include "tracking/TcodeTrans.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "beam/LeapFrog.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "beamline/Solenoid.h"
#include "run/ErrorSample.h"
#include "spacecharge/ThreadPool.h"

namespace {

constexpr double kC = 299792458.0;
constexpr double kProtonChargeMass = 1.60217653e-19 / 1.67262171e-27;  // C/kg

// A hand-made beamline: elements end to end from z = 0, one closing output
// plane at z = 2 and no rotated plane. The elements are owned here.
struct TinyLine {
  Lattice lattice;
  std::vector<std::unique_ptr<Drift>> drifts;
  std::vector<std::unique_ptr<Solenoid>> solenoids;

  TinyLine() {
    lattice.outputPlane = {{0, 0, 0, 0, 0, 0, 2.0}};
    lattice.planeCount = 0;
  }
  void AddDrift(const std::string& length) {
    drifts.push_back(std::make_unique<Drift>());
    lattice.SetElement({"drift", length, "1.0", "0"}, drifts.back().get());
  }
  void AddSolenoid(const std::string& length, const std::string& field) {
    solenoids.push_back(std::make_unique<Solenoid>());
    lattice.SetElement({"solenoid", length, "1.0", "0", field}, solenoids.back().get());
  }
};

// n macro particles and the reference slot, zeroed, protons.
struct Bunch {
  std::vector<Particle> slots;
  Beam beam;

  explicit Bunch(int n) : slots(n + 1) {
    beam.particle = slots.data();
    beam.particleNumber = n;
    for (Particle& p : slots) p.chargeMassRatio = kProtonChargeMass;
  }
  Bunch(const Bunch& other) : slots(other.slots), beam(other.beam) { beam.particle = slots.data(); }
  Bunch& operator=(const Bunch&) = delete;
  Particle& operator[](int i) { return slots[i]; }
};

struct KernelTables {
  CrossingTable planeCrossing;
  CrossingTable curveCrossing;
  PreviousTable previous;
  std::vector<RangeAccumulator> acc;

  KernelTables(int n, int ranges)
      : planeCrossing(n + 1, std::vector<double>(8, 0.0)),
        curveCrossing(n + 1, std::vector<double>(8, 0.0)),
        previous(n + 1),
        acc(ranges) {
    for (std::array<double, 6>& row : previous) row.fill(-7.0);  // stale values the kernel must overwrite
    for (RangeAccumulator& a : acc) a.Reset();
  }
};

struct StepSettings {
  double startPlane = 0.0;
  std::vector<double> stopZ = {5.0};
  double time = 1e-6;  // s, end of the step
  double dt = 1e-10;   // s
  double gamma = 1.004;
  double reference[6] = {0.0, 0.0, 0.0, 0.0, 1.0, 0.1};
  ErrorSample sample;
};

void Step(TinyLine& line, Bunch& bunch, KernelTables& t, StepSettings& s, int range, int first, int end) {
  TcodeTrans(line.lattice, bunch.beam, s.startPlane, s.sample, s.stopZ, t.planeCrossing, t.curveCrossing,
             t.previous, s.time, s.dt, s.reference, t.acc, s.gamma, range, first, end);
}

void SetMomentum(Particle& p, double px, double py, double pz) {
  p.coordinate[1] = px;
  p.coordinate[3] = py;
  p.coordinate[5] = pz;
}

// Merges range sums the way the run driver does: in range order.
RangeAccumulator Merge(const std::vector<RangeAccumulator>& acc) {
  RangeAccumulator total;
  total.Reset();
  for (const RangeAccumulator& a : acc) {
    total.aliveCount += a.aliveCount;
    total.crossedCount += a.crossedCount;
    total.passedCount += a.passedCount;
    total.rangeZMin = std::min(total.rangeZMin, a.rangeZMin);
    total.rangeZMax = std::max(total.rangeZMax, a.rangeZMax);
    for (int k = 0; k < 6; ++k) {
      total.absMax[k] = std::max(total.absMax[k], a.absMax[k]);
      total.sumSquare[k] += a.sumSquare[k];
      total.sumValue[k] += a.sumValue[k];
    }
    for (int k = 0; k < 3; ++k) total.sumCross[k] += a.sumCross[k];
    total.sumRestLength += a.sumRestLength;
  }
  return total;
}

void ExpectStartValues(const RangeAccumulator& a) {
  EXPECT_EQ(a.aliveCount, 0);
  EXPECT_EQ(a.crossedCount, 0);
  EXPECT_EQ(a.passedCount, 0);
  EXPECT_EQ(a.rangeZMin, 1e10);
  EXPECT_EQ(a.rangeZMax, -1e10);
  EXPECT_EQ(a.sumRestLength, 0.0);
  for (int k = 0; k < 6; ++k) {
    EXPECT_EQ(a.absMax[k], 0.0);
    EXPECT_EQ(a.sumSquare[k], 0.0);
    EXPECT_EQ(a.sumValue[k], 0.0);
  }
  for (int k = 0; k < 3; ++k) EXPECT_EQ(a.sumCross[k], 0.0);
}

void ExpectSameAccumulator(const RangeAccumulator& a, const RangeAccumulator& b) {
  EXPECT_EQ(a.aliveCount, b.aliveCount);
  EXPECT_EQ(a.crossedCount, b.crossedCount);
  EXPECT_EQ(a.passedCount, b.passedCount);
  EXPECT_EQ(a.rangeZMin, b.rangeZMin);
  EXPECT_EQ(a.rangeZMax, b.rangeZMax);
  EXPECT_EQ(a.sumRestLength, b.sumRestLength);
  for (int k = 0; k < 6; ++k) {
    EXPECT_EQ(a.absMax[k], b.absMax[k]) << k;
    EXPECT_EQ(a.sumSquare[k], b.sumSquare[k]) << k;
    EXPECT_EQ(a.sumValue[k], b.sumValue[k]) << k;
  }
  for (int k = 0; k < 3; ++k) EXPECT_EQ(a.sumCross[k], b.sumCross[k]) << k;
}

constexpr int kBunchSize = 40;
constexpr int kLostSlot = 5;     // lost 1, with the most extreme values of the bunch
constexpr int kExitedSlot = 17;  // lost 2: still pushed and counted

// A drift [0, 1) and a solenoid [1, 2), 0.4 T.
void BuildDriftSolenoid(TinyLine& line) {
  line.AddDrift("1.0");
  line.AddSolenoid("1.0", "0.4");
}

// A scattered bunch in the drift and the solenoid, with fields of its own
// and a few particles just ahead of the stop at z = 1.
Bunch ScatteredBunch() {
  Bunch b(kBunchSize);
  std::mt19937 rng(20240611);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  b.beam.average = {1e-4, 2e-5, -1e-4, 1e-5, 2e-3, 0.1};
  for (int i = 0; i < kBunchSize; ++i) {
    Particle& p = b[i];
    double* c = p.coordinate;
    c[0] = 2e-3 * u(rng);
    c[1] = 1e-3 * u(rng);
    c[2] = 2e-3 * u(rng);
    c[3] = 1e-3 * u(rng);
    c[4] = 1.0 + 0.7 * u(rng);
    c[5] = 0.1 + 0.01 * u(rng);
    // Relative coordinates as the step before left them.
    for (int k = 0; k < 6; ++k) p.relativeCoordinate[k] = c[k];
    p.relativeCoordinate[4] = c[4] - 1.0 + 1e-4 * u(rng);
    for (int k = 0; k < 3; ++k) p.externalField[k] = 1e5 * u(rng);
    for (int k = 3; k < 6; ++k) p.externalField[k] = 0.1 * u(rng);
    for (int k = 0; k < 3; ++k) p.spaceChargeField[k] = 1e3 * u(rng);
  }
  b[3].coordinate[4] = 0.9995;
  b[30].coordinate[4] = 0.998;
  b[kLostSlot].lost = 1;
  b[kLostSlot].coordinate[4] = 1.95;  // would set zMax if it were counted
  for (int k = 0; k < 6; ++k) b[kLostSlot].relativeCoordinate[k] = 0.5;
  b[kExitedSlot].lost = 2;
  // The reference slot, with values that would stand out in any sum.
  Particle& r = b[kBunchSize];
  r.coordinate[4] = 1.99;
  r.coordinate[5] = 0.1;
  for (int k = 0; k < 6; ++k) r.relativeCoordinate[k] = 0.7;
  double zMin = 1e10;
  for (int i = 0; i < kBunchSize; ++i) zMin = std::min(zMin, b[i].coordinate[4]);
  b.beam.zMin = zMin;
  return b;
}

}  // namespace

// The moments before the push, worked out directly from their definitions,
// match the kernel; and the same step on three ranges run concurrently on
// the pool gives the same particles bit for bit and the same sums up to the
// order of summation.
TEST(TcodeTransSums, ThreeConcurrentRangesMatchOneSerialPass) {
  TinyLine line;
  BuildDriftSolenoid(line);
  StepSettings s;
  s.stopZ = {1.0};
  const Bunch start = ScatteredBunch();
  ASSERT_GT(start.beam.zMin, s.startPlane);

  Bunch serial = start;
  KernelTables ts(kBunchSize, 1);
  Step(line, serial, ts, s, 0, 0, kBunchSize);

  Bunch split = start;
  KernelTables tp(kBunchSize, 3);
  const int bounds[4] = {0, 14, 28, kBunchSize};
  {
    ThreadPool pool(3);
    for (int k = 0; k < 3; ++k)
      pool.enqueue([&, k] { Step(line, split, tp, s, k, bounds[k], bounds[k + 1]); });
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  }

  // Each particle's fate does not depend on the range it was pushed in.
  int moved = 0;
  for (int i = 0; i <= kBunchSize; ++i) {
    const Particle& a = serial.slots[i];
    const Particle& b = split.slots[i];
    for (int k = 0; k < 6; ++k) {
      EXPECT_EQ(a.coordinate[k], b.coordinate[k]) << "slot " << i << " k " << k;
      EXPECT_EQ(a.relativeCoordinate[k], b.relativeCoordinate[k]) << "slot " << i << " k " << k;
      EXPECT_EQ(a.externalField[k], b.externalField[k]) << "slot " << i << " k " << k;
      EXPECT_EQ(ts.previous[i][k], tp.previous[i][k]) << "slot " << i << " k " << k;
    }
    EXPECT_EQ(a.lost, b.lost) << "slot " << i;
    EXPECT_EQ(a.indexElem, b.indexElem) << "slot " << i;
    EXPECT_EQ(a.indexPlane, b.indexPlane) << "slot " << i;
    EXPECT_EQ(ts.planeCrossing[i], tp.planeCrossing[i]) << "slot " << i;
    if (a.coordinate[4] != start.slots[i].coordinate[4]) ++moved;
  }
  EXPECT_EQ(moved, kBunchSize - 1);  // all but the lost slot; the reference was not in a range

  // Moments of the state before the push, from their definitions.
  const double* av = start.beam.average.data();
  int alive = 0;
  double zmin = 1e10, zmax = -1e10, rest = 0.0;
  double absMax[6] = {0}, square[6] = {0}, cross[3] = {0}, crossScale[3] = {0};
  double value[6] = {0}, valueScale[6] = {0};
  for (int i = 0; i < kBunchSize; ++i) {
    if (i == kLostSlot) continue;
    const Particle& p = start.slots[i];
    const double* r = p.relativeCoordinate;
    const double v[6] = {r[0] - av[0], (r[1] - av[1]) / r[5], r[2] - av[2],
                         (r[3] - av[3]) / r[5], r[4] - av[4], (r[5] - av[5]) / r[5]};
    ++alive;
    zmin = std::min(zmin, p.coordinate[4]);
    zmax = std::max(zmax, p.coordinate[4]);
    rest += (s.gamma * v[4]) * (s.gamma * v[4]);
    for (int k = 0; k < 6; ++k) {
      absMax[k] = std::max(absMax[k], std::fabs(v[k]));
      square[k] += v[k] * v[k];
    }
    for (int k = 0; k < 3; ++k) {
      cross[k] += v[2 * k] * v[2 * k + 1];
      crossScale[k] += std::fabs(v[2 * k] * v[2 * k + 1]);
    }
    // Relative coordinates after the push, in the straight frame.
    const Particle& q = serial.slots[i];
    EXPECT_EQ(q.relativeCoordinate[0], q.coordinate[0] - s.reference[0]) << "slot " << i;
    EXPECT_EQ(q.relativeCoordinate[2], q.coordinate[2] - s.reference[2]) << "slot " << i;
    EXPECT_EQ(q.relativeCoordinate[4], q.coordinate[4] - s.reference[4]) << "slot " << i;
    for (int k = 1; k < 6; k += 2) EXPECT_EQ(q.relativeCoordinate[k], q.coordinate[k]) << "slot " << i;
    for (int k = 0; k < 6; ++k) {
      value[k] += q.relativeCoordinate[k];
      valueScale[k] += std::fabs(q.relativeCoordinate[k]);
    }
  }
  ASSERT_EQ(alive, kBunchSize - 1);

  const RangeAccumulator one = ts.acc[0];
  const RangeAccumulator merged = Merge(tp.acc);
  for (const RangeAccumulator* a : {&one, &merged}) {
    EXPECT_EQ(a->aliveCount, alive);
    EXPECT_EQ(a->rangeZMin, zmin);
    EXPECT_EQ(a->rangeZMax, zmax);
    EXPECT_NEAR(a->sumRestLength, rest, 1e-12 * rest);
    for (int k = 0; k < 6; ++k) {
      EXPECT_EQ(a->absMax[k], absMax[k]) << k;
      EXPECT_NEAR(a->sumSquare[k], square[k], 1e-12 * square[k]) << k;
      EXPECT_NEAR(a->sumValue[k], value[k], 1e-12 * valueScale[k]) << k;
    }
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(a->sumCross[k], cross[k], 1e-12 * crossScale[k]) << k;
  }
  // The two particles placed just ahead of z = 1 crossed the stop.
  EXPECT_EQ(serial[3].indexPlane, 1);
  EXPECT_EQ(serial[30].indexPlane, 1);
  EXPECT_GE(one.passedCount, 2);
  EXPECT_EQ(merged.passedCount, one.passedCount);
  EXPECT_EQ(merged.crossedCount, 0);
}

// The reference slot is pushed like any particle but adds nothing to the
// sums, whether it is pushed inside a range or alone.
TEST(TcodeTransSums, ReferenceSlotNeverEntersTheSums) {
  TinyLine line;
  BuildDriftSolenoid(line);
  StepSettings s;
  s.stopZ = {1.0};
  Bunch start = ScatteredBunch();
  // The reference stands just ahead of the stop so that it crosses it too.
  Particle& r = start[kBunchSize];
  r.coordinate[4] = 0.9995;
  SetMomentum(r, 0.0, 0.0, 0.1);

  Bunch without = start;
  KernelTables t1(kBunchSize, 1);
  Step(line, without, t1, s, 0, 0, kBunchSize);

  Bunch with = start;
  KernelTables t2(kBunchSize, 1);
  Step(line, with, t2, s, 0, 0, kBunchSize + 1);
  ExpectSameAccumulator(t1.acc[0], t2.acc[0]);
  EXPECT_EQ(with[kBunchSize].indexPlane, 1);

  Bunch alone = start;
  KernelTables t3(kBunchSize, 2);
  Step(line, alone, t3, s, 1, kBunchSize, kBunchSize + 1);
  EXPECT_GT(alone[kBunchSize].coordinate[4], 1.0);  // it was pushed, across the stop
  EXPECT_EQ(alone[kBunchSize].indexPlane, 1);
  EXPECT_EQ(t3.planeCrossing[kBunchSize][7], 1.0);
  ExpectStartValues(t3.acc[1]);
  ExpectStartValues(t3.acc[0]);  // another range's entry is not touched
  for (int i = 0; i < kBunchSize; ++i)
    EXPECT_EQ(alone[i].coordinate[4], start[i].coordinate[4]) << "slot " << i << " is outside the range";
}

// Three particles with hand-computed moments; the middle one is lost and
// must neither move nor count, though its previous row is refreshed.
TEST(TcodeTransLost, LostSlotKeepsItsStateAndAddsNothing) {
  TinyLine line;
  line.AddDrift("1.0");
  line.AddDrift("1.0");
  StepSettings s;
  s.stopZ = {1.0};
  Bunch b(3);
  b.beam.average = {0, 0, 0, 0, 0, 0.1};
  b.beam.zMin = 0.5;
  const double rel0[6] = {0.001, 0.0002, -0.002, 0.0001, 0.01, 0.1};
  const double rel2[6] = {-0.003, -0.0004, 0.001, 0.0, -0.02, 0.125};
  std::copy(rel0, rel0 + 6, b[0].relativeCoordinate);
  std::copy(rel2, rel2 + 6, b[2].relativeCoordinate);
  b[0].coordinate[4] = 0.6;
  b[2].coordinate[4] = 0.5;
  SetMomentum(b[0], 0.0, 0.0, 0.1);
  SetMomentum(b[2], 0.0, 0.0, 0.1);
  // Lost at z = 1.9, past the stop and with a marked row of the first stop.
  Particle& lost = b[1];
  lost.lost = 1;
  lost.indexPlane = 1;
  lost.indexElem = 1;
  lost.coordinate[0] = 0.4;
  lost.coordinate[4] = 1.9;
  SetMomentum(lost, 0.01, 0.02, 0.1);
  for (int k = 0; k < 6; ++k) {
    lost.relativeCoordinate[k] = 3.0;
    lost.externalField[k] = 1e4;
  }
  const Particle before = lost;

  KernelTables t(3, 1);
  Step(line, b, t, s, 0, 0, 3);

  for (int k = 0; k < 6; ++k) {
    EXPECT_EQ(lost.coordinate[k], before.coordinate[k]) << k;
    EXPECT_EQ(lost.relativeCoordinate[k], before.relativeCoordinate[k]) << k;
    EXPECT_EQ(lost.externalField[k], before.externalField[k]) << k;
    EXPECT_EQ(t.previous[1][k], before.coordinate[k]) << k;
    EXPECT_EQ(t.previous[0][k], k == 5 ? 0.1 : (k == 4 ? 0.6 : 0.0)) << k;
  }
  EXPECT_EQ(lost.lost, 1);
  EXPECT_EQ(lost.indexPlane, 1);
  EXPECT_EQ(t.planeCrossing[1][7], 0.0);
  EXPECT_NE(b[0].coordinate[4], 0.6);  // the living ones did move

  // Deviations of particle 0: dx 0.001, x' 0.002, dy -0.002, y' 0.001, dz 0.01, d 0;
  // of particle 2: dx -0.003, x' -0.0032, dy 0.001, y' 0, dz -0.02, d 0.2.
  const RangeAccumulator& a = t.acc[0];
  EXPECT_EQ(a.aliveCount, 2);
  EXPECT_EQ(a.rangeZMin, 0.5);
  EXPECT_EQ(a.rangeZMax, 0.6);
  const double absMax[6] = {0.003, 0.0032, 0.002, 0.001, 0.02, 0.2};
  const double square[6] = {1e-5, 4e-6 + 1.024e-5, 5e-6, 1e-6, 5e-4, 0.04};
  const double cross[3] = {2e-6 + 9.6e-6, -2e-6, -0.004};
  for (int k = 0; k < 6; ++k) {
    EXPECT_NEAR(a.absMax[k], absMax[k], 1e-15 * absMax[k]) << k;
    EXPECT_NEAR(a.sumSquare[k], square[k], 1e-12 * square[k]) << k;
  }
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(a.sumCross[k], cross[k], 1e-12 * std::fabs(cross[k])) << k;
  const double g2 = s.gamma * s.gamma;
  EXPECT_NEAR(a.sumRestLength, g2 * 5e-4, 1e-12 * g2 * 5e-4);
  // Sum of the relative coordinates after the push: two particles only.
  EXPECT_EQ(a.sumValue[4], (b[0].coordinate[4] - 1.0) + (b[2].coordinate[4] - 1.0));
  EXPECT_EQ(a.sumValue[0], 0.0);
  // The lost slot still sits behind the first stop: it counts as passed.
  EXPECT_EQ(a.passedCount, 1);
}

// While the bunch's tail is not yet past the start plane, particles at or
// behind it drift field-free and those beyond it feel their fields; once
// zMin is beyond the start plane every particle feels its field.
TEST(TcodeTransField, TailBehindStartPlaneDrifts) {
  TinyLine line;
  BuildDriftSolenoid(line);
  StepSettings s;
  s.startPlane = 1.0;
  Bunch b(3);
  const double z0[3] = {0.8, 1.0, 1.2};
  const double ext[6] = {1e5, -2e5, 3e5, 0.1, 0.2, 0.3};
  const double sc[6] = {10.0, 20.0, 30.0, 0.0, 0.0, 0.0};
  for (int i = 0; i < 3; ++i) {
    b[i].coordinate[0] = 1e-3;
    b[i].coordinate[4] = z0[i];
    SetMomentum(b[i], 1e-3, 0.0, 0.1);
    std::copy(ext, ext + 6, b[i].externalField);
    std::copy(sc, sc + 6, b[i].spaceChargeField);
    b[i].relativeCoordinate[5] = 0.1;
  }
  b.beam.zMin = s.startPlane;  // not above the start plane
  const Bunch start = b;

  KernelTables t(3, 1);
  Step(line, b, t, s, 0, 0, 3);
  for (int i = 0; i < 2; ++i) {
    for (int k = 0; k < 6; ++k) EXPECT_EQ(b[i].totalField[k], 0.0) << "slot " << i << " k " << k;
    // Field-free: the momenta stay, the position moves along them.
    EXPECT_EQ(b[i].coordinate[1], 1e-3);
    EXPECT_EQ(b[i].coordinate[3], 0.0);
    EXPECT_EQ(b[i].coordinate[5], 0.1);
    const double step = kC / std::sqrt(1.0 + 1e-6 + 0.01) * s.dt;
    EXPECT_NEAR(b[i].coordinate[4], z0[i] + step * 0.1, 1e-15);
    EXPECT_NEAR(b[i].coordinate[0], 1e-3 + step * 1e-3, 1e-15);
  }
  for (int k = 0; k < 6; ++k) EXPECT_EQ(b[2].totalField[k], ext[k] + sc[k]) << k;
  EXPECT_GT(b[2].coordinate[5], 0.1);  // accelerated by Ez
  // Field for the next step: the drift gives none, the solenoid its Bz.
  for (int k = 0; k < 6; ++k) EXPECT_EQ(b[0].externalField[k], 0.0) << k;
  for (int i = 1; i < 3; ++i) {
    EXPECT_EQ(b[i].indexElem, 1) << "slot " << i;
    for (int k = 0; k < 5; ++k) EXPECT_EQ(b[i].externalField[k], 0.0) << "slot " << i << " k " << k;
    EXPECT_EQ(b[i].externalField[5], 0.4) << "slot " << i;
  }

  // The whole bunch beyond the start plane: the tail feels its field too.
  Bunch all = start;
  all.beam.zMin = std::nextafter(s.startPlane, 2.0);
  KernelTables t2(3, 1);
  Step(line, all, t2, s, 0, 0, 3);
  for (int i = 0; i < 3; ++i)
    for (int k = 0; k < 6; ++k) EXPECT_EQ(all[i].totalField[k], ext[k] + sc[k]) << "slot " << i << " k " << k;
  EXPECT_GT(all[0].coordinate[5], 0.1);
}

// Beyond the plane the bunch is heading for there is no external field.
// Past the last element's exit a particle becomes lost 2 only once the last
// plane has been passed.
TEST(TcodeTransField, BeyondPlaneNoFieldAndPastEndLost) {
  TinyLine line;
  BuildDriftSolenoid(line);
  line.lattice.outputPlane = {{0, 0, 0, 0, 0, 0, 1.5}, {0, 0, 0, 0, 0, 0, 2.0}};
  StepSettings s;
  const double z0[4] = {1.3, 1.7, 2.3, -0.05};
  Bunch b(4);
  for (int i = 0; i < 4; ++i) {
    b[i].coordinate[4] = z0[i];
    SetMomentum(b[i], 0.0, 0.0, 0.01);
    for (int k = 0; k < 6; ++k) b[i].externalField[k] = 1.0;
    b[i].relativeCoordinate[5] = 0.01;
  }
  b.beam.zMin = -0.05;
  const Bunch start = b;

  KernelTables t(4, 1);
  Step(line, b, t, s, 0, 0, 4);
  EXPECT_EQ(b[0].externalField[5], 0.4);  // inside the solenoid, before the plane
  for (int i = 1; i < 4; ++i) {
    for (int k = 0; k < 6; ++k) EXPECT_EQ(b[i].externalField[k], 0.0) << "slot " << i << " k " << k;
    EXPECT_EQ(b[i].lost, 0) << "slot " << i << ": planes remain, nobody is lost";
  }

  // All planes passed: the one past the exit is lost 2; the others only lose
  // their field.
  Bunch last = start;
  line.lattice.planeIndex = 2;
  KernelTables t2(4, 1);
  Step(line, last, t2, s, 0, 0, 4);
  const int expectedLost[4] = {0, 0, 2, 0};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(last[i].lost, expectedLost[i]) << "slot " << i;
    for (int k = 0; k < 6; ++k) EXPECT_EQ(last[i].externalField[k], 0.0) << "slot " << i << " k " << k;
  }
  // A lost 2 particle still moves and still counts.
  EXPECT_NE(last[2].coordinate[4], 2.3);
  EXPECT_EQ(t2.acc[0].aliveCount, 4);
}

// Crossings of a stop are interpolated to the stop itself; the test is "at
// or above", and the stop in force is stopZ[indexPlane]. passedCount counts
// the slots below particleNumber that stand at indexPlane 1 after the step.
TEST(TcodeTransCrossing, InterpolatesExactlyAtTheStop) {
  TinyLine line;
  line.AddDrift("1.0");
  line.AddDrift("1.0");
  StepSettings s;
  const double dt = s.dt;

  Bunch b(6);
  for (int i = 0; i <= 6; ++i) b[i].relativeCoordinate[5] = 0.1;
  b.beam.zMin = 0.5;
  // Slot 1 lands exactly on the first stop: take the stop from its push.
  b[1].coordinate[4] = 0.998;
  SetMomentum(b[1], 0.0, 0.0, 0.1);
  Particle probe = b[1];
  BorisStep(dt, probe);
  const double stop0 = probe.coordinate[4];
  // Slot 0 crosses the first stop in the middle of the step, on a slope.
  b[0].coordinate[0] = 1e-3;
  b[0].coordinate[2] = 2e-3;
  b[0].coordinate[4] = stop0 - 0.001;
  SetMomentum(b[0], 2e-3, -1e-3, 0.1);
  // Slot 2 waits for the second stop and ends one ulp short of it.
  b[2].indexPlane = 1;
  b[2].coordinate[4] = 1.2;
  SetMomentum(b[2], 0.0, 0.0, 0.1);
  probe = b[2];
  BorisStep(dt, probe);
  // Slot 3 crosses the second stop.
  b[3].indexPlane = 1;
  b[3].coordinate[4] = 1.2005;
  SetMomentum(b[3], 0.0, 0.0, 0.1);
  // Slot 4 has crossed every stop already.
  b[4].indexPlane = 2;
  b[4].coordinate[4] = 1.5;
  SetMomentum(b[4], 0.0, 0.0, 0.1);
  // Slot 5 is lost past the first stop; slot 6, the reference, has crossed
  // it and stays short of the second.
  b[5].lost = 1;
  b[5].indexPlane = 1;
  b[5].coordinate[4] = 1.3;
  b[6].indexPlane = 1;
  b[6].coordinate[4] = 1.1;
  SetMomentum(b[6], 0.0, 0.0, 0.1);
  s.stopZ = {stop0, std::nextafter(probe.coordinate[4], 2.0)};
  const Bunch start = b;

  KernelTables t(6, 1);
  Step(line, b, t, s, 0, 0, 7);

  // Slot 0: on a straight line, at the stop.
  const Particle& p0 = start.slots[0];
  const double* row = t.planeCrossing[0].data();
  const double run = stop0 - p0.coordinate[4];
  const double g0 = std::sqrt(1.0 + 4e-6 + 1e-6 + 0.01);
  EXPECT_EQ(b[0].indexPlane, 1);
  EXPECT_EQ(row[7], 1.0);
  EXPECT_NEAR(row[4], stop0, 4 * std::numeric_limits<double>::epsilon() * stop0);
  EXPECT_NEAR(row[0], 1e-3 + 2e-3 / 0.1 * run, 1e-15);
  EXPECT_NEAR(row[2], 2e-3 - 1e-3 / 0.1 * run, 1e-15);
  EXPECT_EQ(row[1], 2e-3);
  EXPECT_EQ(row[3], -1e-3);
  EXPECT_EQ(row[5], 0.1);
  // The crossing time: the start of the step plus the flight to the stop.
  EXPECT_NEAR(row[6], (s.time - dt) + run / (kC * 0.1 / g0), 1e-20);
  EXPECT_GT(row[6], s.time - dt);
  EXPECT_LT(row[6], s.time);

  // Slot 1 is exactly on the stop after the push: it crosses with f = 1.
  EXPECT_EQ(b[1].coordinate[4], stop0);
  EXPECT_EQ(b[1].indexPlane, 1);
  EXPECT_EQ(t.planeCrossing[1][7], 1.0);
  EXPECT_EQ(t.planeCrossing[1][6], s.time);
  EXPECT_NEAR(t.planeCrossing[1][4], stop0, 2 * std::numeric_limits<double>::epsilon() * stop0);

  // Slot 2 is one ulp short of its stop; slot 3 crosses that stop.
  EXPECT_EQ(b[2].indexPlane, 1);
  EXPECT_EQ(t.planeCrossing[2][7], 0.0);
  EXPECT_EQ(b[3].indexPlane, 2);
  EXPECT_EQ(t.planeCrossing[3][7], 1.0);
  EXPECT_NEAR(t.planeCrossing[3][4], s.stopZ[1], 4 * std::numeric_limits<double>::epsilon());
  // Slot 4 has no stop left; the lost slot 5 does not move.
  EXPECT_EQ(b[4].indexPlane, 2);
  EXPECT_EQ(t.planeCrossing[4][7], 0.0);
  EXPECT_EQ(t.planeCrossing[5][7], 0.0);
  for (int i = 2; i <= 6; ++i) {
    if (i == 3) continue;
    EXPECT_EQ(t.planeCrossing[i], std::vector<double>(8, 0.0)) << "slot " << i;
  }

  // At indexPlane 1 now: slots 0, 1, 2 and the lost 5; not 3, 4, nor the reference.
  EXPECT_EQ(t.acc[0].passedCount, 4);

  // The plane the bunch heads for must be at or beyond the stop: one ulp
  // short of it, nothing crosses; exactly on it, slot 0 and 1 cross again.
  Bunch shortPlane = start;
  line.lattice.outputPlane[0][6] = std::nextafter(stop0, 0.0);
  KernelTables t2(6, 1);
  Step(line, shortPlane, t2, s, 0, 0, 2);
  EXPECT_EQ(shortPlane[0].indexPlane, 0);
  EXPECT_EQ(shortPlane[1].indexPlane, 0);
  EXPECT_EQ(t2.planeCrossing[0][7], 0.0);
  EXPECT_EQ(t2.acc[0].passedCount, 0);

  Bunch onPlane = start;
  line.lattice.outputPlane[0][6] = stop0;
  KernelTables t3(6, 1);
  Step(line, onPlane, t3, s, 0, 0, 2);
  EXPECT_EQ(onPlane[0].indexPlane, 1);
  EXPECT_EQ(onPlane[1].indexPlane, 1);
  EXPECT_EQ(t3.acc[0].passedCount, 2);
}

// A straight plane 0.2 m into the second element, set off by 1 mm in x: the
// crossing row is taken in the plane's frame, once per particle.
TEST(TcodeTransCrossing, RotatedPlaneRowInPlaneFrame) {
  TinyLine line;
  line.AddDrift("1.0");
  line.AddDrift("1.0");
  line.drifts[1]->outputMark = 1;
  line.lattice.outputPlane = {{0.2, 1e-3, 0, 0, 0, 0, 2.0}, {0, 0, 0, 0, 0, 0, 2.0}};
  line.lattice.planeCount = 1;
  StepSettings s;
  Bunch b(2);
  for (int i = 0; i <= 2; ++i) {
    b[i].coordinate[0] = 3e-3;
    b[i].coordinate[4] = 1.199;
    b[i].indexElem = 1;
    SetMomentum(b[i], 2e-3, 0.0, 0.1);
    b[i].relativeCoordinate[5] = 0.1;
  }
  b.beam.zMin = 1.0;
  KernelTables t(2, 1);
  t.curveCrossing[1][7] = 1.0;  // slot 1 has crossed before
  Step(line, b, t, s, 0, 0, 3);

  const double run = 1.2 - 1.199;
  const double* row = t.curveCrossing[0].data();
  EXPECT_EQ(row[7], 1.0);
  EXPECT_NEAR(row[4], 0.0, 1e-15);
  EXPECT_NEAR(row[0], 3e-3 - 1e-3 + 2e-3 / 0.1 * run, 1e-15);
  EXPECT_NEAR(row[1], 2e-3, 1e-18);
  EXPECT_NEAR(row[5], 0.1, 1e-16);
  EXPECT_GT(row[6], s.time - s.dt);
  EXPECT_LT(row[6], s.time);
  EXPECT_EQ(t.curveCrossing[1][0], 0.0);           // not taken again
  EXPECT_EQ(t.curveCrossing[2][7], 1.0);           // the reference crosses too
  EXPECT_EQ(t.acc[0].crossedCount, 2);             // slot 0 and the reference
}
