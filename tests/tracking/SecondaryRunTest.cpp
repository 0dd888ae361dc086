// Runs that start from a distribution file: a line run in two pieces chained through outData_<z>.dst, and the
// secondary beam, whose particles are tracked one by one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <map>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {
const double kRest = 938.272029, kF = 352.2e6, kTwoPi = 6.283185307179586;

// 3 MeV protons at 352.2 MHz without current; `extra` adds to beam.txt.
RunResult RunIn(const TempDir& dir, const std::string& name, const std::string& input, const std::string& extra,
                const std::string& lattice) {
  const std::string in = dir.subdir(name + "_in"), out = dir.subdir(name + "_out");
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 50\nsetnumberofcores 2 1 2 1 1 2 1 1 1 1\n" + input);
  WriteFile(in + "/beam.txt",
            "particlerestmass 938.272029\nnumofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\n"
            "distribution GS GS\ntwissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 3.2 0.1\nparticlenumber 300\n" +
                extra);
  WriteFile(in + "/lattice.txt", "start\n" + lattice + "end\n");
  return RunKeld(in, out);
}

// Lines of a secondary plane file by particle index: x, gamma beta x, y, gamma beta y, time, gamma beta z.
std::map<int, std::vector<double>> PlaneLines(const std::string& path) {
  std::map<int, std::vector<double>> lines;
  for (const std::string& line : ReadLines(path)) {
    const std::vector<double> v = Numbers(line);
    lines[static_cast<int>(v.at(0))] = std::vector<double>(v.begin() + 1, v.end());
  }
  return lines;
}

const char kWhole[] =
    "drift 0.2 0.05 0\nquad 0.1 0.05 0 5 0 0\ndrift 0.3 0.05 0\noutputplane -0.1\noutputplane 0\n"
    "drift 0.1 0.05 0\nquad 0.1 0.05 0 -5 0 0\ndrift 0.2 0.05 0\n";
}  // namespace

// The line cut at its plane at 0.5 m: the piece behind it, started from the outData_0.500000.dst of the first piece,
// ends with the particles of the whole run; only the rounding of the common-time form moves them. A run that loads
// the whole run's inData.dst repeats its first piece byte for byte.
TEST(ChainedRun, TwoPiecesThroughThePlaneFileMatchTheWholeRun) {
  TempDir dir;
  RunResult r = RunIn(dir, "whole", "", "", kWhole);
  ASSERT_EQ(r.status, 0) << r.output;
  const std::string whole = dir.file("whole_out");

  WriteFile(dir.subdir("first_in") + "/start.dst", ReadFile(whole + "/inData.dst"));
  r = RunIn(dir, "first", "", "readparticledistribution start.dst\n",
            "drift 0.2 0.05 0\nquad 0.1 0.05 0 5 0 0\ndrift 0.3 0.05 0\noutputplane -0.1\n");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(ReadFile(dir.file("first_out/outData_0.500000.dst")), ReadFile(whole + "/outData_0.500000.dst"));

  WriteFile(dir.subdir("second_in") + "/half.dst", ReadFile(dir.file("first_out/outData_0.500000.dst")));
  r = RunIn(dir, "second", "", "readparticledistribution half.dst\n",
            "drift 0.1 0.05 0\ndrift 0.1 0.05 0\nquad 0.1 0.05 0 -5 0 0\ndrift 0.2 0.05 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  const auto a = DstRows(whole + "/outData_1.000000.dst"), b = DstRows(dir.file("second_out/outData_0.500000.dst"));
  ASSERT_EQ(a.size(), 300u);
  ASSERT_EQ(b.size(), a.size());
  const double tolerance[6] = {1e-10, 1e-12, 1e-10, 1e-12, 0.0, 1e-10};  // cm, rad, cm, rad, -, MeV
  double shiftMin = 1e300, shiftMax = -1e300;
  for (std::size_t i = 0; i < a.size(); ++i) {
    for (int k : {0, 1, 2, 3, 5}) ASSERT_NEAR(a[i][k], b[i][k], tolerance[k]) << "particle " << i << " value " << k;
    shiftMin = std::min(shiftMin, a[i][4] - b[i][4]);
    shiftMax = std::max(shiftMax, a[i][4] - b[i][4]);
  }
  // The phases are taken against the reference particle, which the second piece makes afresh from the loaded
  // bunch: they move together by a small constant.
  EXPECT_LT(shiftMax - shiftMin, 1e-9);
  EXPECT_LT(std::fabs(shiftMax), 1e-3);
}

// From the same start file, each secondary particle alone reaches the end where the same particle of the bunch
// does, at the same time relative to the others: without a self-field the particles do not meet.
TEST(SecondaryRun, ParticleAloneFollowsItsPathInTheBunch) {
  TempDir dir;
  RunResult r = RunIn(dir, "bunch", "", "", kWhole);
  ASSERT_EQ(r.status, 0) << r.output;
  WriteFile(dir.subdir("alone_in") + "/start.dst", ReadFile(dir.file("bunch_out/inData.dst")));
  r = RunIn(dir, "alone", "secondarybeam 1\nsteppercycle 50 0.002\n", "readparticledistribution start.dst\n", kWhole);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("Synchronized particles have completed simulation.\n"), std::string::npos);
  EXPECT_NE(r.output.find("   Number of particles not lost: 300" + std::string(77, ' ') + "\n"), std::string::npos)
      << r.output;
  const auto bunch = DstRows(dir.file("bunch_out/outData_1.000000.dst"));
  const auto alone = PlaneLines(dir.file("alone_out/outData_1.000000.txt"));
  ASSERT_EQ(bunch.size(), 300u);
  ASSERT_EQ(alone.size(), 300u);
  // A plane inside a time-code section writes no text file in a secondary run.
  EXPECT_FALSE(FileExists(dir.file("alone_out/outData_0.500000.txt")));
  double offsetMin = 1e300, offsetMax = -1e300;
  for (int i = 0; i < 300; ++i) {
    const std::vector<double>& b = bunch[i];
    const std::vector<double>& s = alone.at(i);
    EXPECT_NEAR(s[0], b[0] / 100, 1e-12) << i;
    EXPECT_NEAR(s[2], b[2] / 100, 1e-12) << i;
    EXPECT_NEAR(s[1] / s[5], b[1], 1e-12) << i;
    EXPECT_NEAR(s[3] / s[5], b[3], 1e-12) << i;
    EXPECT_NEAR((std::sqrt(1 + s[1] * s[1] + s[3] * s[3] + s[5] * s[5]) - 1) * kRest, b[5], 1e-9) << i;
    const double offset = s[4] - b[4] / (kTwoPi * kF);
    offsetMin = std::min(offsetMin, offset);
    offsetMax = std::max(offsetMax, offset);
  }
  EXPECT_LT(offsetMax - offsetMin, 1e-14);  // s: one clock shift for all
  // The reference's track: one line per push of 2 mm over the 1 m line.
  const std::vector<std::string> track = ReadLines(dir.file("alone_out/SeSynParticle.txt"));
  EXPECT_NEAR(static_cast<double>(track.size()), 0.8 / 0.002, 5.0);  // the quads are mapped, not pushed
}

// Particles released along a pipe of 3 mm radius with growing slopes: each one that reaches the wall is lost there
// once, at the z where its straight path meets 3 mm, and gets no line in the plane file at the end.
TEST(SecondaryRun, ParticlesOutsideTheApertureAreLostOnce) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 100 0.001\nsecondarybeam 1\nboundary 1\n");
  WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\nreadparticledistribution s.txt\n");
  WriteFile(in + "/lattice.txt", "start\ndrift 0.5 0.05 0\noutputplane 0.0\ndrift 0.5 0.05 0\nend\n");
  WriteFile(in + "/boundary.txt", "start\n1 pipe 1.0 0.003\nend\n");
  const double v = 299792458.0 * std::sqrt(1 - 1 / std::pow(1 + 3 / kRest, 2));
  std::ostringstream list;
  list << std::setprecision(17);
  for (int i = 0; i < 5; ++i)  // x = 0.5 i mm, slope 4 i mrad, released at z = 0.1 i m and 1 i ns
    list << 0.0005 * i << " 0 " << 0.1 * i << " " << 0.004 * v * i << " 0 " << v << " 1 938.272029 1 " << 1e-9 * i
         << " proton\n";
  WriteFile(in + "/s.txt", list.str());
  const RunResult r = RunKeld(in, out);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("   Number of particles not lost: 1" + std::string(77, ' ') + "\n"), std::string::npos)
      << r.output;
  const std::vector<std::string> hits = ReadLines(out + "/collisionData.txt");
  ASSERT_EQ(hits.size(), 4u);
  for (int i = 1; i <= 4; ++i) {
    const std::vector<double> h = Numbers(hits[i - 1]);
    EXPECT_NEAR(std::hypot(h[0], h[1]), 0.003, 1e-9) << hits[i - 1];
    const double z = 0.1 * i + (0.003 - 0.0005 * i) / (0.004 * i);
    EXPECT_NEAR(h[2], z, 1e-9) << hits[i - 1];
    EXPECT_NEAR(h[9], 1e-9 * i + (z - 0.1 * i) / v, 1e-5 * h[9]) << hits[i - 1];
  }
  const auto end = PlaneLines(out + "/outData_1.000000.txt");
  ASSERT_EQ(end.size(), 1u);
  EXPECT_EQ(end.begin()->first, 0);
  EXPECT_NEAR(end.begin()->second[4], 1.0 / v, 1e-15);  // s: released at 0, 1 m at v
}

// A secondary line that starts with a hard-edge element is refused as for a bunch.
TEST(SecondaryRun, HardEdgeStartIsRefused) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 100\nsecondarybeam 1\n");
  WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\nreadparticledistribution s.txt\n");
  WriteFile(in + "/s.txt", "0 0 0 0 0 2e7 1 938.272029 1 0 proton\n");
  WriteFile(in + "/lattice.txt", "start\nquad 0.1 0.05 0 5 0 0\ndrift 0.1 0.05 0\nend\n");
  const RunResult r = RunKeld(in, out);
  EXPECT_EQ(r.status, 2) << r.output;
  EXPECT_NE(r.output.find("Do not allow the first element to be a hard-edged model element; very short drift can be "
                          "added at the beginning\n"),
            std::string::npos)
      << r.output;
}

// A hard-edge quadrupole maps each particle alone: x cos(kL) and -x k sin(kL) with k from the particle's own
// rigidity; the plane at its exit gets a line for every particle still alive there, and a particle at or beyond
// the quadrupole's radius is lost in it without a line in collisionData.txt.
TEST(SecondaryRun, HardEdgeQuadrupoleMapsEachParticle) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 100 0.001\nsecondarybeam 1\n");
  WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\nreadparticledistribution s.txt\n");
  WriteFile(in + "/lattice.txt",
            "start\ndrift 0.1 0.05 0\nquad 0.1 0.004 0 5 0 0\noutputplane 0\ndrift 0.1 0.05 0\nend\n");
  const double g = 1 + 3 / kRest, bg = std::sqrt(g * g - 1), v = 299792458.0 * bg / g;
  std::ostringstream list;
  list << std::setprecision(17);
  for (int i = 0; i < 6; ++i) list << 0.001 * i << " 0 0 0 0 " << v << " 1 938.272029 1 0 proton\n";
  WriteFile(in + "/s.txt", list.str());
  const RunResult r = RunKeld(in, out);
  ASSERT_EQ(r.status, 0) << r.output;
  const auto exit = PlaneLines(out + "/outData_0.200000.txt");
  ASSERT_EQ(exit.size(), 5u);  // x = 5 mm is at the 4 mm radius
  EXPECT_EQ(ReadFile(out + "/collisionData.txt"), "");
  const double k = std::sqrt(5.0 / (bg * kRest * 1e6 / 299792458.0)), kl = 0.1 * k;
  // The ion's charge-to-mass ratio comes from the proton mass in kg, which
  // agrees with the rest energy in MeV to a few parts in 1e7.
  for (const auto& [i, s] : exit) {
    EXPECT_NEAR(s[0], 0.001 * i * std::cos(kl), 1e-7 * 0.001 * i) << i;
    EXPECT_NEAR(s[1] / s[5], -0.001 * i * k * std::sin(kl), 1e-6 * 0.002 * i) << i;
    EXPECT_NEAR(s[4], 0.2 / v, 1e-15) << i;
  }
  EXPECT_EQ(PlaneLines(out + "/outData_0.300000.txt").size(), 5u);
}
