#pragma once
// The numbers of the host programs' options, read strictly: decimal digits
// alone, no sign, no blanks, and within range, so that a value never wraps
// or turns silently into another one.
#include <iostream>
#include <string>

namespace host {

// True when `text` is a whole number from 0 to `max`; the number in `value`.
inline bool ParseWhole(const std::string& text, unsigned long long max, unsigned long long& value) {
  if (text.empty() || text.size() > 20) return false;
  value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const unsigned digit = static_cast<unsigned>(c - '0');
    if (value > (max - digit) / 10) return false;
    value = value * 10 + digit;
  }
  return true;
}

inline const char* const kSeedRefusal = "--seed wants a whole number from 0 to 4294967295, got ";

// --seed N: the seed of the bunch generator, 0 to 4294967295. Prints the
// refusal and returns false for anything else.
inline bool ParseSeed(const std::string& text, unsigned int& seed) {
  unsigned long long value = 0;
  if (!ParseWhole(text, 4294967295ULL, value)) {
    std::cout << kSeedRefusal << text << std::endl;
    return false;
  }
  seed = static_cast<unsigned int>(value);
  return true;
}

}  // namespace host
