#include <gtest/gtest.h>

#include <string>

#include "run/Keld.h"
#include "../support/TestSupport.h"

namespace {
std::size_t Count(const std::string& text, const std::string& piece) {
  std::size_t count = 0;
  for (std::size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++count;
  return count;
}
}  // namespace

// A tiny whole run (1000 particles, 10 cm drift, no current) on a run deck of
// comments and blank lines: one plain run straight into the output folder.
TEST(MainAgent, CommentOnlyDeckRunsOnePlainRun) {
  keldtest::TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  keldtest::WriteFile(in + "/input.txt", "! all defaults\n\n   \n\t! nothing else\n");
  keldtest::WriteFile(in + "/beam.txt", "kneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\nnumofcharge 1\n"
                      "particlenumber 1000\ntwissx 0 0.2 0.2\ntwissy 0 0.2 0.2\ntwissz 0 0.5 0.3\n");
  keldtest::WriteFile(in + "/lattice.txt", "start\ndrift 0.1 0.02 0\nend\n");
  const keldtest::RunResult r = keldtest::RunKeld(in, out);
  ASSERT_EQ(r.status, 0) << r.output;
  const std::size_t running = r.output.find("The programme is running.\n");
  const std::size_t set = r.output.find("Parameters and functions are set\n  \n");
  const std::size_t initialised = r.output.find("Initialization time: ");
  const std::size_t total = r.output.find("Simulated total time: ");
  EXPECT_TRUE(running < set && set < initialised && initialised < total && total != std::string::npos) << r.output;
  EXPECT_EQ(Count(r.output, "Initialization time: "), 1u);
  EXPECT_EQ(Count(r.output, "Simulated total time: "), 1u);
  EXPECT_TRUE(keldtest::FileExists(out + "/DataSet.txt"));
  EXPECT_FALSE(keldtest::FileExists(out + "/output_0/DataSet.txt"));
  EXPECT_FALSE(keldtest::FileExists(out + "/ErrorLog.txt"));
}

// "/" is appended even behind a separator that is already there.
TEST(MainAgent, PathAppendsSeparatorUnconditionally) {
  const std::string savedIn = inputFilePath, savedOut = outputFilePath;
  testing::internal::CaptureStdout();
  EXPECT_EQ(path("a/", "b"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "The input path has been set to a/\nThe output path has been set to b\n");
  EXPECT_EQ(inputFilePath + "|" + outputFilePath, "a//|b/");
  inputFilePath = savedIn;
  outputFilePath = savedOut;
}

// Without an output folder the log line is lost; message and status 1 remain.
TEST(MainAgent, FailureWithoutOutputFolderStillEndsWithStatusOne) {
  keldtest::TempDir dir;
  keldtest::WriteFile(dir.file("input.txt"), "foo\n");
  const keldtest::RunResult r = keldtest::RunKeld(dir.path(), dir.file("missing"));
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find("\ninput.txt Contains unknown keywords, check input.txt: line 1 holds 'foo'\n"),
            std::string::npos)
      << r.output;
}
