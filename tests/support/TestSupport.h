#pragma once
// Small helpers shared by the tests: temporary folders, deck files, running
// the keld host program and reading what it wrote.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace keldtest {

// A fresh folder under /tmp, removed when the object goes.
class TempDir {
 public:
  TempDir() {
    char pattern[] = "/tmp/keld_test_XXXXXX";
    char* made = mkdtemp(pattern);
    if (made) path_ = made;
  }
  ~TempDir() {
    if (!path_.empty()) std::system(("rm -rf '" + path_ + "'").c_str());
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Creates a sub-folder and returns its path.
  std::string subdir(const std::string& name) const {
    const std::string p = file(name);
    std::system(("mkdir -p '" + p + "'").c_str());
    return p;
  }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

inline bool FileExists(const std::string& path) {
  std::ifstream in(path);
  return in.good();
}

inline std::vector<std::string> ReadLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Splits a line on blanks.
inline std::vector<double> Numbers(const std::string& line) {
  std::istringstream s(line);
  std::vector<double> v;
  double x;
  while (s >> x) v.push_back(x);
  return v;
}

struct RunResult {
  int status = -1;     // exit status, or -1 when killed by a signal
  std::string output;  // stdout and stderr together
};

// Runs a shell command line, stdout and stderr together.
inline RunResult RunCommand(const std::string& commandLine) {
  RunResult r;
  const std::string command = "(" + commandLine + ") 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return r;
  char buffer[4096];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) r.output.append(buffer, n);
  const int status = pclose(pipe);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// Runs the keld host program on an input and an output folder.
inline RunResult RunKeld(const std::string& input, const std::string& output) {
  return RunCommand(std::string(KELD_BINARY) + " '" + input + "' '" + output + "'");
}

// Reads a value of type T at a byte offset of a binary buffer.
template <class T>
T At(const std::string& bytes, std::size_t offset) {
  T value;
  std::copy(bytes.data() + offset, bytes.data() + offset + sizeof(T), reinterpret_cast<char*>(&value));
  return value;
}

// One particle of a distribution file: x (cm), x' (rad), y (cm), y' (rad), phase (rad), kinetic energy (MeV).
struct DstRow {
  double x, xp, y, yp, phase, energy;
};

// A distribution file in the binary layout: bytes 125 100, count, current (mA), frequency (MHz), byte 125, the
// rows, the rest energy (MeV).
inline std::string DstFile(const std::vector<DstRow>& rows, double currentmA, double frequencyMHz, double rest) {
  std::string s;
  auto put = [&s](const void* p, std::size_t n) { s.append(static_cast<const char*>(p), n); };
  const int count = static_cast<int>(rows.size());
  s.push_back(125);
  s.push_back(100);
  put(&count, 4);
  put(&currentmA, 8);
  put(&frequencyMHz, 8);
  s.push_back(125);
  for (const DstRow& r : rows) put(&r, 48);
  put(&rest, 8);
  return s;
}

// The rows of a distribution file as written, in file units: x (cm), x', y (cm), y', phase, energy.
inline std::vector<std::vector<double>> DstRows(const std::string& path) {
  const std::string bytes = ReadFile(path);
  std::vector<std::vector<double>> rows;
  if (bytes.size() < 31) return rows;
  const int n = At<int>(bytes, 2);
  for (int i = 0; i < n && 23 + 48 * static_cast<std::size_t>(i + 1) <= bytes.size(); ++i) {
    rows.emplace_back(6);
    for (int k = 0; k < 6; ++k) rows.back()[k] = At<double>(bytes, 23 + 48 * static_cast<std::size_t>(i) + 8 * k);
  }
  return rows;
}

}  // namespace keldtest
