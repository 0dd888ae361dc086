// Whole runs through the z code: the FODO example keeps its periodic beta function, planes inside and at the exit
// of hard-edge elements, the same quadrupole in the two transports, a mixed lattice with the self-field, and the
// refused lattices.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"
#include "tools/fieldmap/FieldMapWriter.h"

using namespace keldtest;

namespace {

const double kC = 299792458.0;
const double kRatio = 1.60217653e-19 / 1.67262171e-27 * 938.27187 / 938.272029;  // q/m as the bunch gets it

std::string Beam(int particles, const std::string& extra = "current 0\ndistribution GS GS\n") {
  return "kindofparticle proton\nparticlerestmass 938.272029\nnumofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\n" +
         extra + "twissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 3.2 0.1\nparticlenumber " +
         std::to_string(particles) + "\n";
}

RunResult RunDecks(const std::string& in, const std::string& out, const std::string& input, const std::string& beam,
                   const std::string& lattice) {
  WriteFile(in + "/input.txt", "steppercycle 50\nsetnumberofcores 2 2 2 2 1 2 1 1 1 1\n" + input);
  WriteFile(in + "/beam.txt", beam);
  WriteFile(in + "/lattice.txt", "start\n" + lattice + "end\n");
  return RunKeld(in, out);
}

// The particles of a .dst file: x (m), x', y (m), y', phase, energy.
std::vector<std::vector<double>> Particles(const std::string& path) {
  const std::string bytes = ReadFile(path);
  std::vector<std::vector<double>> p;
  if (bytes.size() < 31) return p;
  const int n = At<int>(bytes, 2);
  for (int i = 0; i < n; ++i) {
    std::vector<double> v(6);
    for (int k = 0; k < 6; ++k) v[k] = At<double>(bytes, 23 + 48 * i + 8 * k);
    v[0] *= 0.01, v[2] *= 0.01;
    p.push_back(v);
  }
  return p;
}

// Second moments <uu>, <uu'>, <u'u'> of plane 0 (x) or 1 (y).
struct Moments {
  double a, b, c;
  double Beta() const { return a / std::sqrt(a * c - b * b); }
};
Moments Measure(const std::vector<std::vector<double>>& p, int plane) {
  const int u = 2 * plane;
  double m0 = 0, m1 = 0;
  for (const auto& v : p) m0 += v[u], m1 += v[u + 1];
  m0 /= p.size(), m1 /= p.size();
  Moments s{0, 0, 0};
  for (const auto& v : p) {
    const double x = v[u] - m0, xp = v[u + 1] - m1;
    s.a += x * x, s.b += x * xp, s.c += xp * xp;
  }
  s.a /= p.size(), s.b /= p.size(), s.c /= p.size();
  return s;
}

// 2 by 2 transfer matrices, row-major.
struct M2 {
  double a, b, c, d;
};
M2 operator*(const M2& p, const M2& q) {
  return {p.a * q.a + p.b * q.c, p.a * q.b + p.b * q.d, p.c * q.a + p.d * q.c, p.c * q.b + p.d * q.d};
}
M2 Drift(double L) { return {1, L, 0, 1}; }
M2 Quad(double kk, double L) {  // kk = G / B rho, focusing when above 0
  const double k = std::sqrt(std::fabs(kk)), p = k * L;
  if (kk > 0) return {std::cos(p), std::sin(p) / k, -k * std::sin(p), std::cos(p)};
  return {std::cosh(p), std::sinh(p) / k, k * std::sinh(p), std::cosh(p)};
}
Moments Carry(const M2& m, const Moments& s) {
  return {m.a * m.a * s.a + 2 * m.a * m.b * s.b + m.b * m.b * s.c,
          m.a * m.c * s.a + (m.a * m.d + m.b * m.c) * s.b + m.b * m.d * s.c,
          m.c * m.c * s.a + 2 * m.c * m.d * s.b + m.d * m.d * s.c};
}

}  // namespace

// examples/fodo without the self-field: every particle reaches every plane with its energy, the tracked moments are
// the thick-lens matrices applied to the generated ones, and the beta function at the cell ends is the periodic one
// of the cell's matrix, which the README states, within a percent.
TEST(ZcodeRun, FodoExampleKeepsThePeriodicBetaFunction) {
  const int n = 10000;
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  const std::string source = std::string(KELD_SOURCE_DIR) + "/examples/fodo/";
  WriteFile(in + "/input.txt", ReadFile(source + "input-off.txt"));
  WriteFile(in + "/lattice.txt", ReadFile(source + "lattice.txt"));
  WriteFile(in + "/beam.txt", std::regex_replace(ReadFile(source + "beam.txt"), std::regex("particlenumber \\d+"),
                                                 "particlenumber " + std::to_string(n)));
  const RunResult r = RunKeld(in, out);
  ASSERT_EQ(r.status, 0) << r.output;

  // The cell of the deck: half drift, quad +10 T/m, drift, quad -10 T/m, half drift; 3 MeV protons.
  const double gamma = 1.0 + 3.0 / 938.272029, gb = std::sqrt(gamma * gamma - 1.0), kk = 10.0 / (gb * kC / kRatio);
  const M2 halfCell = Drift(0.2) * Quad(kk, 0.1) * Drift(0.1);
  const M2 cellX = Drift(0.1) * Quad(-kk, 0.1) * halfCell, cellY = Drift(0.1) * Quad(kk, 0.1) * Drift(0.2) *
                                                                       Quad(-kk, 0.1) * Drift(0.1);
  const double mu = std::acos(0.5 * (cellX.a + cellX.d));
  const double periodic = cellX.b / std::sin(mu);
  EXPECT_NEAR(periodic, 0.58515, 5e-5) << "the value in examples/fodo";
  EXPECT_NEAR(cellY.b / std::sin(mu), periodic, 1e-12);

  const auto start = Particles(out + "/inData.dst");
  ASSERT_EQ(start.size(), static_cast<std::size_t>(n));
  const char* planes[] = {"0.600000", "1.200000", "1.800000", "2.400000"};
  Moments x = Measure(start, 0), y = Measure(start, 1);
  double sum = 0.0;
  for (int c = 0; c < 4; ++c) {
    const auto p = Particles(out + "/outData_" + planes[c] + ".dst");
    ASSERT_EQ(p.size(), static_cast<std::size_t>(n)) << planes[c];
    x = Carry(cellX, x), y = Carry(cellY, y);
    const Moments tx = Measure(p, 0), ty = Measure(p, 1);
    EXPECT_NEAR(tx.Beta(), x.Beta(), 3e-3 * x.Beta()) << planes[c];
    EXPECT_NEAR(ty.Beta(), y.Beta(), 3e-3 * y.Beta()) << planes[c];
    EXPECT_NEAR(tx.a, x.a, 3e-3 * x.a) << planes[c];
    sum += tx.Beta() + ty.Beta();
    double energy = 0.0;
    for (const auto& v : p) energy += v[5];
    EXPECT_NEAR(energy / n, 3.0, 2e-3) << planes[c];
  }
  EXPECT_NEAR(sum / 8.0, periodic, 0.01 * periodic);
  // Behind the quadrupole of cell 2 (a plane at a z-code exit), beta x is at its largest of the cell.
  const Moments mid = Carry(Quad(kk, 0.1) * Drift(0.1), Measure(Particles(out + "/outData_0.600000.dst"), 0));
  EXPECT_NEAR(Measure(Particles(out + "/outData_0.800000.dst"), 0).Beta(), mid.Beta(), 3e-3 * mid.Beta());

  // zTotcode hands every particle back to the time code with its energy.
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  ASSERT_GT(lines.size(), 100u);
  const double w0 = Numbers(lines.front())[0];
  for (const std::string& line : lines) {
    const std::vector<double> v = Numbers(line);
    ASSERT_EQ(v.at(28), n) << line;
    ASSERT_NEAR(v[0], w0, 3e-5) << line;  // six printed digits, 10 ppm
  }
}

// A plane inside a quadrupole is written at its middle, one at the exit of the next at the exit; an element with a
// plane inside is cut in two and counts two steps, a whole one counts one; every element leaves one z-code record in
// BeamSet.plt at its end.
TEST(ZcodeRun, PlanesAndRecordsOfHardEdgeElements) {
  const int n = 300;
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  const RunResult r = RunDecks(in, out, "spacecharge 0\ndumpperiodicity 1000\n", Beam(n),
                               "drift 0.125 0.02 0\nquad 0.125 0.02 0 5 0 0\noutputplane -0.1\nquad 0.125 0.02 0 -5 0 0\n"
                               "outputplane 0.0\nsolenoid 0.125 0.02 0 0.3\ndrift 0.125 0.02 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_TRUE(FileExists(out + "/outData_0.187500.dst")) << "middle of the first quadrupole";
  EXPECT_FALSE(FileExists(out + "/outData_0.150000.dst"));
  EXPECT_EQ(Particles(out + "/outData_0.187500.dst").size(), static_cast<std::size_t>(n));
  EXPECT_EQ(Particles(out + "/outData_0.375000.dst").size(), static_cast<std::size_t>(n));
  EXPECT_EQ(Particles(out + "/outData_0.625000.dst").size(), static_cast<std::size_t>(n));

  // Records: header 34 bytes, then 25 + 52 n bytes each.
  const std::string plt = ReadFile(out + "/BeamSet.plt");
  const std::size_t record = 25 + 52 * static_cast<std::size_t>(n);
  std::vector<std::pair<int, double>> zcode;  // step, z
  std::vector<int> steps;
  for (std::size_t at = 34; at + record <= plt.size(); at += record) {
    steps.push_back(At<int>(plt, at + 5));
    if (At<int>(plt, at + 1) == 1) zcode.emplace_back(At<int>(plt, at + 5), At<double>(plt, at + 17));
  }
  ASSERT_EQ(zcode.size(), 3u);
  EXPECT_EQ(zcode[0].second, 0.25);
  EXPECT_EQ(zcode[1].second, 0.375);
  EXPECT_EQ(zcode[2].second, 0.5);
  EXPECT_EQ(zcode[1].first, zcode[0].first + 1);  // whole element: one step
  EXPECT_EQ(zcode[2].first, zcode[1].first + 1);
  // The cut first quadrupole counted its half before its record.
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  int before = -1;
  for (const std::string& line : lines) {
    const int step = static_cast<int>(Numbers(line).at(39));
    if (step < zcode[0].first) before = step;
  }
  EXPECT_EQ(zcode[0].first, before + 2) << "the last time step's line, then the half step";
}

// The same quadrupole as a field map in the time code and as a hard-edge element in the z code: at the exit plane
// each run's moments are those of its own start bunch carried by the thick-lens matrix, the time code's to its step
// error, the z code's closer still, so that the two transports agree.
TEST(ZcodeRun, QuadrupoleInBothTransportsAgrees) {
  const int n = 2000;
  TempDir dir;
  const std::string inMap = dir.subdir("inMap"), outMap = dir.subdir("outMap");
  const std::string inHard = dir.subdir("inHard"), outHard = dir.subdir("outHard");
  fieldmap::MapMesh mesh;
  mesh.nx = mesh.ny = 8, mesh.nz = 10, mesh.zmax = 0.1;
  std::string error;
  ASSERT_TRUE(fieldmap::WriteMapSet(inMap + "/quadb", 3, mesh, fieldmap::Quadrupole(8.0), error)) << error;
  const std::string tail = "drift 0.1 0.1 0\noutputplane 0.0\n";
  const RunResult a = RunDecks(inMap, outMap, "spacecharge 0\nsteppercycle 400\n", Beam(n),
                               "drift 0.05 0.1 0\nfield 0.1 0.1 0 3 0 0 0 1 quadb\n" + tail);
  ASSERT_EQ(a.status, 0) << a.output;
  const RunResult b = RunDecks(inHard, outHard, "spacecharge 0\n", Beam(n), "drift 0.05 0.1 0\nquad 0.1 0.1 0 8 0 0\n" + tail);
  ASSERT_EQ(b.status, 0) << b.output;

  const double gamma = 1.0 + 3.0 / 938.272029, gb = std::sqrt(gamma * gamma - 1.0), kk = 8.0 / (gb * kC / kRatio);
  const M2 mx = Drift(0.1) * Quad(kk, 0.1) * Drift(0.05), my = Drift(0.1) * Quad(-kk, 0.1) * Drift(0.05);
  double worst[2] = {0.0, 0.0};
  const std::string outs[2] = {outMap, outHard};
  for (int run = 0; run < 2; ++run) {
    const auto start = Particles(outs[run] + "/inData.dst"), end = Particles(outs[run] + "/outData_0.250000.dst");
    ASSERT_EQ(end.size(), static_cast<std::size_t>(n));
    for (int plane = 0; plane < 2; ++plane) {
      const Moments want = Carry(plane == 0 ? mx : my, Measure(start, plane)), got = Measure(end, plane);
      const double e = std::sqrt(want.a * want.c - want.b * want.b);
      worst[run] = std::max({worst[run], std::fabs(got.a - want.a) / want.a, std::fabs(got.c - want.c) / want.c,
                             std::fabs(got.b - want.b) / std::sqrt(want.a * want.c), std::fabs(got.Beta() - want.a / e) / (want.a / e)});
    }
  }
  EXPECT_LT(worst[0], 3e-3) << "time code";
  EXPECT_LT(worst[1], 3e-4) << "z code";
}

// A field map, drifts, quadrupoles, a solenoid and a bend, with the self-field: time code, z code and back twice,
// every particle at every plane and in every line of DataSet.txt, the mean energy kept by the maps.
TEST(ZcodeRun, MixedLatticeWithSpaceChargeAccountsForEveryParticle) {
  const int n = 1000;
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  fieldmap::MapMesh mesh;
  mesh.nx = mesh.ny = 8, mesh.nz = 10, mesh.zmax = 0.1;
  std::string error;
  ASSERT_TRUE(fieldmap::WriteMapSet(in + "/quadb", 3, mesh, fieldmap::Quadrupole(-6.0), error)) << error;
  const RunResult r = RunDecks(
      in, out, "spacecharge 1\nscmethod FFT\nnumofgrid 16 16 16\nmeshrms 5 5 5\n", Beam(n, "current 10\ndistribution GS GS\n"),
      "drift 0.05 0.1 0\nfield 0.1 0.1 0 3 0 0 0 1 quadb\ndrift 0.1 0.1 0\nquad 0.1 0.1 0 6 0 0\noutputplane 0.0\n"
      "solenoid 0.1 0.1 0 0.5\ndrift 0.1 0.1 0\noutputplane 0.0\nbend 0.1 0.1 0 3 2 0 0\nquad 0.1 0.1 0 -4 0 0\n"
      "drift 0.1 0.1 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  for (const char* plane : {"0.350000", "0.550000", "0.850000"}) {
    const auto p = Particles(out + "/outData_" + plane + ".dst");
    ASSERT_EQ(p.size(), static_cast<std::size_t>(n)) << plane;
    double energy = 0.0;
    for (const auto& v : p) energy += v[5];
    EXPECT_NEAR(energy / n, 3.0, 0.01) << plane;
  }
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  ASSERT_GT(lines.size(), 50u);
  for (const std::string& line : lines) ASSERT_EQ(Numbers(line).at(28), n) << line;
  const std::string timing = ReadLines(out + "/SimulationTime.txt").back();
  EXPECT_TRUE(std::regex_search(timing, std::regex(" Exter:\\d+: \\S+ 2: \\S+ 2: \\S+ 2: \\S+ Inter:"))) << timing;
}

// Lattices that no map can carry, or with a plane the z code cannot write, stop before anything is tracked, with
// status 2 and the message in ErrorLog.txt.
TEST(ZcodeRun, RefusedHardEdgeLattices) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"bend 0.1 0.02 0 0 1 0 0\n",
       "The hard-edge bend at lattice index 1 has angle 0 deg and curvature radius 1 m; a bend needs an angle that is "
       "not 0 and a curvature radius above 0"},
      {"bend 0.1 0.02 0 5 0 0 0\n",
       "The hard-edge bend at lattice index 1 has angle 5 deg and curvature radius 0 m; a bend needs an angle that is "
       "not 0 and a curvature radius above 0"},
      {"bend 0.1 0.02 0 5 1 1 0\n",
       "The hard-edge bend at lattice index 1 has field index 1; its transfer map needs a field index from 0 up to, "
       "not including, 1"},
      {"quad 0.1 0.02 0 5 0 0\noutputplane -0.05\noutputplane 0.0\n",
       "The output plane at z = 0.200000 m lies in the hard-edge quad at lattice index 1 (z 0.100000 to 0.200000 m), "
       "where the z code cannot write it: another plane of this element is written; move the plane into a drift"},
      {"steerer 0 0.02 0 0 0.001 0 0\nquad 0.1 0.02 0 5 0 0\noutputplane -0.05\n",
       "The output plane at z = 0.150000 m lies in the hard-edge quad at lattice index 2 (z 0.100000 to 0.200000 m), "
       "where the z code cannot write it: a steerer acts in this element; move the plane into a drift"}};
  for (std::size_t c = 0; c < cases.size(); ++c) {
    TempDir dir;
    const std::string in = dir.subdir("in"), out = dir.subdir("out");
    const RunResult r =
        RunDecks(in, out, "spacecharge 0\n", Beam(50), "drift 0.1 0.02 0\n" + cases[c].first + "drift 0.1 0.02 0\n");
    EXPECT_EQ(r.status, 2) << r.output;
    EXPECT_NE(r.output.find(cases[c].second + "\n"), std::string::npos) << r.output;
    const std::vector<std::string> log = ReadLines(out + "/ErrorLog.txt");
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].substr(21), "   simulation stage error: " + cases[c].second);
    EXPECT_EQ(ReadFile(out + "/DataSet.txt"), "") << "nothing tracked";
  }
}

// A gradient of 1e300 makes the maps overflow: the run stops with status 2 before the rows that are no numbers are
// handed on, also when the z code ends the lattice.
TEST(ZcodeRun, OverflowingMapStopsTheRun) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  const RunResult r = RunDecks(in, out, "spacecharge 0\n", Beam(50), "drift 0.1 0.02 0\nquad 0.1 0.02 0 1e300 0 0\n");
  EXPECT_EQ(r.status, 2) << r.output;
  EXPECT_TRUE(std::regex_search(r.output, std::regex("\nThe bunch is not finite at step \\d+: its mean or rms values "
                                                     "are not numbers, the run is stopped\n")))
      << r.output;
}

// A steerer in front of a hard-edge element kicks inside it, at its middle, over the element's length: behind a
// quadrupole without gradient every particle's x' has changed by -By L (q/m) / (c gamma beta z), its y' not at all.
TEST(ZcodeRun, SteererActsInsideAHardEdgeElement) {
  const int n = 200;
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  const RunResult r = RunDecks(in, out, "spacecharge 0\n", Beam(n),
                               "drift 0.1 0.02 0\nsteerer 0 0.02 0 0.0 0.002 0 0\nquad 0.25 0.02 0 0 0 0\n"
                               "drift 0.1 0.02 0\n");
  ASSERT_EQ(r.status, 0) << r.output;
  const auto start = Particles(out + "/inData.dst"), end = Particles(out + "/outData_0.450000.dst");
  ASSERT_EQ(end.size(), static_cast<std::size_t>(n));
  const double a = 0.002 * 0.25 * kRatio / kC;
  for (int i = 0; i < n; ++i) {
    const double G = end[i][5] / 938.272029 + 1.0, xp = end[i][1], yp = end[i][3];
    const double gbz = std::sqrt((G * G - 1.0) / (1.0 + xp * xp + yp * yp));
    ASSERT_NEAR(xp, start[i][1] - a / gbz, 1e-9 * a / gbz) << "particle " << i;
    ASSERT_NEAR(yp, start[i][3], 1e-12) << "particle " << i;
  }
}

// Without the self-field a lost particle changes nothing for the others. A grid of particles at one energy (so that
// both runs make the same reference) crosses a 2 mm pipe: those beyond 2.5 mm run parallel to the axis and are lost
// in the first drift, those within 1.5 mm pass. The survivors then cross quadrupole, solenoid and bend in the z
// code, and end exactly where the same particles end when they are loaded alone; the reference never goes back.
TEST(ZcodeRun, LostParticlesLeaveTheOthersAlone) {
  std::vector<DstRow> all, survivors;
  for (int i = -6; i <= 6; ++i)
    for (int j = -6; j <= 6; ++j) {
      const double r2 = i * i + j * j;  // in units of (0.5 mm)^2
      if (r2 >= 9.0 && r2 < 25.0) continue;
      const bool passes = r2 < 9.0;
      const double phase = i == 0 && j == 0 ? -0.05 : 0.01 * ((7 * i + 3 * j + 100) % 9 - 4);
      const DstRow row{0.05 * i, passes ? 1e-4 * j : 0.0, 0.05 * j, passes ? -1e-4 * i : 0.0, phase, 3.0};
      all.push_back(row);
      if (passes) survivors.push_back(row);
    }
  const std::string lattice =
      "drift 0.1 0.002 0\nquad 0.1 0.05 0 10 0 0\ndrift 0.1 0.05 0\nsolenoid 0.1 0.05 0 0.5\ndrift 0.1 0.05 0\n"
      "bend 0.1 0.05 0 5 1.1459156 0.5 0\ndrift 0.1 0.05 0\n";
  const std::string beam = "particlerestmass 938.272029\nnumofcharge 1\nreadparticledistribution bunch.dst\n";
  TempDir dir;
  std::vector<std::vector<std::vector<double>>> ends;
  for (const std::vector<DstRow>* bunch : {&all, &survivors}) {
    const std::string in = dir.subdir("in" + std::to_string(ends.size())), out = dir.subdir("out" + std::to_string(ends.size()));
    WriteFile(in + "/bunch.dst", DstFile(*bunch, 0.0, 352.2, 938.272029));
    const RunResult run = RunDecks(in, out, "spacecharge 0\n", beam, lattice);
    ASSERT_EQ(run.status, 0) << run.output;
    ends.push_back(DstRows(out + "/outData_0.700000.dst"));
    if (bunch == &all) {
      double z = -1.0;
      for (const std::string& line : ReadLines(out + "/DataSet.txt")) {
        const double zr = Numbers(line)[33];
        ASSERT_GE(zr, z) << line;
        z = zr;
      }
    }
  }
  ASSERT_EQ(ends[0].size(), survivors.size());
  ASSERT_EQ(ends[1].size(), survivors.size());
  // Phases count from the reference, whose gamma is the bunch's mean and so differs in its last bits between the
  // two bunches: compare them from the first survivor's.
  for (std::size_t p = 0; p < survivors.size(); ++p) {
    std::vector<double> a = ends[0][p], b = ends[1][p];
    a[4] -= ends[0][0][4], b[4] -= ends[1][0][4];
    for (int k = 0; k < 6; ++k) EXPECT_NEAR(a[k], b[k], 1e-12 * std::max(1.0, std::fabs(b[k]))) << p << " " << k;
  }
}
