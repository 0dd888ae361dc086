#include <gtest/gtest.h>
#include <array>
#include <cmath>
#include <cstring>
#include "beam/LeapFrog.h"
#include "beam/SynParticle.h"

const double kC = 299792458.0, kK = 1.60217653e-19 / 1.67262171e-27, kQ[6] = {0.01, 0.002, -0.03, 0.004, 0.2, 0.08};
static double P2(const double* q) { return q[1] * q[1] + q[3] * q[3] + q[5] * q[5]; }
static bool Same(const double* a, const double* b) { return std::memcmp(a, b, 6 * sizeof(double)) == 0; }
static Particle Make(const double* q, const std::array<double, 6>& field, int lost = 0) {
  Particle p{};
  std::memcpy(p.coordinate, q, sizeof p.coordinate);
  std::memcpy(p.totalField, field.data(), sizeof p.totalField);
  p.chargeMassRatio = kK;
  p.lost = lost;
  return p;
}

TEST(BorisPush, FieldFreeDriftIsExactAndPureMagneticFieldKeepsMomentum) {
  Particle p = Make(kQ, {0, 0, 0, 0, 0, 0}), m = Make(kQ, {0, 0, 0, 0.8, -1.9, 2.6});
  LeapFrog().Update(2.5e-11, p);
  const double v = kC / std::sqrt(1.0 + P2(kQ)) * 2.5e-11;
  for (int k = 0; k < 6; ++k) EXPECT_EQ(p.coordinate[k], k % 2 ? kQ[k] : kQ[k] + v * kQ[k + 1]) << k;
  for (int step = 0; step < 2000; ++step) LeapFrog().Update(3e-10, m);
  EXPECT_NEAR(P2(m.coordinate) / P2(kQ), 1.0, 1e-12);
  EXPECT_GT(std::fabs(m.coordinate[1] - kQ[1]), 1e-3);  // it did turn
}

TEST(BorisPush, OnlyLostOneIsSkippedAndTheReferenceSlotIsAlwaysPushed) {
  const std::array<double, 6> f = {1e5, 2e5, 3e5, 0.1, 0.2, 0.3};
  Particle s[4] = {Make(kQ, f), Make(kQ, f, 1), Make(kQ, f, 2), Make(kQ, f, 1)};  // the last is the reference slot
  Beam beam;
  beam.particle = s;
  beam.particleNumber = 3;
  LeapFrog().Update(1e-10, beam);
  LeapFrog().Update(1e-10, s[1]);  // the single-particle form skips lost 1 too
  ASSERT_FALSE(Same(s[0].coordinate, kQ));
  for (int i = 1; i < 4; ++i) EXPECT_TRUE(Same(s[i].coordinate, i == 1 ? kQ : s[0].coordinate)) << i;
  beam.particle = s + 1;  // no macro particles: the lost slot 1 is the reference and is pushed
  beam.particleNumber = 0;
  LeapFrog().Update(1e-10, beam);
  EXPECT_TRUE(Same(s[1].coordinate, s[0].coordinate));
}

TEST(BorisPush, CyclotronOrbitConvergesAtSecondOrder) {
  // Bz = 1 T turns p clockwise at w = k / g; start from the exact momentum at -dt / 2, back at x = y = 0 after T.
  const double P = 0.1, pz = 0.05, g = std::sqrt(1.0 + P * P + pz * pz), w = kK / g, T = 6.283185307179586 / w;
  auto error = [&](int steps) {
    const double dt = T / steps, q[6] = {0, P * std::cos(w * dt / 2), 0, P * std::sin(w * dt / 2), 0, pz};
    Particle p = Make(q, {0, 0, 0, 0, 0, 1.0});
    for (int n = 0; n < steps; ++n) LeapFrog().Update(dt, p);
    return std::hypot(p.coordinate[0], p.coordinate[2], p.coordinate[4] - kC * pz / g * T);
  };
  for (int n : {100, 200}) EXPECT_NEAR(error(n) / error(2 * n), 4.0, 0.2) << n;
}

TEST(SynParticleUpdate, ThreeBranchesByDimensionAndTransverseField) {
  const double dt = 1e-10, pz = kQ[5] + kK * 3e6 / kC * dt;
  const double longitudinal[6] = {0, 0, 0, 0, kQ[4] + kC / std::sqrt(1.0 + pz * pz) * pz * dt, pz};
  // {dimension, Bx, By, Bz the pusher must see}: with Bx = By = 0 a full kick, Bz ignored.
  for (const auto& c : {std::array<double, 4>{0, 0, 0.5, 0}, {3, 0, 0, 0}, {1, 0.7, 0, 2.0}, {1, 0, -0.9, 2.0}}) {
    SynParticle s;
    s.dimension = static_cast<int>(c[0]);
    s.chargeMassRatio = kK;
    s.coordinate.assign(kQ, kQ + 6);
    s.electricField = {1e6, -2e6, 3e6};
    s.magneticField = {c[1], c[2], 2.0};
    s.Update(dt);
    Particle p = Make(kQ, {1e6, -2e6, 3e6, c[1], c[2], c[3]});
    LeapFrog().Update(dt, p);
    const double* expected = s.dimension == 0 ? longitudinal : p.coordinate;
    for (int k = 0; k < 6; ++k) EXPECT_NEAR(s.coordinate[k], expected[k], 1e-12 * std::fabs(expected[k])) << c[0] << k;
  }
}
