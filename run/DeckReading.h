#pragma once
// Small helpers shared by the deck readers of Initial.
#include <cctype>
#include <cstddef>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"

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

// Opens the deck `name` of the input folder; false when it does not open. A
// folder of that name is refused: it would read as an empty deck.
inline bool OpenDeck(std::ifstream& file, const std::string& name) {
  const std::string path = inputFilePath + name;
  if (IsFolder(path)) Initial::errorOut(name + " in the input folder is a folder, not a file");
  file.open(path);
  return file.is_open();
}

// Refuses what line `lineNumber` of deck `name` gives.
[[noreturn]] inline void Refuse(const std::string& name, int lineNumber, const std::string& what) {
  Initial::errorOut(name + " line " + std::to_string(lineNumber) + ": " + what);
}

// input.txt and beam.txt know every keyword they may hold.
[[noreturn]] inline void UnknownKeyword(const std::string& name, int lineNumber, const std::string& word) {
  Initial::errorOut(name + " Contains unknown keywords, check " + name + ": line " + std::to_string(lineNumber) +
                    " holds '" + word + "'");
}

// An element line holds more tokens than its element takes: said with the line,
// since a value typed twice or in the wrong place shifts nothing visibly.
inline void WarnExtraTokens(const std::vector<std::string>& token, std::size_t takes, int lineNumber) {
  if (token.size() <= takes) return;
  std::cout << "Warning! lattice.txt line " << lineNumber << ": a " << token[0] << " line takes " << takes
            << " tokens, this one holds " << token.size() << std::endl;
}

// Stops the run at line `lineNumber` of deck `name`, quoting the line.
[[noreturn]] inline void LineError(const std::string& name, int lineNumber, const std::string& what,
                                   const std::string& line) {
  Initial::errorOut(name + " line " + std::to_string(lineNumber) + ": " + what + " in \"" + line + "\"");
}

// The common line loop of the keyword decks: every line that has tokens is
// handed on, with the file already known to be open and the carriage return
// of a Windows editor gone. A handler that takes three arguments also gets
// the line number (from 1) and the line as written, so that it can point a
// user at the line it could not use. A number that cannot be read, and a
// line too short for what reads it, stop the run naming file, line and value
// wherever in the handler they are met.
template <class Handler>
void ForEachTokenLine(std::ifstream& file, const std::string& name, Handler handle) {
  std::string line;
  std::vector<std::string> token;
  int lineNumber = 0;
  while (GetDeckLine(file, line)) {
    ++lineNumber;
    StringSplit(line, token);
    if (token.empty()) continue;
    bool goOn;
    try {
      if constexpr (std::is_invocable_v<Handler&, std::vector<std::string>&, int, const std::string&>)
        goOn = handle(token, lineNumber, line);
      else
        goOn = handle(token);
    } catch (const DeckValueError& e) {
      LineError(name, lineNumber, e.what(), line);
    } catch (const std::out_of_range&) {
      LineError(name, lineNumber, "too few values", line);
    }
    if (!goOn) break;
  }
}

}  // namespace deck
