#include <gtest/gtest.h>
#include <cmath>
#include <regex>
#include "beamline/Drift.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"
#include "tracking/MethodMP.h"

using namespace keldtest;
using V = std::vector<double>;

namespace {
const double kC = 299792458.0, kRest = 938.272029, kMHz = 352.2, kStep = 1.0 / (kMHz * 1e6) / 50.0;
const char kFolder[] = "KELD_TRACKING_OUTPUT_TEST_FOLDER";

// Hand-set particles on a 0.02 m drift to the closing plane; a death test's child takes its parent's output folder.
struct TinyRun {
  std::unique_ptr<TempDir> own = std::getenv(kFolder) ? nullptr : std::make_unique<TempDir>();
  std::string dir = own ? own->path() + "/" : std::getenv(kFolder), saved = outputFilePath;
  std::vector<Particle> slots;
  Beam beam; Drift drift; Lattice lattice; ErrorSample sample; Boundary boundaryList; MethodMP engine;
  TinyRun(const std::vector<V>& particles, const V& reference) : slots(particles.size() + 1) {
    setenv(kFolder, (outputFilePath = dir).c_str(), 1);
    for (std::size_t i = 0; i < slots.size(); ++i)
      std::copy_n((i < particles.size() ? particles[i] : reference).begin(), 6, slots[i].coordinate);
    slots[0].restEnergy = kRest;
    beam.particle = slots.data(), beam.particleNumber = static_cast<int>(particles.size()), beam.frequency = kMHz * 1e6;
    lattice.SetElement({"drift", "0.02", "0.02", "0"}, &drift);
    lattice.outputPlane.push_back({0, 0, 0, 0, 0, 0, 0.02});
    engine.timeStep = kStep, engine.numOfGrid = {3, 3, 3}, engine.outputPlanes = {0.02};
    engine.cores = {2, 3, 1, 2, 4, 5, 6, 7, 8, 9};
  }
  ~TinyRun() { outputFilePath = saved, own ? unsetenv(kFolder) : 0; }
  void Run() { engine.Run(lattice, beam, sample, boundaryList); }
};
}  // namespace

// Worked out by hand: moments of three particles (a lost fourth is seen by no statistic), straight-line crossings.
TEST(MethodMPOutput, RunWritesDataSetDstBeamSetAndTiming) {
  TinyRun run({{1e-3, 1e-4, 0, -2e-4, 0.0045, 0.081}, {-5e-4, -3e-4, 2e-3, 1e-4, 0.004, 0.08},
               {2e-4, 5e-5, -1e-3, 0, 0.0032, 0.079}, {0.5, 0.3, 0.5, 0.1, 0.001, 0.5}}, {0, 0, 0, 0, 0.004, 0.08});
  run.slots[3].lost = 1;
  run.beam.current = 0.0125;  // A: in BeamSet.plt; the .dst has no current without the self-field
  run.engine.dumpPeriodicity = 4;
  run.Run();
  const double first[40] = {
      2.997684, 2.333333e-4, -5e-5, 3.333333e-4, -3.333333e-5, -1e-4, 0.08, -2.048475, -0.5786492, -7.916636, 0.6290014,
      0.9308191, 0.4185049, 4.776532e-8, 1.336935e-7, 5.479826e-8, 6.128259e-4, 2.220907e-3, 1.247219e-3, 1.548072e-3,
      5.354126e-4, 1.02086e-2, 7.666667e-4, 3.125e-3, 1.666667e-3, 2.057613e-3, 7e-4, 1.265823e-2, 3, 0, 0, 0, 0, 0.004,
      0.08, 0, 0, 0, 0, -1};
  const std::vector<std::string> lines = ReadLines(run.dir + "DataSet.txt");
  const V v = Numbers(lines.at(0));
  ASSERT_TRUE(lines.size() >= 3 && v.size() == 40) << lines.size();
  for (int c = 0; c < 40; ++c) EXPECT_NEAR(v[c], first[c], 1e-5 * std::fabs(first[c]) + 1e-15) << "column " << c + 1;
  // '}' 'd', count, current, MHz, '}', rows of x cm, x', y cm, y', phase to the reference, MeV; rest energy.
  const std::string dst = ReadFile(run.dir + "outData_0.020000.dst");
  ASSERT_EQ(dst.size(), 31u + 48 * 3);
  EXPECT_EQ(dst.substr(0, 2) + dst[22] + std::to_string(At<int>(dst, 2)), "}d}3");
  EXPECT_EQ(V({At<double>(dst, 6), At<double>(dst, 14), At<double>(dst, 167)}), V({0, kMHz, kRest}));
  const double row[6] = {0.1019135802, 1.234567901e-3, -3.827160494e-3, -2.469135802e-3, -6.388174264e-2, 3.072992574};
  for (int k = 0; k < 6; ++k) EXPECT_NEAR(At<double>(dst, 23 + 8 * k), row[k], 1e-9 * std::fabs(row[k])) << k;
  // BeamSet.plt: '}' 'd', period, count, mA, MHz, MeV; every 4 steps '}', kind 0, step, time, z and 52 bytes for
  // each particle, lost ones too, that end in the loss state.
  const std::string plt = ReadFile(run.dir + "BeamSet.plt");
  const std::size_t record = 25 + 52 * 4;
  ASSERT_TRUE(plt.size() >= 34 + 3 * record && (plt.size() - 34) % record == 0) << plt.size();
  EXPECT_EQ(plt.substr(0, 2) + std::to_string(At<int>(plt, 2)) + std::to_string(At<int>(plt, 6)), "}d44");
  EXPECT_EQ(V({At<double>(plt, 10), At<double>(plt, 18), At<double>(plt, 26)}), V({12.5, kMHz, kRest}));
  EXPECT_EQ(plt.substr(34, 1) + std::to_string(At<int>(plt, 35)) + std::to_string(At<int>(plt, 39 + record)), "}04");
  for (int i = 0; i < 4; ++i) EXPECT_EQ(At<int>(plt, 34 + 25 + 52 * i + 48), i / 3) << "particle " << i;
  // SimulationTime.txt gains a line: total, " Exter:" four pairs, " Inter:" seven with core 5 twice; precision 5.
  const std::vector<std::string> timing = ReadLines(run.dir + "SimulationTime.txt");
  std::smatch m;
  ASSERT_TRUE(timing.size() == 1 && std::regex_match(timing[0], m, std::regex("([0-9.e+-]+) Exter:2: ([0-9.e+-]+) "
                                                     "3: 0 1: 0 2: 0 Inter:4: 0 5: 0 6: 0 7: 0 5: 0 8: 0 9: 0")));
  for (int g : {1, 2}) EXPECT_LE(std::regex_replace(m[g].str(), std::regex(R"(^[0.]*|\.|e.*)"), "").size(), 5u);
}

// Crossed rows go back on their straight lines at the common time, behind the plane, the reference onto the axis.
TEST(MethodMPOutput, ZTotcodeRestoresParticlesAtCommonTime) {
  TinyRun run({V(6, 7.0), V(6), V(6)}, V(6));
  for (Particle& p : run.slots) p.indexPlane = 1;
  const CrossingTable given = {{1, 1, 1, 1, 1, 1, 1, 0}, {1e-3, 2e-3, -3e-3, -1e-3, 0, 0.08, 3e-9, 1},
                               {0, 0, 0, 0, 0, 0.07, 2e-9, 1}, {2e-3, 1e-3, 2e-3, 1e-3, 0, 0.08, 2.5e-9, 1}};
  CrossingTable rows = given;
  double timeOut = 2e-9;
  EXPECT_EQ(run.engine.zTotcode(0.75, run.beam, rows, timeOut), 2e-9);
  for (int i = 0; i <= 3; ++i) {  // slot 0 did not cross and keeps its coordinates
    const ConstCrossingRow r = given[i];
    const double G = std::sqrt(1 + r[1] * r[1] + r[3] * r[3] + r[5] * r[5]), d = (r[6] - 2e-9) * kC / G, on = i < 3;
    const double w[6] = {on * (r[0] - r[1] * d), on * r[1], on * (r[2] - r[3] * d), on * r[3], 0.75 - d * r[5], r[5]};
    for (int k = 0; k < 6; ++k) EXPECT_NEAR(run.slots[i].coordinate[k], i ? w[k] : 7, 1e-12) << i << " " << k;
    EXPECT_TRUE(run.slots[i].indexPlane == 0 && rows[i] == V(8)) << i;  // every row cleared
  }
}

// A fifth of the way, since the tail's lag of 0.25 m counts in the divisor: the remaining time is twice the elapsed.
TEST(MethodMPOutput, ProgressLineFormatAndUnits) {
  TinyRun run({}, {0, 0, 0, 0, 0.25, 0.08});
  run.engine.outputPlanes = {0.5, 1.0};
  for (const auto& c : std::vector<std::pair<int, std::string>>{
           {10, "20s. Run time 10s"}, {45, "1.50min. Run time 45s"}, {3000, "1.67h. Run time 50.00min"},
           {7200, "4.00h. Run time 2.00h"}}) {
    run.engine.startTime = std::chrono::system_clock::now() - std::chrono::seconds(c.first);
    testing::internal::CaptureStdout();
    run.engine.simulationProgress(run.beam, run.sample);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Simulate progress 20.00%. Estimated remaining time " + c.second +
                                                          "  0  0.25m" + std::string(30, ' ') + "\r");
  }
}

// A stop exactly at the head is behind it; a particle that hardly moves holds the run, up to the waiting limit.
TEST(MethodMPOutput, StageFailuresExitWithStatusTwoAndLogLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  TinyRun run({{0, 0, 0, 0, 0.01, 0.08}, {0, 0, 0, 0, 0.005, 1e-6}}, {0, 0, 0, 0, 0.01, 0.08});
  const std::string message[2] = {
      "Tcode won't start, there are particles located behind the output plane. headParticleCoordinates: 0.020000 line: "
      "0.020000", "There are particles that have not passed the exit plane, exceeding the waiting limit, and the "
      "simulation is stopped. Number of particles passing through the outplane:1"};
  for (int c = 0; c < 2; ++c) {
    run.beam.zMax = c == 0 ? 0.02 : 0.01;  // the head as the bunch was handed over
    EXPECT_EXIT({ dup2(2, 1); run.Run(); }, testing::ExitedWithCode(2), message[c] + "\n");
  }
  const std::string log = ReadFile(run.dir + "ErrorLog.txt");
  const std::string stamp = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d     simulation stage error: )";
  EXPECT_TRUE(std::regex_match(log, std::regex(stamp + message[0] + "\n" + stamp + message[1] + "\n"))) << log;
  EXPECT_EQ(At<int>(ReadFile(run.dir + "outData_0.020000.dst"), 2), 1);
  const double steps = 0.01 / (kC * kStep * 0.08 / std::sqrt(1.0064));  // until the first particle passed
  EXPECT_NEAR(static_cast<double>(ReadLines(run.dir + "DataSet.txt").size()), 2 * steps + 1, 3);
}
