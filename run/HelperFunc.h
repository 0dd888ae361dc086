#pragma once
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

// The one tokeniser of all decks. Blank and tab separate tokens; "!" ends the
// line and drops a token that no separator has closed yet, so a comment mark
// needs a blank in front of it. Nothing else is stripped: a carriage return
// stays on the last token.
void StringSplit(const std::string& line, std::vector<std::string>& tokens);

// Local time as "%Y/%m/%d %X  ", the stamp of the logs and status lines.
std::string TimeStamp();

// Seconds since t0, cut to whole microseconds first.
double ElapsedSeconds(std::chrono::system_clock::time_point t0);

// Whole microseconds since t0.
double ElapsedMicroseconds(std::chrono::system_clock::time_point t0);

// A double through printf's "%f".
std::string FormatFixed(double value);

// Turns (x, y, z) into the frame of a plane or section with the angles
// a (x-y plane), b (x-z plane) and c (y-z plane), in this order.
inline void RotateIntoFrame(double a, double b, double c, double& x, double& y, double& z) {
  const double ca = std::cos(a), sa = std::sin(a);
  double x1 = x * ca + y * sa;
  double y1 = y * ca - x * sa;
  const double cb = std::cos(b), sb = std::sin(b);
  const double x2 = x1 * cb - z * sb;
  double z1 = x1 * sb + z * cb;
  const double cc = std::cos(c), sc = std::sin(c);
  const double y2 = y1 * cc + z1 * sc;
  const double z2 = z1 * cc - y1 * sc;
  x = x2;
  y = y2;
  z = z2;
}
