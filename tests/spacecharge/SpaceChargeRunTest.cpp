// Whole runs through keld with the self-field on, and the solver settings
// that are refused before tracking.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "spacecharge/PIC.h"
#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {

// 3 MeV protons at 352.2 MHz, 2000 macro particles of a 60 mA bunch, through
// 0.4 m of drift.
// With `start`, the bunch is loaded from that distribution file instead of generated, so that runs compare
// on the same particles.
RunResult RunDrift(const TempDir& dir, const std::string& name, const std::string& settings,
                   const std::string& start = "", const std::string& charge = "1") {
  const std::string in = dir.subdir(name + "_in"), out = dir.subdir(name);
  WriteFile(in + "/input.txt", settings + "steppercycle 40\nsetnumberofcores 2 1 1 1 2 2 2 2 2 2\n");
  if (!start.empty()) WriteFile(in + "/start.dst", ReadFile(start));
  WriteFile(in + "/beam.txt",
            "kindofparticle proton\nparticlerestmass 938.272029\nnumofcharge " + charge + "\nkneticenergy 3.0\nfrequency 352.2e6\n"
            "current 60\ndistribution GS GS\ntwissx 0 0.2 0.2\ntwissy 0 0.2 0.2\ntwissz 0.0 3.2 0.1\n"
            "particlenumber 2000\n" +
                std::string(start.empty() ? "" : "readparticledistribution start.dst\n"));
  WriteFile(in + "/lattice.txt", "start\ndrift 0.4 0.05 0\nend\n");
  return RunKeld(in, out);
}

// Growth of rms x, rms y, rms z from the first to the last line of DataSet.txt.
std::vector<double> Growth(const std::string& out) {
  const std::vector<std::string> lines = ReadLines(out + "/DataSet.txt");
  if (lines.size() < 2) return {};
  const std::vector<double> a = Numbers(lines.front()), b = Numbers(lines.back());
  return {b[16] / a[16], b[18] / a[18], b[20] / a[20]};
}

// The seven solver accounts of the SimulationTime.txt line, in seconds.
std::vector<double> SolverTimes(const std::string& out) {
  const std::vector<std::string> lines = ReadLines(out + "/SimulationTime.txt");
  if (lines.size() != 1) return {};
  std::string inter = lines[0].substr(lines[0].find(" Inter:") + 7);
  std::vector<double> times;
  for (std::size_t at = inter.find(": "); at != std::string::npos; at = inter.find(": ", at + 2))
    times.push_back(std::stod(inter.substr(at + 2)));
  return times;
}

}  // namespace

// The self-field pushes the bunch apart: the three solvers make it grow faster
// than the free drift, and by about the same amount. The FFT and IGF solvers
// run at every step without the cadence test; S-PICNIC counts its cycles and
// solves. The timing line carries the accounts of the solver that ran.
TEST(SpaceChargeRun, EverySolverGrowsTheBunchAndReportsItsTimes) {
  TempDir dir;
  // One generated bunch for all the runs.
  ASSERT_EQ(RunDrift(dir, "generated", "spacecharge 0\n").status, 0);
  const std::string start = dir.file("generated") + "/inData.dst";
  const RunResult free = RunDrift(dir, "free", "spacecharge 0\n", start);
  const RunResult fft = RunDrift(dir, "fft", "scmethod FFT\nnumofgrid 16 16 16\n", start);
  const RunResult picnic = RunDrift(dir, "picnic", "scmethod SPICNIC\nnumofgrid 12 12 12\n", start);
  const RunResult igf = RunDrift(dir, "igf", "scmethod IGF\nnumofgrid 16 16 16\n", start);
  ASSERT_EQ(free.status, 0) << free.output;
  ASSERT_EQ(fft.status, 0) << fft.output;
  ASSERT_EQ(picnic.status, 0) << picnic.output;
  ASSERT_EQ(igf.status, 0) << igf.output;
  EXPECT_NE(fft.output.find("16 16 16 0.07 6.5 6.5 6.5\nmulitthread: 2 1 1 1 2 2 2 2 2 2\n"), std::string::npos)
      << fft.output;
  EXPECT_NE(fft.output.find("Total number of cycles 0. Solving the number of space charge effects 0\n"),
            std::string::npos);
  EXPECT_NE(picnic.output.find("12 12 12 0.07 3.5 3.5 3.5\n"), std::string::npos) << picnic.output;
  EXPECT_EQ(picnic.output.find("Total number of cycles 0."), std::string::npos);
  EXPECT_NE(igf.output.find("16 16 16 0.07 4 4 4\n"), std::string::npos) << igf.output;
  EXPECT_NE(igf.output.find("Total number of cycles 0. Solving the number of space charge effects 0\n"),
            std::string::npos);

  const std::vector<double> g0 = Growth(dir.file("free")), g1 = Growth(dir.file("fft")),
                            g2 = Growth(dir.file("picnic")), g3 = Growth(dir.file("igf"));
  ASSERT_EQ(g0.size(), 3u);
  ASSERT_EQ(g1.size(), 3u);
  ASSERT_EQ(g2.size(), 3u);
  ASSERT_EQ(g3.size(), 3u);
  for (int a = 0; a < 3; ++a) {
    EXPECT_GT(g1[a], g0[a] * 1.03) << "axis " << a;
    EXPECT_GT(g2[a], g0[a] * 1.03) << "axis " << a;
    EXPECT_NEAR(g1[a] - g0[a], g2[a] - g0[a], 0.25 * (g1[a] - g0[a])) << "axis " << a;
    EXPECT_NEAR(g1[a] - g0[a], g3[a] - g0[a], 0.25 * (g1[a] - g0[a])) << "axis " << a;
  }
  for (const std::string& line : ReadLines(dir.file("fft") + "/DataSet.txt"))
    ASSERT_EQ(line.find("nan"), std::string::npos) << line;

  // Negative ions of the same current repel alike: the self-force goes with the square of the charge, so under
  // each solver the rms sizes of an H- bunch follow the proton's. A threshold on signed charge would drop the
  // strong nodes of the negative bunch.
  for (const char* solver : {"fft", "picnic"}) {
    const std::string name = std::string("minus_") + solver;
    const std::string settings = solver == std::string("fft") ? "scmethod FFT\nnumofgrid 16 16 16\n"
                                                              : "scmethod SPICNIC\nnumofgrid 12 12 12\n";
    const RunResult minus = RunDrift(dir, name, settings, start, "-1");
    ASSERT_EQ(minus.status, 0) << minus.output;
    const std::vector<std::string> a = ReadLines(dir.file(solver) + "/DataSet.txt"), b = ReadLines(dir.file(name) + "/DataSet.txt");
    ASSERT_EQ(a.size(), b.size()) << solver;
    for (int column : {16, 18, 20}) {
      const double p = Numbers(a.back())[column], m = Numbers(b.back())[column];
      EXPECT_NEAR(m, p, 1e-9 * p) << solver << " column " << column + 1;
    }
  }

  // deposition, deposition reduction, kernel table, convolution, convolution reduction, gradient, gather
  const std::vector<double> t1 = SolverTimes(dir.file("fft")), t2 = SolverTimes(dir.file("picnic")),
                            t3 = SolverTimes(dir.file("igf"));
  ASSERT_EQ(t1.size(), 7u);
  ASSERT_EQ(t2.size(), 7u);
  ASSERT_EQ(t3.size(), 7u);
  EXPECT_GT(t1[0], 0.0);
  EXPECT_EQ(t1[2], 0.0);  // no kernel table in the FFT solver
  EXPECT_GT(t1[3], 0.0);
  EXPECT_GT(t1[6], 0.0);
  EXPECT_GT(t2[2], 0.0);
  EXPECT_GT(t2[3], 0.0);
  EXPECT_GT(t3[2], 0.0);  // the Green's function, made anew as the cells change
  EXPECT_GT(t3[3], 0.0);
  EXPECT_GT(t3[5], 0.0);
  EXPECT_EQ(SolverTimes(dir.file("free")), std::vector<double>(7, 0.0));
}

// Settings the solvers cannot run with stop the run before tracking, with
// status 1 and the message in ErrorLog.txt.
TEST(SpaceChargeRun, SettingsTheSolverCannotUseAreRefused) {
  TempDir dir;
  const RunResult r = RunDrift(dir, "odd", "scmethod SPICNIC\nnumofgrid 16 15 16\n");
  const std::string message =
      "numofgrid 16 15 16: the y size is 15, the S-PICNIC solver needs an even number of nodes on each axis";
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find(message + "\n"), std::string::npos) << r.output;
  const std::vector<std::string> log = ReadLines(dir.file("odd") + "/ErrorLog.txt");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find("   Initialisation stage error: " + message), std::string::npos) << log[0];
  EXPECT_FALSE(FileExists(dir.file("odd") + "/DataSet.txt"));

  std::vector<double> fft(20, 1.0);
  fft[0] = 0.0;
  fft[1] = fft[2] = fft[3] = 6.5;
  EXPECT_EQ(PIC::CheckSettings({32, 32, 32}, fft, 0, 1000), "");
  EXPECT_EQ(PIC::CheckSettings({32, 31, 1}, fft, 0, 1000),
            "numofgrid 32 31 1: the z size is 1, the space-charge mesh needs at least 2 nodes on each axis");
  EXPECT_EQ(PIC::CheckSettings({32, -1, -1}, fft, 0, 1000),
            "numofgrid 32 -1 -1: the y size is -1, the space-charge mesh needs at least 2 nodes on each axis");
  fft[3] = 0.0;
  EXPECT_EQ(PIC::CheckSettings({32, 32, 32}, fft, 0, 1000),
            "meshrms z is 0, the mesh half width in rms sizes must be above 0");
  EXPECT_EQ(PIC::CheckSettings({32, 32, 32}, fft, 1, 1000), "");  // a periodic mesh spans beta gamma lambda
  EXPECT_EQ(PIC::CheckSettings({2000, 2000, 2000}, fft, 1, 1000),
            "numofgrid 2000 2000 2000 has too many nodes for the space-charge solver, at most 2147483647");
  const std::string huge = PIC::CheckSettings({1200, 1200, 1200}, fft, 1, 1000);
  EXPECT_EQ(huge.rfind("numofgrid 1200 1200 1200: the space-charge solver needs about 2", 0), 0u) << huge;
  EXPECT_NE(huge.find(" GiB of memory, but only "), std::string::npos) << huge;

  std::vector<double> picnic(20, 1.0);
  picnic[1] = picnic[2] = picnic[3] = 3.5;
  picnic[4] = picnic[6] = 8.0;
  picnic[5] = -1.0;
  EXPECT_EQ(PIC::CheckSettings({16, 16, 16}, picnic, 0, 1000),
            "integralgrid y is -1, the S-PICNIC cell integral needs 1 or more points on each axis");
  picnic[5] = 4.0;
  EXPECT_EQ(PIC::CheckSettings({16, 16, 16}, picnic, 0, 1000), "");
}
