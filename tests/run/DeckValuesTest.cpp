// Values no real beam or beamline can have stop the run at initialisation: status 1, the whole message on the
// console and as the last ErrorLog.txt line, and nothing else written to the output folder.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/BadDecks.h"

using namespace keldtest;

namespace {

// A 0.6 m field-free line and 300 protons of 3 MeV without current.
const DeckSet kBase = {
    {"input.txt", "spacecharge 0\nsteppercycle 50\n"},
    {"beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\nparticlenumber 300\n"
                 "twissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 3.2 0.1\n"},
    {"lattice.txt", "start\ndrift 0.3 0.02 0\ndrift 0.3 0.02 0\nend\n"}};

void ExpectRefused(const std::vector<Refusal>& cases) { keldtest::ExpectRefused(kBase, cases); }

}  // namespace

TEST(DeckValues, RunDeckRefusesStepsThatNeverReachAStop) {
  ExpectRefused({
      {"input.txt", "steppercycle 50", "steppercycle -50",
       R"(input.txt line 2: steppercycle must be above 0 \(time steps per period\), got -50)"},
      {"input.txt", "steppercycle 50", "steppercycle 0",
       R"(input.txt line 2: steppercycle must be above 0 \(time steps per period\), got 0)"},
      {"input.txt", "steppercycle 50", "dumpperiodicity -3",
       R"(input.txt line 2: dumpperiodicity must be 0 \(no dumps\) or a number of steps, got -3)"},
      // 1e12 steps per period over 0.6 m at beta 0.08 is about 8.8e12 steps.
      {"input.txt", "steppercycle 50", "steppercycle 1e12",
       R"(steppercycle 1e\+12 at frequency 3\.522e\+08 Hz would take about 8\.8\d+e\+12 time steps over the 0\.6 m )"
       R"(lattice; at most 1e\+08 are allowed)"},
      {"lattice.txt", "drift 0.3 0.02 0\nend", "drift 3e9 0.02 0\nend",
       R"(steppercycle 50 at frequency 3\.522e\+08 Hz would take about 2\.2\d+e\+12 time steps over the 3e\+09 m )"
       R"(lattice; at most 1e\+08 are allowed)"},
      // A bunch 1e7 m long (beta 1e20 m) has no end to wait for.
      {"beam.txt", "twissz 0.0 3.2 0.1", "twissz 0.0 1e20 0.1",
       R"(beam.txt: twissz gives an rms bunch length of 1\.11\d+e\+07 m, longer than the 0\.0679\d+ m the beam )"
       R"(travels in one period)"},
  });
}

TEST(DeckValues, BeamDeckRefusesValuesNoBunchCanHave) {
  const std::string memory = R"( needs about \d+\.\d GiB of memory, but only \d+\.\d GiB can be used)";
  ExpectRefused({
      {"beam.txt", "kneticenergy 3.0", "kneticenergy 0", "beam.txt: kneticenergy must be a positive number of MeV, got 0"},
      {"beam.txt", "kneticenergy 3.0", "kneticenergy -3",
       "beam.txt: kneticenergy must be a positive number of MeV, got -3"},
      {"beam.txt", "frequency 352.2e6", "frequency -352.2e6",
       R"(beam.txt: frequency must be a positive number of Hz, got -3\.522e\+08)"},
      {"beam.txt", "frequency 352.2e6", "frequency 0", "beam.txt: frequency must be a positive number of Hz, got 0"},
      {"beam.txt", "numofcharge 1", "numofcharge 0",
       "beam.txt line 1: numofcharge must be a charge state of 1 to 118 in magnitude, got 0"},
      {"beam.txt", "current 0", "current -5", "beam.txt: current must be 0 or more mA, got -5"},
      {"beam.txt", "numofcharge 1", "numofcharge 1\nparticlerestmass -938",
       "beam.txt line 2: particlerestmass must be at least 0.5 MeV, got -938"},
      {"beam.txt", "twissx -0.5 0.3 0.2", "twissx -0.5 0 0.2", "beam.txt: twissx beta must be above 0, got 0"},
      {"beam.txt", "twissy 0.5 0.3 0.2", "twissy 0.5 0.3 -0.2",
       "beam.txt: twissy emittance must be above 0 mm mrad, got -0.2"},
      {"beam.txt", "twissx -0.5 0.3 0.2", "twissx 2147483647 0.3 0.2",
       R"(beam.txt: twissx gives an rms divergence of 6\.198\d+e\+06 rad, a beam needs well below 1)"},
      {"beam.txt", "twissz 0.0 3.2 0.1", "twissz 0.0 3.2e-12 0.1",
       R"(beam.txt: twissz gives an rms relative momentum spread of 624\.8\d+, a beam needs well below 1)"},
      {"beam.txt", "twissz 0.0 3.2 0.1", "twissz 0.0 2147483647 0.1",
       R"(beam.txt: twissz gives an rms bunch length of 51\.8\d+ m, longer than the 0\.0679\d+ m the beam travels )"
       R"(in one period)"},
      {"beam.txt", "numofcharge 1", "numofcharge 1\nparticlerestmass 2147483647",
       R"(beam.txt: kneticenergy 3 MeV at particlerestmass 2\.14748e\+09 MeV gives beta 5\.28\d+e-05, a beam needs )"
       R"(at least 0\.001)"},
      {"beam.txt", "twissz 0.0 3.2 0.1\n", "", "beam.txt lacks the keyword twissz, which the bunch generation needs"},
      {"beam.txt", "particlenumber 300", "particlenumber 2000000000", "beam.txt: particlenumber 2000000000" + memory},
      {"beam.txt", "particlenumber 300", "particlenumber 2147483647", "beam.txt: particlenumber 2147483647" + memory},
  });
}

// The lattice deck: lengths, plane counts, start and end, error studies.
TEST(DeckValues, LatticeDeckRefusesWhatCannotBeTracked) {
  ExpectRefused({
      {"lattice.txt", "drift 0.3 0.02 0\nend", "drift 0 0.02 0\nend",
       R"(lattice.txt line 3: the length of a drift must be a positive number of metres, got 0 in "drift 0 0.02 0")"},
      {"lattice.txt", "drift 0.3 0.02 0\nend", "drift -0.5 0.02 0\nend",
       R"(lattice.txt line 3: the length of a drift must be a positive number of metres, got -0.5 in )"
       R"("drift -0.5 0.02 0")"},
      {"lattice.txt", "start\n", "start\nautomaticoutput 1e-9\n",
       R"(automaticoutput 1e-09 would make about 6e\+08 output planes over 0\.6 m; at most 100000 are allowed, )"
       R"(choose a larger step)"},
      {"lattice.txt", "start\n", "start\nautomaticoutput -1\n", "automaticoutput needs a step of 0 or more metres, got -1"},
      {"lattice.txt", "end\n", "", "lattice.txt has no end line, the lattice is not closed"},
      {"lattice.txt", "start\n", "", "lattice.txt has no start line, so no element was read"},
      {"lattice.txt", "", "", "lattice.txt has no start line, so no element was read"},
      {"lattice.txt", "", "start\noutputplane 0.5\nend\n", "lattice.txt holds no element between start and end"},
  });
}

// An output folder that does not exist is found before anything is read or tracked; its log line is lost with it.
TEST(DeckValues, MissingOutputFolderStopsBeforeTracking) {
  TempDir dir;
  const std::string in = dir.subdir("in");
  for (const auto& [name, text] : kBase) WriteFile(in + "/" + name, text);
  const RunResult r = RunKeld(in, dir.file("missing"));
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find("\nThe output folder " + dir.file("missing") + "/ does not exist or cannot be written\n"),
            std::string::npos)
      << r.output;
  EXPECT_EQ(r.output.find("Initialising lattice..."), std::string::npos) << r.output;
  EXPECT_EQ(Listing(dir.path()), std::vector<std::string>({"in"}));
}
