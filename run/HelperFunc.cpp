#include "run/HelperFunc.h"

#include <cstdio>
#include <ctime>
#include <sstream>

void StringSplit(const std::string& line, std::vector<std::string>& tokens) {
  tokens.clear();
  if (line.empty()) return;
  std::size_t i = 0, start = 0;
  const std::size_t n = line.size();
  while (i < n) {
    const char c = line[i];
    if (c == '!') return;  // an unclosed token goes with the comment
    if (c == ' ' || c == '\t') {
      if (start != i) tokens.push_back(line.substr(start, i - start));
      start = ++i;
      continue;
    }
    if (i == n - 1) {
      tokens.push_back(line.substr(start));
      return;
    }
    ++i;
  }
}

std::string TimeStamp() {
  char buffer[64];
  const std::time_t now = std::time(nullptr);
  std::strftime(buffer, sizeof buffer, "%Y/%m/%d %X  ", std::localtime(&now));
  return buffer;
}

double ElapsedMicroseconds(std::chrono::system_clock::time_point t0) {
  using namespace std::chrono;
  return static_cast<double>(duration_cast<microseconds>(system_clock::now() - t0).count());
}

double ElapsedSeconds(std::chrono::system_clock::time_point t0) { return ElapsedMicroseconds(t0) / 1e6; }

std::string FormatFixed(double value) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, "%f", value);
  return buffer;
}

std::string FormatNumber(double value) {
  std::ostringstream s;
  s << value;
  return s.str();
}
