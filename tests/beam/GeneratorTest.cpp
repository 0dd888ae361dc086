#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "beam/Generator.h"

namespace {

using Rows = std::vector<std::vector<double>>;
using Law = void (*)(const std::vector<double>&, Rows&);

const double kTwoPi = 6.283185307179586;

// Two planes with different emittances, betas on both sides of 1 and alphas
// of both signs, so that every part of the ellipse conversion is exercised.
const std::vector<double> kTwiss = {2e-6, 1.7, -0.8, 0.5e-6, 0.6, 1.3};

double Uniform() { return std::rand() / 2147483647.0; }

// Courant-Snyder invariant x^2 / beta + (beta x' + alpha x)^2 / beta.
double Invariant(double x, double xp, double beta, double alpha) {
  const double u = beta * xp + alpha * x;
  return x * x / beta + u * u / beta;
}

struct PlaneStatistics {
  double emittance, beta, alpha, kurtosis;
};

// Centred second moments of one phase plane (columns col, col + 1).
PlaneStatistics Statistics(const Rows& rows, int col) {
  const double n = static_cast<double>(rows.size());
  double mx = 0, mp = 0;
  for (const auto& r : rows) {
    mx += r[col];
    mp += r[col + 1];
  }
  mx /= n;
  mp /= n;
  double xx = 0, xp = 0, pp = 0, x4 = 0;
  for (const auto& r : rows) {
    const double x = r[col] - mx, p = r[col + 1] - mp;
    xx += x * x;
    xp += x * p;
    pp += p * p;
    x4 += x * x * x * x;
  }
  xx /= n;
  xp /= n;
  pp /= n;
  x4 /= n;
  PlaneStatistics s;
  s.emittance = std::sqrt(xx * pp - xp * xp);
  s.beta = xx / s.emittance;
  s.alpha = -xp / s.emittance;
  s.kurtosis = x4 / (xx * xx);
  return s;
}

// Root in [0, 1] of 3 s^2 - 2 s^3 = u, the cumulative distribution of the
// total invariant of a parabolic bunch, by bisection.
double ParabolicRoot(double u) {
  double lo = 0.0, hi = 1.0;
  for (int i = 0; i < 200; ++i) {
    const double mid = 0.5 * (lo + hi);
    if (3.0 * mid * mid - 2.0 * mid * mid * mid < u)
      lo = mid;
    else
      hi = mid;
  }
  return 0.5 * (lo + hi);
}

}  // namespace

TEST(PreTreatment, UntiltedEllipsesGiveSquareRootOfBeta) {
  // Beta above 1 in one plane and below 1 in the other: the eigenvalue order
  // is swapped in one of them.
  const std::vector<double> P = PreTreatment({2e-6, 3.0, 0.0, 5e-7, 0.4, 0.0});
  ASSERT_EQ(P.size(), 6u);
  EXPECT_NEAR(P[0], std::sqrt(3.0), 1e-12 * std::sqrt(3.0));
  EXPECT_EQ(P[1], 0.0);
  EXPECT_NEAR(P[2], std::sqrt(0.4), 1e-12 * std::sqrt(0.4));
  EXPECT_EQ(P[3], 0.0);
  EXPECT_NEAR(P[4], 4.0, 4e-12);
  EXPECT_EQ(P[5], 0.0);

  // A round ellipse (beta 1): the tilt formula is not used.
  const std::vector<double> round = PreTreatment({1e-6, 1.0, 0.0, 1e-6, 1.0, 0.0});
  EXPECT_NEAR(round[0], 1.0, 1e-12);
  EXPECT_EQ(round[1], 0.0);
  EXPECT_NEAR(round[4], 1.0, 1e-12);
}

TEST(PreTreatment, TiltedEllipsesGiveTwissScaleAndCorrelation) {
  const double cases[][2] = {{1.7, -0.8}, {0.6, 1.3}, {2.0, 2.5}, {0.3, -0.2}, {1.0, 0.7}};
  for (const auto& c : cases) {
    const double beta = c[0], alpha = c[1];
    const std::vector<double> P = PreTreatment({3e-6, beta, alpha, 1e-6, beta, -alpha});
    EXPECT_NEAR(P[0], std::sqrt(beta), 1e-10) << "beta " << beta << " alpha " << alpha;
    EXPECT_NEAR(P[1], -alpha / std::sqrt(beta), 1e-10) << "beta " << beta << " alpha " << alpha;
    EXPECT_NEAR(P[2], std::sqrt(beta), 1e-10) << "beta " << beta << " alpha " << alpha;
    EXPECT_NEAR(P[3], alpha / std::sqrt(beta), 1e-10) << "beta " << beta << " alpha " << alpha;
    EXPECT_NEAR(P[4], 3.0, 1e-10) << "beta " << beta << " alpha " << alpha;
  }
}

TEST(PreTreatment, ZeroEmittanceEndsTheRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The message goes to the console; the child's console is sent to stderr
  // so that the death test can see it.
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        PreTreatment({0.0, 1.0, 0.5, 1e-6, 1.0, 0.0});
      },
      ::testing::ExitedWithCode(1), "ERROR!!!   @SigmaToAxial2D!");
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        PreTreatment({1e-6, 1.0, 0.0, 0.0, 2.0, 0.0});
      },
      ::testing::ExitedWithCode(1), "ERROR!!!   @SigmaToAxial2D!");
}

TEST(GenerateCoordinates, NotANumberInSecondPlaneFallsBackToFirst) {
  // A negative area ratio makes the second amplitude the root of a negative
  // number: the row takes the first plane's values for the second.
  std::srand(3);
  std::vector<double> row(6, 9.0);
  GenerateCoordinates({1.2, -0.3, 0.8, 0.1, -1.0, 2e-6}, row);
  EXPECT_TRUE(std::isfinite(row[0]));
  EXPECT_EQ(row[2], row[0]);
  EXPECT_EQ(row[3], row[1]);
  EXPECT_EQ(row[4], 0.0);
  EXPECT_EQ(row[5], 0.0);
}

TEST(KV2D, EveryParticleLiesOnOneHyperEllipsoid) {
  std::srand(11);
  Rows rows(20000, std::vector<double>(6, 7.0));
  KV2D(kTwiss, rows);
  const double e = kTwiss[0];
  const double ratio = kTwiss[0] / kTwiss[3];
  double smallest = 1e300, largest = 0.0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const auto& r = rows[i];
    const double j1 = Invariant(r[0], r[1], kTwiss[1], kTwiss[2]);
    const double j2 = Invariant(r[2], r[3], kTwiss[4], kTwiss[5]);
    ASSERT_NEAR(j1 + ratio * j2, 4.0 * e, 1e-12 * 4.0 * e) << "row " << i;
    ASSERT_EQ(r[4], 0.0) << "row " << i;
    ASSERT_EQ(r[5], 0.0) << "row " << i;
    smallest = std::min(smallest, j1);
    largest = std::max(largest, j1);
  }
  // The surface is shared between the planes in all proportions.
  EXPECT_LT(smallest, 0.01 * 4.0 * e);
  EXPECT_GT(largest, 0.99 * 4.0 * e);
}

TEST(Generators, RowsFollowTheDrawOrderAndAmplitudeLaw) {
  // Replays the C library's generator: for WB and PB one uniform for the
  // amplitude A, then u, f1, f2 of the row. The expected A comes from the
  // inverse of each law's distribution of the total invariant, worked out
  // here independently of the generators' closed forms.
  const double e = kTwiss[0], b1 = kTwiss[1], a1 = kTwiss[2], b2 = kTwiss[4], a2 = kTwiss[5];
  const double ratio = kTwiss[0] / kTwiss[3];
  const Law laws[3] = {KV2D, WB2D, PB2D};
  const char* names[3] = {"KV", "WB", "PB"};
  for (int law = 0; law < 3; ++law) {
    Rows rows(500, std::vector<double>(6, 0.0));
    std::srand(2024);
    laws[law](kTwiss, rows);
    std::srand(2024);
    for (std::size_t i = 0; i < rows.size(); ++i) {
      double A = 4.0 * e;
      if (law == 1) A = 6.0 * e * std::sqrt(Uniform());
      // The closed form of PB takes the root for 1 - u: the same law, since
      // u and 1 - u are equally uniform, but it fixes which row gets which A.
      if (law == 2) A = 8.0 * e * ParabolicRoot(1.0 - Uniform());
      const double u = Uniform(), f1 = kTwoPi * Uniform(), f2 = kTwoPi * Uniform();
      const double r1 = std::sqrt(u * A);
      const double r2 = std::sqrt((A - r1 * r1) / ratio);
      const double expected[4] = {std::sqrt(b1) * r1 * std::cos(f1),
                                  r1 * (-a1 / std::sqrt(b1) * std::cos(f1) - std::sin(f1) / std::sqrt(b1)),
                                  std::sqrt(b2) * r2 * std::cos(f2),
                                  r2 * (-a2 / std::sqrt(b2) * std::cos(f2) - std::sin(f2) / std::sqrt(b2))};
      const double scale = std::sqrt(8.0 * e * 10.0);
      for (int k = 0; k < 4; ++k)
        ASSERT_NEAR(rows[i][k], expected[k], 1e-9 * scale) << names[law] << " row " << i << " place " << k;
    }
  }
}

TEST(Generators, RmsEmittanceAndTwissMatchTheInputs) {
  // Every law is scaled so that the rms emittance sqrt(<x2><x'2> - <xx'>^2)
  // equals the input emittance: with J = a^2 uniform in phase the rms
  // emittance is <J> / 2, and <J1> = <A> / 2 for A the total invariant:
  // KV A = 4 e; WB <A> = 6 e <sqrt(u)> = 4 e; PB <A> = 8 e <s> = 4 e for the
  // density 6 s (1 - s); GS has <x^2> = beta (sqrt(4 e) / 2)^2 = beta e.
  // The 1-D kurtosis 2 <A^2> / <A>^2 tells the laws apart: 2, 9/4, 12/5, 3.
  // The standard error of the estimates is about 1/sqrt(N) (alpha: sqrt(1 +
  // alpha^2) / sqrt(N)); the bounds are about 5 of these.
  const int N = 200000;
  const double tolerance = 6.0 / std::sqrt(static_cast<double>(N));
  const Law laws[4] = {KV2D, WB2D, PB2D, GS2D};
  const char* names[4] = {"KV", "WB", "PB", "GS"};
  const double kurtosis[4] = {2.0, 2.25, 2.4, 3.0};
  const double largestInvariant[4] = {4.0, 6.0, 8.0, 0.0};
  const double ratio = kTwiss[0] / kTwiss[3];
  for (int law = 0; law < 4; ++law) {
    std::srand(77 + law);
    Rows rows(N, std::vector<double>(6, 1.0));
    laws[law](kTwiss, rows);
    for (int plane = 0; plane < 2; ++plane) {
      const double e = kTwiss[3 * plane], beta = kTwiss[3 * plane + 1], alpha = kTwiss[3 * plane + 2];
      const PlaneStatistics s = Statistics(rows, 2 * plane);
      EXPECT_NEAR(s.emittance / e, 1.0, tolerance) << names[law] << " plane " << plane;
      EXPECT_NEAR(s.beta / beta, 1.0, tolerance) << names[law] << " plane " << plane;
      EXPECT_NEAR(s.alpha, alpha, tolerance * std::sqrt(1.0 + alpha * alpha)) << names[law] << " plane " << plane;
      EXPECT_NEAR(s.kurtosis, kurtosis[law], 0.06) << names[law] << " plane " << plane;
    }
    double largest = 0.0;
    for (const auto& r : rows) {
      largest = std::max(largest, Invariant(r[0], r[1], kTwiss[1], kTwiss[2]) +
                                      ratio * Invariant(r[2], r[3], kTwiss[4], kTwiss[5]));
      ASSERT_EQ(r[4], 0.0) << names[law];
      ASSERT_EQ(r[5], 0.0) << names[law];
    }
    if (law < 3) {
      // Bounded laws: the edge is reached but not passed.
      EXPECT_LE(largest, largestInvariant[law] * kTwiss[0] * (1.0 + 1e-12)) << names[law];
      EXPECT_GT(largest, 0.97 * largestInvariant[law] * kTwiss[0]) << names[law];
    } else {
      // No truncation of the Gaussian: far tails are present.
      EXPECT_GT(largest, 20.0 * kTwiss[0]) << names[law];
    }
  }
}

TEST(Gaussu, PolarMethodKeepsOneNumberPerPair) {
  std::vector<double> gauss(4, 99.0);
  // Pairs give (a, b) = (0.5, 0), (-0.5, 0.5), (1, 0) on the circle, (0.2, 0).
  EXPECT_EQ(Gaussu({0.75, 0.5, 0.25, 0.75, 1.0, 0.5, 0.6, 0.5}, gauss), 0);
  EXPECT_NEAR(gauss[0], 0.5 * std::sqrt(-2.0 * std::log(0.25) / 0.25), 1e-14);
  EXPECT_NEAR(gauss[1], -0.5 * std::sqrt(-2.0 * std::log(0.5) / 0.5), 1e-14);
  EXPECT_EQ(gauss[2], 0.0);  // q exactly 1 is accepted
  EXPECT_NEAR(gauss[3], 0.2 * std::sqrt(-2.0 * std::log(0.04) / 0.04), 1e-13);

  // The second pair lies outside the unit circle: stop there, the later
  // places keep their old values.
  std::vector<double> partial(4, 99.0);
  EXPECT_EQ(Gaussu({0.75, 0.5, 1.0, 0.9, 0.6, 0.5, 0.6, 0.5}, partial), 1);
  EXPECT_NEAR(partial[0], gauss[0], 1e-14);
  EXPECT_EQ(partial[1], 99.0);
  EXPECT_EQ(partial[2], 99.0);
  EXPECT_EQ(partial[3], 99.0);
}

TEST(Generators, EmptyRowsDrawNoRandomNumbers) {
  const Law laws[4] = {KV2D, WB2D, PB2D, GS2D};
  std::srand(5);
  const int first = std::rand();
  for (int law = 0; law < 4; ++law) {
    Rows rows;
    std::srand(5);
    laws[law](kTwiss, rows);
    EXPECT_EQ(std::rand(), first) << "law " << law;
    EXPECT_TRUE(rows.empty());
  }
}
