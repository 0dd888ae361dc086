#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "run/HelperFunc.h"

using Tokens = std::vector<std::string>;

// Only blank and tab separate; "!" ends the line and drops a token that no
// separator has closed; carriage returns, commas and quotes are plain bytes.
TEST(StringSplit, SeparatorsCommentMarkAndPlainBytes) {
  const std::pair<const char*, Tokens> cases[] = {
      {"scmethod FFT! comment", {"scmethod"}},
      {"scmethod FFT\t! comment", {"scmethod", "FFT"}},
      {"a!b c d", {}},
      {"   ! indented comment", {}},
      {"a ! b ! c", {"a"}},
      {"  a  \t \t b\t\t\tc", {"a", "b", "c"}},
      {"x y", {"x", "y"}},
      {"meshrms 4 5 6 \t  ", {"meshrms", "4", "5", "6"}},
      {"runperiod 300\r", {"runperiod", "300\r"}},
      {"end \r", {"end", "\r"}},
      {"a,b \"c d\"", {"a,b", "\"c", "d\""}},
      {"", {}},
      {" \t ", {}},
  };
  for (const auto& c : cases) {
    Tokens tokens = {"stale"};  // every call starts from an empty vector
    StringSplit(c.first, tokens);
    EXPECT_EQ(tokens, c.second) << '"' << c.first << '"';
  }
}
