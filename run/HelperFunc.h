#pragma once
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

struct ErrorParameter;
class Lattice;

// Draws every sample of an error study at once: samples n = s a + d, with
// amplitude step s (0 to b - 1) outside and draw d (0 to a - 1) inside, the
// amplitude of a value v in step s being (s + 1) v / b.
void GenerateErrorSet(ErrorParameter& parameter, Lattice& lattice);
// The elements that element error row `row` reaches: among those it covers,
// the field maps of the kind it names, static magnetic (type 3) for a row of
// kind 0 and cavities (type 1) for kind 1. Rows of a set of superimposed
// fields (kind 2) belong to their member and reach nothing here.
std::vector<int> ErrorReach(const ErrorParameter& parameter, const Lattice& lattice, std::size_t row);
// A normal draw by the Box-Muller pair, the second member kept for the next
// call. Not for worker threads: its state is shared.
double GenerateGaussian(double mean, double sigma);
// Uniform in (0, 1], and a normal draw from two of them.
double rand_gen();
double normalRandom();

// Merges the RFQ tables rfqinputAnn.txt and rfqinputV.txt of the input
// folder into its rfqinput.txt and writes E0-z.txt there too; the output
// folder is not used.
void ReadRFQ(std::string& inputFolder, std::string& outputFolder);

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

// A double in the stream's default format (six significant digits), as the
// console lines print it.
std::string FormatNumber(double value);

// Turns vectors into the frame of a plane or section with the angles a (in
// the x-y plane), b (x-z) and c (y-z), applied in this order. The sines and
// cosines are taken once, for all the vectors of one frame.
struct FrameRotation {
  double ca, sa, cb, sb, cc, sc;
  FrameRotation(double a, double b, double c)
      : ca(std::cos(a)), sa(std::sin(a)), cb(std::cos(b)), sb(std::sin(b)), cc(std::cos(c)), sc(std::sin(c)) {}
  void Apply(double& x, double& y, double& z) const {
    const double x1 = x * ca + y * sa;
    const double y1 = y * ca - x * sa;
    const double x2 = x1 * cb - z * sb;
    const double z1 = x1 * sb + z * cb;
    x = x2;
    y = y1 * cc + z1 * sc;
    z = z1 * cc - y1 * sc;
  }
};
