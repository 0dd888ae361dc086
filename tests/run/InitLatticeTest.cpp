#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "beamline/Bend.h"
#include "beamline/Boundary.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "beamline/Steerer.h"
#include "run/ErrorParameter.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

namespace {

// Everything one InitLattice call fills, and what it printed.
struct Deck {
  Initial initial;
  Lattice lattice;
  ErrorParameter error;
  Boundary boundary;
  std::string console;
};

std::vector<double> Plane(double z) {
  std::vector<double> row(7, 0.0);
  row[6] = z;
  return row;
}

// A row of `n` values that starts with `head` and is zero behind it.
template <class T>
std::vector<T> Padded(std::vector<T> head, std::size_t n) {
  head.resize(n, T(0));
  return head;
}

class InitLatticeDeck : public testing::Test {
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

  // Reads `text` as lattice.txt into fresh records. `prepare` may set up the
  // lattice before the deck is read.
  template <class Prepare>
  std::unique_ptr<Deck> Read(const std::string& text, Prepare prepare) {
    keldtest::WriteFile(dir_.file("lattice.txt"), text);
    auto deck = std::make_unique<Deck>();
    prepare(*deck);
    testing::internal::CaptureStdout();
    deck->initial.InitLattice(deck->lattice, deck->error, deck->boundary);
    deck->console = testing::internal::GetCapturedStdout();
    return deck;
  }
  std::unique_ptr<Deck> Read(const std::string& text) {
    return Read(text, [](Deck&) {});
  }

  keldtest::TempDir dir_;

 private:
  std::string savedInput_;
  std::string savedOutput_;
};

}  // namespace

TEST(InitLatticeFailure, MissingDeckIsInitialisationFailure) {
  keldtest::TempDir dir;
  keldtest::WriteFile(dir.file("input.txt"), "");
  const keldtest::RunResult run = keldtest::RunKeld(dir.path(), dir.path());
  const std::string message =
      "File \"lattice.txt\" cannot be opened, Check the inputFile routing and lattice.txt.";
  EXPECT_EQ(run.status, 1) << run.output;
  EXPECT_NE(run.output.find(message + "\n"), std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("Initialising lattice..."), std::string::npos) << run.output;
  const std::vector<std::string> log = keldtest::ReadLines(dir.file("ErrorLog.txt"));
  ASSERT_EQ(log.size(), 1u);
  const std::regex stamped("[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}  ");
  EXPECT_TRUE(std::regex_match(log[0].substr(0, 21), stamped)) << log[0];
  EXPECT_EQ(log[0].substr(21), "   Initialisation stage error: " + message);
}

TEST_F(InitLatticeDeck, PlacesElementsEndToEndAndCloses) {
  auto d = Read(
      "! a beamline of every simple kind\n"
      "title words before start are skipped\n"
      "drift 9 0.1 0\n"
      "\n"
      "start\n"
      "drift 0.5 0.02 0\n"
      "quad\t0.25 0.02 0 12.5 0 0 ! focusing\n"
      "   solenoid 1 0.03 -1 0.5\n"
      "steerer 0.25 0.02 0 0.001 0.002 1 0\n"
      "start\n"
      "bend 0.5 0.05 0.04 30 1.5 0.5 0\n"
      "end\n"
      "drift 1 0.1 0\n");
  const Lattice& lat = d->lattice;
  ASSERT_EQ(lat.element.size(), 5u);
  EXPECT_NE(dynamic_cast<Drift*>(lat.element[0]), nullptr);
  EXPECT_NE(dynamic_cast<Quadrupole*>(lat.element[1]), nullptr);
  EXPECT_NE(dynamic_cast<Solenoid*>(lat.element[2]), nullptr);
  EXPECT_NE(dynamic_cast<Steerer*>(lat.element[3]), nullptr);
  EXPECT_NE(dynamic_cast<Bend*>(lat.element[4]), nullptr);
  EXPECT_EQ(lat.zStart, (std::vector<double>{0.0, 0.5, 0.75, 1.75, 2.0}));
  EXPECT_EQ(lat.zEnd, (std::vector<double>{0.5, 0.75, 1.75, 2.0, 2.5}));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(lat.element[i]->index, i);
  EXPECT_EQ(lat.element[1]->strength, 12.5);
  EXPECT_EQ(lat.element[1]->parameter.size(), 7u) << "the comment is not a token";
  EXPECT_EQ(lat.element[2]->apertureMode, 2);
  EXPECT_EQ(lat.element[4]->radiusY, 0.04);

  EXPECT_EQ(d->initial.outputPlanes, (std::vector<double>{2.5}));
  EXPECT_EQ(lat.outputPlane, (std::vector<std::vector<double>>{Plane(2.5)}));
  EXPECT_EQ(lat.planeCount, 0);
  EXPECT_EQ(d->error.elementNumber, 5);
  EXPECT_EQ(d->error.onFlag, (std::vector<int>{0, 0, 0, 0}));
  EXPECT_EQ(d->error.errStep, (std::vector<int>{1, 1}));
  EXPECT_TRUE(d->error.beamError.empty());
  EXPECT_TRUE(d->error.beamSwitch.empty());
  EXPECT_TRUE(d->error.elementError.empty());
  EXPECT_TRUE(d->error.elementSwitch.empty());
  EXPECT_EQ(d->console,
            "Initialising lattice...\n"
            "Lattice initialisation complete, total length 2.5 m\n"
            "A total of 1 output planes\n"
            "  \n");
}

TEST_F(InitLatticeDeck, DeckWithoutStartBuildsNothing) {
  auto d = Read("Start\ndrift 1 0.1 0\noutputplane 0.5\nerr_step 3 3\nend\n");
  EXPECT_TRUE(d->lattice.element.empty());
  EXPECT_TRUE(d->lattice.zEnd.empty());
  EXPECT_TRUE(d->initial.outputPlanes.empty());
  EXPECT_TRUE(d->lattice.outputPlane.empty());
  EXPECT_EQ(d->error.elementNumber, 0);
  EXPECT_EQ(d->error.errStep, (std::vector<int>{1, 1}));
  EXPECT_EQ(d->console, "Initialising lattice...\n");
}

// Keywords are compared as written; unknown words are passed over silently.
TEST_F(InitLatticeDeck, CapitalsAndUnknownWordsIgnored) {
  auto d = Read(
      "start\n"
      "Drift 1 0.1 0\n"
      "DRIFT 1 0.1 0\n"
      "quadrupole 1 0.1 0 1 0 0\n"
      "some words here\n"
      "drift 0.5 0.1 0\n"
      "OutputPlane 0.1\n"
      "END\n"
      "drift 0.25 0.1 0\n"
      "end\n");
  ASSERT_EQ(d->lattice.element.size(), 2u);
  EXPECT_EQ(d->lattice.zEnd, (std::vector<double>{0.5, 0.75}));
  EXPECT_EQ(d->initial.outputPlanes, (std::vector<double>{0.75}));
  EXPECT_EQ(d->console,
            "Initialising lattice...\n"
            "Lattice initialisation complete, total length 0.75 m\n"
            "A total of 1 output planes\n"
            "  \n");
}

TEST_F(InitLatticeDeck, ShortElementLineReportsAndRunGoesOn) {
  auto d = Read("start\ndrift 1 0.1\ndrift 0.5 0.1 0\nend\n");
  ASSERT_EQ(d->lattice.element.size(), 2u);
  EXPECT_EQ(d->lattice.zStart, (std::vector<double>{0.0, 1.0}));
  EXPECT_EQ(d->lattice.element[1]->index, 1);
  EXPECT_EQ(d->error.elementNumber, 2);
  EXPECT_EQ(d->console,
            "Initialising lattice...\n"
            "Error! parameter not enough in element : \n\ndrift\t1\t0.1\t\n"
            "Lattice initialisation complete, total length 1.5 m\n"
            "A total of 1 output planes\n"
            "  \n");
}

TEST_F(InitLatticeDeck, OutputPlanesFromDeck) {
  // Before the first element the value is the position itself, later it is
  // counted from the end of the last element.
  auto d = Read("start\noutputplane 0.375\ndrift 1 0.1 0\noutputplane 0.25\ndrift 2 0.1 0\nend\n");
  EXPECT_EQ(d->initial.outputPlanes, (std::vector<double>{0.375, 1.25, 3.0}));
  EXPECT_NE(d->console.find("A total of 3 output planes\n"), std::string::npos) << d->console;

  // The closing plane is appended even when the deck already put one there.
  auto atEnd = Read("start\ndrift 1 0.1 0\noutputplane 0\nend\n");
  EXPECT_EQ(atEnd->initial.outputPlanes, (std::vector<double>{1.0, 1.0}));
  EXPECT_EQ(atEnd->lattice.outputPlane, (std::vector<std::vector<double>>{Plane(1.0)}));
}

// Rows already in Lattice.outputPlane (from curved sets) are counted, and the
// closing row is added only when none stands at the lattice end.
TEST_F(InitLatticeDeck, ClosingRowNotDoubledAtLatticeEnd) {
  auto atEnd = Read("start\ndrift 1 0.1 0\ndrift 1 0.1 0\nend\n", [](Deck& d) {
    d.lattice.outputPlane = {Plane(1.0), Plane(2.0)};
  });
  EXPECT_EQ(atEnd->lattice.outputPlane, (std::vector<std::vector<double>>{Plane(1.0), Plane(2.0)}));
  EXPECT_EQ(atEnd->lattice.planeCount, 2);

  auto inside = Read("start\ndrift 1 0.1 0\ndrift 1 0.1 0\nend\n", [](Deck& d) {
    d.lattice.outputPlane = {Plane(1.0)};
  });
  EXPECT_EQ(inside->lattice.outputPlane, (std::vector<std::vector<double>>{Plane(1.0), Plane(2.0)}));
  EXPECT_EQ(inside->lattice.planeCount, 1);
}

TEST_F(InitLatticeDeck, AutomaticOutputFillsWideGaps) {
  auto d = Read("start\nautomaticoutput 1\ndrift 5 0.1 0\nend\n");
  EXPECT_EQ(d->initial.outputPlanes, (std::vector<double>{0.0, 1.0, 2.0, 3.0, 5.0}));
  EXPECT_NE(d->console.find("A total of 5 output planes\n"), std::string::npos) << d->console;

  // Planes of the deck stay; a gap of exactly 2 steps is not filled.
  auto withPlane = Read("start\nautomaticoutput 1\noutputplane 0.5\ndrift 2.5 0.1 0\nend\n");
  EXPECT_EQ(withPlane->initial.outputPlanes, (std::vector<double>{0.0, 0.5, 2.5}));
  auto longer = Read("start\noutputplane 0.5\ndrift 4 0.1 0\nautomaticoutput 1\nend\n");
  EXPECT_EQ(longer->initial.outputPlanes, (std::vector<double>{0.0, 0.5, 1.5, 2.5, 4.0}));
}

TEST_F(InitLatticeDeck, DeckWithoutEndKeepsElementsButNotClosing) {
  // The last line has no line end.
  auto d = Read("start\noutputplane 0.5\ndrift 1 0.1 0\ndrift 2 0.1 0");
  ASSERT_EQ(d->lattice.element.size(), 2u);
  EXPECT_EQ(d->lattice.zEnd, (std::vector<double>{1.0, 3.0}));
  EXPECT_EQ(d->initial.outputPlanes, (std::vector<double>{0.5}));
  EXPECT_TRUE(d->lattice.outputPlane.empty());
  EXPECT_EQ(d->error.elementNumber, 0);
  EXPECT_EQ(d->console, "Initialising lattice...\n");
}

// An error line applies to the element line that follows it.
TEST_F(InitLatticeDeck, ElementErrorRows) {
  auto d = Read(
      "start\n"
      "err_quad_ncpl_stat 1 0 0.1 0.2\n"
      "drift 1 0.1 0\n"
      "err_quad_ncpl_dyn 2 1 0.3\n"
      "quad 1 0.1 0 1 0 0\n"
      "err_cav_ncpl_stat 1 2 0.5\n"
      "err_cav_ncpl_dyn 1 3 0.7 1 2 3 4 5 6 7 8 9 10 11 12 13\n"
      "drift 1 0.1 0\n"
      "end\n");
  const std::vector<std::vector<double>> expected = {
      Padded<double>({0, 0, 0, 1, 0, 0.1, 0.2}, 20),
      Padded<double>({0, 1, 1, 2, 1, 0.3}, 20),
      Padded<double>({1, 0, 2, 1, 2, 0.5}, 20),
      {1, 1, 2, 1, 3, 0.7, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 0},
  };
  EXPECT_EQ(d->error.elementError, expected);
  EXPECT_EQ(d->error.elementNumber, 3);
  EXPECT_EQ(d->error.onFlag, (std::vector<int>{0, 0, 0, 0})) << "values alone switch nothing on";
}

TEST_F(InitLatticeDeck, ElementSwitchRowsAndFlags) {
  struct Case {
    const char* keyword;
    int kind;
    int sense;
  };
  const Case cases[] = {{"err_quad_stat_on", 0, 0}, {"err_quad_dyn_on", 0, 1},
                        {"err_cav_stat_on", 1, 0},  {"err_cav_dyn_on", 1, 1}};
  for (const Case& c : cases) {
    auto on = Read(std::string("start\ndrift 1 0.1 0\n") + c.keyword + " 0 1 0 2\nend\n");
    EXPECT_EQ(on->error.elementSwitch,
              (std::vector<std::vector<int>>{Padded<int>({c.kind, c.sense, 0, 1, 0, 2}, 20)}))
        << c.keyword;
    std::vector<int> flags(4, 0);
    flags[2 + c.sense] = 1;
    EXPECT_EQ(on->error.onFlag, flags) << c.keyword;

    auto off = Read(std::string("start\n") + c.keyword + " 0 0\nend\n");
    EXPECT_EQ(off->error.elementSwitch,
              (std::vector<std::vector<int>>{Padded<int>({c.kind, c.sense}, 20)}))
        << c.keyword;
    EXPECT_EQ(off->error.onFlag, (std::vector<int>{0, 0, 0, 0})) << c.keyword;
  }
}

TEST_F(InitLatticeDeck, BeamErrorBlocks) {
  // Values: a block mark, then the arguments; the switches are padded.
  auto stat = Read("start\nerr_beam_stat 1 0.5 0.25\nend\n");
  EXPECT_EQ(stat->error.beamError, (std::vector<double>{0.0, 1.0, 0.5, 0.25}));
  EXPECT_EQ(stat->error.beamSwitch, std::vector<int>(30, 0));
  EXPECT_EQ(stat->error.onFlag, (std::vector<int>{0, 0, 0, 0}));

  // Without a static line the dynamic block stands at place 0.
  auto dyn = Read("start\nerr_beam_dyn 2 0.125\nend\n");
  EXPECT_EQ(dyn->error.beamError, (std::vector<double>{1.0, 2.0, 0.125}));

  // A full first block puts the second one at place 30.
  std::string first = "err_beam_stat";
  for (int k = 1; k <= 29; ++k) first += " " + std::to_string(k);
  auto both = Read("start\n" + first + "\nerr_beam_dyn 3 0.5\nend\n");
  ASSERT_EQ(both->error.beamError.size(), 33u);
  EXPECT_EQ(both->error.beamError[0], 0.0);
  EXPECT_EQ(both->error.beamError[29], 29.0);
  EXPECT_EQ(both->error.beamError[30], 1.0);
  EXPECT_EQ(both->error.beamError[31], 3.0);
  EXPECT_EQ(both->error.beamError[32], 0.5);
}

TEST_F(InitLatticeDeck, BeamSwitchBlocksAndFlags) {
  auto stat = Read("start\nerr_beam_stat_on 1 0 1\nend\n");
  EXPECT_EQ(stat->error.beamSwitch, Padded<int>({0, 1, 0, 1}, 30));
  EXPECT_EQ(stat->error.onFlag, (std::vector<int>{1, 0, 0, 0}));

  // A second block starts at place 30 and is padded to sixty.
  auto both = Read("start\nerr_beam_stat_on 0 0\nerr_beam_dyn_on 0 1\nend\n");
  std::vector<int> expected(60, 0);
  expected[30] = 1;
  expected[32] = 1;
  EXPECT_EQ(both->error.beamSwitch, expected);
  EXPECT_EQ(both->error.onFlag, (std::vector<int>{0, 1, 0, 0}));

  auto dyn = Read("start\nerr_beam_dyn_on 0 0 3\nend\n");
  EXPECT_EQ(dyn->error.beamSwitch, Padded<int>({1, 0, 0, 3}, 30));
  EXPECT_EQ(dyn->error.onFlag, (std::vector<int>{0, 1, 0, 0}));
}

TEST_F(InitLatticeDeck, ErrorStep) {
  auto d = Read("start\nerr_step 3 4\ndrift 1 0.1 0\nend\n");
  EXPECT_EQ(d->error.errStep, (std::vector<int>{3, 4}));
  EXPECT_EQ(d->error.onFlag, (std::vector<int>{0, 0, 0, 0}));
}
