// field lines and sets of superimposed fields in lattice.txt: the tokens each Field receives, the cavity numbers,
// the cut of a set at its cavity, curved sets, and the failures.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "beamline/Field.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"
#include "tools/fieldmap/FieldMapWriter.h"

namespace {
using Tokens = std::vector<std::string>;
using Doubles = std::vector<double>;

// Reads `text` as lattice.txt from a folder that also holds the map sets "quad" (static magnetic) and "cav"
// (radio-frequency).
struct Deck {
  keldtest::TempDir dir;
  Initial initial; Lattice lattice; ErrorParameter error; Boundary boundary; std::string console;
  explicit Deck(const std::string& text, bool capture = true) {
    fieldmap::MapMesh m;
    std::string e;
    fieldmap::WriteMapSet(dir.file("quad"), 3, m, fieldmap::Quadrupole(10.0), e);
    fieldmap::WriteMapSet(dir.file("cav"), 1, m, fieldmap::RadioFrequencyCell(1.0, 0.1, 352e6), e);
    keldtest::WriteFile(dir.file("lattice.txt"), text);
    const std::string savedIn = inputFilePath, savedOut = outputFilePath;
    inputFilePath = outputFilePath = dir.path() + "/";
    if (capture) testing::internal::CaptureStdout();
    initial.InitLattice(lattice, error, boundary);
    if (capture) console = testing::internal::GetCapturedStdout();
    inputFilePath = savedIn, outputFilePath = savedOut;
  }
  const Tokens& Of(int i) const { return lattice.element.at(i)->parameter; }
  const Field& FieldAt(int i) const { return *static_cast<const Field*>(lattice.element.at(i)); }
};

// Tokens `line` split on blanks, then `pad` copies of "invalid".
Tokens T(const std::string& line, int pad = 0) {
  Tokens t;
  std::string w;
  for (char c : line + " ") {
    if (c != ' ') w += c;
    else if (!w.empty()) t.push_back(w), w.clear();
  }
  t.insert(t.end(), pad, "invalid");
  return t;
}
Tokens Join(std::initializer_list<Tokens> parts) {
  Tokens all;
  for (const Tokens& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

// Lengths are summed element by element: compare positions to rounding.
void ExpectNear(const Doubles& got, const Doubles& want) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t k = 0; k < got.size(); ++k) EXPECT_NEAR(got[k], want[k], 1e-15) << k;
}

Doubles Cat(Doubles a, const Doubles& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Runs the deck in a forked child and expects status 1 and exactly `message` as the last console line; `folder`
// stands for the deck's temporary folder.
void ExpectRefusal(const std::string& text, const std::string& message) {
  GTEST_FLAG_SET(death_test_style, "fast");
  std::string pattern;
  for (char ch : message) {
    if (std::string("\\^$.|?*+()[]{}").find(ch) != std::string::npos) pattern += '\\';
    pattern += ch;
  }
  for (std::size_t at; (at = pattern.find("folder")) != std::string::npos;)
    pattern.replace(at, 6, "/tmp/keld_test_[A-Za-z0-9]+");
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Deck d(text, false);
      },
      testing::ExitedWithCode(1), "(^|\n)" + pattern + "\n$")
      << message;
}
}  // namespace

// The map name gets the input folder and then becomes the map index; a cavity is padded to fourteen tokens and
// numbered, a static field is not; a line already longer keeps its tokens and the number goes behind them. A set
// with its cavity takes the next number, once; a cavity that fills its set leaves an empty section behind it.
TEST(FieldLines, SingleLinesAndCavityNumbers) {
  const Deck d("start\ndrift 0.1 0.02 0\nfield 0.2 0.02 0 1 352e6 -30 1 1 cav\nfield 0.2 0.02 0 3 0 0 1 2 quad\n"
               "superpose 0\nfield 0.2 0.02 0 1 352e6 -30 1 1 cav\nclose\n"
               "field 0.2 0.02 0 1 352e6 -30 1 1 cav 9 9 9 9 9 7\nend\n");
  ASSERT_EQ(d.lattice.element.size(), 6u) << d.console;
  EXPECT_EQ(d.Of(1), Join({T("field 0.2 0.02 0 1 352e6 -30 1 1 0", 4), {"0"}}));
  EXPECT_EQ(d.Of(2), T("field 0.2 0.02 0 3 0 0 1 2 1"));
  EXPECT_EQ(d.Of(5), T("field 0.2 0.02 0 1 352e6 -30 1 1 0 9 9 9 9 9 7 2"));
  EXPECT_EQ(std::vector<int>({d.FieldAt(1).cavityIndex, d.FieldAt(3).cavityIndex, d.FieldAt(5).cavityIndex}),
            std::vector<int>({0, 1, 9}));
  EXPECT_EQ(d.lattice.fieldM.fieldName, Tokens({d.dir.file("cav"), d.dir.file("quad")}));
  ExpectNear(d.lattice.zEnd, {0.1, 0.3, 0.5, 0.7, 0.7, 0.9});
}

// Without a cavity a set is one Field: twenty header tokens, then per member its tokens padded to twelve, its start
// and end and its six offsets. The error row of a member names it in its last place and goes in as one vector.
TEST(FieldLines, SetWithoutCavityIsOneField) {
  const Deck d("start\ndrift 0.1 0.02 0\nsuperpose 0\nfield 0.3 0.03 0 3 0 0 0 1 quad\n\n"
               "superpose 0.1 0.001 0 0 0 0\nerr_quad_ncpl_stat 1 0 0.1\nfield 0.3 0.02 0 3 0 0 0 2 quad\nclose\n"
               "drift 0.1 0.02 0\nend\n");
  ASSERT_EQ(d.lattice.zEnd, Doubles({0.1, 0.5, 0.6})) << d.console;
  EXPECT_EQ(d.Of(1), Join({T("field 0.400000 0.020000 0 4 0 0 0 0 0 0 invalid 0 0.400000", 6),
                           T("field 0.3 0.03 0 3 0 0 0 1 0", 2),
                           T("0.000000 0.300000 0.000000 0.000000 0.000000 0.000000 0.000000 0.000000"),
                           T("field 0.3 0.02 0 3 0 0 0 2 0", 2),
                           T("0.100000 0.400000 0.100000 0.001000 0.000000 0.000000 0.000000 0.000000")}));
  Doubles row(20, 0.0);
  row[0] = 2, row[2] = 1, row[3] = 1, row[5] = 0.1, row[19] = 1;
  EXPECT_EQ(d.error.elementError, std::vector<Doubles>({row}));
  EXPECT_EQ(d.FieldAt(1).subStart, Doubles({0.1, 0.2}));
  EXPECT_EQ(d.FieldAt(1).subType, std::vector<int>({1, 1}));
}

// A set with a cavity is cut at the cavity's start s and end e; each section holds the members that overlap it.
// With s = 0 the cavity's header has twenty-one tokens, and its blocks no longer line up with the groups the element
// reads. Error rows follow their members and are renumbered by block.
TEST(FieldLines, CavitySetIsCutAtTheCavity) {
  const std::string cavity = "field 0.2 0.02 0 1 352e6 -30 1 2 cav\n";
  // s = 0.1, e = 0.3, E = 0.6: before, cavity and behind.
  const Deck three("start\ndrift 0.1 0.02 0\nsuperpose 0\nfield 0.5 0.03 0 3 0 0 0 1 quad\nsuperpose 0.1\n"
                   "err_cav_ncpl_dyn 1 0 0.5\n" + cavity + "superpose 0.2\nerr_quad_ncpl_stat 1 0 0.2\n"
                   "field 0.4 0.03 0 3 0 0 0 1 quad\nclose\nend\n");
  ExpectNear(three.lattice.zEnd, {0.1, 0.2, 0.4, 0.7});
  // Maps in the order of loading: quad 0, cav 1.
  const Tokens m0 = Join({T("field 0.5 0.03 0 3 0 0 0 1 0", 2), T("0.000000 0.500000 0.000000"), Tokens(5, "0.000000")});
  const Tokens r = Join({T("field 0.2 0.02 0 1 352e6 -30 1 2 1", 2), T("0.100000 0.300000 0.100000"),
                         Tokens(5, "0.000000")});
  const Tokens m2 = Join({T("field 0.4 0.03 0 3 0 0 0 1 0", 2), T("0.200000 0.600000 0.200000"), Tokens(5, "0.000000")});
  EXPECT_EQ(three.Of(1), Join({T("field 0.100000 0.020000 0 4 0 0 0 0 0 invalid invalid 0 0.100000", 6), m0}));
  EXPECT_EQ(three.Of(2), Join({T("field 0.2 0.020000 0 4 352e6 -30 1 2 0 invalid invalid 0.100000 0.300000 0", 5),
                               m0, r, m2}));
  EXPECT_EQ(three.Of(3),
            Join({T("field 0.300000 0.020000 0 4 0 0 0 0 0 invalid invalid 0.300000 0.600000", 6), m0, m2}));
  Doubles cav(20, 0.0), quad(20, 0.0);
  cav[0] = 2, cav[1] = 1, cav[2] = 1, cav[3] = 1, cav[5] = 0.5, cav[18] = 1, cav[19] = 1;
  quad[0] = 2, quad[2] = 1, quad[3] = 1, quad[5] = 0.2, quad[19] = 2;
  Doubles quadBehind = quad;
  quadBehind[19] = 1;
  EXPECT_EQ(three.error.elementError, std::vector<Doubles>({Cat(cav, quad), quadBehind}));
  EXPECT_EQ(three.FieldAt(2).subType, std::vector<int>({1, 2, 1}));
  const Doubles starts = three.FieldAt(2).subStart;  // section at 0.2 in the lattice, 0.1 in the set
  ASSERT_EQ(starts.size(), 3u);
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(starts[k], 0.1 * (k + 1), 1e-15) << k;

  // s = 0: the cavity's section and the one behind it.
  const Deck first("start\ndrift 0.1 0.02 0\nsuperpose 0\n" + cavity + "superpose 0.1\nfield 0.3 0.03 0 3 0 0 0 1 quad\n"
                   "close\nend\n");
  ExpectNear(first.lattice.zEnd, {0.1, 0.3, 0.5});
  // Blocks that do not line up keep the map name; each member's map was loaded with its line, the cavity's as 0.
  const Tokens r0 = Join({T("field 0.2 0.02 0 1 352e6 -30 1 2"), {first.dir.file("cav")}, Tokens(2, "invalid"),
                          T("0.000000 0.200000"), Tokens(6, "0.000000")});
  const Tokens m1 = Join({T("field 0.3 0.03 0 3 0 0 0 1"), {first.dir.file("quad")}, Tokens(2, "invalid"),
                          T("0.100000 0.400000 0.100000"), Tokens(5, "0.000000")});
  Tokens m1Loaded = m1;
  m1Loaded[9] = "1";
  EXPECT_EQ(first.Of(1), Join({T("field 0.2 0.020000 0 4 352e6 -30 1 2 0 invalid invalid 0 0.2 0", 6), r0, m1}));
  EXPECT_EQ(first.Of(2),
            Join({T("field 0.200000 0.020000 0 4 0 0 0 0 0 invalid invalid 0.200000 0.400000", 6), m1Loaded}));
  EXPECT_TRUE(first.FieldAt(1).subType.empty()) << "twenty-one header tokens: no group lines up";
  EXPECT_EQ(first.lattice.fieldM.fieldName, Tokens({first.dir.file("cav"), first.dir.file("quad")}));
  EXPECT_EQ(first.FieldAt(2).subType, std::vector<int>({1}));

  // e = E: before and the cavity's section.
  const Deck two("start\ndrift 0.1 0.02 0\nsuperpose 0\nfield 0.3 0.03 0 3 0 0 0 1 quad\nsuperpose 0.1\n" + cavity +
                 "close\nend\n");
  ExpectNear(two.lattice.zEnd, {0.1, 0.2, 0.4});
  const Tokens n0 = Join({T("field 0.3 0.03 0 3 0 0 0 1 0", 2), T("0.000000 0.300000 0.000000"), Tokens(5, "0.000000")});
  const Tokens r1 = Join({T("field 0.2 0.02 0 1 352e6 -30 1 2 1", 2), T("0.100000 0.300000 0.100000"),
                          Tokens(5, "0.000000")});
  EXPECT_EQ(two.Of(2), Join({T("field 0.2 0.020000 0 4 352e6 -30 1 2 0 invalid invalid 0.100000 0.300000 0", 5), n0, r1}));
}

// superposeout closes a curved set: its plane row (offsets, angles in rad, the set's end) and the curve flag, 1 for
// a turn in the y-z plane (argument 6 zero, argument 5 not), else 2.
TEST(FieldLines, CurvedSetsGiveTheirRotatedPlane) {
  const Deck d("start\ndrift 0.1 0.02 0\nsuperpose 0\nfield 0.3 0.03 0 3 0 0 0 1 quad\nsuperposeout 0 0.001 0 0 5 0\n"
               "superpose 0\nfield 0.2 0.03 0 3 0 0 0 1 quad\nsuperposeout 0 0 0 0 5 3\ndrift 0.1 0.02 0\nend\n");
  const double deg = 3.141592653589793 / 180.0;
  ASSERT_EQ(d.lattice.element.size(), 4u) << d.console;
  ASSERT_EQ(d.lattice.outputPlane.size(), 3u);
  ExpectNear(d.lattice.outputPlane[0], {0, 0.001, 0, 0, 5 * deg, 0, 0.4});
  ExpectNear(d.lattice.outputPlane[1], {0, 0, 0, 0, 5 * deg, 3 * deg, 0.6});
  ExpectNear(d.lattice.outputPlane[2], {0, 0, 0, 0, 0, 0, 0.7});
  EXPECT_EQ(std::vector<int>({d.lattice.element[1]->outputMark, d.lattice.element[2]->outputMark, d.lattice.planeCount}),
            std::vector<int>({1, 2, 2}));
}

// Every refusal stops with status 1 and names what is wrong.
TEST(FieldLinesDeathTest, BadSetsStopCleanly) {
  const std::string magnet = "field 0.3 0.03 0 3 0 0 0 1 quad\n", cavity = "field 0.2 0.02 0 1 352e6 -30 1 2 cav\n";
  ExpectRefusal("start\nsuperpose 0\n" + cavity + "superpose 0.1\n" + cavity + "close\nend\n",
                "Only one RF cavity is allowed to be used in a set of superimposed fields");
  ExpectRefusal("start\nsuperpose 0\n" + cavity + "superposeout 0 0 0 0 5 0\nend\n",
                "RF cavity is temporarily not allowed in curve transmission");
  ExpectRefusal("start\nsuperpose 0 1 2\n" + magnet, "Abnormal number of parameters for keyword superpose");
  ExpectRefusal("start\nsuperpose 0\n" + magnet + "superposeout 0 0 0 0 5\n",
                "Abnormal number of parameters for keyword superposeout");
  ExpectRefusal("start\ndrift 0.1 0.02 0\nsuperpose 0\n" + magnet + "superpose 0.1\n" + magnet,
                "lattice.txt ends inside the set of superimposed fields that begins on line 3; close it with "
                "superposeout or another line");
  ExpectRefusal("start\nsuperpose 0\nfield 0.3 0.03 0 3 0 0 0 1 quad 1 2 3\nclose\n",
                "lattice.txt line 3: a member of a set of superimposed fields may hold at most 12 tokens, this one "
                "holds 13");
  ExpectRefusal("start\nsuperpose 0\nerr_quad_ncpl_stat 1\nerr_quad_ncpl_dyn 1\n" + magnet,
                "lattice.txt line 4: only one error line may stand before a member of a set of superimposed fields");
  ExpectRefusal("start\ndrift 0.1 0.02 0\nfield 0 0.02 0 3 0 0 1 2 quad\nend\n",
                "lattice.txt line 3: the length of a field must be a positive number of metres, got 0");
  ExpectRefusal("start\nfield 0.2 0.02 0 3 0 0 1 1 quad\nfield 0.2 0.02 0 1 352e6 -30 1 1 quad\nend\n",
                "Field map folder/quad holds 3 values per node and cannot serve a field of type 1");
}
