#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <regex>

#include "run/Initial.h"
#include "run/Keld.h"
#include "../support/TestSupport.h"

namespace {
using Doubles = std::vector<double>;
// Reads `deck` as input.txt of a temporary folder into `init`; returns the console text.
std::string ReadDeck(const std::string& deck, Initial& init) {
  keldtest::TempDir dir;
  const std::string saved = inputFilePath;
  inputFilePath = dir.path() + "/";
  keldtest::WriteFile(dir.file("input.txt"), deck);
  testing::internal::CaptureStdout();
  EXPECT_EQ(init.Read(), 0);
  inputFilePath = saved;
  return testing::internal::GetCapturedStdout();
}

// The plain settings of the run in one vector, for compact comparison.
Doubles Settings(const Initial& i) {
  return {double(i.secondaryBeam), double(i.spaceCharge), double(i.transportCode), double(i.dimension),
          double(i.boundary), double(i.lpBoundary), i.stepPerCycle, i.releaseDistance, double(i.dumpPeriodicity),
          double(i.runPeriod), double(i.track), double(i.scanPhase), double(i.scSolverRecord), double(i.multithreading),
          double(i.maxThreads), i.scanTStep, double(i.numOfGrid[0]), double(i.numOfGrid[1]), double(i.numOfGrid[2])};
}
}  // namespace

TEST(InitialRead, CommentsAndBlankLinesLeaveEveryStartValue) {
  Initial init;
  EXPECT_EQ(ReadDeck("! settings\n\n   \t \n    ! indented\ndimension! glued to the mark\n", init),
            "Parameters and functions are set\n  \n");
  EXPECT_EQ(Settings(init), Doubles({0, 1, 1, 3, 0, 0, 100, 0.01, 0, 100000, 0, 1, 0, 1, -1, 0.01, -1, -1, -1}));
  EXPECT_EQ(init.scParameters, Doubles({1, -1, -1, -1, -1, -1, -1, -1, 0.07, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(init.cores, std::vector<int>({-1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
}

// Keywords fold to lower case, arguments keep theirs (a Windows line end goes); a later line wins; numbers take
// their numeric prefix; lists fill only the places given; a comment behind a blank keeps the argument.
TEST(InitialRead, KeywordsSetTheirFields) {
  Initial init;
  EXPECT_EQ(ReadDeck("METHOD Envelope\r\nsecondarybeam 2.5\nboundary 1\nscmethod SPICNIC\nSCMethod FFT ! spectral\n"
                     "negligibleratio 0.125\nlpboundary 1\nmeshrms 4.5 5.5\nintegralgrid 7 8 9.5\nscutoffdistance 5.9\n"
                     "scantstep 0.5abc\ndumpperiodicity 2.7\nspacecharge 0\nscsolverrecord 1\nnumofgrid 16.8 24\n"
                     "steppercycle 200 0.05\nSteppErCycle 50\nrunperiod 10\nrunperiod 500\r\ntrack 1\nscanphase 2\n"
                     "multithreading 0\nmaxthreads 4\n", init),
            "Simulation ignores space charge effects\nParameters and functions are set\n  \n");
  EXPECT_EQ(Settings(init), Doubles({2, 0, 1, 3, 1, 1, 50, 0.05, 2, 500, 1, 2, 1, 0, 4, 0.5, 16, 24, -1}));
  EXPECT_EQ(init.scParameters, Doubles({0, 4.5, 5.5, -1, 7, 8, 9.5, 5, 0.125, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(init.method, "Envelope");
}

TEST(InitialRead, SecondaryBeamOneForcesSpaceChargeOffAfterTheWholeDeck) {
  Initial first, reversed, two;
  ReadDeck("secondarybeam 1\nspacecharge 1\n", first);
  ReadDeck("spacecharge 1\nsecondarybeam 1\n", reversed);
  ReadDeck("secondarybeam 2\nspacecharge 1\n", two);
  EXPECT_EQ(std::vector<int>({first.spaceCharge, reversed.spaceCharge, two.spaceCharge}), std::vector<int>({0, 0, 1}));
}

// Entries are capped by the thread count asked when the line is read.
TEST(InitialRead, SetNumberOfCoresIsCappedByTheThreadsOfTheMoment) {
  const int saved = omp_get_max_threads(), cap = saved + 1;  // differs from the count at construction
  const std::vector<int> given = {-1, 1, cap - 1, cap, cap + 1, 64 * cap, 1000, cap, 3, 2};
  std::string deck = "setnumberofcores";
  for (int v : given) deck += " " + std::to_string(v);
  Initial init;
  omp_set_num_threads(cap);
  ReadDeck(deck + "\n", init);
  omp_set_num_threads(saved);
  for (int k = 0; k < 10; ++k)
    EXPECT_TRUE(init.cores[k] == std::min(given[k], cap) && init.scParameters[10 + k] == init.cores[k]) << k;
}

// Status 1, the message on the console, one more stamped log line per run (a missing lattice.txt too).
TEST(InitialReadFailure, StatusOneMessageAndOneStampedLogLine) {
  const std::string unknown = "input.txt Contains unknown keywords, check input.txt: line ";
  const std::pair<const char*, std::string> cases[] = {
      {"runperiod 10\nfoo 1\n", unknown + "2 holds 'foo'"}, {"meshrms\r\nMeshRMS2 1\r\n", unknown + "2 holds 'MeshRMS2'"},
      {"Dimension 2 ! two-dimensional\n", "input.txt Contains unknown keywords: Dimension"},
      {"scmethod fft\n", "SCMethod Contains unknown item, available options include FFT / SPICNIC"},
      {"setnumberofcores 1 2 3 4 5 6 7 8 9\n",
       "keyword: setnumberofcores, Insufficient parameters, need 10 parameters"},
      {"", "File \"lattice.txt\" cannot be opened, Check the inputFile routing and lattice.txt."},
      {nullptr, "File \"input.txt\" cannot be opened, Check the inputFile routing and input.txt."},
      {"runperiod many\n", "input.txt line 1: \"many\" is not a whole number in \"runperiod many\""}};
  keldtest::TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");  // out never holds an input.txt
  std::size_t logged = 0;
  for (const auto& c : cases) {
    if (c.first) keldtest::WriteFile(in + "/input.txt", c.first);
    const keldtest::RunResult r = keldtest::RunKeld(c.first ? in : out, out);
    const std::vector<std::string> log = keldtest::ReadLines(out + "/ErrorLog.txt");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("\n" + c.second + "\n"), std::string::npos) << r.output;
    ASSERT_EQ(log.size(), ++logged) << r.output;
    static const std::regex stamped(R"(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}     Initialisation stage error: .*)");
    EXPECT_TRUE(std::regex_match(log.back(), stamped) && log.back().substr(52) == c.second) << log.back();
  }
}
