#include <gtest/gtest.h>

#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

namespace {
using Doubles = std::vector<double>;
using Rows = std::vector<Doubles>;

// Reads `text` as lattice.txt into fresh records; `rows` stand in Lattice.outputPlane beforehand.
struct Deck {
  Initial initial; Lattice lattice; ErrorParameter error; Boundary boundary; std::string console;
  explicit Deck(const std::string& text, const Rows& rows = {}) {
    lattice.outputPlane = rows;
    keldtest::TempDir dir;
    const std::string saved = inputFilePath;
    inputFilePath = dir.path() + "/";
    keldtest::WriteFile(dir.file("lattice.txt"), text);
    testing::internal::CaptureStdout();
    initial.InitLattice(lattice, error, boundary);
    console = testing::internal::GetCapturedStdout();
    inputFilePath = saved;
  }
};
Doubles Plane(double z) { return {0, 0, 0, 0, 0, 0, z}; }
// `v` from place `at` on, zeros elsewhere, `n` values in all.
Doubles Padded(Doubles v, std::size_t n, std::size_t at = 0) { v.insert(v.begin(), at, 0.0); v.resize(n); return v; }
template <class V> Doubles AsDoubles(const V& v) { return Doubles(v.begin(), v.end()); }
}  // namespace

// Before `start` nothing counts; capitals and unknown words are ignored, each with a warning naming its line; a
// short element line is reported and still placed; outputplane is absolute before the first element, relative after.
TEST(InitLatticeDeck, PlacesElementsEndToEndAndCloses) {
  const Deck d("drift 9 0.1 0\nstart\noutputplane 0.375\ndrift 0.5 0.02 0\nquad\t0.25 0.02 0 12.5 0 0 ! q\n"
               "Drift 1 0.1 0\nwords\n   solenoid 1 0.03 -1 0.5\nstart\nerr_step 3 4\noutputplane 0.25\ndrift 0.5 0.1\n"
               "steerer 0.25 0.02 0 0.001 0.002 1 0\nbend 0.5 0.05 0.04 30 1.5 0.5 0\nEND\nend\ndrift 1 0.1 0\n");
  ASSERT_EQ(d.lattice.zEnd, Doubles({0.5, 0.75, 1.75, 2.25, 2.5, 3.0}));
  EXPECT_EQ(Doubles({d.lattice.element[1]->strength, d.lattice.element[2]->strength}), Doubles({12.5, 0.5}));
  EXPECT_EQ(d.initial.outputPlanes, Doubles({0.375, 2.0, 3.0}));
  EXPECT_EQ(d.lattice.outputPlane, Rows({Plane(3.0)}));
  EXPECT_EQ(std::vector<int>({d.lattice.planeCount, d.error.elementNumber, d.error.errStep[0], d.error.errStep[1]}),
            std::vector<int>({0, 6, 3, 4}));
  EXPECT_EQ(d.console, "Initialising lattice...\nlattice.txt line 6: unknown keyword 'Drift' ignored\n"
                       "lattice.txt line 7: unknown keyword 'words' ignored\n"
                       "Error! parameter not enough in element : \n\ndrift\t0.5\t0.1\t\n"
                       "lattice.txt line 12: \"drift 0.5 0.1\" has too few values for a drift; the element is left "
                       "unconfigured\nlattice.txt line 15: unknown keyword 'END' ignored\n"
                       "Lattice initialisation complete, total length 3 m\nA total of 3 output planes\n  \n");
}

// Without `start` nothing is built; without `end` the closing work is skipped. automaticoutput fills gaps
// above two steps from 0.0 on; a closing row joins Lattice.outputPlane only if none stands at the end.
TEST(InitLatticeDeck, ClosingWorkAndAutomaticOutput) {
  const Deck none("Start\ndrift 1 0.1 0\noutputplane 0.5\nerr_step 3 3\nend\n");
  const Deck open("start\noutputplane 0.5\ndrift 1 0.1 0\ndrift 2 0.1 0");  // no line end either
  EXPECT_TRUE(none.lattice.element.empty() && none.initial.outputPlanes.empty() && none.error.errStep[0] == 1);
  EXPECT_EQ(Rows({open.lattice.zEnd, open.initial.outputPlanes}), Rows({{1, 3}, {0.5}}));
  EXPECT_TRUE(none.lattice.outputPlane.empty() && open.lattice.outputPlane.empty() && open.error.elementNumber == 0);
  EXPECT_EQ(none.console + open.console, "Initialising lattice...\nInitialising lattice...\n");
  const Deck kept("start\nautomaticoutput 1\ndrift 5 0.1 0\nend\n", {Plane(1.0), Plane(5.0)});
  const Deck added("start\nautomaticoutput 1\noutputplane 0.5\ndrift 2.5 0.1 0\noutputplane 0\nend\n", {Plane(1.0)});
  EXPECT_EQ(Rows({kept.initial.outputPlanes, added.initial.outputPlanes}), Rows({{0, 1, 2, 3, 5}, {0, 0.5, 2.5, 2.5}}));
  EXPECT_EQ(kept.lattice.outputPlane, Rows({Plane(1.0), Plane(5.0)}));
  EXPECT_EQ(added.lattice.outputPlane, Rows({Plane(1.0), Plane(2.5)}));
  EXPECT_EQ(std::vector<int>({kept.lattice.planeCount, added.lattice.planeCount}), std::vector<int>({2, 1}));
}

// Each err_ line after the first element: its row (field 0 beamError, 1 beamSwitch, 2 elementError, 3 elementSwitch)
// with count 1, and its on-flag. Value lines pad beam switches to 30; err_beam_dyn alone stands at place 0.
TEST(InitLatticeDeck, ErrorKeywordsWriteTheirRowsAndFlags) {
  struct Case { const char* lines; int field; Doubles row; std::vector<int> flags; };
  const Case cases[] = {
      {"err_beam_stat 1 0.5 0.25", 0, {0, 1, 0.5, 0.25}, {0, 0, 0, 0}},
      {"err_beam_dyn 2 0.125", 0, {1, 2, 0.125}, {0, 0, 0, 0}},
      {"err_beam_stat_on 1 0 1", 1, Padded({0, 1, 0, 1}, 30), {1, 0, 0, 0}},
      {"err_beam_dyn_on 0 0 3", 1, Padded({1, 0, 0, 3}, 30), {0, 1, 0, 0}},
      {"err_beam_stat 1 0.5\nerr_beam_dyn_on 0 1", 1, Padded({1, 0, 1}, 60, 30), {0, 1, 0, 0}},
      {"err_quad_ncpl_stat 1 0 0.1 0.2", 2, Padded({0, 0, 1, 1, 0, 0.1, 0.2}, 20), {0, 0, 0, 0}},
      {"err_quad_ncpl_dyn 2 1 0.3", 2, Padded({0, 1, 1, 2, 1, 0.3}, 20), {0, 0, 0, 0}},
      {"err_cav_ncpl_stat 1 2 0.5", 2, Padded({1, 0, 1, 1, 2, 0.5}, 20), {0, 0, 0, 0}},
      {"err_cav_ncpl_dyn 1 3 0.7", 2, Padded({1, 1, 1, 1, 3, 0.7}, 20), {0, 0, 0, 0}},
      {"err_quad_stat_on 0 1 0 2", 3, Padded({0, 0, 0, 1, 0, 2}, 20), {0, 0, 1, 0}},
      {"err_quad_dyn_on 0 1", 3, Padded({0, 1, 0, 1}, 20), {0, 0, 0, 1}},
      {"err_cav_stat_on 1", 3, Padded({1, 0, 1}, 20), {0, 0, 1, 0}},
      {"err_cav_dyn_on 0 0", 3, Padded({1, 1, 0, 0}, 20), {0, 0, 0, 0}}};
  for (const Case& c : cases) {
    const ErrorParameter e = Deck(std::string("start\ndrift 1 0.1 0\n") + c.lines + "\ndrift 1 0.1 0\nend\n").error;
    const Rows written = {e.beamError, AsDoubles(e.beamSwitch), e.elementError.empty() ? Doubles() : e.elementError[0],
                          e.elementSwitch.empty() ? Doubles() : AsDoubles(e.elementSwitch[0])};
    EXPECT_EQ(written[c.field], c.row) << c.lines;
    EXPECT_EQ(e.onFlag, c.flags) << c.lines;
  }
}

// A steerer kicks in the element behind it: first in the lattice or right behind another it never acts, which the
// reader says with the line; a thin steerer is allowed, other elements need a length.
TEST(InitLatticeDeck, SteerersThatCannotKickAreNamed) {
  const Deck d("start\nsteerer 0 0.02 0 0 0.001 0 0\ndrift 0.5 0.02 0\nsteerer 0 0.02 0 0 0.001 0 0\n"
               "! two in a row\nsteerer 0 0.02 0 0 0.001 0 0\ndrift 0.5 0.02 0\nend\n");
  EXPECT_EQ(d.lattice.zEnd, Doubles({0, 0.5, 0.5, 0.5, 1.0}));
  EXPECT_EQ(d.console, "Initialising lattice...\n"
                       "Warning! The steerer on lattice.txt line 2 is the first element of the lattice and gives no kick\n"
                       "Warning! The steerer on lattice.txt line 6 stands right behind another steerer and gives no "
                       "kick\nLattice initialisation complete, total length 1 m\nA total of 1 output planes\n  \n");
}
