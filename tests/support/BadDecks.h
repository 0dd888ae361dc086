#pragma once
// Tables of bad input: a base set of decks, one edit (or a few) per case, and keld run on the result. A refusal
// must stop at set-up with status 1, its whole message as the last console line and as the one ErrorLog.txt line,
// and nothing else half-written; a case that goes on must end with status 0 and say what it warns about.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace keldtest {

using DeckSet = std::map<std::string, std::string>;

// A `replace` of kFolder puts a folder where the file would be.
inline const std::string kFolder = "<folder>";

// In `file`, `find` replaced by `replace`; an empty `find` replaces the whole file (and makes it if the base has
// none).
struct DeckEdit {
  std::string file, find, replace;
};

struct Refusal {
  std::vector<DeckEdit> edits;
  std::string message;               // a regular expression for the whole message
  std::vector<std::string> written;  // files beside ErrorLog.txt that a late stop leaves, all complete
  Refusal(std::string file, std::string find, std::string replace, std::string text)
      : edits({{std::move(file), std::move(find), std::move(replace)}}), message(std::move(text)) {}
  Refusal(std::vector<DeckEdit> changes, std::string text, std::vector<std::string> files = {})
      : edits(std::move(changes)), message(std::move(text)), written(std::move(files)) {}
};

struct GoesOn {
  std::vector<DeckEdit> edits;
  std::string line;  // a whole console line the run must print
};

inline std::vector<std::string> Listing(const std::string& folder) {
  std::vector<std::string> names;
  if (DIR* d = opendir(folder.c_str())) {
    while (dirent* e = readdir(d))
      if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Writes the base decks with the edits into `in`; false when an edit does not apply.
inline bool WriteDecks(const std::string& in, const DeckSet& base, const std::vector<DeckEdit>& edits) {
  DeckSet decks = base;
  for (const DeckEdit& e : edits) {
    std::string& text = decks[e.file];
    if (e.find.empty() || e.replace == kFolder) {
      text = e.replace;
      continue;
    }
    const std::size_t at = text.find(e.find);
    if (at == std::string::npos) return false;
    text.replace(at, e.find.size(), e.replace);
  }
  for (const auto& [name, text] : decks) {
    if (text == kFolder)
      std::system(("mkdir -p '" + in + "/" + name + "'").c_str());
    else
      WriteFile(in + "/" + name, text);
  }
  return true;
}

// `what` for a failure message: the edits of a case.
inline std::string Describe(const std::vector<DeckEdit>& edits) {
  std::string d;
  for (const DeckEdit& e : edits) d += e.file + ": " + e.replace + "\n";
  return d;
}

inline void ExpectRefused(const DeckSet& base, const std::vector<Refusal>& cases) {
  for (const Refusal& c : cases) {
    TempDir dir;
    const std::string in = dir.subdir("in"), out = dir.subdir("out");
    ASSERT_TRUE(WriteDecks(in, base, c.edits)) << Describe(c.edits);
    const RunResult r = RunKeld(in, out);
    EXPECT_EQ(r.status, 1) << Describe(c.edits) << r.output;
    const std::size_t lastLine = r.output.rfind('\n', r.output.size() - 2);
    const std::string last = r.output.substr(lastLine + 1, r.output.size() - lastLine - 2);
    EXPECT_TRUE(std::regex_match(last, std::regex(c.message))) << Describe(c.edits) << last;
    const std::vector<std::string> log = ReadLines(out + "/ErrorLog.txt");
    ASSERT_EQ(log.size(), 1u) << Describe(c.edits);
    EXPECT_TRUE(std::regex_match(log[0].substr(21), std::regex("   Initialisation stage error: " + c.message)))
        << log[0];
    std::vector<std::string> expected = c.written;
    expected.push_back("ErrorLog.txt");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Listing(out), expected) << Describe(c.edits);
  }
}

inline void ExpectGoesOn(const DeckSet& base, const std::vector<GoesOn>& cases) {
  for (const GoesOn& c : cases) {
    TempDir dir;
    const std::string in = dir.subdir("in"), out = dir.subdir("out");
    ASSERT_TRUE(WriteDecks(in, base, c.edits)) << Describe(c.edits);
    const RunResult r = RunKeld(in, out);
    EXPECT_EQ(r.status, 0) << Describe(c.edits) << r.output;
    EXPECT_NE(("\n" + r.output).find("\n" + c.line + "\n"), std::string::npos) << Describe(c.edits) << r.output;
    EXPECT_FALSE(FileExists(out + "/ErrorLog.txt")) << Describe(c.edits);
  }
}

}  // namespace keldtest
