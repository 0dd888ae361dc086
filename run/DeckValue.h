#pragma once
// The numbers and lines of every deck and table. A token that is no usable
// number throws DeckValueError naming the token; the line loop of the file
// that holds it adds the file and the line and stops the run, so that every
// bad number is reported where it stands, whatever reads it.
#include <istream>
#include <stdexcept>
#include <string>

class DeckValueError : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

// The numeric prefix of `token` (what follows it is ignored, as the string
// conversions of the standard library do), which must be a finite double.
double DeckReal(const std::string& token);

// The integer prefix of `token`, which must fit in 32 bits: "2.5" reads 2.
int DeckInteger(const std::string& token);

// One line without its line feed and without the carriage return that a
// Windows editor leaves in front of it. False at the end of the stream.
bool GetDeckLine(std::istream& in, std::string& line);

// True when `path` names a folder: such a name opens as a stream and reads as
// an empty file, which must not pass for a deck.
bool IsFolder(const std::string& path);
