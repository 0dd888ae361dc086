#pragma once
// Small helpers shared by the deck readers of Initial.
#include <cctype>
#include <cstddef>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

#include "run/HelperFunc.h"
#include "run/Initial.h"

namespace deck {

inline std::string Lower(std::string word) {
  for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return word;
}

// A keyword line with fewer arguments than the keyword reads is stopped
// cleanly instead of reading past the end of the line.
inline void NeedArguments(const std::vector<std::string>& token, std::size_t count) {
  if (token.size() >= count + 1) return;
  Initial::errorOut("keyword: " + token[0] + ", Insufficient parameters, need " + std::to_string(count) +
                    (count == 1 ? " parameter" : " parameters"));
}

// meshrms, integralgrid and numofgrid take up to three arguments.
inline void AtMostThree(const std::vector<std::string>& token) {
  if (token.size() <= 4) return;
  Initial::errorOut("keyword: " + token[0] + ", too many parameters, at most 3");
}

// The common line loop of the keyword decks: every line that has tokens is
// handed on, with the file already known to be open. A handler that takes
// three arguments also gets the line number (from 1) and the line as written,
// so that it can point a user at the line it could not use.
template <class Handler>
void ForEachTokenLine(std::ifstream& file, Handler handle) {
  std::string line;
  std::vector<std::string> token;
  int lineNumber = 0;
  while (file.peek() != EOF) {
    std::getline(file, line);
    ++lineNumber;
    StringSplit(line, token);
    if (token.empty()) continue;
    bool goOn;
    if constexpr (std::is_invocable_v<Handler&, std::vector<std::string>&, int, const std::string&>)
      goOn = handle(token, lineNumber, line);
    else
      goOn = handle(token);
    if (!goOn) break;
  }
}

}  // namespace deck
