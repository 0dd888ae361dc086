#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <vector>
#include "beam/Generator.h"

using Rows = std::vector<std::vector<double>>;
// Emittances, betas on both sides of 1 and alphas of both signs.
const std::vector<double> kTwiss = {2e-6, 1.7, -0.8, 0.5e-6, 0.6, 1.3};

TEST(PreTreatment, UntiltedEllipsesGiveSquareRootOfBetaAndZeroEmittanceEndsTheRun) {
  const std::vector<double> P = PreTreatment({2e-6, 3.0, 0.0, 5e-7, 0.4, 0.0});
  const double expected[6] = {std::sqrt(3.0), 0.0, std::sqrt(0.4), 0.0, 4.0, 0.0};
  for (int k = 0; k < 6; ++k) EXPECT_NEAR(P[k], expected[k], 1e-12 * expected[k]) << k;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto zeroEmittance = [] {
    dup2(STDERR_FILENO, STDOUT_FILENO);  // the message goes to the console
    PreTreatment({1e-6, 1.0, 0.0, 0.0, 2.0, 0.0});
  };
  EXPECT_EXIT(zeroEmittance(), ::testing::ExitedWithCode(1), "ERROR!!!   @SigmaToAxial2D!");
}

// Each law is scaled so that the rms emittance is the input one; the 1-D
// kurtosis 2 <A^2> / <A>^2 of the invariant A tells the laws apart. KV puts
// every particle on the surface J1 + (e1 / e2) J2 = 4 e1.
TEST(Generators, RmsEmittanceTwissAndKurtosisMatchEachLaw) {
  const struct { void (*law)(const std::vector<double>&, Rows&); const char* name; double kurtosis; } laws[] = {
      {KV2D, "KV", 2.0}, {WB2D, "WB", 2.25}, {PB2D, "PB", 2.4}, {GS2D, "GS", 3.0}};
  const int N = 200000;
  const double tolerance = 5.0 / std::sqrt(N), ratio = kTwiss[0] / kTwiss[3];
  auto J = [](const double* t, double x, double xp) { return (x * x + std::pow(t[1] * xp + t[2] * x, 2)) / t[1]; };
  for (const auto& l : laws) {
    std::srand(77);
    Rows rows(N, std::vector<double>(6, 1.0));
    l.law(kTwiss, rows);
    for (std::size_t i = 0; l.law == KV2D && i < rows.size(); ++i) {
      const std::vector<double>& r = rows[i];
      const double j = J(&kTwiss[0], r[0], r[1]) + ratio * J(&kTwiss[3], r[2], r[3]);
      ASSERT_NEAR(j, 4.0 * kTwiss[0], 4e-12 * kTwiss[0]) << "row " << i;
    }
    for (int plane = 0; plane < 2; ++plane) {
      const double* t = &kTwiss[3 * plane];  // e, beta, alpha
      double xx = 0, xp = 0, pp = 0, x4 = 0;  // the means are zero by symmetry
      for (const std::vector<double>& r : rows) {
        const double x = r[2 * plane], p = r[2 * plane + 1];
        xx += x * x / N;
        xp += x * p / N;
        pp += p * p / N;
        x4 += x * x * x * x / N;
        ASSERT_TRUE(r[4] == 0.0 && r[5] == 0.0) << l.name;
      }
      const double e = std::sqrt(xx * pp - xp * xp);
      EXPECT_NEAR(e / t[0], 1.0, tolerance) << l.name << " plane " << plane;
      EXPECT_NEAR(xx / e / t[1], 1.0, tolerance) << l.name << " plane " << plane;
      EXPECT_NEAR(-xp / e, t[2], tolerance * std::sqrt(1.0 + t[2] * t[2])) << l.name << " plane " << plane;
      EXPECT_NEAR(x4 / (xx * xx), l.kurtosis, 0.06) << l.name << " plane " << plane;
    }
  }
}

TEST(Gaussu, PairOutsideTheCircleRejectsAndLeavesLaterPlaces) {
  std::vector<double> gauss(4, 99.0);
  // (a, b) = (0.5, 0); (1, 0) exactly on the circle is kept; (1, 0.8) lies outside.
  EXPECT_EQ(Gaussu({0.75, 0.5, 1.0, 0.5, 1.0, 0.9, 0.6, 0.5}, gauss), 1);
  EXPECT_NEAR(gauss[0], 0.5 * std::sqrt(-2.0 * std::log(0.25) / 0.25), 1e-14);
  EXPECT_EQ(gauss, std::vector<double>({gauss[0], 0.0, 99.0, 99.0}));
}

TEST(Generators, EmptyRowsDrawNoRandomNumbers) {
  std::srand(5);
  const int first = std::rand();
  for (auto law : {KV2D, WB2D, PB2D, GS2D}) {
    Rows rows;
    std::srand(5);
    law(kTwiss, rows);
    EXPECT_EQ(std::rand(), first);
  }
}
