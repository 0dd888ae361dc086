// The host's arguments and the run's outputs: refused arguments, folders that would lose inputs, outputs larger than
// the disk, writes that fail (file-size limit, full device) and the field-map writer's limits. Every case ends with
// its status and its whole message on a line of its own, logs it when the library got to run, and leaves no cut file.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {

// The basic example with 300 particles: 1 m of drift, two planes, about 1500 time steps.
void WriteDecks(const std::string& in, const std::string& inputExtra, const std::string& beamExtra = "") {
  const std::string examples = std::string(KELD_SOURCE_DIR) + "/examples/basic/";
  std::string beam = ReadFile(examples + "beam.txt");
  beam.replace(beam.find("particlenumber 100000"), 21, "particlenumber 300");
  WriteFile(in + "/beam.txt", beam + beamExtra);
  WriteFile(in + "/input.txt", ReadFile(examples + "input.txt") + inputExtra);
  WriteFile(in + "/lattice.txt", ReadFile(examples + "lattice.txt"));
}

std::string Escaped(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

struct Case {
  std::string command;  // IN, OUT, KELD and FIELDMAP stand for the folders and the programs
  std::string input, beam;  // lines added to input.txt and beam.txt
  int status;
  std::string message;  // regular expression of the whole last line; OUT stands for the output folder
  std::string stage;    // the words of the ErrorLog.txt line; empty where nothing may be logged
  std::function<void(const std::string& in, const std::string& out)> check;
};

const std::string kTooLarge = " could not be written: File too large \\(the file-size limit of the process, see ulimit "
                              "-f\\); [0-9]+ of ";
const std::string kSetUp = "   Initialisation stage error: ";
const std::string kTracking = "   simulation stage error: ";

std::string Replaced(std::string text, const std::string& key, const std::string& value) {
  for (std::size_t at = 0; (at = text.find(key, at)) != std::string::npos; at += value.size())
    text.replace(at, key.size(), value);
  return text;
}

}  // namespace

TEST(HostOutput, RefusalsAndFailedWritesEndCleanly) {
  const auto onlyLog = [](const std::string&, const std::string& out) {
    EXPECT_FALSE(FileExists(out + "/DataSet.txt"));
    EXPECT_FALSE(FileExists(out + "/inData.dst"));
  };
  const auto nothing = [](const std::string&, const std::string& out) {
    EXPECT_EQ(RunCommand("ls -A '" + out + "'").output, "");
  };
  const std::string samples = "--samples wants FIRST-LAST, two sample numbers from 0 to 2147483647 with FIRST <= "
                              "LAST, got ";
  const std::vector<Case> cases = {
      {"KELD IN OUT --samples 3-1", "", "", 1, samples + "3-1", "", nothing},
      {"KELD IN OUT --samples -1-2", "", "", 1, samples + "-1-2", "", nothing},
      {"KELD --samples a-b IN OUT", "", "", 1, samples + "a-b", "", nothing},
      {"KELD IN OUT --samples 4294967296-4294967297", "", "", 1, samples + "4294967296-4294967297", "", nothing},
      {"KELD IN OUT --seed 4294967296", "", "", 1, "--seed wants a whole number from 0 to 4294967295, got 4294967296",
       "", nothing},
      {"KELD IN OUT --seed", "", "", 1, "--seed wants a value", "", nothing},
      // The same folder under two names: an input list named like an output stays as it was.
      {"echo kept > IN/collisionData.txt; KELD IN IN/../in", "", "", 1,
       "The input folder IN/ is also the output folder IN/../in/: the results would overwrite inputs of the same "
       "name; give the run an output folder of its own",
       kSetUp,
       [](const std::string& in, const std::string&) {
         EXPECT_EQ(ReadFile(in + "/collisionData.txt"), "kept\n");
         EXPECT_FALSE(FileExists(in + "/DataSet.txt"));
       }},
      {"cp IN/lattice.txt OUT/DataSet.txt; KELD IN OUT", "", "readparticledistribution ../out/DataSet.txt\n", 1,
       "beam.txt: the distribution file ../out/DataSet.txt lies in the output folder OUT/, where the run writes a "
       "file of that name; copy it elsewhere or give the run another output folder",
       kSetUp,
       [](const std::string& in, const std::string& out) {
         EXPECT_EQ(ReadFile(out + "/DataSet.txt"), ReadFile(in + "/lattice.txt"));
       }},
      // 10^4 particles dumped at each of about 1.5e7 steps: some 7.8 TB, refused before tracking.
      {"KELD IN OUT", "dumpperiodicity 1\nsteppercycle 1000000\nscanphase 0\n", "particlenumber 10000\n", 1,
       "The run would write about 7.8[0-9] TB into the output folder OUT/ \\(BeamSet.plt about 7.8[0-9] TB a run: "
       "10000 particles a dump, dumpperiodicity 1, about 1.5[0-9]+e\\+07 time steps\\), but only [0-9.]+ [kMGT]?B "
       "are free there; free space, dump less often or write the results elsewhere",
       kSetUp,
       [](const std::string&, const std::string& out) { EXPECT_FALSE(FileExists(out + "/DataSet.txt")); }},
      // A file-size limit: the signal is ignored and the failed write is reported, at set-up and during tracking;
      // the cut file goes back to its last whole record or goes.
      {"ulimit -f 10; KELD IN OUT", "", "", 1, "The output file OUT/inData.dst" + kTooLarge +
       "14431 bytes were written; the cut file was removed", kSetUp, onlyLog},
      {"ulimit -f 100; KELD IN OUT", "dumpperiodicity 1\n", "", 2, "The output file OUT/BeamSet.plt" + kTooLarge +
       "15625 bytes were written; it keeps what it held before", kTracking,
       [](const std::string&, const std::string& out) {
         const std::size_t size = ReadFile(out + "/BeamSet.plt").size();
         EXPECT_GT(size, 34u);
         EXPECT_EQ((size - 34) % 15625, 0u) << size;
       }},
      // A full device at the last write of the run.
      {"ln -s /dev/full OUT/SimulationTime.txt; KELD IN OUT", "", "", 2,
       "The output file OUT/SimulationTime.txt could not be written: No space left on device; 0 of [0-9]+ bytes were "
       "written",
       kTracking, nullptr},
      {"FIELDMAP quad OUT/q nx=2147483647", "", "", 2,
       "keld-fieldmap: nx must be a whole number from 1 to 2147483646, got 2147483647", "", nothing},
      {"FIELDMAP quad OUT/q nx=100000 ny=100000 nz=100000", "", "", 1,
       "keld-fieldmap: the text and binary sets would take about 84 PB \\(100001 x 100001 x 100001 nodes\\), but "
       "only [0-9.]+ [kMGT]?B are free in OUT/",
       "", nothing},
      {"ulimit -f 10; FIELDMAP quad OUT/q form=binary", "", "", 1,
       "keld-fieldmap: cannot write OUT/qb.bsx \\(the disk may be full or the file too large\\); the cut file was "
       "removed",
       "", nothing},
  };
  for (const Case& c : cases) {
    TempDir dir;
    const std::string in = dir.subdir("in"), out = dir.subdir("out");
    WriteDecks(in, c.input, c.beam);
    std::string command = Replaced(c.command, "KELD", KELD_BINARY);
    command = Replaced(command, "FIELDMAP", KELD_FIELDMAP_BINARY);
    command = Replaced(Replaced(command, "IN", in), "OUT", out);
    const RunResult r = RunCommand(command);
    EXPECT_EQ(r.status, c.status) << c.command << "\n" << r.output;
    const std::string message = Replaced(Replaced(c.message, "OUT", Escaped(out)), "IN", Escaped(in));
    const std::regex whole(message);
    bool said = false;
    for (std::size_t at = 0, end; at < r.output.size(); at = end + 1) {
      end = std::min(r.output.find('\n', at), r.output.size());
      said = said || std::regex_match(r.output.substr(at, end - at), whole);
    }
    EXPECT_TRUE(said) << c.command << "\n" << r.output;
    const std::string logFolder = c.command.find("KELD IN IN") != std::string::npos ? in : out;
    const std::vector<std::string> log = ReadLines(logFolder + "/ErrorLog.txt");
    if (c.stage.empty()) {
      EXPECT_TRUE(log.empty()) << c.command;
    } else if (log.size() == 1 && log[0].size() > 21) {
      EXPECT_TRUE(std::regex_match(log[0].substr(21), std::regex(c.stage + message))) << log[0];
    } else {
      ADD_FAILURE() << c.command << ": expected one ErrorLog.txt line";
    }
    if (c.check) c.check(in, out);
  }
}

// With a seed the generated bunch, and so the whole run, repeats bit for bit; another seed draws another bunch.
TEST(HostOutput, SeededRunsRepeat) {
  TempDir dir;
  const std::string in = dir.subdir("in");
  WriteDecks(in, "");
  std::vector<std::string> outs;
  for (const char* seed : {"5", "5", "6"}) {
    outs.push_back(dir.subdir("out" + std::to_string(outs.size())));
    const RunResult r = RunCommand(std::string(KELD_BINARY) + " --seed " + seed + " '" + in + "' '" + outs.back() + "'");
    ASSERT_EQ(r.status, 0) << r.output;
  }
  for (const char* file : {"/inData.dst", "/DataSet.txt"}) {
    // Compared as a whole without printing the bytes on a failure.
    EXPECT_TRUE(ReadFile(outs[0] + file) == ReadFile(outs[1] + file)) << file;
    EXPECT_TRUE(ReadFile(outs[0] + file) != ReadFile(outs[2] + file)) << file;
  }
  EXPECT_EQ(ReadFile(outs[0] + "/inData.dst").size(), 31u + 48u * 300u);
}
