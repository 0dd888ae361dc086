// The run summary of the keld host places the losses in the elements of lattice.txt: its reading of the deck must
// put every element where the library puts it.
#include <gtest/gtest.h>

#include "host/RunSummary.h"
#include "tests/support/TestSupport.h"

// Lines before start, a capitalised word, comments, a set of superimposed fields cut at its cavity (the line that
// closes the set is used up), a thin steerer and lines behind end; the same deck as the Python package's test.
TEST(RunSummary, LatticeSpansFollowTheDeckReader) {
  keldtest::TempDir dir;
  keldtest::WriteFile(dir.file("lattice.txt"),
                      "drift 9 9 0\nstart\ndrift 0.1 0.02 0 ! first drift\nquad 0.05 0.02 0 -12 0 0\nDRIFT 1 1 0\n"
                      "superpose 0\nfield 0.2 0.03 0 3 0 0 0 1 qmap\nsuperpose 0.05\nerr_cav_ncpl_dyn 1 1 0.1\n"
                      "field 0.1 0.025 0 1 352.2e6 -30 1 1 cell\ndrift 0.3 0.02 0\nsteerer 0.0 0.02 0 0 0.001 0 0\n"
                      "drift 0.1 0.02 0!0.5\nbend 0.2 0.02 0 10 1.0 0 0\nend\ndrift 5 5 0\n");
  const std::vector<host::LatticeSpan> spans = host::ReadLatticeSpans(dir.file("lattice.txt"));
  const std::vector<std::pair<std::string, double>> expected = {
      {"drift", 0.1}, {"quad", 0.15}, {"field", 0.2}, {"field", 0.3}, {"field", 0.35}, {"steerer", 0.35},
      {"drift", 0.45}, {"bend", 0.65}};
  ASSERT_EQ(spans.size(), expected.size());
  for (std::size_t i = 0; i < spans.size(); ++i) {
    EXPECT_EQ(spans[i].kind, expected[i].first) << i;
    EXPECT_NEAR(spans[i].zEnd, expected[i].second, 1e-15) << i;
    EXPECT_EQ(spans[i].zStart, i ? spans[i - 1].zEnd : 0.0) << i;
  }
}
