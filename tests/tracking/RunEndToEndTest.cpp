// Whole runs through the keld program: a field-free line with a steerer, and the failures of the tracking stage.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

using namespace keldtest;

// 3 MeV protons at 352.2 MHz without current, so no self-field; the bunch is about 12 mm long.
static RunResult RunDeck(const TempDir& dir, const std::string& out, int particles, const std::string& lattice) {
  const std::string in = dir.subdir("in");
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 50\nsetnumberofcores 2 1 2 1 1 2 1 1 1 1\n");
  WriteFile(in + "/beam.txt",
            "kindofparticle proton\nparticlerestmass 938.272029\nnumofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\n"
            "current 0\ndistribution GS GS\ntwissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 3.2 0.1\n"
            "particlenumber " + std::to_string(particles) + "\n");
  WriteFile(in + "/lattice.txt", "start\n" + lattice + "end\n");
  return RunKeld(in, out);
}

// Drift, steerer, drift: the drifts keep energy and emittance, every particle reaches every plane, and the steerer
// takes -By L (q/m) / c from each gamma beta x, with L the length of the drift behind it.
TEST(RunEndToEnd, DriftSteererDriftKeepsBeamAndKicksEveryParticle) {
  const int n = 2000;
  TempDir dir;
  const std::string out = dir.subdir("out");
  const RunResult r = RunDeck(dir, out, n, "drift 0.3 0.02 0\noutputplane -0.1\noutputplane 0.0\n"
                                           "steerer 0.0 0.02 0 0.0 0.0005 0 0\ndrift 0.3 0.02 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("The total distance simulated is 0.6 (m)\n"), std::string::npos) << r.output;
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  ASSERT_GT(lines.size(), 100u);
  for (const std::string& line : lines) ASSERT_EQ(Numbers(line).at(28), n) << line;
  const std::vector<double> first = Numbers(lines.front()), last = Numbers(lines.back());
  EXPECT_NEAR(first[0], 3.0, 0.01);
  EXPECT_NEAR(last[0], first[0], 1e-5 * first[0]);  // the kick changes the energy by a part in 1e7
  // At one common time a drift keeps the emittance up to a second-order effect of the energy spread.
  for (int col = 13; col < 16; ++col) EXPECT_NEAR(last[col], first[col], 1e-3 * first[col]) << "column " << col + 1;
  EXPECT_GT(last[16], 1.5 * first[16]);  // while the beam grows
  std::string dst[3];
  const char* planes[3] = {"0.200000", "0.300000", "0.600000"};
  for (int p = 0; p < 3; ++p) {
    dst[p] = ReadFile(out + "/outData_" + planes[p] + ".dst");
    ASSERT_EQ(dst[p].size(), 31u + 48 * n) << planes[p];
    EXPECT_EQ(At<int>(dst[p], 2), n) << planes[p];
  }
  auto v = [&](int f, int i, int k) { return At<double>(dst[f], 23 + 48 * i + 8 * k); };  // x' 1, y' 3, W 5
  const double rest = 938.272029, kick = 0.0005 * 0.3 * 1.60217653e-19 / 1.67262171e-27 * 938.27187 / rest / 299792458;
  for (int i = 0; i < n; ++i) {
    const double xp = v(1, i, 1), yp = v(1, i, 3), G = v(1, i, 5) / rest + 1.0, W = v(2, i, 5);
    const double gbz = std::sqrt((G * G - 1.0) / (1.0 + xp * xp + yp * yp)), gbx = xp * gbz - kick, gby = yp * gbz;
    ASSERT_NEAR(v(2, i, 1) * gbz, gbx, 1e-9 * kick) << "particle " << i;  // gamma beta z untouched
    ASSERT_EQ(v(2, i, 3), yp) << "particle " << i;
    ASSERT_NEAR(W, (std::sqrt(1.0 + gbx * gbx + gby * gby + gbz * gbz) - 1.0) * rest, 1e-10 * W) << "particle " << i;
  }
  EXPECT_NEAR(last[2] - first[2], -kick, 1e-4 * kick);  // the mean gamma beta x of DataSet.txt
  EXPECT_NE(r.output.find("\nRun summary:\n  particles: 2000 in, 2000 out at z = "), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("\n  lost: 0, of them 0 on the pipes of boundary.txt (collisionData.txt)\n  mean kinetic "),
            std::string::npos);
}

// The summary that keld prints at the end reads the files of the run: particles in from inData.dst, out from the
// last line of DataSet.txt, whose numbers it repeats; a 1.5 mm drift loses particles without a line in
// collisionData.txt, so they count as lost at element apertures.
TEST(RunEndToEnd, SummaryRepeatsTheRunsFiles) {
  TempDir dir;
  const std::string out = dir.subdir("out");
  const RunResult r = RunDeck(dir, out, 400, "drift 0.2 0.0015 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  const std::vector<double> first = Numbers(lines.front()), last = Numbers(lines.back());
  const int alive = static_cast<int>(last[28]);
  ASSERT_LT(alive, 390);
  auto g = [](double v) {
    char b[64];
    std::snprintf(b, sizeof b, "%.6g", v);
    return std::string(b);
  };
  auto growth = [&](int c) {
    char b[64];
    std::snprintf(b, sizeof b, "%+.3g", (last[c] / first[c] - 1.0) * 100.0);
    return std::string(b);
  };
  const std::string expected =
      "\nRun summary:\n  particles: 400 in, " + std::to_string(alive) + " out at z = " + g(last[33]) +
      " m, transmission " + g(100.0 * alive / 400) + " %\n  lost: " + std::to_string(400 - alive) +
      ", of them 0 on the pipes of boundary.txt (collisionData.txt)\n  lost at element apertures (no line in "
      "collisionData.txt): " + std::to_string(400 - alive) + "\n  mean kinetic energy: " + g(last[0]) +
      " MeV\n  rms size x, y, z: " + g(last[16] * 1e3) + ", " + g(last[18] * 1e3) + ", " + g(last[20] * 1e3) +
      " mm\n  normalised rms emittance x, y, z: " + g(last[13] * 1e6) + ", " + g(last[14] * 1e6) + ", " +
      g(last[15] * 1e6) + " mm mrad\n  emittance growth x, y, z: " + growth(13) + ", " + growth(14) + ", " +
      growth(15) + " %\n  tracking time: ";
  EXPECT_NE(r.output.find(expected), std::string::npos) << r.output << "\nexpected:" << expected;
  EXPECT_TRUE(std::regex_search(r.output, std::regex(" s\nWall time: [0-9.e+-]+ s\n$"))) << r.output;
}

// Status 2, the message on the console, one more stamped line in ErrorLog.txt (never emptied). Stops 1 mm apart
// are closer than the bunch; an aperture of radius 1 nm takes every particle but the design particle on the axis.
TEST(RunEndToEnd, StageFailuresExitWithStatusTwoAndLogLine) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"quad 0.1 0.02 0 10 0 0\ndrift 0.1 0.02 0\n", "Do not allow the first element to be a hard-edged model "
                                                   "element; very short drift can be added at the beginning"},
      {"drift 0.05 1e-9 0\n", "End of simulation, all particles lost"},
      {"drift 0.05 0.02 0\noutputplane -0.001\n", "The output plane interval is less than the bunch length. "
                                             "Increase the output plane interval and restart the program"}};
  TempDir dir;
  const std::string out = dir.subdir("out");
  WriteFile(out + "/DataSet.txt", "left over\n");
  for (std::size_t c = 0; c < cases.size(); ++c) {
    const RunResult r = RunDeck(dir, out, 200, cases[c].first);
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find(cases[c].second + "\n"), std::string::npos) << r.output;
    if (c == 0) { EXPECT_EQ(ReadFile(out + "/DataSet.txt"), ""); }  // emptied before the plan is refused
    const std::vector<std::string> log = ReadLines(out + "/ErrorLog.txt");
    ASSERT_EQ(log.size(), c + 1);
    EXPECT_TRUE(std::regex_match(log[c].substr(0, 21), std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d  )"))) << log[c];
    EXPECT_EQ(log[c].substr(21), "   simulation stage error: " + cases[c].second);
  }
}

// A kick of 1e300 T over 0.3 m overflows every momentum: the run stops with status 2 at the first step whose means
// are no numbers, instead of writing NaN lines and calling the passed NaN tail a success.
TEST(RunEndToEnd, NonFiniteBunchStopsWithStatusTwo) {
  TempDir dir;
  const std::string out = dir.subdir("out");
  const RunResult r = RunDeck(dir, out, 200, "drift 0.3 0.02 0\nsteerer 0.0 0.02 0 0.0 1e300 0 0\ndrift 0.3 0.02 0\n");
  EXPECT_EQ(r.status, 2) << r.output;
  const std::string message = "The bunch is not finite at step \\d+: its mean or rms values are not numbers, the run "
                              "is stopped";
  EXPECT_TRUE(std::regex_search(r.output, std::regex("\n" + message + "\n"))) << r.output;
  const std::vector<std::string> log = ReadLines(out + "/ErrorLog.txt");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_TRUE(std::regex_match(log[0].substr(21), std::regex("   simulation stage error: " + message))) << log[0];
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  ASSERT_GT(lines.size(), 10u);
  for (const std::string& line : lines)
    for (double v : Numbers(line)) ASSERT_TRUE(std::isfinite(v)) << line;
}
