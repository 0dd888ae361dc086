// Statistics and output files of the tracking engine, driven in process on
// bunches of a few hand-set particles, so that every number can be checked.
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "beamline/Boundary.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "run/ErrorSample.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"
#include "tracking/MethodMP.h"

using keldtest::At;
using keldtest::FileExists;
using keldtest::Numbers;
using keldtest::ReadFile;
using keldtest::ReadLines;
using keldtest::TempDir;
using keldtest::WriteFile;

namespace {

const double kC = 299792458.0;
const double kRest = 938.272029;               // MeV
const double kCharge = 1.60217653e-19;         // C
const double kMass = 1.67262171e-27;           // kg
const double kFrequency = 352.2e6;             // Hz
const double kStep = 1.0 / kFrequency / 50.0;  // s
const double kPi = 3.141592653589793;
using Coordinates = std::array<double, 6>;

bool Near(double actual, double expected, double relative, double absolute = 0.0) {
  return std::fabs(actual - expected) <= relative * std::fabs(expected) + absolute;
}

// A bunch of a few hand-set particles and the reference slot, on one drift
// of 0.02 m that ends at the closing plane.
struct TinyRun {
  std::vector<Particle> slots;
  Beam beam;
  Drift drift;
  Lattice lattice;
  ErrorSample sample;
  Boundary boundaryList;
  MethodMP engine;

  TinyRun(const std::vector<Coordinates>& particles, const Coordinates& reference, const std::vector<int>& lost = {}) {
    const int n = static_cast<int>(particles.size());
    slots.resize(n + 1);
    for (int i = 0; i <= n; ++i) {
      Particle& p = slots[i];
      const Coordinates& q = i < n ? particles[i] : reference;
      for (int k = 0; k < 6; ++k) p.coordinate[k] = q[k];
      p.charge = kCharge;
      p.mass = kMass;
      p.chargeMassRatio = kCharge / kMass;
      p.restEnergy = kRest;
      if (i < static_cast<int>(lost.size())) p.lost = lost[i];
    }
    beam.particle = slots.data();
    beam.particleNumber = n;
    beam.frequency = kFrequency;

    lattice.SetElement({"drift", "0.02", "0.02", "0"}, &drift);
    lattice.outputPlane.push_back({0, 0, 0, 0, 0, 0, 0.02});

    engine.timeStep = kStep;
    engine.spaceCharge = 0;
    engine.cores = {2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    engine.numOfGrid = {3, 3, 3};
    engine.outputPlanes = {0.02};
  }

  // Runs quietly and returns the console text.
  std::string Run() {
    testing::internal::CaptureStdout();
    engine.Run(lattice, beam, sample, boundaryList);
    return testing::internal::GetCapturedStdout();
  }
};

// Three particles around a reference at z = 4 mm and a fourth, lost one far
// off axis that must not enter any statistic of the time code.
const std::vector<Coordinates> kBunch = {
    {1.0e-3, 1.0e-4, 0.0, -2.0e-4, 0.0045, 0.081},
    {-5.0e-4, -3.0e-4, 2.0e-3, 1.0e-4, 0.0040, 0.080},
    {2.0e-4, 5.0e-5, -1.0e-3, 0.0, 0.0032, 0.079},
    {0.5, 0.3, 0.5, 0.1, 0.001, 0.5},
};
const std::vector<int> kLost = {0, 0, 0, 1};
const Coordinates kReference = {0.0, 0.0, 0.0, 0.0, 0.004, 0.08};

const char kDeathFolder[] = "KELD_TEST_DEATH_FOLDER";

// Each test writes into a fresh folder and leaves the global output folder
// as it found it. The child of a death test runs the test again from the
// top; it takes the parent's folder from the environment, so that the
// parent can read what the child wrote.
class MethodMPOutput : public testing::Test {
 protected:
  void SetUp() override {
    saved_ = outputFilePath;
    if (const char* inherited = std::getenv(kDeathFolder)) {
      folder_ = inherited;
    } else {
      own_ = std::make_unique<TempDir>();
      folder_ = own_->path();
    }
    outputFilePath = folder_ + "/";
  }
  void TearDown() override {
    outputFilePath = saved_;
    if (own_) unsetenv(kDeathFolder);
  }
  void ShareFolderWithDeathTest() { setenv(kDeathFolder, folder_.c_str(), 1); }
  std::string File(const std::string& name) const { return folder_ + "/" + name; }

 private:
  std::unique_ptr<TempDir> own_;
  std::string folder_;
  std::string saved_;
};

// The parsed .dst layout: header, six doubles per particle, trailer.
struct DstFile {
  bool layoutOk = false;
  int count = -1;
  double current = 0.0, frequencyMHz = 0.0, restEnergy = 0.0;
  std::vector<Coordinates> rows;
};

DstFile ReadDst(const std::string& bytes) {
  DstFile d;
  if (bytes.size() < 31) return d;
  d.count = At<int>(bytes, 2);
  d.current = At<double>(bytes, 6);
  d.frequencyMHz = At<double>(bytes, 14);
  if (d.count < 0 || bytes.size() != 31 + 48 * static_cast<std::size_t>(d.count)) return d;
  d.layoutOk =
      static_cast<unsigned char>(bytes[0]) == 0x7D && bytes[1] == 100 && static_cast<unsigned char>(bytes[22]) == 0x7D;
  for (int i = 0; i < d.count; ++i) {
    Coordinates r;
    for (int k = 0; k < 6; ++k) r[k] = At<double>(bytes, 23 + 48 * i + 8 * k);
    d.rows.push_back(r);
  }
  d.restEnergy = At<double>(bytes, 23 + 48 * static_cast<std::size_t>(d.count));
  return d;
}

}  // namespace

// The first line describes the bunch as it was handed over: the means of the
// exact pass, the moments of the same state and the reference's coordinates.
TEST_F(MethodMPOutput, DataSetFirstLineHoldsMomentsOfHandSetBunch) {
  TinyRun run(kBunch, kReference, kLost);
  run.Run();
  const std::vector<std::string> lines = ReadLines(File("DataSet.txt"));
  ASSERT_GE(lines.size(), 3u);
  const std::vector<double> v = Numbers(lines[0]);
  ASSERT_EQ(v.size(), 40u) << lines[0];

  // Means of the three living particles, positions relative to the reference.
  const int n = 3;
  double mean[6] = {0, 0, 0, 0, 0, 0};
  for (int i = 0; i < n; ++i)
    for (int k = 0; k < 6; ++k) mean[k] += (k % 2 == 0 ? kBunch[i][k] - kReference[k] : kBunch[i][k]) / n;
  const double gamma = std::sqrt(1.0 + mean[1] * mean[1] + mean[3] * mean[3] + mean[5] * mean[5]);
  const double beta = std::sqrt(1.0 - 1.0 / gamma / gamma);

  // Deviations x, x', y, y', z, d, with x' = (gbx - mean) / gbz.
  double square[6] = {0, 0, 0, 0, 0, 0}, cross[3] = {0, 0, 0}, absMax[6] = {0, 0, 0, 0, 0, 0};
  for (int i = 0; i < n; ++i) {
    const Coordinates& q = kBunch[i];
    const double dev[6] = {q[0] - kReference[0] - mean[0], (q[1] - mean[1]) / q[5],
                           q[2] - kReference[2] - mean[2], (q[3] - mean[3]) / q[5],
                           q[4] - kReference[4] - mean[4], (q[5] - mean[5]) / q[5]};
    for (int k = 0; k < 6; ++k) {
      square[k] += dev[k] * dev[k] / n;
      absMax[k] = std::max(absMax[k], std::fabs(dev[k]));
    }
    for (int p = 0; p < 3; ++p) cross[p] += dev[2 * p] * dev[2 * p + 1] / n;
  }
  std::vector<double> expected;
  expected.push_back((gamma - 1.0) * kRest);
  for (double m : mean) expected.push_back(m);
  double emittance[3];
  for (int p = 0; p < 3; ++p) emittance[p] = std::sqrt(square[2 * p] * square[2 * p + 1] - cross[p] * cross[p]);
  for (int p = 0; p < 3; ++p) expected.push_back(-cross[p] / emittance[p]);
  for (int p = 0; p < 3; ++p) expected.push_back(square[2 * p] / emittance[p]);
  for (int p = 0; p < 3; ++p) expected.push_back(emittance[p] * beta * gamma);
  for (double s : square) expected.push_back(std::sqrt(s));
  for (double a : absMax) expected.push_back(a);
  expected.push_back(n);
  for (double r : kReference) expected.push_back(r);
  for (int k = 0; k < 4; ++k) expected.push_back(0.0);
  expected.push_back(-1.0);
  ASSERT_EQ(expected.size(), 40u);
  // Six significant digits in the file.
  for (int col = 0; col < 40; ++col)
    EXPECT_TRUE(Near(v[col], expected[col], 1e-5, 1e-15))
        << "column " << col + 1 << ": " << v[col] << " expected " << expected[col];

  // The second line: the reference has made one field-free step, which is
  // the last frame column; the step number counts on from -1.
  const std::vector<double> second = Numbers(lines[1]);
  ASSERT_EQ(second.size(), 40u);
  const double dz = kC * kStep * kReference[5] / std::sqrt(1.0 + kReference[5] * kReference[5]);
  EXPECT_TRUE(Near(second[38], dz, 1e-5)) << second[38] << " vs " << dz;
  EXPECT_TRUE(Near(second[33], kReference[4] + dz, 1e-5)) << second[33];
  EXPECT_EQ(second[35], 0.0);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const std::vector<double> w = Numbers(lines[i]);
    ASSERT_EQ(w.size(), 40u) << "line " << i;
    EXPECT_EQ(w[28], 3.0) << "line " << i;
    EXPECT_EQ(w[39], static_cast<double>(i) - 1.0) << "line " << i;
  }

  // synParticle.txt starts with the reference at the entry of the section.
  const std::vector<std::string> track = ReadLines(File("synParticle.txt"));
  ASSERT_EQ(track.size(), lines.size() + 1);
  const double refGamma = std::sqrt(1.0 + kReference[5] * kReference[5]);
  char text[256];
  std::snprintf(text, sizeof text, "%.12f  %.12f  %.12f  %.12f  %.12f  %.12f  %.12f  0  %.12f", kReference[4],
                (refGamma - 1.0) * kRest, 0.0, 0.0, 0.0, 0.0, kReference[5], 0.0);
  EXPECT_TRUE(std::regex_match(track[0], std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d  .*)"))) << track[0];
  EXPECT_EQ(track[0].substr(track[0].size() - std::string(text).size()), text);
}

// In a field-free drift every particle crosses the exit plane on its straight
// line; the file holds the crossing in cm, rad, phase against the reference
// and kinetic energy, and leaves out the lost particle.
TEST_F(MethodMPOutput, ExitPlaneFileHoldsStraightLineCrossings) {
  TinyRun run(kBunch, kReference, kLost);
  run.Run();
  const DstFile d = ReadDst(ReadFile(File("outData_0.020000.dst")));
  ASSERT_TRUE(d.layoutOk);
  ASSERT_EQ(d.count, 3);
  EXPECT_EQ(d.current, 0.0);
  EXPECT_EQ(d.frequencyMHz, kFrequency / 1000000.0);
  EXPECT_EQ(d.restEnergy, kRest);

  auto vz = [](const Coordinates& q) { return kC * q[5] / std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]); };
  const double tref = (0.02 - kReference[4]) / vz(kReference);
  for (int i = 0; i < 3; ++i) {
    const Coordinates& q = kBunch[i];
    const double way = 0.02 - q[4];
    const double G = std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]);
    const double expected[6] = {100.0 * (q[0] + q[1] / q[5] * way),
                                q[1] / q[5],
                                100.0 * (q[2] + q[3] / q[5] * way),
                                q[3] / q[5],
                                2.0 * kPi * kFrequency * (way / vz(q) - tref),
                                (G - 1.0) * kRest};
    for (int k = 0; k < 6; ++k)
      EXPECT_TRUE(Near(d.rows[i][k], expected[k], 1e-9, 1e-12))
          << "particle " << i << " value " << k << ": " << d.rows[i][k] << " expected " << expected[k];
  }
}

// Run empties the per-run files, reports on the console, and appends one
// line to SimulationTime.txt, which is never emptied.
TEST_F(MethodMPOutput, RunEmptiesRunFilesAndAppendsTiming) {
  for (const char* name : {"DataSet.txt", "synParticle.txt", "test.txt", "testP.txt", "collisionData.txt"})
    WriteFile(File(name), "left over from an earlier run\n");
  WriteFile(File("SimulationTime.txt"), "earlier line\n");

  TinyRun run(kBunch, kReference, kLost);
  run.engine.cores = {2, 3, 1, 2, 4, 5, 6, 7, 8, 9};
  EXPECT_EQ(run.sample.sampleNumber, 0);
  const std::string console = run.Run();
  EXPECT_EQ(run.sample.sampleNumber, 1);  // all four on-flags are 0

  EXPECT_EQ(ReadFile(File("test.txt")), "");
  EXPECT_EQ(ReadFile(File("testP.txt")), "");
  EXPECT_EQ(ReadFile(File("collisionData.txt")), "");
  EXPECT_EQ(ReadFile(File("DataSet.txt")).find("left over"), std::string::npos);
  EXPECT_EQ(ReadFile(File("synParticle.txt")).find("left over"), std::string::npos);
  EXPECT_FALSE(FileExists(File("StaticErrorData.txt")));
  EXPECT_FALSE(FileExists(File("DynamicErrorData.txt")));

  EXPECT_NE(console.find("The total distance simulated is 0.02 (m)\n"), std::string::npos) << console;
  const std::string stamp = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d  )";
  EXPECT_TRUE(std::regex_search(console, std::regex("Start simulation, start time " + stamp + "\n"))) << console;
  EXPECT_TRUE(std::regex_search(console, std::regex("Simulation completed, completion time " + stamp + " {77}\n")))
      << console;
  EXPECT_NE(console.find("Total number of cycles 0. Solving the number of space charge effects 0\n"),
            std::string::npos);

  // total " Exter:" four pairs " Inter:" seven pairs; the fifth core entry
  // stands twice among the solver pairs. Without a z code and a solver the
  // accounts other than the push are 0. Precision 5.
  const std::vector<std::string> timing = ReadLines(File("SimulationTime.txt"));
  ASSERT_EQ(timing.size(), 2u);
  EXPECT_EQ(timing[0], "earlier line");
  const std::string number = R"(([0-9.e+-]+))";
  const std::regex line("^" + number + " Exter:2: " + number +
                        " 3: 0 1: 0 2: 0 Inter:4: 0 5: 0 6: 0 7: 0 5: 0 "
                        "8: 0 9: 0$");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(timing[1], m, line)) << timing[1];
  for (int g = 1; g <= 2; ++g) {
    std::string digits;
    for (char ch : m[g].str()) {
      if (ch == 'e') break;
      if (std::isdigit(static_cast<unsigned char>(ch))) digits += ch;
    }
    digits.erase(0, digits.find_first_not_of('0'));
    EXPECT_LE(digits.size(), 5u) << m[g].str();
  }
  EXPECT_GE(std::stod(m[1].str()), std::stod(m[2].str()));

  // A second run in the same folder adds a line there and empties the rest.
  TinyRun again(kBunch, kReference, kLost);
  const std::size_t lines = ReadLines(File("DataSet.txt")).size();
  again.Run();
  EXPECT_EQ(ReadLines(File("SimulationTime.txt")).size(), 3u);
  EXPECT_EQ(ReadLines(File("DataSet.txt")).size(), lines);
}

// With a dump period the file starts with the header; records come every
// period steps and once more at the last output stop, each 25 + 52 N bytes.
TEST_F(MethodMPOutput, BeamSetHeaderAndRecords) {
  TinyRun run(kBunch, kReference, kLost);
  run.beam.current = 0.0125;  // A; only written, the bunch carries no self-field here
  run.engine.dumpPeriodicity = 4;
  run.Run();
  const std::string bytes = ReadFile(File("BeamSet.plt"));
  const std::size_t header = 34, record = 25 + 52 * 4;
  ASSERT_GT(bytes.size(), header);
  EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0x7D);
  EXPECT_EQ(bytes[1], 100);
  EXPECT_EQ(At<int>(bytes, 2), 4);
  EXPECT_EQ(At<int>(bytes, 6), 4);
  EXPECT_EQ(At<double>(bytes, 10), 0.0125 * 1000.0);
  EXPECT_EQ(At<double>(bytes, 18), kFrequency / 1000000.0);
  EXPECT_EQ(At<double>(bytes, 26), kRest);
  ASSERT_EQ((bytes.size() - header) % record, 0u) << bytes.size();
  const std::size_t records = (bytes.size() - header) / record;
  ASSERT_GE(records, 3u);

  const double dz = kC * kStep * kReference[5] / std::sqrt(1.0 + kReference[5] * kReference[5]);
  for (std::size_t r = 0; r < records; ++r) {
    const std::size_t o = header + r * record;
    const bool last = r + 1 == records;
    EXPECT_EQ(static_cast<unsigned char>(bytes[o]), 0x7D) << "record " << r;
    EXPECT_EQ(At<int>(bytes, o + 1), 0) << "record " << r;
    const int step = At<int>(bytes, o + 5);
    if (!last) {
      EXPECT_EQ(step, static_cast<int>(4 * r));
    }
    // A periodic record is taken after the reference's next push; the one
    // at the last stop before it.
    EXPECT_TRUE(Near(At<double>(bytes, o + 9), (step + 1) * kStep, 1e-9)) << "record " << r;
    EXPECT_TRUE(Near(At<double>(bytes, o + 17), kReference[4] + (step + (last ? 1 : 2)) * dz, 1e-9))
        << "record " << r << " z " << At<double>(bytes, o + 17);
    for (int i = 0; i < 4; ++i) {
      const std::size_t p = o + 25 + 52 * i;
      EXPECT_EQ(At<int>(bytes, p + 48), kLost[i]) << "record " << r << " particle " << i;
      if (kLost[i] == 0) {
        EXPECT_EQ(At<double>(bytes, p + 8), kBunch[i][1]) << "record " << r << " particle " << i;
      }
    }
  }
}

// The last output stop writes its record whatever the period, so that the
// file can exist without a header; a section ending at -2 writes nothing.
TEST_F(MethodMPOutput, LastOutputStopRecordDoesNotNeedDumpPeriod) {
  TinyRun run(kBunch, kReference, kLost);
  run.Run();
  const std::string bytes = ReadFile(File("BeamSet.plt"));
  ASSERT_EQ(bytes.size(), 25u + 52 * 4);
  EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0x7D);
  EXPECT_EQ(At<int>(bytes, 1), 0);

  TempDir other;
  outputFilePath = other.path() + "/";  // the fixture puts the global back
  TinyRun quiet(kBunch, kReference, kLost);
  quiet.engine.outputPlanes.clear();
  quiet.Run();
  EXPECT_TRUE(FileExists(other.file("DataSet.txt")));
  EXPECT_FALSE(FileExists(other.file("BeamSet.plt")));
  EXPECT_FALSE(FileExists(other.file("outData_0.020000.dst")));
}

TEST_F(MethodMPOutput, DstFileHoldsFlaggedRowsInSlotOrder) {
  TinyRun run({{0, 0, 0, 0, 0, 0.08}, {0, 0, 0, 0, 0, 0.08}, {0, 0, 0, 0, 0, 0.08}, {0, 0, 0, 0, 0, 0.08}}, kReference);
  for (Particle& p : run.slots) p.charge = -3.2e-16;  // a negative macro charge
  CrossingTable rows(5, std::vector<double>(8, 0.0));
  rows[0] = {0.001, 2e-4, -0.002, -1e-4, 0.0, 0.081, 2.0e-9, 1.0};
  rows[1] = {0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.5, 0.0};  // not crossed
  rows[2] = {-0.003, -3e-4, 0.004, 5e-5, 0.0, 0.079, 1.5e-9, 1.0};
  rows[3] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.08, 1.9e-9, 0.999};  // only 1.0 is valid
  rows[4] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.08, 1.75e-9, 1.0};   // reference: the time origin
  const CrossingTable before = rows;

  run.engine.spaceCharge = 0;
  run.engine.dstOut(run.beam, rows, 1.25);
  EXPECT_EQ(rows, before);
  DstFile d = ReadDst(ReadFile(File("outData_1.250000.dst")));
  ASSERT_TRUE(d.layoutOk);
  ASSERT_EQ(d.count, 2);
  EXPECT_EQ(d.current, 0.0);
  EXPECT_EQ(d.frequencyMHz, kFrequency / 1000000.0);
  EXPECT_EQ(d.restEnergy, kRest);
  const int valid[2] = {0, 2};
  for (int j = 0; j < 2; ++j) {
    const std::vector<double>& r = rows[valid[j]];
    const double G = std::sqrt(1.0 + r[1] * r[1] + r[3] * r[3] + r[5] * r[5]);
    EXPECT_DOUBLE_EQ(d.rows[j][0], r[0] * 100.0);
    EXPECT_DOUBLE_EQ(d.rows[j][1], r[1] / r[5]);
    EXPECT_DOUBLE_EQ(d.rows[j][2], r[2] * 100.0);
    EXPECT_DOUBLE_EQ(d.rows[j][3], r[3] / r[5]);
    EXPECT_DOUBLE_EQ(d.rows[j][4], 2.0 * kPi * (r[6] - 1.75e-9) * kFrequency);
    EXPECT_DOUBLE_EQ(d.rows[j][5], (G - 1.0) * kRest);
  }

  // With the self-field on, the current of the particles that arrived, mA.
  run.engine.spaceCharge = 1;
  run.engine.dstOut(run.beam, rows, -0.5);
  d = ReadDst(ReadFile(File("outData_-0.500000.dst")));
  ASSERT_TRUE(d.layoutOk);
  EXPECT_DOUBLE_EQ(d.current, std::fabs(2 * -3.2e-16 * kFrequency * 1000.0));

  // Nothing crossed: count 0, no entries, the trailer, no current.
  CrossingTable none(5, std::vector<double>(8, 0.0));
  run.engine.dstOut(run.beam, none, 2.0);
  const std::string empty = ReadFile(File("outData_2.000000.dst"));
  ASSERT_EQ(empty.size(), 31u);
  d = ReadDst(empty);
  EXPECT_TRUE(d.layoutOk);
  EXPECT_EQ(d.count, 0);
  EXPECT_EQ(d.current, 0.0);
  EXPECT_EQ(d.restEnergy, kRest);

  // Two planes with the same "%f" text share one file; the later one wins.
  run.engine.dstOut(run.beam, rows, 0.1234561);
  run.engine.dstOut(run.beam, none, 0.1234564);
  EXPECT_EQ(ReadDst(ReadFile(File("outData_0.123456.dst"))).count, 0);
}

TEST_F(MethodMPOutput, BeamOutRecordsOfBothKinds) {
  TinyRun run({{0, 0, 0, 0, 0, 0.08}, {0, 0, 0, 0, 0, 0.08}}, kReference, {0, 1});
  for (int k = 0; k < 6; ++k) {
    run.slots[0].relativeCoordinate[k] = 0.1 * (k + 1);
    run.slots[1].relativeCoordinate[k] = -0.01 * (k + 1);
  }
  CrossingTable rows(3, std::vector<double>(8, 0.0));
  rows[0] = {1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 1.0};
  rows[1] = {-1.0, -2.0, -3.0, -4.0, -5.0, -6.0, -7.0, 0.0};
  rows[2] = {9.0, 9.0, 9.0, 9.0, 9.0, 9.0, 9.0, 1.0};  // the reference row is not written

  run.engine.beamOut(run.beam, rows, 0, 1.5e-9, 0.25, 7);
  run.engine.beamOut(run.beam, rows, 1, 2.5e-9, 0.75, 8);
  const std::string bytes = ReadFile(File("BeamSet.plt"));
  const std::size_t record = 25 + 52 * 2;
  ASSERT_EQ(bytes.size(), 2 * record);

  // Kind 0: the relative coordinates and the loss state of each slot.
  EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0x7D);
  EXPECT_EQ(At<int>(bytes, 1), 0);
  EXPECT_EQ(At<int>(bytes, 5), 7);
  EXPECT_EQ(At<double>(bytes, 9), 1.5e-9);
  EXPECT_EQ(At<double>(bytes, 17), 0.25);
  for (int i = 0; i < 2; ++i) {
    for (int k = 0; k < 6; ++k)
      EXPECT_EQ(At<double>(bytes, 25 + 52 * i + 8 * k), run.slots[i].relativeCoordinate[k]) << i << " " << k;
    EXPECT_EQ(At<int>(bytes, 25 + 52 * i + 48), i);
  }

  // Kind 1: x, gbx, y, gby, time, gbz of the row, then its flag as an int.
  const std::size_t o = record;
  EXPECT_EQ(static_cast<unsigned char>(bytes[o]), 0x7D);
  EXPECT_EQ(At<int>(bytes, o + 1), 1);
  EXPECT_EQ(At<int>(bytes, o + 5), 8);
  EXPECT_EQ(At<double>(bytes, o + 9), 2.5e-9);
  EXPECT_EQ(At<double>(bytes, o + 17), 0.75);
  const int order[6] = {0, 1, 2, 3, 6, 5};
  for (int i = 0; i < 2; ++i) {
    for (int k = 0; k < 6; ++k) EXPECT_EQ(At<double>(bytes, o + 25 + 52 * i + 8 * k), rows[i][order[k]]);
    EXPECT_EQ(At<int>(bytes, o + 25 + 52 * i + 48), 1 - i);
  }
}

// zTotcode puts every crossed particle back on its straight line at the
// common time, behind the plane; rows are cleared and unflagged particles
// keep their coordinates; the reference goes onto the axis.
TEST_F(MethodMPOutput, ZTotcodeRestoresParticlesAtCommonTime) {
  TinyRun run({{7, 7, 7, 7, 7, 7}, {0, 0, 0, 0, 0, 0.08}, {0, 0, 0, 0, 0, 0.08}}, kReference);
  run.engine.cores[3] = 2;
  for (Particle& p : run.slots) p.indexPlane = 1;
  CrossingTable rows(4, std::vector<double>(8, 0.0));
  rows[0] = {1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 0.0};  // not crossed
  rows[1] = {0.001, 0.002, -0.003, -0.001, 0.0, 0.08, 3e-9, 1.0};
  rows[2] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.07, 2e-9, 1.0};
  rows[3] = {0.002, 0.001, 0.002, 0.001, 0.0, 0.08, 2.5e-9, 1.0};  // reference
  const CrossingTable given = rows;
  double timeOut = 2e-9;
  const double zEnd = 0.75;
  EXPECT_EQ(run.engine.zTotcode(zEnd, run.beam, rows, timeOut), 2e-9);

  for (int k = 0; k < 6; ++k) EXPECT_EQ(run.slots[0].coordinate[k], 7.0);
  for (int i = 1; i <= 3; ++i) {
    const std::vector<double>& r = given[i];
    const double G = std::sqrt(1.0 + r[1] * r[1] + r[3] * r[3] + r[5] * r[5]);
    const double d = r[6] - 2e-9;
    // Along the line of flight, z moves by c pz / G per second.
    const double expected[6] = {i == 3 ? 0.0 : r[0] - r[1] * d / G * kC,
                                i == 3 ? 0.0 : r[1],
                                i == 3 ? 0.0 : r[2] - r[3] * d / G * kC,
                                i == 3 ? 0.0 : r[3],
                                zEnd - d * kC * r[5] / G,
                                r[5]};
    for (int k = 0; k < 6; ++k)
      EXPECT_TRUE(Near(run.slots[i].coordinate[k], expected[k], 1e-12, 1e-18))
          << "slot " << i << " value " << k << ": " << run.slots[i].coordinate[k] << " vs " << expected[k];
  }
  EXPECT_EQ(run.slots[2].coordinate[4], zEnd);  // the earliest one stands on the plane
  for (const Particle& p : run.slots) EXPECT_EQ(p.indexPlane, 0);
  for (const std::vector<double>& r : rows) EXPECT_EQ(r, std::vector<double>(8, 0.0));
}

// The exact pass: relative means of the particles not lost 1; positions
// of all slots, lost ones too, in the laboratory against those means.
TEST_F(MethodMPOutput, UpdateBeamParametersExactPass) {
  const Coordinates reference = {0.001, 0.5, -0.002, 0.5, 0.01, 0.08};
  TinyRun run({{0.003, 1e-3, 0.0, 2e-3, 0.012, 0.09},
               {0.001, -1e-3, -0.004, 0.0, 0.008, 0.07},
               {0.5, 0.3, 0.5, 0.3, 0.02, 0.5},
               {0.002, 0.0, -0.002, 0.0, 0.010, 0.08}},
              reference, {0, 0, 1, 2});
  run.engine.UpdateBeamParameters(run.beam, run.lattice);
  Beam& b = run.beam;
  EXPECT_EQ(b.aliveNumber, 3);
  const double expectedMean[6] = {0.001, 0.0, 0.0, 2e-3 / 3.0, 0.0, 0.08};
  for (int k = 0; k < 6; ++k)
    EXPECT_TRUE(Near(b.average[k], expectedMean[k], 1e-12, 1e-15)) << k << " " << b.average[k];
  const double gamma = std::sqrt(1.0 + (2e-3 / 3.0) * (2e-3 / 3.0) + 0.0064);
  EXPECT_TRUE(Near(b.gamma, gamma, 1e-13));
  // beta_z gamma_z = 0.08 / sqrt(gamma^2 - 0.08^2)
  EXPECT_TRUE(Near(b.bunchScale, kC / kFrequency * 0.08 / std::sqrt(1.0 + (2e-3 / 3.0) * (2e-3 / 3.0)), 1e-12));
  const double gz = 1.0 / std::sqrt(1.0 - 0.0064 / (gamma * gamma));
  EXPECT_TRUE(Near(b.rms[0], std::sqrt((4e-6 + 0.0 + 0.499 * 0.499 + 1e-6) / 3.0), 1e-12)) << b.rms[0];
  EXPECT_TRUE(Near(b.rms[1], std::sqrt((0.0 + 1.6e-5 + 0.25 + 4e-6) / 3.0), 1e-12)) << b.rms[1];
  EXPECT_TRUE(Near(b.rms[2], gz * std::sqrt((1.44e-4 + 6.4e-5 + 4e-4 + 1e-4) / 3.0), 1e-12)) << b.rms[2];
  EXPECT_EQ(b.zMin, 0.008);
  EXPECT_EQ(b.zMax, 0.02);
  // Relative coordinates: positions against the reference, momenta as they are.
  EXPECT_TRUE(Near(run.slots[0].relativeCoordinate[0], 0.002, 1e-12));
  EXPECT_EQ(run.slots[0].relativeCoordinate[1], 1e-3);
  EXPECT_TRUE(Near(run.slots[1].relativeCoordinate[2], -0.002, 1e-12));
  EXPECT_EQ(run.slots[1].relativeCoordinate[5], 0.07);
}

TEST_F(MethodMPOutput, ErrSampleOutWritesOnlySetsThatAreOn) {
  MethodMP engine;
  ErrorSample sample;
  sample.staticSet = {{1.0, 2.5}, {-3.0}};
  sample.dynamicSet = {{0.125, 0.0, 4.0}};
  engine.errSampleOut(sample);
  EXPECT_FALSE(FileExists(File("StaticErrorData.txt")));
  EXPECT_FALSE(FileExists(File("DynamicErrorData.txt")));

  sample.onFlag = {1, 0, 0, 0};
  engine.errSampleOut(sample);
  EXPECT_EQ(ReadFile(File("StaticErrorData.txt")), "1 2.5 \n-3 \n");
  EXPECT_FALSE(FileExists(File("DynamicErrorData.txt")));

  sample.onFlag = {0, 0, 0, 1};
  sample.staticSet = {{9.0}};
  engine.errSampleOut(sample);
  EXPECT_EQ(ReadFile(File("DynamicErrorData.txt")), "0.125 0 4 \n");
  EXPECT_EQ(ReadFile(File("StaticErrorData.txt")), "1 2.5 \n-3 \n");  // untouched

  sample.onFlag = {0, 1, 1, 0};
  engine.errSampleOut(sample);
  EXPECT_EQ(ReadFile(File("StaticErrorData.txt")), "9 \n");  // truncated and rewritten
}

TEST_F(MethodMPOutput, TestOutFormat) {
  TinyRun run({{0.25, 0.5, 1.0, 2.0, 3.0, 4.0}, {9, 9, 9, 9, 9, 9}, {8, 8, 8, 8, 8, 8}}, {0.0, 0.0, 0.0, 0.0, 5.5, 0.1},
              {0, 1, 2});
  for (int k = 0; k < 6; ++k) run.slots[0].relativeCoordinate[k] = -0.5 * k;
  run.beam.average = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6};
  run.beam.rms = {1.5, 2.5, 3.5};
  run.beam.bendAngle = 0.75;
  run.slots[3].coordinate[0] = -1.0;
  run.slots[3].coordinate[2] = 2.0;
  run.engine.testOut(run.beam);
  run.engine.testOut(run.beam);
  const std::string particle =
      "0.250000000000  0.500000000000  1.000000000000  2.000000000000  3.000000000000  4.000000000000  "
      "-0.000000000000  -0.500000000000  -1.000000000000  -1.500000000000  -2.000000000000  -2.500000000000\n";
  // Only slots with lost 0 are written, one line each call.
  EXPECT_EQ(ReadFile(File("testP.txt")), particle + particle);
  const std::string summary =
      "0.100000000000  0.200000000000  0.300000000000  0.400000000000 0.500000000000 0.600000000000  "
      "1.500000000000  2.500000000000  3.500000000000  0.750000000000  -1.000000000000  2.000000000000  "
      "5.500000000000\n";
  EXPECT_EQ(ReadFile(File("test.txt")), summary + summary);
}

TEST_F(MethodMPOutput, ProgressLineFormatAndUnits) {
  TinyRun run({{0, 0, 0, 0, 0.25, 0.08}}, {0, 0, 0, 0, 0.25, 0.08});
  MethodMP& e = run.engine;
  e.outputPlanes = {0.5, 1.0};
  e.startZ = 0.0;
  run.beam.zMin = 0.25;
  run.beam.aliveNumber = 1234;
  // 0.25 of the way (the tail's lag counts in the divisor): the remaining
  // time is half of elapsed * (100 / 25 - 1).
  const std::string tail = "  1234  0.25m" + std::string(30, ' ') + "\r";
  struct Case {
    int seconds;
    const char* remaining;
    const char* elapsed;
  };
  for (const Case& c :
       {Case{10, "15s", "10s"}, Case{120, "3.00min", "2.00min"}, Case{7200, "3.00h", "2.00h"},
        Case{2000, "50.00min", "33.33min"}, Case{1800, "45.00min", "30.00min"}, Case{3000, "1.25h", "50.00min"}}) {
    e.startTime = std::chrono::system_clock::now() - std::chrono::seconds(c.seconds);
    testing::internal::CaptureStdout();
    e.simulationProgress(run.beam, run.sample);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out, std::string("Simulate progress 25.00%. Estimated remaining time ") + c.remaining + ". Run time " +
                       c.elapsed + tail)
        << c.seconds << " s";
    EXPECT_TRUE(Near(e.progressPercent, 25.0, 1e-12)) << e.progressPercent;
    EXPECT_TRUE(Near(e.progressElapsed, c.seconds, 0.01));
    EXPECT_TRUE(Near(e.progressRemaining, 1.5 * e.progressElapsed, 1e-12));
  }
}

// A particle that never reaches the exit (here one that hardly moves) holds
// the run: once the count of passed particles has stood still for more than
// half of all steps at the last stop, the run writes what has arrived and
// stops with status 2.
TEST_F(MethodMPOutput, WaitingLimitStopsRunWithStalledParticle) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ShareFolderWithDeathTest();

  EXPECT_EXIT(
      {
        dup2(2, 1);
        TinyRun run({{0.0, 0.0, 0.0, 0.0, 0.010, 0.08}, {0.0, 0.0, 0.0, 0.0, 0.005, 1e-6}},
                    {0.0, 0.0, 0.0, 0.0, 0.010, 0.08});
        run.engine.Run(run.lattice, run.beam, run.sample, run.boundaryList);
      },
      testing::ExitedWithCode(2),
      "There are particles that have not passed the exit plane, exceeding the waiting limit, and the simulation is "
      "stopped. Number of particles passing through the outplane:1\n");

  const std::vector<std::string> log = ReadLines(File("ErrorLog.txt"));
  ASSERT_EQ(log.size(), 1u);
  EXPECT_TRUE(std::regex_match(log[0], std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d     simulation stage error: )"
                                                  R"(There are particles .*outplane:1)")))
      << log[0];
  const DstFile d = ReadDst(ReadFile(File("outData_0.020000.dst")));
  EXPECT_TRUE(d.layoutOk);
  EXPECT_EQ(d.count, 1);
  // It stopped near twice the step at which the first particle passed.
  const std::vector<std::string> lines = ReadLines(File("DataSet.txt"));
  const double steps = 0.01 / (kC * kStep * 0.08 / std::sqrt(1.0064));
  EXPECT_GT(static_cast<double>(lines.size()), 2.0 * steps - 2.0);
  EXPECT_LT(static_cast<double>(lines.size()), 2.0 * steps + 4.0);
}

// A stop that lies exactly at the head of the bunch is already behind it.
// The test reads the head as the bunch was handed over, before the section's
// own statistics pass.
TEST_F(MethodMPOutput, StopExactlyAtHeadIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ShareFolderWithDeathTest();
  EXPECT_EXIT(
      {
        dup2(2, 1);
        TinyRun run({{0.0, 0.0, 0.0, 0.0, 0.02, 0.08}, {0.0, 0.0, 0.0, 0.0, 0.01, 0.08}},
                    {0.0, 0.0, 0.0, 0.0, 0.015, 0.08});
        run.beam.zMax = 0.02;
        run.engine.Run(run.lattice, run.beam, run.sample, run.boundaryList);
      },
      testing::ExitedWithCode(2),
      "Tcode won't start, there are particles located behind the output plane. headParticleCoordinates: "
      "0.020000 line: 0.020000\n");
  const std::vector<std::string> log = ReadLines(File("ErrorLog.txt"));
  ASSERT_EQ(log.size(), 1u);
  EXPECT_TRUE(std::regex_match(log[0], std::regex(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d     simulation stage error: )"
                                                  R"(Tcode won't start, .* line: 0\.020000)")))
      << log[0];
}
