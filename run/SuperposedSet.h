#pragma once
// The field lines of lattice.txt: single field maps and sets of superimposed
// fields, which become Field elements of type 4.
#include <string>
#include <vector>

#include "beamline/Lattice.h"
#include "run/ErrorParameter.h"

// A `field` line: the map name gets the input folder in front, a
// radio-frequency field (token 5 not 0) gets the running cavity number
// `rfIndex` as token 14, and the Field is placed.
void AddFieldLine(std::vector<std::string> token, int lineNumber, int& rfIndex, Lattice& lattice);

// Refuses what a field line, or a field member of a set, gives that no field
// can have (a length or aperture of 0 or below, an unknown type, a cavity
// without frequency or a static field with one, a factor that would give the
// map an impossible peak), warns of a radio-frequency below 1 MHz, and loads
// the map on the way.
void CheckFieldLine(const std::vector<std::string>& token, int lineNumber, Lattice& lattice);

// The same for an rfq line, before its tables are merged.
void CheckRfqLine(const std::vector<std::string>& token, int lineNumber);

// A set of superimposed fields as the deck gives it: groups of a `superpose`
// line, an optional element error line and a member line, closed by a
// `superposeout` line (a curved set) or by any other line, which the set
// consumes. A set with a radio-frequency member is cut at the start and the
// end of that member into up to three Field elements.
class SuperposedSet {
 public:
  bool Open() const { return state != kClosed; }
  // A `superpose` line outside a set.
  void Begin(const std::vector<std::string>& token, int lineNumber);
  // Every line of the deck while the set is open.
  void Read(const std::vector<std::string>& token, int lineNumber, Lattice& lattice, ErrorParameter& error,
            int& rfIndex);
  // lattice.txt has ended: a set still open is refused.
  void EndOfDeck() const;
  // The line of an end that closed a set and was used up by it, or 0.
  int ConsumedEnd() const { return consumedEnd; }

 private:
  enum State { kClosed, kAfterSuperpose, kAfterErrorLine, kAfterMember };
  State state = kClosed;
  int firstLine = 0;
  std::vector<double> starts, ends;            // m, relative to the set's start
  std::vector<std::vector<double>> offsets;    // six numbers of each superpose line
  std::vector<std::vector<std::string>> members;
  double minAperture = 1.0;
  std::vector<double> outRecord;  // superposeout: three offsets, three angles (rad)
  std::vector<double> errorRows;  // rows of twenty, the last place naming the member
  int curveFlag = 0;
  int consumedEnd = 0;

  void AddStart(const std::vector<std::string>& token);
  void AddErrorRow(const std::vector<std::string>& token, int lineNumber, int elementCount);
  void AddMember(const std::vector<std::string>& token, int lineNumber, Lattice& lattice);
  void Close(Lattice& lattice, ErrorParameter& error, int& rfIndex);
  // The twenty tokens of member i: its tokens padded to twelve, its start
  // and end, its six offsets.
  std::vector<std::string> Block(std::size_t i) const;
  // Places one section of a cut set with the blocks of `chosen`, and its
  // error rows renumbered by block.
  void PlaceSection(std::vector<std::string> header, const std::vector<std::size_t>& chosen, Lattice& lattice,
                    ErrorParameter& error) const;
};
