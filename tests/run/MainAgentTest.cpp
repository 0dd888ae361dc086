#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "run/Initial.h"
#include "run/Keld.h"
#include "../support/TestSupport.h"

using keldtest::TempDir;

namespace {

// A tiny whole run: 1000 particles through a 10 cm drift. The current of 0
// keeps the self-field off whatever input.txt says.
const char* const kBeamDeck =
    "kneticenergy 3.0\n"
    "frequency 352.2e6\n"
    "current 0\n"
    "numofcharge 1\n"
    "particlenumber 1000\n"
    "twissx 0 0.2 0.2\n"
    "twissy 0 0.2 0.2\n"
    "twissz 0 0.5 0.3\n";
const char* const kLatticeDeck =
    "start\n"
    "drift 0.1 0.02 0\n"
    "end\n";

// Input and output folders holding a complete set of decks.
struct Case {
  TempDir dir;
  std::string in;
  std::string out;
  explicit Case(const std::string& inputDeck) : in(dir.subdir("in")), out(dir.subdir("out")) {
    keldtest::WriteFile(in + "/input.txt", inputDeck);
    keldtest::WriteFile(in + "/beam.txt", kBeamDeck);
    keldtest::WriteFile(in + "/lattice.txt", kLatticeDeck);
  }
};

keldtest::RunResult RunCommand(const std::string& arguments) {
  keldtest::RunResult r;
  FILE* pipe = popen((std::string(KELD_BINARY) + " " + arguments + " 2>&1").c_str(), "r");
  if (!pipe) return r;
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) r.output.append(buffer, n);
  const int status = pclose(pipe);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::size_t Count(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++count;
  return count;
}

// The seconds printed behind `label`, or -1 when the line is missing or
// malformed ("<label><number> s").
double PrintedSeconds(const std::string& console, const std::string& label) {
  const std::size_t at = console.find(label);
  if (at == std::string::npos) return -1.0;
  const std::size_t end = console.find('\n', at);
  const std::string rest = console.substr(at + label.size(), end - at - label.size());
  std::smatch m;
  if (!std::regex_match(rest, m, std::regex(R"(([0-9.eE+-]+) s)"))) return -1.0;
  return std::stod(m[1].str());
}

// "YYYY/MM/DD HH:MM:SS" + "  " + "   Initialisation stage error: " + message
void ExpectStampedLine(const std::string& line, const std::string& message) {
  static const std::regex stamp(R"(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2})");
  ASSERT_GE(line.size(), 19u) << line;
  EXPECT_TRUE(std::regex_match(line.substr(0, 19), stamp)) << line;
  EXPECT_EQ(line.substr(19), "     Initialisation stage error: " + message);
}

}  // namespace

TEST(MainAgent, HelpPrintsUsageAndExitsZero) {
  const keldtest::RunResult r = RunCommand("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.output.rfind("Usage: keld", 0), 0u) << r.output;
  EXPECT_EQ(r.output.find("The programme is running."), std::string::npos);
}

TEST(MainAgent, WrongArgumentCountFailsWithoutRunning) {
  for (const char* arguments : {"only_one_folder", "in out extra"}) {
    const keldtest::RunResult r = RunCommand(arguments);
    EXPECT_NE(r.status, 0) << arguments;
    EXPECT_NE(r.output.find("Usage: keld"), std::string::npos) << arguments;
    EXPECT_EQ(r.output.find("The programme is running."), std::string::npos) << arguments;
  }
}

// A deck of comments and blank lines is a valid run deck: one plain run,
// writing straight into the output folder, with the two timing lines.
TEST(MainAgent, CommentOnlyDeckRunsOnePlainRun) {
  Case c("! run settings: all defaults\n\n   \n\t! nothing else\n");
  const keldtest::RunResult r = keldtest::RunKeld(c.in, c.out);
  ASSERT_EQ(r.status, 0) << r.output;
  const std::string& console = r.output;

  const std::size_t running = console.find("The programme is running.\n");
  const std::size_t set = console.find("Parameters and functions are set\n  \n");
  const std::size_t initialised = console.find("Initialization time: ");
  const std::size_t total = console.find("Simulated total time: ");
  ASSERT_NE(running, std::string::npos) << console;
  ASSERT_NE(set, std::string::npos) << console;
  ASSERT_NE(initialised, std::string::npos) << console;
  ASSERT_NE(total, std::string::npos) << console;
  EXPECT_LT(running, set);
  EXPECT_LT(set, initialised);
  EXPECT_LT(initialised, total);
  EXPECT_EQ(Count(console, "Initialization time: "), 1u);
  EXPECT_EQ(Count(console, "Simulated total time: "), 1u);

  const double initTime = PrintedSeconds(console, "Initialization time: ");
  const double totalTime = PrintedSeconds(console, "Simulated total time: ");
  EXPECT_GE(initTime, 0.0) << console;
  EXPECT_GE(totalTime, initTime) << console;
  EXPECT_LT(totalTime, 60.0);

  // No sample folders in a plain run, and no failure logged.
  EXPECT_TRUE(keldtest::FileExists(c.out + "/DataSet.txt"));
  struct stat info;
  EXPECT_NE(stat((c.out + "/output_0").c_str(), &info), 0);
  EXPECT_FALSE(keldtest::FileExists(c.out + "/ErrorLog.txt"));
}

// The entry points called in this process: both return 0, and a plain run
// leaves the output folder string as path set it.
TEST(MainAgent, EntryPointsReturnZero) {
  Case c("spacecharge 0\n");
  const std::string savedInput = inputFilePath;
  const std::string savedOutput = outputFilePath;

  testing::internal::CaptureStdout();
  const int pathResult = path(c.in.c_str(), c.out.c_str());
  const std::string folderAfterPath = outputFilePath;
  const int runResult = main_agent();
  const std::string console = testing::internal::GetCapturedStdout();
  const std::string folderAfterRun = outputFilePath;
  inputFilePath = savedInput;
  outputFilePath = savedOutput;

  EXPECT_EQ(pathResult, 0);
  EXPECT_EQ(runResult, 0);
  EXPECT_EQ(folderAfterPath, c.out + "/");
  EXPECT_EQ(folderAfterRun, folderAfterPath);
  EXPECT_NE(console.find("Simulation ignores space charge effects\n"), std::string::npos);
  EXPECT_EQ(Count(console, "Initialization time: "), 1u);
  EXPECT_EQ(Count(console, "Simulated total time: "), 1u);
  EXPECT_TRUE(keldtest::FileExists(c.out + "/DataSet.txt"));
}

// Each deck failure ends the whole run at once: status 1, its own message on
// the console, one stamped log line, and nothing tracked.
TEST(MainAgent, DeckFailuresEndWithStatusOneMessageAndOneLogLine) {
  struct Bad {
    const char* deck;
    const char* message;
  };
  const Bad cases[] = {
      {"spacecharge 0\nfoo 1\n", "input.txt Contains unknown keywords, check input.txt"},
      {"dimension 3\n", "input.txt Contains unknown keywords: Dimension"},
      {"scmethod fft\n", "SCMethod Contains unknown item, available options include FFT / SPICNIC"},
      {"setnumberofcores 1 1 1 1 1 1 1 1 1\n", "keyword: setnumberofcores, Insufficient parameters, need 10 parameters"},
  };
  for (const Bad& bad : cases) {
    SCOPED_TRACE(bad.deck);
    Case c(bad.deck);
    const keldtest::RunResult r = keldtest::RunKeld(c.in, c.out);
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_NE(r.output.find("The programme is running.\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("\n" + std::string(bad.message) + "\n"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("Parameters and functions are set"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("Simulated total time: "), std::string::npos) << r.output;
    EXPECT_FALSE(keldtest::FileExists(c.out + "/DataSet.txt"));
    const std::vector<std::string> log = keldtest::ReadLines(c.out + "/ErrorLog.txt");
    ASSERT_EQ(log.size(), 1u);
    ExpectStampedLine(log[0], bad.message);
    const std::string raw = keldtest::ReadFile(c.out + "/ErrorLog.txt");
    EXPECT_EQ(raw.back(), '\n');
  }
}

// The log is appended to: one line per failed run, oldest first.
TEST(MainAgent, ErrorLogGathersOneLinePerFailedRun) {
  Case c("dimension 3\n");
  EXPECT_EQ(keldtest::RunKeld(c.in, c.out).status, 1);
  keldtest::WriteFile(c.in + "/input.txt", "scmethod fft\n");
  EXPECT_EQ(keldtest::RunKeld(c.in, c.out).status, 1);
  const std::vector<std::string> log = keldtest::ReadLines(c.out + "/ErrorLog.txt");
  ASSERT_EQ(log.size(), 2u);
  ExpectStampedLine(log[0], "input.txt Contains unknown keywords: Dimension");
  ExpectStampedLine(log[1], "SCMethod Contains unknown item, available options include FFT / SPICNIC");
}

// Without an output folder the log line is lost, but the message still
// reaches the console and the process still ends with status 1.
TEST(MainAgent, FailureWithoutOutputFolderStillEndsWithStatusOne) {
  Case c("foo\n");
  const std::string missing = c.dir.file("no_such_folder");
  const keldtest::RunResult r = keldtest::RunKeld(c.in, missing);
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find("\ninput.txt Contains unknown keywords, check input.txt\n"), std::string::npos)
      << r.output;
  struct stat info;
  EXPECT_NE(stat(missing.c_str(), &info), 0) << "the library does not create the output folder";
}

TEST(MainAgentDeathTest, ErrorOutWithoutOutputFolderPrintsAndExitsOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string saved = outputFilePath;
  outputFilePath = "/nonexistent_keld_folder/deeper/";
  // The console text goes to stdout; route it to stderr, where the death test
  // looks for it.
  EXPECT_EXIT(
      {
        std::fflush(stdout);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Initial init;
        init.errorOut("lost log line, message kept");
      },
      ::testing::ExitedWithCode(1), "lost log line, message kept");
  outputFilePath = saved;
}
