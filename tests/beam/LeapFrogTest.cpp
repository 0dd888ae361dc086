#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "beam/Beam.h"
#include "beam/LeapFrog.h"
#include "beam/Particle.h"
#include "beam/SynParticle.h"

namespace {

const double kC = 299792458.0;
const double kProtonRatio = 1.60217653e-19 / 1.67262171e-27;  // C/kg
const double kPi = 3.141592653589793;

// A particle with the given state and fields; everything else zero.
Particle MakeParticle(const double (&q)[6], const double (&field)[6], double ratio = kProtonRatio) {
  Particle p{};
  for (int k = 0; k < 6; ++k) {
    p.coordinate[k] = q[k];
    p.totalField[k] = field[k];
  }
  p.chargeMassRatio = ratio;
  return p;
}

double Gamma(const double* q) { return std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]); }

double MomentumSquared(const double* q) { return q[1] * q[1] + q[3] * q[3] + q[5] * q[5]; }

bool SameBits(const double* a, const double* b, int n) { return std::memcmp(a, b, n * sizeof(double)) == 0; }

}  // namespace

TEST(BorisPush, FieldFreeStepIsAnExactDrift) {
  LeapFrog pusher;
  const double dt = 2.5e-11;
  Particle p = MakeParticle({0.01, 0.003, -0.02, -0.001, 0.5, 0.08}, {0, 0, 0, 0, 0, 0});
  const Particle before = p;
  pusher.Update(dt, p);

  // Momenta do not move at all.
  EXPECT_EQ(p.coordinate[1], before.coordinate[1]);
  EXPECT_EQ(p.coordinate[3], before.coordinate[3]);
  EXPECT_EQ(p.coordinate[5], before.coordinate[5]);
  // Each position moves by c dt gamma beta / gamma.
  const double g = Gamma(before.coordinate);
  const double v = kC / g * dt;
  for (int k = 0; k < 6; k += 2) {
    EXPECT_EQ(p.coordinate[k], before.coordinate[k] + v * before.coordinate[k + 1]) << "position " << k;
    EXPECT_NE(p.coordinate[k], before.coordinate[k]);
  }
}

TEST(BorisPush, MagneticRotationIsExactCayleyRotation) {
  // One step in a field of arbitrary direction turns p about B by the angle
  // theta with tan(theta / 2) = |t| / 2, t = k B dt / gamma, in the sense of
  // q v x B (Rodrigues' formula, independent of the matrix form).
  LeapFrog pusher;
  const double dt = 1e-9;
  const double B[3] = {0.3, -0.7, 1.1};
  const double q0[6] = {0, 0.05, 0, -0.02, 0, 0.09};
  Particle p = MakeParticle({0, 0.05, 0, -0.02, 0, 0.09}, {0, 0, 0, B[0], B[1], B[2]});
  pusher.Update(dt, p);

  const double g = Gamma(q0);
  const double t[3] = {kProtonRatio * dt / g * B[0], kProtonRatio * dt / g * B[1], kProtonRatio * dt / g * B[2]};
  const double tn = std::sqrt(t[0] * t[0] + t[1] * t[1] + t[2] * t[2]);
  const double n[3] = {t[0] / tn, t[1] / tn, t[2] / tn};
  const double theta = 2.0 * std::atan(tn / 2.0);
  const double pin[3] = {q0[1], q0[3], q0[5]};
  // p x n: the direction of the force on a positive charge.
  const double cross[3] = {pin[1] * n[2] - pin[2] * n[1], pin[2] * n[0] - pin[0] * n[2], pin[0] * n[1] - pin[1] * n[0]};
  const double dot = pin[0] * n[0] + pin[1] * n[1] + pin[2] * n[2];
  const double pout[3] = {p.coordinate[1], p.coordinate[3], p.coordinate[5]};
  for (int k = 0; k < 3; ++k) {
    const double expected =
        pin[k] * std::cos(theta) + cross[k] * std::sin(theta) + n[k] * dot * (1.0 - std::cos(theta));
    EXPECT_NEAR(pout[k], expected, 1e-14) << "momentum " << k;
  }
  EXPECT_GT(theta, 0.05);  // a real turn, not a no-op

  // The drift uses the turned momenta.
  const double v = kC / Gamma(p.coordinate) * dt;
  EXPECT_DOUBLE_EQ(p.coordinate[0], v * p.coordinate[1]);
  EXPECT_DOUBLE_EQ(p.coordinate[4], v * p.coordinate[5]);
}

TEST(BorisPush, PureMagneticFieldKeepsMomentumMagnitude) {
  LeapFrog pusher;
  Particle p = MakeParticle({0, 0.12, 0, -0.04, 0, 0.3}, {0, 0, 0, 0.8, -1.9, 2.6});
  const double p2 = MomentumSquared(p.coordinate);
  const double px0 = p.coordinate[1];
  for (int step = 0; step < 2000; ++step) pusher.Update(3e-10, p);
  EXPECT_NEAR(MomentumSquared(p.coordinate) / p2, 1.0, 1e-12);
  EXPECT_GT(std::fabs(p.coordinate[1] - px0), 0.01);  // the momentum did turn
}

TEST(BorisPush, ElectricFieldKicksAndGivesEnergy) {
  LeapFrog pusher;
  const double dt = 1e-10;
  const double E[3] = {2e5, -1e5, 3e6};
  Particle p = MakeParticle({0, 0.01, 0, 0.02, 0, 0.1}, {E[0], E[1], E[2], 0, 0, 0});
  const Particle before = p;
  pusher.Update(dt, p);
  // Two half kicks make a full kick k E dt / c on each momentum.
  for (int k = 0; k < 3; ++k)
    EXPECT_NEAR(p.coordinate[2 * k + 1], before.coordinate[2 * k + 1] + kProtonRatio * E[k] * dt / kC, 1e-15)
        << "momentum " << 2 * k + 1;
  const double v = kC / Gamma(p.coordinate) * dt;
  EXPECT_DOUBLE_EQ(p.coordinate[4], v * p.coordinate[5]);

  // From rest along Ez the work q Ez dz goes into gamma: gamma - 1 = k Ez z / c^2,
  // up to the first-order start-up of the staggered scheme (dt / T is 1e-4 here).
  Particle r = MakeParticle({0, 0, 0, 0, 0, 0}, {0, 0, 5e6, 0, 0, 0});
  for (int step = 0; step < 10000; ++step) pusher.Update(1e-12, r);
  const double gain = Gamma(r.coordinate) - 1.0;
  EXPECT_GT(gain, 1e-4);
  EXPECT_NEAR(gain / (kProtonRatio * 5e6 * r.coordinate[4] / (kC * kC)), 1.0, 2e-3);
}

TEST(BorisPush, OnlyTotalFieldAndCoordinatesAreUsed) {
  LeapFrog pusher;
  Particle plain = MakeParticle({0.001, 0.01, 0, 0.02, 0, 0.1}, {1e5, 2e5, 3e5, 0.1, 0.2, 0.3});
  Particle noisy = plain;
  for (int k = 0; k < 6; ++k) {
    noisy.externalField[k] = 1e9 + k;
    noisy.spaceChargeField[k] = -1e9 - k;
    noisy.relativeCoordinate[k] = 7.0 + k;
  }
  const Particle before = noisy;
  pusher.Update(1e-10, plain);
  pusher.Update(1e-10, noisy);
  EXPECT_TRUE(SameBits(plain.coordinate, noisy.coordinate, 6));
  EXPECT_TRUE(SameBits(noisy.externalField, before.externalField, 6));
  EXPECT_TRUE(SameBits(noisy.spaceChargeField, before.spaceChargeField, 6));
  EXPECT_TRUE(SameBits(noisy.relativeCoordinate, before.relativeCoordinate, 6));
  EXPECT_TRUE(SameBits(noisy.totalField, before.totalField, 6));
}

TEST(BorisPush, LostParticlesAreSkippedButReferenceSlotAlwaysPushed) {
  LeapFrog pusher;
  const double dt = 1e-10;
  const Particle model = MakeParticle({0.001, 0.01, -0.002, 0.02, 0.3, 0.1}, {1e5, 2e5, 3e5, 0.1, 0.2, 0.3});

  // The single-particle overload.
  Particle lost = model;
  lost.lost = 1;
  pusher.Update(dt, lost);
  EXPECT_TRUE(SameBits(lost.coordinate, model.coordinate, 6));

  Particle alive = model;
  pusher.Update(dt, alive);
  ASSERT_FALSE(SameBits(alive.coordinate, model.coordinate, 6));

  // The beam overload: 0 alive, 1 lost, 2 past the end (still pushed), and a
  // lost reference slot that is pushed all the same.
  Particle slots[4] = {model, model, model, model};
  slots[1].lost = 1;
  slots[2].lost = 2;
  slots[3].lost = 1;
  Beam beam;
  beam.particle = slots;
  beam.particleNumber = 3;
  pusher.Update(dt, beam);
  EXPECT_TRUE(SameBits(slots[0].coordinate, alive.coordinate, 6));
  EXPECT_TRUE(SameBits(slots[1].coordinate, model.coordinate, 6));
  EXPECT_TRUE(SameBits(slots[2].coordinate, alive.coordinate, 6));
  EXPECT_TRUE(SameBits(slots[3].coordinate, alive.coordinate, 6));
  EXPECT_EQ(slots[1].lost, 1);
  EXPECT_EQ(slots[2].lost, 2);

  Particle two = model;
  two.lost = 2;
  pusher.Update(dt, two);
  EXPECT_TRUE(SameBits(two.coordinate, alive.coordinate, 6));

  // No macro particles: the reference slot alone is pushed.
  Particle reference = model;
  Beam empty;
  empty.particle = &reference;
  empty.particleNumber = 0;
  pusher.Update(dt, empty);
  EXPECT_TRUE(SameBits(reference.coordinate, alive.coordinate, 6));
  beam.particle = nullptr;
  empty.particle = nullptr;
}

TEST(BorisPush, CyclotronOrbitConvergesAtSecondOrder) {
  // Uniform Bz: p turns clockwise at omega = k Bz / gamma. The scheme holds
  // positions at whole steps and momenta at half steps, so each run starts
  // from the exact momentum at -dt / 2.
  const double Bz = 1.0;
  const double P[3] = {0.1, 0.0, 0.05};
  const double g = std::sqrt(1.0 + P[0] * P[0] + P[1] * P[1] + P[2] * P[2]);
  const double w = kProtonRatio * Bz / g;
  const double T = 2.0 * kPi / w;
  auto momentum = [&](double t, double& px, double& py) {
    px = P[0] * std::cos(w * t) + P[1] * std::sin(w * t);
    py = -P[0] * std::sin(w * t) + P[1] * std::cos(w * t);
  };
  auto error = [&](int steps) {
    const double dt = T / steps;
    double px, py;
    momentum(-dt / 2.0, px, py);
    Particle p = MakeParticle({0, px, 0, py, 0, P[2]}, {0, 0, 0, 0, 0, Bz});
    LeapFrog pusher;
    for (int n = 0; n < steps; ++n) pusher.Update(dt, p);
    const double t = steps * dt;
    const double r = kC / (g * w);
    const double x = r * (P[0] * std::sin(w * t) - P[1] * std::cos(w * t) + P[1]);
    const double y = r * (P[0] * std::cos(w * t) - P[0] + P[1] * std::sin(w * t));
    const double z = kC * P[2] / g * t;
    return std::sqrt((p.coordinate[0] - x) * (p.coordinate[0] - x) + (p.coordinate[2] - y) * (p.coordinate[2] - y) +
                     (p.coordinate[4] - z) * (p.coordinate[4] - z));
  };
  const double coarse = error(100);
  const double fine = error(200);
  const double finer = error(400);
  EXPECT_LT(coarse, 1e-3);
  EXPECT_NEAR(coarse / fine, 4.0, 0.2);
  EXPECT_NEAR(fine / finer, 4.0, 0.2);
}

TEST(SynParticleUpdate, LongitudinalOnlyZeroesTransverseState) {
  SynParticle s;
  s.dimension = 0;
  s.chargeMassRatio = kProtonRatio;
  s.coordinate = {0.01, 0.002, -0.03, 0.004, 0.2, 0.08};
  s.electricField = {1e6, -2e6, 3e6};
  s.magneticField = {0.5, 0.5, 0.5};
  const double dt = 1e-10;
  s.Update(dt);
  for (int k = 0; k < 4; ++k) EXPECT_EQ(s.coordinate[k], 0.0) << k;
  const double pz = 0.08 + kProtonRatio * 3e6 / kC * dt;
  EXPECT_DOUBLE_EQ(s.coordinate[5], pz);
  EXPECT_DOUBLE_EQ(s.coordinate[4], 0.2 + kC / std::sqrt(1.0 + pz * pz) * pz * dt);
}

TEST(SynParticleUpdate, AxialMagneticFieldAloneIsIgnored) {
  const double dt = 1e-10;
  auto push = [&](double bz) {
    SynParticle s;
    s.dimension = 3;
    s.chargeMassRatio = kProtonRatio;
    s.coordinate = {0.01, 0.002, -0.03, 0.004, 0.2, 0.08};
    s.electricField = {1e6, -2e6, 3e6};
    s.magneticField = {0.0, 0.0, bz};
    s.Update(dt);
    return s.coordinate;
  };
  const std::vector<double> withBz = push(2.0);
  const std::vector<double> without = push(0.0);
  EXPECT_TRUE(SameBits(withBz.data(), without.data(), 6));

  // A full electric kick and a drift with the new gamma.
  const double q0[6] = {0.01, 0.002, -0.03, 0.004, 0.2, 0.08};
  const double E[3] = {1e6, -2e6, 3e6};
  double q[6];
  for (int k = 0; k < 3; ++k) q[2 * k + 1] = q0[2 * k + 1] + kProtonRatio * E[k] / kC * dt;
  const double g = Gamma(q);
  for (int k = 0; k < 3; ++k) {
    EXPECT_DOUBLE_EQ(withBz[2 * k + 1], q[2 * k + 1]) << k;
    EXPECT_DOUBLE_EQ(withBz[2 * k], q0[2 * k] + kC / g * q[2 * k + 1] * dt) << k;
  }
}

TEST(SynParticleUpdate, TransverseMagneticFieldFollowsBorisStep) {
  const double dt = 1e-10;
  for (int axis = 0; axis < 2; ++axis) {
    SynParticle s;
    s.dimension = 1;
    s.chargeMassRatio = kProtonRatio;
    s.coordinate = {0.01, 0.002, -0.03, 0.004, 0.2, 0.08};
    s.electricField = {1e6, -2e6, 3e6};
    s.magneticField = {axis == 0 ? 0.7 : 0.0, axis == 1 ? -0.9 : 0.0, 1.5};
    Particle p = MakeParticle({0.01, 0.002, -0.03, 0.004, 0.2, 0.08},
                              {1e6, -2e6, 3e6, s.magneticField[0], s.magneticField[1], 1.5});
    s.Update(dt);
    LeapFrog().Update(dt, p);
    for (int k = 1; k < 6; k += 2) EXPECT_EQ(s.coordinate[k], p.coordinate[k]) << "axis " << axis << " momentum " << k;
    for (int k = 0; k < 6; k += 2) EXPECT_DOUBLE_EQ(s.coordinate[k], p.coordinate[k]) << "axis " << axis << " position " << k;
  }
}
