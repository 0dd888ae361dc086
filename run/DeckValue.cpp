#include "run/DeckValue.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

double DeckReal(const std::string& token) {
  const char* begin = token.c_str();
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(begin, &end);
  if (end == begin) throw DeckValueError("\"" + token + "\" is not a number");
  if (errno == ERANGE) throw DeckValueError("\"" + token + "\" is out of range");
  if (!std::isfinite(value)) throw DeckValueError("\"" + token + "\" is not a finite number");
  return value;
}

int DeckInteger(const std::string& token) {
  const char* begin = token.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(begin, &end, 10);
  if (end == begin) throw DeckValueError("\"" + token + "\" is not a whole number");
  if (errno == ERANGE || value < INT_MIN || value > INT_MAX)
    throw DeckValueError("\"" + token + "\" is out of range for a whole number");
  return static_cast<int>(value);
}

bool GetDeckLine(std::istream& in, std::string& line) {
  if (!std::getline(in, line)) return false;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

bool IsFolder(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}
