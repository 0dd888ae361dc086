// boundary.txt, read after lattice.txt when the run deck's boundary setting is 1.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

namespace {
// Reads the decks from a fresh folder; without `boundaryText` no boundary.txt is written.
struct Decks {
  keldtest::TempDir dir;
  Initial initial; Lattice lattice; ErrorParameter error; Boundary boundary; std::string console;
  Decks(const std::string& latticeText, const std::string* boundaryText, bool capture = true) {
    keldtest::WriteFile(dir.file("lattice.txt"), latticeText);
    if (boundaryText) keldtest::WriteFile(dir.file("boundary.txt"), *boundaryText);
    const std::string savedIn = inputFilePath, savedOut = outputFilePath;
    inputFilePath = outputFilePath = dir.path() + "/";
    initial.boundary = 1;
    if (capture) testing::internal::CaptureStdout();
    initial.InitLattice(lattice, error, boundary);
    if (capture) console = testing::internal::GetCapturedStdout();
    inputFilePath = savedIn, outputFilePath = savedOut;
  }
};

void ExpectRefusal(const std::string& boundaryText, const std::string& message, bool withFile = true) {
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Decks d("start\ndrift 1 0.1 0\nend\n", withFile ? &boundaryText : nullptr, false);
      },
      testing::ExitedWithCode(1), "\n" + message + "\n$")
      << message;
}
}  // namespace

// Lines before start are skipped, "end" reports both lengths and reading goes on behind it; read also when the
// lattice deck has no end line.
TEST(BoundaryDeck, SectionsAndClosingLine) {
  const std::string text = "pipes of the line\n1 x 9 9\nstart\n1 first 0.5 0.01\n\n2 gap 0.25\t! open\nend\n"
                           "1 late 0.25 0.02 RLP 0 0.001 0 0 0 0\n";
  const Decks d("start\ndrift 1 0.1 0\nend\n", &text);
  EXPECT_EQ(d.boundary.zEnd, std::vector<double>({0.5, 0.75, 1.0}));
  EXPECT_EQ(d.boundary.geometry[2]->placement[1], 0.001);
  EXPECT_EQ(d.console.substr(d.console.find("  \n") + 3),
            "Initialising boundary...\nBoundary loaded, total length: 0.75 m,  Lattice length: 1 m.\n");
  const Decks open("start\ndrift 1 0.1 0\n", &text);
  EXPECT_EQ(open.boundary.geometry.size(), 3u);
}

TEST(BoundaryDeckDeathTest, BadLinesStopCleanly) {
  ExpectRefusal("", "File \"boundary.txt\" cannot be opened, Check the inputFile routing and boundary.txt.", false);
  ExpectRefusal("start\n1 pipe 1 0.01\n3 box 1 0.01\n", "Undefined shape exists, check boundary.txt");
  ExpectRefusal("start\n1 pipe 1 0.01\nEnd\n", "Undefined shape exists, check boundary.txt");
  ExpectRefusal("start\n1 pipe 1 RLP 0 0 0 0 0 0\n",
                "boundary.txt line 2: a circular pipe needs a name, a length and a radius");
  ExpectRefusal("start\n2 gap\n", "boundary.txt line 2: an open section needs a name and a length");
  ExpectRefusal("start\n1 pipe 1 0.01 RLP 0 0 0 0 0 0 0\n", "boundary.txt line 2: at most six placement values may follow RLP");
  ExpectRefusal("start\n\n1 pipe -1 0.01\n",
                "boundary.txt line 3: the length of a section must be a positive number of metres, got -1");
  ExpectRefusal("start\r\n1 pipe 1 0\r\n", "boundary.txt line 2: the radius of a circular pipe must be a positive "
                                            "number of metres, got 0");
  ExpectRefusal("1 pipe 1 0.01\n", "boundary.txt has no start line, so no aperture section was read; boundary 1 "
                                   "needs them");
}
