// keld --help names every deck the library reads and every file it writes: each quoted file name in the library's
// sources must stand in the help text, so the list cannot fall behind a new output.
#include <dirent.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

#include "tests/support/TestSupport.h"

namespace {
std::set<std::string> FileNamesInSources() {
  std::set<std::string> names;
  static const std::regex quoted(R"re("([A-Za-z_]+\.(txt|dst|plt))")re");
  for (const char* folder : {"run", "tracking", "beamline", "beam", "spacecharge"}) {
    const std::string path = std::string(KELD_SOURCE_DIR) + "/" + folder;
    DIR* d = opendir(path.c_str());
    if (!d) continue;
    while (dirent* e = readdir(d)) {
      const std::string file = e->d_name;
      if (file.size() < 4 || file.substr(file.size() - 4) != ".cpp") continue;
      const std::string text = keldtest::ReadFile(path + "/" + file);
      for (auto it = std::sregex_iterator(text.begin(), text.end(), quoted); it != std::sregex_iterator(); ++it)
        names.insert((*it)[1]);
    }
    closedir(d);
  }
  return names;
}
}  // namespace

TEST(HostHelp, NamesEveryFileTheLibraryReadsOrWrites) {
  FILE* pipe = popen((std::string(KELD_BINARY) + " --help").c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string help;
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) help.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0);
  const std::set<std::string> names = FileNamesInSources();
  ASSERT_GE(names.size(), 15u);  // the scan found the sources
  for (const std::string& name : names) EXPECT_NE(help.find(name), std::string::npos) << name;
  for (const char* pattern : {"outData_<z>.dst", "output_<i>"}) EXPECT_NE(help.find(pattern), std::string::npos);
}
