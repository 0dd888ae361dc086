#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "run/ErrorSample.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

using keldtest::At;
using V = std::vector<double>;

namespace {
const double kC = 299792458.0, kTwoPi = 6.283185307179586, kM = 1875.6, kF = 162.5e6;
const double kBg = std::sqrt((1 + 3.0 / kM) * (1 + 3.0 / kM) - 1);  // 3 MeV deuterons
const char kFolder[] = "KELD_BEAM_SETUP_TEST_FOLDER";

// Twiss lines read alpha, beta, emittance (normalised, mm mrad).
std::string Deck(int n, const std::string& extra = "") {
  return "numofcharge 2\nparticlerestmass 1875.6\nkneticenergy 3\nfrequency 162.5e6\ncurrent 10\ntwissx 0.5 2.0 0.25\n"
         "twissy -0.3 1.5 0.2\ntwissz 0.1 0.8 0.3\nparticlenumber " + std::to_string(n) + "\n" + extra;
}

// Deck and output folder. The child of a death test runs the test again from the top and takes its
// parent's folder from the environment, so that it leaves nothing behind.
struct BeamRun {
  std::unique_ptr<keldtest::TempDir> own = std::getenv(kFolder) ? nullptr : std::make_unique<keldtest::TempDir>();
  std::string path = own ? own->path() + "/" : std::getenv(kFolder);
  Initial init;
  Beam beam;
  ErrorSample sample;
  BeamRun() { setenv(kFolder, (inputFilePath = outputFilePath = path).c_str(), 1); }
  ~BeamRun() { delete[] beam.particle, own ? unsetenv(kFolder) : 0; }
  std::string Run(const std::string& deck) {
    keldtest::WriteFile(path + "beam.txt", deck);
    testing::internal::CaptureStdout();
    init.InitParticle(beam, sample);
    return testing::internal::GetCapturedStdout();
  }
};
}  // namespace

// Deck faults and missing values that the generation needs end the run with status 1.
TEST(BeamDeckDeathTest, FaultsStopTheRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  BeamRun s;
  const std::string full = "numofcharge 1\nkneticenergy 3\nfrequency 1e8\ncurrent 1\nparticlenumber 10\n";
  std::vector<std::pair<std::string, std::string>> cases = {
      {"distribution GS\n",
       "The initial bunch distribution contains two parameters, separately in transvers and longitudinal"},
      {"distribution KV XX\n", "Distribution Type Error, The Format is: distribution  KV/WB/PB/GS  KV/WB/PB/GS"},
      {"twissx 0.5 2.0\n", "twissx have 3 parameters, emittance, beta, alpha"}};
  for (std::string key : {"kneticenergy", "frequency", "current", "numofcharge"})
    cases.push_back({std::string(full).insert(full.find(key), "!"), key});  // the line commented out
  for (const auto& c : cases) {
    keldtest::WriteFile(s.path + "beam.txt", c.first);
    EXPECT_EXIT({ dup2(2, 1); Initial().InitParticle(s.beam, s.sample); }, testing::ExitedWithCode(1), c.second);
  }
}

TEST(BeamSetup, SolverAndThreadTablesAtTheirBoundariesAndCaps) {
  const V row2 = {72, 68, 24, 56, 22, 48, 96, 20, 48, 24};
  const struct { int n; double mesh, grid, hardware, maxThreads; V cores; } cases[] = {
      {30000, 3.5, 14, 1000, -1, {64, 54, 20, 24, 1, 48, 96, 12, 48, 12}}, {30001, 3.5, 18, 1000, 0, row2},
      {80000, 3.5, 18, 50, -1, row2}, {80001, 4.0, 20, 1000, 16, {96, 96, 32, 96, 26, 48, 96, 24, 48, 36}}};
  for (const auto& c : cases) {
    BeamRun s;
    s.init.hardwareThreads = int(c.hardware), s.init.maxThreads = int(c.maxThreads);
    s.Run(Deck(c.n, "distribution KV KV\n"));
    const V& p = s.init.scParameters;
    EXPECT_EQ(V(p.begin() + 1, p.begin() + 8), (V{c.mesh, c.mesh, c.mesh, 8, 8, 8, std::ceil(c.grid / 3)})) << c.n;
    EXPECT_EQ(s.init.numOfGrid, std::vector<int>(3, int(c.grid))) << c.n;
    V capped = c.cores;
    for (double& k : capped) k = std::min({k, c.hardware, c.maxThreads >= 1 ? c.maxThreads : k});
    EXPECT_EQ(V(p.begin() + 10, p.end()), capped) << c.n;
  }
}

// The file: bytes 125, 100, N, mA, MHz, 125, six numbers a particle, rest energy. Beam errors change
// the current, emittances and Twiss, and add offsets to the file form, x and y with a millimetre factor
// on centimetres. In memory each particle is then drifted back along its direction to the head's time.
TEST(BeamSetup, InDataFileWithBeamErrorsAndCommonTimeForm) {
  const int n = 100000;
  BeamRun s;
  s.sample.onFlag = {0, 1, 0, 0};
  s.sample.dynamicSet = {{1.0, 50.0, -30.0, 10.0, 0.5, -0.3, 0.02, 10.0, 20.0, 0.0, 5.0, -5.0, 0.0, 2.0}};
  s.Run(Deck(n));
  const std::string dst = keldtest::ReadFile(s.path + "inData.dst");
  ASSERT_EQ(dst.size(), 23u + 48u * n + 8u);
  EXPECT_EQ(V({1.0 * dst[0], 1.0 * dst[1], 1.0 * dst[22], 1.0 * At<int>(dst, 2)}), (V{125, 100, 125, n}));
  EXPECT_EQ(V({At<double>(dst, 6), At<double>(dst, 14), At<double>(dst, dst.size() - 8)}), (V{12, 162.5, kM}));
  V mean(6, 0.0), sum(15, 0.0);  // per plane in generator units (m, rad; z, dp/p): <x>, <p>, <xx>, <xp>, <pp>
  double lowest = 0, highest = 0, gammaSum = 0;
  for (int i = 0; i < n; ++i) {
    V r(6);  // x (cm), x', y (cm), y', phase, energy
    for (int k = 0; k < 6; ++k) r[k] = At<double>(dst, 23 + 48 * i + 8 * k), mean[k] += r[k] / n;
    const double g = r[5] / kM + 1, vz = std::sqrt(1 - 1 / (g * g)) * kC / std::hypot(1, r[1], r[3]);
    const double dt = r[4] / (kTwoPi * kF) - s.beam.phaseHead, pz = vz / kC * g;
    const V at = {r[0] / 100 - r[1] * dt * vz, r[1] * pz, r[2] / 100 - r[3] * dt * vz, r[3] * pz, -dt * vz, pz};
    for (int k = 0; k < 6; ++k)
      ASSERT_NEAR(s.beam.particle[i].coordinate[k], at[k], 1e-12 * std::fabs(at[k]) + 1e-18) << i << " " << k;
    lowest = std::min(lowest, r[4]), highest = std::max(highest, r[4]), gammaSum += g;
    const double u[6] = {r[0] / 100, r[1], r[2] / 100, r[3], -r[4] * vz / (kTwoPi * kF), pz / kBg - 1};
    for (int k = 0, j = 0; k < 6; k += 2)
      for (double v : {u[k], u[k + 1], u[k] * u[k], u[k] * u[k + 1], u[k + 1] * u[k + 1]}) sum[j++] += v / n;
  }
  // Offsets within about 6 standard errors of the bunch's own spread.
  const V offset = {0.05, 0.5e-3, -0.03, -0.3e-3, 10.0 / 360.0 * kTwoPi, 3.02};
  const V tol = {7e-3, 4e-5, 5e-3, 4e-5, 3e-3, 4e-4};
  for (int k = 0; k < 6; ++k) EXPECT_NEAR(mean[k], offset[k], tol[k]) << "place " << k;
  // Emittance +10 %, +20 %, 0; mismatch +5 %, -5 %, 0 on beta and alpha alike; within 6 standard errors.
  const double up = 1.05 * 1.05, down = 0.95 * 0.95;
  const std::vector<V> twiss = {{0.275, 2.0 * up, 0.5 * up}, {0.24, 1.5 * down, -0.3 * down}, {0.3, 0.8, 0.1}};
  for (int k = 0; k < 3; ++k) {
    const double* m = &sum[5 * k];
    const double xx = m[2] - m[0] * m[0], xp = m[3] - m[0] * m[1], pp = m[4] - m[1] * m[1];
    const double e = std::sqrt(xx * pp - xp * xp), t = 6 / std::sqrt(n);
    EXPECT_NEAR(e * kBg * 1e6 / twiss[k][0], 1, t) << "plane " << k;
    EXPECT_NEAR(xx / e / twiss[k][1], 1, t) << "plane " << k;
    EXPECT_NEAR(-xp / e, twiss[k][2], t * std::hypot(1, twiss[k][2])) << "plane " << k;
  }
  // The head's time is taken before the phase offset; the reference slot sits on axis at the centre.
  EXPECT_NEAR(s.beam.phaseHead * kTwoPi * kF / (lowest - offset[4]), 1, 1e-12);
  EXPECT_NEAR(s.beam.phaseStart * kTwoPi * kF / (highest - lowest), 1, 1e-12);
  const double g = gammaSum / n, b = std::sqrt(1 - 1 / (g * g));
  const V want = {0, 0, 0, 0, s.beam.phaseHead * b * kC, g * b};
  for (int k = 0; k < 6; ++k) EXPECT_NEAR(s.beam.particle[n].coordinate[k], want[k], 1e-10 * std::fabs(want[k])) << k;
}

// particlenumber 1: SingleParticle.txt from the deck's displacement, no inData.dst. current 0 with
// N above 1: unit macro particles. Both without space charge. Twiss lines are stored reversed.
TEST(BeamSetup, SingleParticleAndZeroCurrent) {
  BeamRun one;
  one.Run(Deck(1, "displacepos 1.5 -2 3\ndisplacedpos 0.5 -0.25\n"));
  EXPECT_EQ(one.init.twiss, (V{0.25, 2.0, 0.5, 0.2, 1.5, -0.3, 0.3, 0.8, 0.1}));
  EXPECT_EQ(one.init.spaceCharge, 0);
  EXPECT_FALSE(keldtest::FileExists(one.path + "inData.dst"));
  EXPECT_EQ(keldtest::ReadFile(one.path + "SingleParticle.txt"),
            "dx:1.5mm  dy:-2mm  dz:3mm\ndpx:0.5mrad  dpy:-0.25mrad  dpz:--\nEnergy:3MeV\n");
  BeamRun zero;  // shares the folder of the first
  const std::string console = zero.Run(Deck(2000, "current 0\n"));
  EXPECT_NE(console.find("0 intensity, stop SCfield calculations\nThe intensity is set to 0\n"), std::string::npos);
  EXPECT_EQ(V({zero.beam.current, zero.beam.particle[0].charge}), (V{0, 2 * 1.60217653e-19}));
}

// Each transverse law yields an inData.dst whose rms emittances and Twiss parameters are the deck's.
TEST(BeamSetup, InDataFileMatchesTheDeckForEveryTransverseLaw) {
  const int n = 40000;
  const std::vector<V> twiss = {{0.25, 2.0, 0.5}, {0.2, 1.5, -0.3}};
  for (const char* law : {"KV", "WB", "PB", "GS"}) {
    BeamRun s;
    s.Run(Deck(n, std::string("distribution ") + law + " GS\n"));
    const std::string dst = keldtest::ReadFile(s.path + "inData.dst");
    ASSERT_EQ(dst.size(), 23u + 48u * n + 8u);
    for (int k = 0; k < 2; ++k) {
      double m[5] = {};  // <u>, <u'>, <uu>, <uu'>, <u'u'>, u in m from the file's cm
      for (int i = 0; i < n; ++i) {
        const double u = At<double>(dst, 23 + 48 * i + 16 * k) / 100, p = At<double>(dst, 31 + 48 * i + 16 * k);
        m[0] += u / n, m[1] += p / n, m[2] += u * u / n, m[3] += u * p / n, m[4] += p * p / n;
      }
      const double xx = m[2] - m[0] * m[0], xp = m[3] - m[0] * m[1], pp = m[4] - m[1] * m[1];
      const double e = std::sqrt(xx * pp - xp * xp), t = 6 / std::sqrt(n);
      EXPECT_NEAR(e * kBg * 1e6 / twiss[k][0], 1, t) << law << " plane " << k;
      EXPECT_NEAR(xx / e / twiss[k][1], 1, t) << law << " plane " << k;
      EXPECT_NEAR(-xp / e, twiss[k][2], t * std::hypot(1, twiss[k][2])) << law << " plane " << k;
    }
  }
}
