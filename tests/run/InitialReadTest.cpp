#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include "run/Initial.h"
#include "run/Keld.h"
#include "../support/TestSupport.h"
#include "tracking/MethodMP.h"

using keldtest::TempDir;

namespace {

// Reads decks from a temporary folder through the two global folder strings,
// and puts the strings back afterwards for the tests that follow.
class InitialRead : public ::testing::Test {
 protected:
  void SetUp() override {
    savedInput_ = inputFilePath;
    savedOutput_ = outputFilePath;
    inputFilePath = dir_.path() + "/";
    outputFilePath = dir_.path() + "/";
  }
  void TearDown() override {
    inputFilePath = savedInput_;
    outputFilePath = savedOutput_;
  }

  // Writes input.txt, reads it into `init` and returns the console text.
  std::string ReadDeck(const std::string& deck, Initial& init) {
    keldtest::WriteFile(dir_.file("input.txt"), deck);
    testing::internal::CaptureStdout();
    const int result = init.Read();
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 0);
    return console;
  }

  TempDir dir_;

 private:
  std::string savedInput_;
  std::string savedOutput_;
};

struct Failure {
  keldtest::RunResult run;
  std::vector<std::string> log;  // lines of ErrorLog.txt
  bool logExists = false;
};

// Runs keld on an input.txt alone: a deck failure ends the run before any
// other deck is looked at.
Failure RunOnDeck(const std::string& deck) {
  TempDir dir;
  const std::string in = dir.subdir("in");
  const std::string out = dir.subdir("out");
  keldtest::WriteFile(in + "/input.txt", deck);
  Failure f;
  f.run = keldtest::RunKeld(in, out);
  f.logExists = keldtest::FileExists(out + "/ErrorLog.txt");
  f.log = keldtest::ReadLines(out + "/ErrorLog.txt");
  return f;
}

// One failed read: status 1, the message as its own console line, no closing
// message, and exactly one log line "YYYY/MM/DD HH:MM:SS" + "  " + "   " +
// "Initialisation stage error: " + message, stamped with the local time.
void ExpectDeckFailure(const Failure& f, const std::string& message) {
  EXPECT_EQ(f.run.status, 1) << f.run.output;
  EXPECT_NE(f.run.output.find("\n" + message + "\n"), std::string::npos) << f.run.output;
  EXPECT_EQ(f.run.output.find("Parameters and functions are set"), std::string::npos) << f.run.output;
  ASSERT_EQ(f.log.size(), 1u);
  const std::string& line = f.log[0];
  ASSERT_GE(line.size(), 19u);
  EXPECT_TRUE(std::regex_match(line.substr(0, 19), std::regex(R"(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2})"))) << line;
  EXPECT_EQ(line.substr(19), "     Initialisation stage error: " + message);
  std::tm stamp{};
  ASSERT_NE(strptime(line.c_str(), "%Y/%m/%d %H:%M:%S", &stamp), nullptr) << line;
  stamp.tm_isdst = -1;
  const double age = std::difftime(std::time(nullptr), std::mktime(&stamp));
  EXPECT_GE(age, -2.0) << line;
  EXPECT_LT(age, 120.0) << line;
}

const char* const kUnknown = "input.txt Contains unknown keywords, check input.txt";
const char* const kDimension = "input.txt Contains unknown keywords: Dimension";
const char* const kScMethod = "SCMethod Contains unknown item, available options include FFT / SPICNIC";
const char* const kShortCores = "keyword: setnumberofcores, Insufficient parameters, need 10 parameters";

}  // namespace

// Comments and blank lines alone change nothing: every field keeps the value
// the record starts with, and the closing message is the whole console text.
TEST_F(InitialRead, CommentsAndBlankLinesLeaveEveryStartValue) {
  Initial init;
  const std::string console = ReadDeck(
      "! run settings\n"
      "\n"
      "   \t \n"
      "    ! indented comment\n"
      "dimension! a keyword glued to the mark goes with the comment\n"
      "\t!\n",
      init);
  EXPECT_EQ(console, "Parameters and functions are set\n  \n");

  EXPECT_EQ(init.secondaryBeam, 0);
  EXPECT_EQ(init.particleDistributionPath, "unknown");
  EXPECT_EQ(init.numOfCharge, -1.0);
  EXPECT_EQ(init.atomicMass, -1.0);
  EXPECT_EQ(init.distributionType, std::vector<std::string>({"GS", "GS"}));
  EXPECT_EQ(init.particleNumber, -1);
  EXPECT_EQ(init.twiss, std::vector<double>(9, -1.0));
  EXPECT_EQ(init.displacePos, std::vector<double>(3, 0.0));
  EXPECT_EQ(init.displacedPos, std::vector<double>(3, 0.0));
  EXPECT_EQ(init.cores, std::vector<int>({-1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(init.particleRestMass, 938.272029);
  EXPECT_EQ(init.current, -1.0);
  EXPECT_EQ(init.frequency, -1.0);
  EXPECT_EQ(init.kineticEnergy, -1.0);
  EXPECT_EQ(init.kindOfParticle, "proton");
  EXPECT_EQ(init.beamLength, std::vector<double>({0.0, 0.0}));
  EXPECT_EQ(init.method, "MP");
  EXPECT_EQ(init.spaceCharge, 1);
  EXPECT_EQ(init.scParameters, std::vector<double>({1.0, -1.0, -1.0, -1.0, -1.0, -1.0, -1.0, -1.0, 0.07, 1.0,
                                                    1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0}));
  EXPECT_EQ(init.transportCode, 1);
  EXPECT_EQ(init.scanTStep, 0.01);
  EXPECT_EQ(init.dimension, 3);
  EXPECT_EQ(init.boundary, 0);
  EXPECT_EQ(init.lpBoundary, 0);
  EXPECT_EQ(init.stepPerCycle, 100.0);
  EXPECT_EQ(init.dumpPeriodicity, 0);
  EXPECT_EQ(init.runPeriod, 100000);
  EXPECT_EQ(init.track, 0);
  EXPECT_TRUE(init.outputPlanes.empty());
  EXPECT_EQ(init.scanPhase, 1);
  EXPECT_EQ(init.scSolverRecord, 0);
  EXPECT_EQ(init.numOfGrid, std::vector<int>({-1, -1, -1}));
  EXPECT_EQ(init.multithreading, 1);
  EXPECT_EQ(init.maxThreads, -1);
  EXPECT_EQ(init.hardwareThreads, omp_get_max_threads());
  EXPECT_EQ(init.releaseDistance, 0.01);
}

// Every keyword with a value other than its default reaches its field.
TEST_F(InitialRead, EveryKeywordSetsItsField) {
  Initial init;
  const std::string console = ReadDeck(
      "method Envelope\n"
      "secondarybeam 2\n"
      "boundary 1\n"
      "scmethod FFT\n"
      "negligibleratio 0.125\n"
      "lpboundary 1\n"
      "meshrms 4.5 5.5 6.5\n"
      "integralgrid 7 8 9.5\n"
      "scutoffdistance 5\n"
      "scantstep 0.02\n"
      "dumpperiodicity 3\n"
      "spacecharge 0\n"
      "scsolverrecord 1\n"
      "numofgrid 16 24 32\n"
      "steppercycle 200 0.05\n"
      "runperiod 500\n"
      "track 1\n"
      "scanphase 2\n"
      "multithreading 0\n"
      "setnumberofcores 1 1 1 1 1 1 1 1 1 1\n"
      "maxthreads 4\n",
      init);
  EXPECT_EQ(console,
            "Simulation ignores space charge effects\n"
            "Parameters and functions are set\n  \n");

  EXPECT_EQ(init.method, "Envelope");
  EXPECT_EQ(init.secondaryBeam, 2);
  EXPECT_EQ(init.boundary, 1);
  EXPECT_EQ(init.scParameters[0], 0.0);
  EXPECT_EQ(init.scParameters[8], 0.125);
  EXPECT_EQ(init.lpBoundary, 1);
  EXPECT_EQ(init.scParameters[1], 4.5);
  EXPECT_EQ(init.scParameters[2], 5.5);
  EXPECT_EQ(init.scParameters[3], 6.5);
  EXPECT_EQ(init.scParameters[4], 7.0);
  EXPECT_EQ(init.scParameters[5], 8.0);
  EXPECT_EQ(init.scParameters[6], 9.5);
  EXPECT_EQ(init.scParameters[7], 5.0);
  EXPECT_EQ(init.scanTStep, 0.02);
  EXPECT_EQ(init.dumpPeriodicity, 3);
  EXPECT_EQ(init.spaceCharge, 0);
  EXPECT_EQ(init.scSolverRecord, 1);
  EXPECT_EQ(init.numOfGrid, std::vector<int>({16, 24, 32}));
  EXPECT_EQ(init.stepPerCycle, 200.0);
  EXPECT_EQ(init.releaseDistance, 0.05);
  EXPECT_EQ(init.runPeriod, 500);
  EXPECT_EQ(init.track, 1);
  EXPECT_EQ(init.scanPhase, 2);
  EXPECT_EQ(init.multithreading, 0);
  EXPECT_EQ(init.cores, std::vector<int>(10, 1));
  for (int k = 10; k < 20; ++k) EXPECT_EQ(init.scParameters[k], 1.0) << "slot " << k;
  EXPECT_EQ(init.maxThreads, 4);
  // Slot 9 belongs to InitParticle, not to the deck reader.
  EXPECT_EQ(init.scParameters[9], 1.0);
  // Settings of beam.txt are untouched by input.txt.
  EXPECT_EQ(init.particleNumber, -1);
  EXPECT_EQ(init.frequency, -1.0);
}

// The keyword is folded to lower case; its arguments are kept as written.
TEST_F(InitialRead, KeywordInCapitalsWorksArgumentsKeepTheirCase) {
  Initial init;
  ReadDeck("SCMETHOD FFT\nMETHOD Envelope\nSteppErCycle 20\nSPACECHARGE 0\nMeshRMS 3 4 5\n", init);
  EXPECT_EQ(init.scParameters[0], 0.0);
  EXPECT_EQ(init.method, "Envelope");
  EXPECT_EQ(init.stepPerCycle, 20.0);
  EXPECT_EQ(init.spaceCharge, 0);
  EXPECT_EQ(init.scParameters[1], 3.0);
  EXPECT_EQ(init.scParameters[3], 5.0);
}

// A later line wins; steppercycle without its second value keeps the release
// distance of an earlier line; "SPICNIC" switches back to slot value 1.0.
TEST_F(InitialRead, LaterLinesWinAndOptionalValuesStay) {
  Initial init;
  ReadDeck(
      "steppercycle 200 0.05\n"
      "scmethod FFT\n"
      "runperiod 10\n"
      "steppercycle 50\n"
      "scmethod SPICNIC\n"
      "runperiod 20\n",
      init);
  EXPECT_EQ(init.stepPerCycle, 50.0);
  EXPECT_EQ(init.releaseDistance, 0.05);
  EXPECT_EQ(init.scParameters[0], 1.0);
  EXPECT_EQ(init.runPeriod, 20);

  Initial single;
  ReadDeck("steppercycle 64\n", single);
  EXPECT_EQ(single.stepPerCycle, 64.0);
  EXPECT_EQ(single.releaseDistance, 0.01);
}

// Numbers take their longest numeric prefix: integer keywords read "2.5" as
// 2, dumpperiodicity truncates a real towards zero.
TEST_F(InitialRead, NumbersTakeTheirNumericPrefix) {
  Initial init;
  ReadDeck(
      "dumpperiodicity 2.7\n"
      "runperiod 2.5\n"
      "track 1.9\n"
      "scutoffdistance 5.9\n"
      "numofgrid 16.8 24.2 32.5\n"
      "scantstep 0.5abc\n"
      "secondarybeam 2.5\n",
      init);
  EXPECT_EQ(init.dumpPeriodicity, 2);
  EXPECT_EQ(init.runPeriod, 2);
  EXPECT_EQ(init.track, 1);
  EXPECT_EQ(init.scParameters[7], 5.0);
  EXPECT_EQ(init.numOfGrid, std::vector<int>({16, 24, 32}));
  EXPECT_EQ(init.scanTStep, 0.5);
  EXPECT_EQ(init.secondaryBeam, 2);

  Initial negative;
  ReadDeck("dumpperiodicity -2.7\n", negative);
  EXPECT_EQ(negative.dumpPeriodicity, -2);
}

// meshrms, integralgrid and numofgrid fill as many places as the line gives;
// the bare keyword changes nothing.
TEST_F(InitialRead, ListKeywordsFillOnlyTheGivenPlaces) {
  Initial init;
  ReadDeck("meshrms 4\nintegralgrid\nnumofgrid 20 22\n", init);
  EXPECT_EQ(init.scParameters[1], 4.0);
  EXPECT_EQ(init.scParameters[2], -1.0);
  EXPECT_EQ(init.scParameters[3], -1.0);
  for (int k = 4; k < 7; ++k) EXPECT_EQ(init.scParameters[k], -1.0) << "slot " << k;
  EXPECT_EQ(init.numOfGrid, std::vector<int>({20, 22, -1}));
}

// A comment mark needs a blank in front of it; then the argument stands.
TEST_F(InitialRead, CommentBehindABlankKeepsTheArgument) {
  Initial init;
  ReadDeck("scmethod FFT ! spectral solver\nrunperiod 300\t! steps\n", init);
  EXPECT_EQ(init.scParameters[0], 0.0);
  EXPECT_EQ(init.runPeriod, 300);
}

// With CR LF endings the carriage return rides on the last token: numbers do
// not mind it, a word argument keeps it.
TEST_F(InitialRead, CarriageReturnsLeaveNumericArgumentsAlone) {
  Initial init;
  ReadDeck("runperiod 300\r\nsteppercycle 50 0.2\r\nnumofgrid 8 10 12\r\nmethod MP\r\n", init);
  EXPECT_EQ(init.runPeriod, 300);
  EXPECT_EQ(init.stepPerCycle, 50.0);
  EXPECT_EQ(init.releaseDistance, 0.2);
  EXPECT_EQ(init.numOfGrid, std::vector<int>({8, 10, 12}));
  EXPECT_EQ(init.method, "MP\r");
}

// secondarybeam 1 switches space charge off after the whole deck is read,
// whatever the order of the lines; any other non-zero value keeps it.
TEST_F(InitialRead, SecondaryBeamOneForcesSpaceChargeOff) {
  Initial first;
  ReadDeck("secondarybeam 1\nspacecharge 1\n", first);
  EXPECT_EQ(first.secondaryBeam, 1);
  EXPECT_EQ(first.spaceCharge, 0);

  Initial reversed;
  ReadDeck("spacecharge 1\nsecondarybeam 1\n", reversed);
  EXPECT_EQ(reversed.spaceCharge, 0);

  Initial two;
  ReadDeck("secondarybeam 2\nspacecharge 1\n", two);
  EXPECT_EQ(two.secondaryBeam, 2);
  EXPECT_EQ(two.spaceCharge, 1);
}

// Entries above the thread count of the moment are lowered to it; the count
// is asked when the line is read, not taken from construction.
TEST_F(InitialRead, SetNumberOfCoresIsCappedByTheThreadsOfTheMoment) {
  const int saved = omp_get_max_threads();
  const int cap = saved + 1;  // differs from the count at construction
  const std::vector<int> given = {-1, 1, cap - 1, cap, cap + 1, 64 * cap, 1000, cap, 0, 2};
  std::string deck = "setnumberofcores";
  for (int v : given) deck += " " + std::to_string(v);
  Initial init;
  omp_set_num_threads(cap);
  ReadDeck(deck + "\n", init);
  omp_set_num_threads(saved);

  for (int k = 0; k < 10; ++k) {
    const int expected = std::min(given[k], cap);
    EXPECT_EQ(init.cores[k], expected) << "entry " << k;
    EXPECT_EQ(init.scParameters[10 + k], static_cast<double>(expected)) << "entry " << k;
  }
  EXPECT_EQ(init.hardwareThreads, saved);

  Initial all;
  ReadDeck("setnumberofcores 64 64 64 64 64 64 64 64 64 64\n", all);
  EXPECT_EQ(all.cores, std::vector<int>(10, std::min(64, saved)));
}

// The deck's path is the folder string and "input.txt" joined as they stand.
TEST_F(InitialRead, DeckPathIsPlainConcatenation) {
  keldtest::WriteFile(dir_.file("case7_input.txt"), "runperiod 77\n");
  inputFilePath = dir_.path() + "/case7_";
  Initial init;
  testing::internal::CaptureStdout();
  init.Read();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(init.runPeriod, 77);
}

TEST_F(InitialRead, SettingsReachMethodMP) {
  Initial init;
  ReadDeck(
      "steppercycle 137\n"
      "spacecharge 0\n"
      "track 1\n"
      "setnumberofcores 1 1 1 1 1 1 1 1 1 1\n"
      "scmethod FFT\n"
      "meshrms 4 5 6\n"
      "numofgrid 16 24 32\n"
      "multithreading 0\n"
      "dumpperiodicity 7\n"
      "boundary 1\n"
      "lpboundary 1\n",
      init);
  init.frequency = 352.21e6;
  init.outputPlanes = {0.25, 1.5};

  MethodMP engine;
  // Start values: sizes right before the hand-over, everything else zero.
  EXPECT_EQ(engine.cores, std::vector<int>(10, 0));
  EXPECT_EQ(engine.scParameters, std::vector<double>(20, 0.0));
  EXPECT_EQ(engine.stepCounter, 0);
  EXPECT_EQ(engine.timeStep, 0.0);
  EXPECT_EQ(engine.progressInterval, 3.0);

  EXPECT_EQ(init.InitMethodMP(engine), 0);
  EXPECT_DOUBLE_EQ(engine.timeStep, 1.0 / 352.21e6 / 137.0);
  EXPECT_NEAR(engine.timeStep, 2.0724e-11, 1e-14);
  EXPECT_EQ(engine.spaceCharge, 0);
  EXPECT_EQ(engine.track, 1);
  EXPECT_EQ(engine.cores, init.cores);
  EXPECT_EQ(engine.scParameters, init.scParameters);
  EXPECT_EQ(engine.scParameters[0], 0.0);
  EXPECT_EQ(engine.outputPlanes, std::vector<double>({0.25, 1.5}));
  EXPECT_EQ(engine.numOfGrid, std::vector<int>({16, 24, 32}));
  EXPECT_EQ(engine.multithreading, 0);
  EXPECT_EQ(engine.dumpPeriodicity, 7);
  EXPECT_EQ(engine.boundary, 1);
  EXPECT_EQ(engine.lpBoundary, 1);
}

// ---- Failures, through the keld program on a deck in a temporary folder ----

TEST(InitialReadFailure, UnknownKeyword) {
  ExpectDeckFailure(RunOnDeck("runperiod 10\nfoo 1\n"), kUnknown);
  // A keyword standing alone with a carriage return is a different word.
  ExpectDeckFailure(RunOnDeck("meshrms\r\n"), kUnknown);
  // So is the carriage return of an empty CR LF line.
  ExpectDeckFailure(RunOnDeck("runperiod 10\r\n\r\n"), kUnknown);
}

TEST(InitialReadFailure, DimensionIsAlwaysRefused) {
  ExpectDeckFailure(RunOnDeck("dimension 3\n"), kDimension);
  ExpectDeckFailure(RunOnDeck("DIMENSION\n"), kDimension);
  ExpectDeckFailure(RunOnDeck("Dimension 2 ! two-dimensional\n"), kDimension);
}

TEST(InitialReadFailure, ScMethodArgumentIsComparedAsWritten) {
  ExpectDeckFailure(RunOnDeck("scmethod fft\n"), kScMethod);
  ExpectDeckFailure(RunOnDeck("scmethod Spicnic\n"), kScMethod);
  // The mark glued to the argument drops it: the keyword stands alone.
  ExpectDeckFailure(RunOnDeck("scmethod FFT! spectral\n"), kScMethod);
  // CR LF: the argument carries the carriage return.
  ExpectDeckFailure(RunOnDeck("scmethod FFT\r\n"), kScMethod);
}

// Nine numbers fail with the count message; the count is checked before any
// entry is converted, so a bad entry in a short line does not get that far.
TEST(InitialReadFailure, ShortSetNumberOfCoresLine) {
  ExpectDeckFailure(RunOnDeck("setnumberofcores 1 2 3 4 5 6 7 8 9\n"), kShortCores);
  ExpectDeckFailure(RunOnDeck("setnumberofcores x 1 1 1 1 1 1 1 1\n"), kShortCores);
  ExpectDeckFailure(RunOnDeck("setnumberofcores\n"), kShortCores);
}

TEST(InitialReadFailure, MissingDeck) {
  TempDir dir;
  const std::string in = dir.subdir("in");
  const std::string out = dir.subdir("out");
  Failure f;
  f.run = keldtest::RunKeld(in, out);
  f.log = keldtest::ReadLines(out + "/ErrorLog.txt");
  ExpectDeckFailure(f, "File \"input.txt\" cannot be opened, Check the inputFile routing and input.txt.");
}

// A number without a numeric prefix is not a deck failure of errorOut: the
// conversion failure ends the process abnormally and leaves no log line.
TEST(InitialReadFailure, BadNumberEndsAbnormallyWithoutLog) {
  const Failure f = RunOnDeck("runperiod many\n");
  EXPECT_NE(f.run.status, 0) << f.run.output;
  EXPECT_NE(f.run.status, 1) << f.run.output;
  EXPECT_FALSE(f.logExists);
}
