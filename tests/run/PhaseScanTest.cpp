// The phase scan through whole runs: cavities of uniform Ez over a gap, whose transit-time factor and energy gain
// are known in closed form, and the three files of the scan.
#include <gtest/gtest.h>

#include <cmath>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kGap = 0.02;        // m
constexpr double kE0 = 2.0;          // MV/m
constexpr double kFrequency = 352.2e6;

// A radio-frequency map set "cell" in text form: Ez = kE0 on every node of a gap kGap long, nothing else.
void WriteUniformCell(const std::string& folder) {
  const char* ext[6] = {".edx", ".edy", ".edz", ".bdx", ".bdy", ".bdz"};
  for (int c = 0; c < 6; ++c) {
    std::ostringstream s;
    s << "4 " << kGap << "\n2 -0.05 0.05\n2 -0.05 0.05\n1\n";
    for (int node = 0; node < 5 * 3 * 3; ++node) s << (c == 2 ? kE0 : 0.0) << "\n";
    WriteFile(folder + "/cell" + ext[c], s.str());
  }
}

// A static magnetic map set "dipole" in text form: By = 0.5 T over 0.1 m, which turns a 3 MeV proton on a radius
// of 0.50094 m towards -x.
void WriteDipole(const std::string& folder) {
  const char* ext[3] = {".bsx", ".bsy", ".bsz"};
  for (int c = 0; c < 3; ++c) {
    std::ostringstream s;
    s << "4 0.1\n2 -0.05 0.05\n2 -0.05 0.05\n1\n";
    for (int node = 0; node < 5 * 3 * 3; ++node) s << (c == 1 ? 0.5 : 0.0) << "\n";
    WriteFile(folder + "/dipole" + ext[c], s.str());
  }
}

struct ScanRun {
  TempDir dir;
  std::string in, out;
  RunResult result;
  ScanRun(const std::string& lattice, const std::string& input = "spacecharge 0\nsteppercycle 50\n") {
    in = dir.subdir("in");
    out = dir.subdir("out");
    WriteUniformCell(in);
    WriteDipole(in);
    WriteFile(in + "/input.txt", input);
    WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\nparticlenumber 500\n"
                                "twissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 0.5 0.1\n");
    WriteFile(in + "/lattice.txt", "start\n" + lattice + "end\n");
    result = RunKeld(in, out);
  }
};

// Energy gain of a particle of constant speed through a uniform gap: q E0 L T cos(phi_s), with the transit-time
// factor T = sin(theta / 2) / (theta / 2) and theta = omega L / v.
double GapGain(double energy, double phaseDeg) {
  const double gamma = 1.0 + energy / 938.272029, beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  const double theta = 2.0 * kPi * kFrequency * kGap / (beta * 299792458.0);
  return kE0 * kGap * std::sin(theta / 2.0) / (theta / 2.0) * std::cos(phaseDeg / 180.0 * kPi);
}

std::string Cell(double phase) {
  return "field " + std::to_string(kGap) + " 0.05 0 1 352.2e6 " + std::to_string(phase) + " 1 0 cell\n";
}

}  // namespace

// One gap at -30 deg: the entrance phase sits half a transit angle before the wanted phase, the gain follows the
// transit-time formula, and the files carry the entrance phase and the entry and exit states.
TEST(PhaseScan, SingleGapReachesWantedPhaseAndTransitTimeGain) {
  const ScanRun run("drift 0.1 0.05 0\n" + Cell(-30.0) + "drift 0.1 0.05 0\n");
  ASSERT_EQ(run.result.status, 0) << run.result.output;
  const std::vector<std::string> phase = ReadLines(run.out + "/Phase.txt");
  ASSERT_EQ(phase.size(), 2u);
  const std::regex row(R"(1  \d+\.\d{13}  \d+\.\d{13}  \d+\.\d{13})");
  for (const std::string& line : phase) EXPECT_TRUE(std::regex_match(line, row)) << line;
  const std::vector<double> entry = Numbers(phase[0]), exit = Numbers(phase[1]);
  EXPECT_NEAR(entry[2], 0.1, 1e-12);
  EXPECT_NEAR(exit[2], 0.12, 1e-12);
  EXPECT_NEAR(entry[3], 3.0, 1e-12);
  const double gain = GapGain(3.0 + GapGain(3.0, -30.0) / 2.0, -30.0);  // speed at the middle of the gap
  EXPECT_NEAR(exit[3] - entry[3], gain, 2e-3 * gain);

  const std::string table = ReadFile(run.out + "/scanData.txt");
  EXPECT_EQ(table, ReadFile(run.in + "/scanData.txt"));
  std::smatch m;
  ASSERT_TRUE(std::regex_match(table, m, std::regex(R"((-?\d+\.\d{10})   (\d\.\d{20})\n)"))) << table;
  const double gamma = 1.0 + 3.0 / 938.272029, beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  const double halfTransit = kPi * kFrequency * kGap / (beta * 299792458.0) / kPi * 180.0;
  EXPECT_NEAR(std::stod(m[1]), -30.0 - halfTransit, 0.5);
  EXPECT_NEAR(std::stod(m[2]), entry[1], 1e-12);  // the arrival time at the gap

  // 21 coarse trials, then the secant trials, the line of stars and the closing line.
  const std::vector<std::string> trials = ReadLines(run.out + "/scanPhaseData.txt");
  ASSERT_GE(trials.size(), 23u);
  EXPECT_TRUE(std::regex_match(trials[0], std::regex(R"(Entrance phase -180\.0{10} Synchronous phase-?\d+\.\d{10}  )"
                                                     R"(Energy of entry3\.0{10}  Export energy\d\.\d{10})")))
      << trials[0];
  EXPECT_EQ(trials[20].substr(0, 30), "Entrance phase 180.0000000000 ");
  EXPECT_EQ(trials[trials.size() - 2], std::string(99, '*'));
  EXPECT_EQ(trials.back(), "************************************************end*************************************"
                           "*****************");
  EXPECT_NE(run.result.output.find("\nThe 1 field, phi_0:"), std::string::npos) << run.result.output;
  // The bunch is tracked with the phase found: its mean energy gains about the same.
  const std::vector<std::string> data = ReadLines(run.out + "/DataSet.txt");
  const std::vector<double> first = Numbers(data.front()), last = Numbers(data.back());
  EXPECT_NEAR(last[0] - first[0], gain, 0.05 * gain);
  EXPECT_EQ(last[28], 500);                             // every particle through
  EXPECT_NEAR(last[15], first[15], 0.05 * first[15]);  // longitudinal emittance kept
}

// Two gaps in beamline order keep their cavity numbers; the second starts where the first left the particle, and
// the reuse mode reads back exactly what the scan wrote into the input folder.
TEST(PhaseScan, CavitiesInBeamlineOrderAndReuse) {
  const ScanRun run("drift 0.1 0.05 0\n" + Cell(-30.0) + "drift 0.1 0.05 0\n" + Cell(-20.0) + "drift 0.1 0.05 0\n");
  ASSERT_EQ(run.result.status, 0) << run.result.output;
  const std::vector<std::string> phase = ReadLines(run.out + "/Phase.txt");
  ASSERT_EQ(phase.size(), 4u);
  std::vector<std::vector<double>> v;
  for (const std::string& line : phase) v.push_back(Numbers(line));
  EXPECT_EQ(std::vector<double>({v[0][0], v[1][0], v[2][0], v[3][0]}), std::vector<double>({1, 1, 2, 2}));
  EXPECT_NEAR(v[2][2], 0.22, 1e-12);
  EXPECT_NEAR(v[2][3], v[1][3], 1e-12);  // a drift between the gaps
  const double second = GapGain(v[2][3] + GapGain(v[2][3], -20.0) / 2.0, -20.0);
  EXPECT_NEAR(v[3][3] - v[2][3], second, 2e-3 * second);
  EXPECT_EQ(ReadLines(run.in + "/scanData.txt").size(), 2u);

  // Reuse: the same tables, no scan files written; the bunch of the first run, loaded from its inData.dst.
  const std::string out2 = run.dir.subdir("out2");
  WriteFile(run.in + "/input.txt", "spacecharge 0\nsteppercycle 50\nscanphase 2\n");
  WriteFile(run.in + "/start.dst", ReadFile(run.out + "/inData.dst"));
  WriteFile(run.in + "/beam.txt", ReadFile(run.in + "/beam.txt") + "readparticledistribution start.dst\n");
  const RunResult reuse = RunKeld(run.in, out2);
  ASSERT_EQ(reuse.status, 0) << reuse.output;
  EXPECT_FALSE(FileExists(out2 + "/Phase.txt"));
  EXPECT_EQ(reuse.output.find("Start scan phase...."), std::string::npos);
  // Same phases and the same particles, so the same energy at the end.
  const double end1 = Numbers(ReadLines(run.out + "/DataSet.txt").back())[0];
  const double end2 = Numbers(ReadLines(out2 + "/DataSet.txt").back())[0];
  EXPECT_NEAR(end1, end2, 1e-9);

  // A table shorter than the lattice's cavities stops the reuse, naming the first cavity without a phase.
  WriteFile(run.in + "/scanData.txt", ReadLines(run.in + "/scanData.txt")[0] + "\n");
  const std::string outShort = run.dir.subdir("outShort");
  const RunResult shortTable = RunKeld(run.in, outShort);
  EXPECT_EQ(shortTable.status, 1);
  EXPECT_NE(shortTable.output.find("\nscanData.txt holds 1 cavities, but the lattice has 2: cavity 2 has no phase; "
                                   "scan again (scanphase 1)\n"),
            std::string::npos)
      << shortTable.output;

  // Without the table the reuse stops.
  std::remove((run.in + "/scanData.txt").c_str());
  const std::string out3 = run.dir.subdir("out3");
  const RunResult missing = RunKeld(run.in, out3);
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.output.find("\nscan phase file read error, check scanData.txt\n"), std::string::npos);
  const std::vector<std::string> log = ReadLines(out3 + "/ErrorLog.txt");
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].substr(21), "   Initialisation stage error: scan phase file read error, check scanData.txt");
}

// scanphase 0 leaves the deck's phases and writes nothing; a line without cavities gives an empty table.
TEST(PhaseScan, NoScanAndNoCavity) {
  const ScanRun off("drift 0.1 0.05 0\n" + Cell(-30.0) + "drift 0.1 0.05 0\n",
                    "spacecharge 0\nsteppercycle 50\nscanphase 0\n");
  ASSERT_EQ(off.result.status, 0) << off.result.output;
  EXPECT_FALSE(FileExists(off.out + "/scanPhaseData.txt") || FileExists(off.out + "/Phase.txt") ||
               FileExists(off.in + "/scanData.txt"));
  const ScanRun none("drift 0.1 0.05 0\n");
  ASSERT_EQ(none.result.status, 0) << none.result.output;
  EXPECT_EQ(ReadFile(none.out + "/scanData.txt"), "");
  EXPECT_EQ(ReadFile(none.out + "/Phase.txt"), "");
  EXPECT_EQ(ReadLines(none.out + "/scanPhaseData.txt").size(), 1u);
}

// A gap behind a curved set: the dipole turns the beam by 10.35 deg up to z = 0.09 m of the set, where the set's
// rotated plane stands square to the orbit. The design particle leaves the set with the energy it had (a magnetic
// field does no work) and its whole momentum along the new axis, and reaches the gap when the bunch does, so the gap
// gains its closed-form energy for the scan and the bunch alike, whether the set starts at 0 or behind a drift.
TEST(PhaseScan, GapBehindACurvedSetGainsItsClosedFormEnergy) {
  const std::string set = "superpose 0\nfield 0.1 0.05 0 3 0 0 0 1 dipole\nsuperposeout 0.09 -0.008151 0 0 0 -10.350\n";
  const double gain = GapGain(3.0 + GapGain(3.0, -30.0) / 2.0, -30.0);
  for (const std::string front : {"", "drift 0.05 0.05 0\n"}) {
    const ScanRun run(front + set + "drift 0.1 0.05 0\n" + Cell(-30.0) + "drift 0.1 0.05 0\n");
    ASSERT_EQ(run.result.status, 0) << run.result.output;
    const std::vector<std::string> phase = ReadLines(run.out + "/Phase.txt");
    ASSERT_EQ(phase.size(), 2u) << front;
    const std::vector<double> entry = Numbers(phase[0]), exit = Numbers(phase[1]);
    EXPECT_NEAR(entry[2], (front.empty() ? 0.0 : 0.05) + 0.2, 1e-12) << front;
    EXPECT_NEAR(entry[3], 3.0, 1e-5) << front;
    EXPECT_NEAR(exit[3] - entry[3], gain, 2e-3 * gain) << front;
    // The bunch gains too (it lost energy when the scan dropped the turned momentum); it restarts behind the
    // plane one time step ahead of its clock, which costs it a few percent here.
    const std::vector<std::string> data = ReadLines(run.out + "/DataSet.txt");
    EXPECT_NEAR(Numbers(data.back())[0] - Numbers(data.front())[0], gain, 0.1 * gain) << front;
  }
}
