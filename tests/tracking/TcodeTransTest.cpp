#include "tracking/TcodeTrans.h"

#include <gtest/gtest.h>
#include <algorithm>
#include <cmath>
#include "beam/LeapFrog.h"
#include "beamline/Drift.h"
#include "beamline/Solenoid.h"
#include "spacecharge/ThreadPool.h"

namespace {
const double kDt = 1e-10, kTime = 1e-6, kK = 1.60217653e-19 / 1.67262171e-27;
// A drift [0, 1), a 0.4 T solenoid [1, 2), a plane at z = 2, a stop at 1; 40 protons at gamma beta z 0.1.
struct Kernel {
  Drift drift;
  Solenoid solenoid;
  Lattice lattice;
  std::vector<Particle> p = std::vector<Particle>(41);
  Beam beam;
  CrossingTable planeCrossing = CrossingTable(41), curveCrossing = planeCrossing;
  PreviousTable previous = PreviousTable(41);
  std::vector<RangeAccumulator> acc = std::vector<RangeAccumulator>(5);
  ErrorSample sample;
  std::vector<double> stopZ = {1.0};
  double startPlane = 0.0, reference[6] = {0, 0, 0, 0, 1.0, 0.1};
  Kernel() {
    lattice.outputPlane = {{0, 0, 0, 0, 0, 0, 2.0}};
    lattice.SetElement({"drift", "1.0", "1.0", "0"}, &drift);
    lattice.SetElement({"solenoid", "1.0", "1.0", "0", "0.4"}, &solenoid);
    beam.particle = p.data();
    beam.particleNumber = 40;
    for (Particle& q : p) q.chargeMassRatio = kK, q.coordinate[5] = q.relativeCoordinate[5] = 0.1;
  }
  void Step(int range, int first, int end) {
    TcodeTrans(lattice, beam, startPlane, sample, stopZ, planeCrossing, curveCrossing, previous, kTime, kDt,
               reference, acc, 1.004, range, first, end);
  }
};
}  // namespace

// Ranges 0, 1-4, the lost 5, 6-39 and the reference, run at once, match one serial pass; 5 and 40 add nothing.
TEST(TcodeTransSums, ConcurrentRangesMatchOneSerialPassWithoutLostSlotOrReference) {
  Kernel serial, split;
  const double centre[6] = {0, 0, 0, 0, 1.0, 0.1}, spread[6] = {2e-3, 1e-3, 2e-3, 1e-3, 0.7, 0.01};
  for (int i = 0; i <= 40; ++i)
    for (int c = 0; c < 6; ++c) {  // a fixed scatter over both elements, with fields
      serial.p[i].coordinate[c] = serial.p[i].relativeCoordinate[c] = centre[c] + spread[c] * std::sin(7.0 * i + c);
      serial.p[i].externalField[c] = (c < 3 ? 1e5 : 0.1) * std::cos(3.0 * i + c);
    }
  serial.p[5].lost = 1;
  std::copy(serial.p.begin(), serial.p.end(), split.p.begin());
  const Particle lost = serial.p[5];
  const std::vector<Particle> before = serial.p;
  serial.Step(0, 0, 41);
  // Pushed in blocks, each slot still takes the Boris step of its own to the bit.
  for (int i = 0; i <= 40; ++i) {
    Particle one = before[i];
    for (int c = 0; c < 6; ++c) one.totalField[c] = one.externalField[c];
    BorisPush(kDt, one);
    for (int c = 0; c < 6; ++c) ASSERT_EQ(serial.p[i].coordinate[c], one.coordinate[c]) << i << " " << c;
  }
  ThreadPool pool(3);
  const int bounds[6] = {0, 1, 5, 6, 40, 41};
  for (int r = 0; r < 5; ++r) pool.enqueue([&, r] { split.Step(r, bounds[r], bounds[r + 1]); });
  pool.wait_until_empty();
  pool.wait_until_nothing_in_flight();
  const RangeAccumulator& s = serial.acc[0];
  double alive = 0, passed = 0, square[6] = {0}, value[6] = {0};
  for (const RangeAccumulator& r : split.acc) {
    alive += r.aliveCount, passed += r.passedCount;
    for (int c = 0; c < 6; ++c) square[c] += r.sumSquare[c], value[c] += r.sumValue[c];
  }
  EXPECT_TRUE(s.aliveCount == 39 && alive == 39 && passed == s.passedCount && passed > 0 && s.sumSquare[5] == 39.0);
  for (int c = 0; c < 6; ++c) {
    EXPECT_NEAR(square[c], s.sumSquare[c], 1e-12 * s.sumSquare[c]) << c;
    EXPECT_NEAR(value[c], s.sumValue[c], 1e-12 * std::fabs(s.sumValue[c]) + 1e-15) << c;
    EXPECT_TRUE(split.p[5].coordinate[c] == lost.coordinate[c] && split.previous[5][c] == lost.coordinate[c]) << c;
  }
  for (int r : {2, 4}) EXPECT_TRUE(split.acc[r].aliveCount == 0 && split.acc[r].sumSquare[4] == 0.0) << r;
}

// Slots 0-4 carry fields, with the start plane at z = 1, zMin not beyond it and a plane at z = 1.5 first.
// Slot 5 crosses the stop on a slope, slot 6 lands exactly on it. Then a step with every plane passed.
TEST(TcodeTransStep, StartPlaneFieldBeyondThePlaneCrossingsAndLostPastTheEnd) {
  Kernel k;
  k.lattice.outputPlane = {{0, 0, 0, 0, 0, 0, 1.5}, {0, 0, 0, 0, 0, 0, 2.0}};
  k.startPlane = k.beam.zMin = 1.0;
  k.p[6].coordinate[4] = 0.998;  // the Boris step in order, field-free, takes it exactly to the stop
  const double stop = 0.998 + 299792458.0 / std::sqrt(1.0 + 0.1 * 0.1) * kDt * 0.1;
  const double q5[6] = {1e-3, 2e-3, 2e-3, -1e-3, stop - 0.001, 0.1};
  const double z0[5] = {0.8, 1.0, 1.2, 1.7, 2.3}, field[6] = {1e5, -2e5, 3e5, 0.1, 0.2, 0.3};
  for (int i = 0; i < 5; ++i) k.p[i].coordinate[4] = z0[i], std::copy(field, field + 6, k.p[i].externalField);
  std::copy(q5, q5 + 6, k.p[5].coordinate);
  k.stopZ = {stop};
  k.Step(0, 0, 7);
  const double ez[5] = {0, 0, 3e5, 3e5, 3e5}, bz[5] = {0, 0.4, 0.4, 0, 0};  // none behind the start plane or past 1.5
  for (int i = 0; i < 5; ++i)
    EXPECT_TRUE(k.p[i].totalField[2] == ez[i] && k.p[i].externalField[5] == bz[i] && k.p[i].lost == 0) << i;
  const double run = stop - q5[4], v = 299792458.0 * 0.1 / std::sqrt(1.0 + 4e-6 + 1e-6 + 0.01);
  const double slope[8] = {1e-3 + 0.02 * run, 2e-3, 2e-3 - 0.01 * run, -1e-3, stop, 0.1, kTime - kDt + run / v, 1.0};
  for (int c = 0; c < 8; ++c)
    EXPECT_NEAR(k.planeCrossing[5][c], slope[c], (c == 4 ? 4e-16 : 1e-12) * std::fabs(slope[c])) << c;
  EXPECT_TRUE(k.p[6].coordinate[4] == stop && k.p[6].indexPlane == 1 && k.p[5].indexPlane == 1);
  EXPECT_TRUE(k.planeCrossing[6][4] == stop && k.planeCrossing[6][6] == kTime && k.planeCrossing[6][7] == 1.0);
  k.lattice.planeIndex = 2;  // past the last zEnd now means lost 2, still pushed and counted
  k.Step(0, 0, 7);
  for (int i = 0; i < 7; ++i) EXPECT_TRUE(k.p[i].lost == (i == 4 ? 2 : 0) && k.p[i].externalField[5] == 0.0) << i;
  EXPECT_EQ(k.acc[0].aliveCount, 14);
}
