#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "run/HelperFunc.h"

namespace {

std::vector<std::string> Split(const std::string& line) {
  std::vector<std::string> tokens;
  StringSplit(line, tokens);
  return tokens;
}

using Tokens = std::vector<std::string>;

}  // namespace

// A token that no separator has closed goes down with the comment; a blank in
// front of the mark keeps it.
TEST(StringSplit, CommentMarkDropsTokenDirectlyInFront) {
  EXPECT_EQ(Split("scmethod FFT! comment"), Tokens({"scmethod"}));
  EXPECT_EQ(Split("scmethod FFT ! comment"), Tokens({"scmethod", "FFT"}));
  EXPECT_EQ(Split("scmethod FFT\t! comment"), Tokens({"scmethod", "FFT"}));
  EXPECT_EQ(Split("runperiod 12!"), Tokens({"runperiod"}));
  EXPECT_EQ(Split("a!b c d"), Tokens());
  EXPECT_EQ(Split("! a whole comment line"), Tokens());
  EXPECT_EQ(Split("   ! indented comment"), Tokens());
  EXPECT_EQ(Split("!"), Tokens());
  // Everything behind the mark is gone, separators included.
  EXPECT_EQ(Split("a ! b ! c"), Tokens({"a"}));
}

TEST(StringSplit, BlanksAndTabsSeparateAndRunsGiveNoEmptyTokens) {
  EXPECT_EQ(Split("drift 0.1 0.02 0"), Tokens({"drift", "0.1", "0.02", "0"}));
  EXPECT_EQ(Split("a\tb\tc"), Tokens({"a", "b", "c"}));
  EXPECT_EQ(Split("  a  \t \t b\t\t\tc"), Tokens({"a", "b", "c"}));
  EXPECT_EQ(Split("\t\ta"), Tokens({"a"}));
  // One-byte tokens, first and last place of the line.
  EXPECT_EQ(Split("x"), Tokens({"x"}));
  EXPECT_EQ(Split("x y"), Tokens({"x", "y"}));
}

TEST(StringSplit, TrailingSeparatorLosesNothing) {
  EXPECT_EQ(Split("meshrms 4 5 6 "), Tokens({"meshrms", "4", "5", "6"}));
  EXPECT_EQ(Split("meshrms 4 5 6\t"), Tokens({"meshrms", "4", "5", "6"}));
  EXPECT_EQ(Split("meshrms 4 5 6 \t  "), Tokens({"meshrms", "4", "5", "6"}));
  EXPECT_EQ(Split("end "), Tokens({"end"}));
}

// Only blank and tab separate: carriage returns, commas and quotes are
// ordinary bytes of a token.
TEST(StringSplit, OtherBytesStayInTheToken) {
  EXPECT_EQ(Split("runperiod 300\r"), Tokens({"runperiod", "300\r"}));
  EXPECT_EQ(Split("start\r"), Tokens({"start\r"}));
  EXPECT_EQ(Split("end \r"), Tokens({"end", "\r"}));
  EXPECT_EQ(Split("a,b \"c d\""), Tokens({"a,b", "\"c", "d\""}));
  EXPECT_EQ(Split("x\ny"), Tokens({"x\ny"}));
}

// The caller's vector is emptied on every call, also for lines without tokens.
TEST(StringSplit, EveryCallStartsFromAnEmptyVector) {
  std::vector<std::string> tokens = {"old", "tokens"};
  StringSplit("", tokens);
  EXPECT_TRUE(tokens.empty());

  tokens = {"old"};
  StringSplit(" \t ", tokens);
  EXPECT_TRUE(tokens.empty());

  tokens = {"old"};
  StringSplit("! comment", tokens);
  EXPECT_TRUE(tokens.empty());

  tokens = {"old"};
  StringSplit("new line", tokens);
  EXPECT_EQ(tokens, Tokens({"new", "line"}));
}
