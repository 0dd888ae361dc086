// Whole runs with field maps and an aperture list, through the keld program.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"
#include "tools/fieldmap/FieldMapWriter.h"

using namespace keldtest;

namespace {
// 3 MeV protons at 352.2 MHz, no current; rms size about 0.9 mm, or 0.3 mm with `emittance` 0.02.
// With `start`, the bunch is loaded from that distribution file, so that two runs compare on the same particles.
RunResult RunDeck(const TempDir& dir, const std::string& out, int particles, const std::string& lattice,
                  const std::string& emittance = "0.2", const std::string& start = "") {
  const std::string in = dir.file("in");
  if (!start.empty()) WriteFile(in + "/start.dst", ReadFile(start));
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 50\nsetnumberofcores 2 1 2 1 1 2 1 1 1 1\n");
  WriteFile(in + "/beam.txt",
            "kindofparticle proton\nparticlerestmass 938.272029\nnumofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\n"
            "current 0\ndistribution GS GS\ntwissx -0.5 0.3 " + emittance + "\ntwissy 0.5 0.3 " + emittance +
            "\ntwissz 0.0 3.2 0.1\n"
            "particlenumber " + std::to_string(particles) + "\n" +
                (start.empty() ? "" : "readparticledistribution start.dst\n"));
  WriteFile(in + "/lattice.txt", "start\n" + lattice + "end\n");
  return RunKeld(in, out);
}
}  // namespace

// The deck of examples/fieldmap with the map its README writes: a map-based doublet, and a 3.5 mm pipe that scrapes
// the waterbag bunch, which enters the pipe whole. The alive count only falls, every lost particle has one line in
// collisionData.txt with its crossing on the wall, and none is recorded twice.
TEST(FieldMapRun, ExampleDeckRuns) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  for (const char* deck : {"input.txt", "beam.txt", "lattice.txt", "boundary.txt"})
    WriteFile(in + "/" + deck, ReadFile(std::string(KELD_SOURCE_DIR) + "/examples/fieldmap/" + deck));
  fieldmap::MapMesh mesh;
  mesh.nx = mesh.ny = 8, mesh.nz = 10, mesh.zmax = 0.1, mesh.xmin = mesh.ymin = -0.02, mesh.xmax = mesh.ymax = 0.02;
  std::string error;
  ASSERT_TRUE(fieldmap::WriteMapSet(in + "/quad", 3, mesh, fieldmap::Quadrupole(10.0), error)) << error;
  const RunResult r = RunKeld(in, out);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("Boundary loaded, total length: 0.65 m,  Lattice length: 0.65 m.\n"), std::string::npos);
  double alive = 5000;
  for (const std::string& line : ReadLines(out + "/DataSet.txt")) {
    const double now = Numbers(line).at(28);
    ASSERT_LE(now, alive) << line;
    alive = now;
  }
  const std::vector<std::string> lost = ReadLines(out + "/collisionData.txt");
  EXPECT_GT(lost.size(), 500u);
  EXPECT_EQ(lost.size(), static_cast<std::size_t>(5000 - alive));
  EXPECT_EQ(std::set<std::string>(lost.begin(), lost.end()).size(), lost.size());
  for (const std::string& line : lost) {
    const std::vector<double> v = Numbers(line);
    ASSERT_EQ(v.size(), 10u) << line;
    ASSERT_NEAR(std::hypot(v[0], v[1]), 0.0035, 1e-5 * 0.0035) << line;  // six printed digits
    ASSERT_TRUE(v[2] > 0.0 && v[2] < 0.65) << line;
  }
}

// A dipole map in a curved set bends the reference by about 10 degrees in x-z; superposeout places the rotated
// plane at the exit of the reference's arc. The frame column goes straight, curved, past the plane, straight; behind
// the plane the bunch is restarted in the plane's frame, so the reference leaves on the new axis.
TEST(FieldMapRun, CurvedSetRestartsTheBunchInTheRotatedPlane) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  fieldmap::MapMesh mesh;
  mesh.nx = mesh.ny = 4, mesh.nz = 10, mesh.zmax = 0.2, mesh.xmin = mesh.ymin = -0.05, mesh.xmax = mesh.ymax = 0.05;
  std::string error;
  ASSERT_TRUE(fieldmap::WriteMapSet(in + "/dip", 3, mesh, [](int c, double, double, double) { return c == 1 ? 0.218 : 0.0; },
                                    error)) << error;
  // 3 MeV: B rho = 0.250476 T m, rho = 1.148973 m, angle 9.97339 degrees towards -x over 0.2 m.
  const double rho = 0.25047603487094067 / 0.218, angle = 0.2 / rho;
  char plane[160];
  std::snprintf(plane, sizeof plane, "superposeout %.15g %.15g 0 0 0 %.15g\n", rho * std::sin(angle),
                -rho * (1.0 - std::cos(angle)), -angle * 180.0 / 3.141592653589793);
  const RunResult r = RunDeck(dir, out, 300, std::string("drift 0.05 0.1 0\nsuperpose 0\nfield 0.2 0.1 0 3 0 0 0 1 dip\n") +
                                                     plane + "drift 0.1 0.1 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  std::vector<int> states;
  double bentPx = 0.0;
  for (const std::string& line : ReadLines(out + "/DataSet.txt")) {
    const std::vector<double> v = Numbers(line);
    ASSERT_EQ(v.at(28), 300) << line;
    const int state = static_cast<int>(v.at(35));
    if (states.empty() || states.back() != state) states.push_back(state);
    if (state == 1) bentPx = v.at(30) / v.at(34);
    if (state == 0 && states.size() > 1) {
      EXPECT_LT(std::fabs(v.at(30) / v.at(34)), 3e-3) << line;  // against 0.176 on the arc
    }
  }
  EXPECT_EQ(states, std::vector<int>({0, 1, 2, 0}));
  EXPECT_NEAR(bentPx, -std::tan(angle), 0.02) << "the reference's slope just before the plane";
}

// The same quadrupole as a map (time code) and as `quad` (hard-edge transfer map of the z code): the rms sizes and
// angles of a small-emittance bunch at the exit plane agree within a percent.
TEST(FieldMapRun, MapQuadrupoleMatchesTheHardEdgeQuad) {
  TempDir dir;
  const std::string in = dir.subdir("in");
  fieldmap::MapMesh mesh;
  mesh.nx = mesh.ny = 4, mesh.nz = 4, mesh.zmax = 0.1;
  std::string error;
  ASSERT_TRUE(fieldmap::WriteMapSet(in + "/quad", 3, mesh, fieldmap::Quadrupole(5.0), error)) << error;
  const std::string outMap = dir.subdir("map"), outQuad = dir.subdir("quad");
  const int n = 1000;
  const RunResult a = RunDeck(dir, outMap, n, "drift 0.1 0.05 0\nfield 0.1 0.05 0 3 0 0 0 1 quad\ndrift 0.2 0.05 0\n", "0.02");
  const RunResult b = RunDeck(dir, outQuad, n, "drift 0.1 0.05 0\nquad 0.1 0.05 0 5 0 0\ndrift 0.2 0.05 0\n", "0.02",
                              outMap + "/inData.dst");  // the same particles
  ASSERT_EQ(a.status, 0) << a.output;
  ASSERT_EQ(b.status, 0) << b.output;
  const std::string dstMap = ReadFile(outMap + "/outData_0.400000.dst"), dstQuad = ReadFile(outQuad + "/outData_0.400000.dst");
  ASSERT_EQ(dstMap.size(), 31u + 48 * n);
  ASSERT_EQ(dstQuad.size(), dstMap.size());
  auto rms = [&](const std::string& dst, int k) {  // x (cm), x', y (cm), y'
    double sum = 0.0, square = 0.0;
    for (int i = 0; i < n; ++i) {
      const double v = At<double>(dst, 23 + 48 * i + 8 * k);
      sum += v, square += v * v;
    }
    return std::sqrt(square / n - (sum / n) * (sum / n));
  };
  for (int k = 0; k < 4; ++k) EXPECT_NEAR(rms(dstMap, k), rms(dstQuad, k), 0.01 * rms(dstQuad, k)) << "column " << k;
}
