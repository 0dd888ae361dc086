// Whole runs through the keld program on small decks: a field-free line with
// a steerer, and each way in which the tracking stage stops a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

using keldtest::At;
using keldtest::FileExists;
using keldtest::Numbers;
using keldtest::ReadFile;
using keldtest::ReadLines;
using keldtest::RunKeld;
using keldtest::RunResult;
using keldtest::TempDir;
using keldtest::WriteFile;

namespace {

const double kC = 299792458.0;
const double kRest = 938.272029;  // MeV, proton as the deck gives it
const int kParticles = 2000;

// 3 MeV protons at 352.2 MHz without current: no self-field. The bunch is
// about 12 mm long and moves about 1.4 mm per step.
std::string BeamDeck(int particles, const std::string& extra = "") {
  std::string deck =
      "kindofparticle proton\n"
      "particlerestmass 938.272029\n"
      "numofcharge 1\n"
      "kneticenergy 3.0\n"
      "frequency 352.2e6\n"
      "current 0\n"
      "distribution GS GS\n"
      "twissx -0.5 0.3 0.2\n"
      "twissy 0.5 0.3 0.2\n"
      "twissz 0.0 3.2 0.1\n";
  deck += "particlenumber " + std::to_string(particles) + "\n";
  return deck + extra;
}

const char kInput[] = "spacecharge 0\nsteppercycle 50\nsetnumberofcores 2 1 2 1 1 2 1 1 1 1\n";

struct Deck {
  TempDir dir;
  std::string in, out;
  Deck(const std::string& input, const std::string& beam, const std::string& lattice)
      : in(dir.subdir("in")), out(dir.subdir("out")) {
    WriteFile(in + "/input.txt", input);
    WriteFile(in + "/beam.txt", beam);
    WriteFile(in + "/lattice.txt", lattice);
  }
  RunResult Run() const { return RunKeld(in, out); }
  std::string Out(const std::string& name) const { return out + "/" + name; }
};

struct DstFile {
  int count = -1;
  std::vector<std::vector<double>> rows;  // x cm, x' rad, y cm, y' rad, phase rad, W MeV
};

DstFile ReadDst(const std::string& path) {
  const std::string bytes = ReadFile(path);
  DstFile d;
  if (bytes.size() < 31) return d;
  const int count = At<int>(bytes, 2);
  if (count < 0 || bytes.size() != 31 + 48 * static_cast<std::size_t>(count)) return d;
  d.count = count;
  for (int i = 0; i < count; ++i) {
    std::vector<double> r(6);
    for (int k = 0; k < 6; ++k) r[k] = At<double>(bytes, 23 + 48 * i + 8 * k);
    d.rows.push_back(r);
  }
  return d;
}

// Field `index` of a DataSet.txt line, which may read "nan" or "-nan".
double Column(const std::string& line, std::size_t index) {
  std::istringstream s(line);
  std::string token;
  for (std::size_t i = 0; s >> token; ++i)
    if (i == index) return std::stod(token);
  return -1.0;
}

// A failed tracking stage: status 2, the message on the console and one
// stamped line in ErrorLog.txt.
void ExpectStageFailure(const Deck& deck, const RunResult& r, const std::string& message, int logLines = 1) {
  EXPECT_EQ(r.status, 2) << r.output;
  EXPECT_NE(r.output.find(message + "\n"), std::string::npos) << r.output;
  const std::vector<std::string> log = ReadLines(deck.Out("ErrorLog.txt"));
  ASSERT_EQ(static_cast<int>(log.size()), logLines);
  const std::string& line = log.back();
  const std::string prefix = "   simulation stage error: ";
  ASSERT_TRUE(std::regex_search(line, std::regex(R"(^\d{4}/\d\d/\d\d \d\d:\d\d:\d\d  )"))) << line;
  EXPECT_EQ(line.substr(21), prefix + message) << line;
}

}  // namespace

// Drift, steerer, drift. The drifts keep the energy and the emittances; all
// particles reach every plane; the steerer turns every particle by the same
// change of gamma beta x, -By L (q/m) / c, with L the length of the drift
// behind it, and leaves y' alone.
TEST(RunEndToEnd, DriftSteererDriftKeepsBeamAndKicksEveryParticle) {
  const double by = 0.0005, length = 0.3;
  Deck deck(kInput, BeamDeck(kParticles),
            "start\n"
            "drift 0.3 0.02 0\n"
            "outputplane -0.1\n"
            "outputplane 0.0\n"
            "steerer 0.0 0.02 0 0.0 0.0005 0 0\n"
            "drift 0.3 0.02 0\n"
            "end\n");
  const RunResult r = deck.Run();
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("The total distance simulated is 0.6 (m)\n"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("Simulation completed, completion time "), std::string::npos);
  EXPECT_FALSE(FileExists(deck.Out("ErrorLog.txt")));

  const std::vector<std::string> lines = ReadLines(deck.Out("DataSet.txt"));
  ASSERT_GT(lines.size(), 100u);
  const std::vector<double> first = Numbers(lines.front()), last = Numbers(lines.back());
  ASSERT_EQ(first.size(), 40u);
  ASSERT_EQ(last.size(), 40u);
  for (const std::string& line : lines) {
    const std::vector<double> v = Numbers(line);
    ASSERT_EQ(v.size(), 40u) << line;
    ASSERT_EQ(v[28], kParticles) << line;
  }
  EXPECT_NEAR(first[0], 3.0, 0.01);
  // The kick changes the mean energy by a part in 1e7 only.
  EXPECT_NEAR(last[0], first[0], 1e-5 * first[0]);
  // At one common time the drift keeps the emittance up to a second-order
  // effect of the energy spread, a few 1e-5 of it for this bunch.
  for (int col = 13; col < 16; ++col) {
    EXPECT_GT(first[col], 0.0);
    EXPECT_NEAR(last[col], first[col], 1e-3 * first[col]) << "emittance column " << col + 1;
  }
  // The beam diverges in the drift: the rms size changes, the emittance not.
  EXPECT_GT(last[16], 1.5 * first[16]);

  // Every particle reaches every plane: the two in the first drift, and the
  // lattice end.
  const DstFile planeA = ReadDst(deck.Out("outData_0.200000.dst"));
  const DstFile before = ReadDst(deck.Out("outData_0.300000.dst"));
  const DstFile after = ReadDst(deck.Out("outData_0.600000.dst"));
  EXPECT_EQ(planeA.count, kParticles);
  ASSERT_EQ(before.count, kParticles);
  ASSERT_EQ(after.count, kParticles);

  const double chargeMassRatio = 1.0 / (kRest / 938.27187) * 1.60217653e-19 / 1.67262171e-27;
  const double kick = by * length * chargeMassRatio / kC;  // subtracted from gamma beta x
  double meanBefore = 0.0, meanAfter = 0.0, meanExpected = 0.0;
  int moved = 0;
  for (int i = 0; i < kParticles; ++i) {
    const std::vector<double>& p = before.rows[i];
    const std::vector<double>& q = after.rows[i];
    const double G = p[5] / kRest + 1.0;
    const double gbz = std::sqrt((G * G - 1.0) / (1.0 + p[1] * p[1] + p[3] * p[3]));
    const double gbx = p[1] * gbz, gby = p[3] * gbz;
    // The same particle in both files: gamma beta z is not touched.
    ASSERT_NEAR(q[1] * gbz, gbx - kick, 1e-9 * kick) << "particle " << i;
    ASSERT_EQ(q[3], p[3]) << "particle " << i;
    const double Gafter = std::sqrt(1.0 + (gbx - kick) * (gbx - kick) + gby * gby + gbz * gbz);
    ASSERT_NEAR(q[5], (Gafter - 1.0) * kRest, 1e-10 * q[5]) << "particle " << i;
    if (q[1] != p[1]) ++moved;
    meanBefore += p[1] / kParticles;
    meanAfter += q[1] / kParticles;
    meanExpected -= kick / gbz / kParticles;
  }
  EXPECT_EQ(moved, kParticles);
  EXPECT_NEAR(meanAfter - meanBefore, meanExpected, 1e-9 * kick / 0.08);
  // The mean gamma beta x in DataSet.txt moves by the kick.
  EXPECT_NEAR(last[2] - first[2], -kick, 1e-4 * kick);

  // One timing line: " Exter:" with the first four cores, " Inter:" with
  // cores 4, 5, 6, 7, 5, 8, 9. The deck asks for 2 threads where the cores
  // are 2; a one-core machine lowers them to 1.
  const std::vector<std::string> timing = ReadLines(deck.Out("SimulationTime.txt"));
  ASSERT_EQ(timing.size(), 1u);
  const std::string n = R"([0-9.e+-]+)";
  EXPECT_TRUE(std::regex_match(timing[0], std::regex("^" + n + " Exter:([12]): " + n +
                                                     " 1: 0 \\1: 0 1: 0 Inter:1: 0 \\1: 0 1: 0 1: 0 \\1: 0 "
                                                     "1: 0 1: 0$")))
      << timing[0];
}

// The first section must be a time-code section; the run stops before any
// step, with DataSet.txt already emptied. ErrorLog.txt gathers the failures
// of all runs in its folder.
TEST(RunEndToEnd, FirstHardEdgeElementIsRefused) {
  Deck deck(kInput, BeamDeck(200),
            "start\n"
            "quad 0.1 0.02 0 10 0 0\n"
            "drift 0.1 0.02 0\n"
            "end\n");
  const std::string message =
      "Do not allow the first element to be a hard-edged model element; very short drift can be added at the "
      "beginning";
  ExpectStageFailure(deck, deck.Run(), message);
  EXPECT_TRUE(FileExists(deck.Out("DataSet.txt")));
  EXPECT_EQ(ReadFile(deck.Out("DataSet.txt")), "");
  ExpectStageFailure(deck, deck.Run(), message, 2);
}

// A single particle put 50 mm downstream stands beyond the end of a 30 mm
// drift, the first stop.
TEST(RunEndToEnd, StopBehindHeadOfBunchIsRefused) {
  Deck deck(kInput, BeamDeck(1, "displacepos 0 0 50\n"),
            "start\n"
            "drift 0.03 0.02 0\n"
            "end\n");
  ExpectStageFailure(deck, deck.Run(),
                     "Tcode won't start, there are particles located behind the output plane. "
                     "headParticleCoordinates: 0.050000 line: 0.030000");
}

// An aperture of radius 0 takes every particle that enters the drift.
TEST(RunEndToEnd, AllParticlesLostEndsRun) {
  Deck deck(kInput, BeamDeck(200),
            "start\n"
            "drift 0.05 0.0 0\n"
            "end\n");
  ExpectStageFailure(deck, deck.Run(), "End of simulation, all particles lost");
  // The alive count of each line is that of the state before the step. A
  // line of a single particle has no emittance, and its Twiss values are
  // not numbers.
  const std::vector<std::string> lines = ReadLines(deck.Out("DataSet.txt"));
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(Column(lines.front(), 28), 200.0);
  EXPECT_LT(Column(lines.back(), 28), 200.0);
  EXPECT_GT(Column(lines.back(), 28), 0.0);
}

// Two stops 1 mm apart cannot both be served by a bunch about 12 mm long.
TEST(RunEndToEnd, PlanesCloserThanBunchLengthAreRefused) {
  Deck deck(kInput, BeamDeck(200),
            "start\n"
            "drift 0.05 0.02 0\n"
            "outputplane -0.001\n"
            "end\n");
  ExpectStageFailure(deck, deck.Run(),
                     "The output plane interval is less than the bunch length. Increase the output plane interval "
                     "and restart the program");
  EXPECT_FALSE(FileExists(deck.Out("outData_0.049000.dst")));
}
