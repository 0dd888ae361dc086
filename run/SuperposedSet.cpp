#include "run/SuperposedSet.h"

#include <algorithm>
#include <cmath>
#include <iostream>

#include "beamline/Field.h"
#include "run/DeckReading.h"
#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"

namespace {

constexpr double kPi = 3.141592653589793;
// Hz: a radio-frequency field below this was given in MHz by mistake.
constexpr double kLowestRadioFrequency = 1e6;
// Peak fields no accelerator element reaches: MV/m and T.
constexpr double kMaxElectricField = 1e4;
constexpr double kMaxMagneticField = 1e3;

std::string Where(int lineNumber) { return "lattice.txt line " + std::to_string(lineNumber) + ": "; }

bool IsSetErrorKeyword(const std::string& key) {
  return key == "err_cav_ncpl_stat" || key == "err_cav_ncpl_dyn" || key == "err_quad_ncpl_stat" ||
         key == "err_quad_ncpl_dyn";
}

// Pads a token list with "invalid" up to fourteen tokens and appends the
// cavity number: it becomes token 14 of a radio-frequency element.
void NumberCavity(std::vector<std::string>& token, int& rfIndex) {
  if (token.size() < 14) token.resize(14, "invalid");
  token.push_back(std::to_string(rfIndex));
  ++rfIndex;
}

}  // namespace

void CheckFieldLine(const std::vector<std::string>& token, int lineNumber, Lattice& lattice) {
  const std::string where = Where(lineNumber);
  if (!(DeckReal(token[1]) > 0.0))
    Initial::errorOut(where + "the length of a field must be a positive number of metres, got " + token[1]);
  if (!(DeckReal(token[2]) > 0.0))
    Initial::errorOut(where + "the aperture of a field must be a positive number of metres, got " + token[2]);
  const int type = DeckInteger(token[4]);
  if (type < 0 || type > 3)
    Initial::errorOut(where + "field type " + token[4] +
                      " is none of 0 (no field), 1 (radio-frequency), 2 (static electric), 3 (static magnetic)");
  // A frequency other than 0 makes the field a cavity of the phase scan.
  const double frequency = DeckReal(token[5]);
  if (type == 1 && !(frequency > 0.0))
    Initial::errorOut(where + "a radio-frequency field (type 1) needs a frequency above 0 Hz, got " + token[5]);
  if (type != 1 && frequency != 0.0)
    Initial::errorOut(where + "a field of type " + token[4] + " is static and takes the frequency 0, got " + token[5]);
  if (type == 1 && frequency < kLowestRadioFrequency)
    std::cout << "Warning! " << where << "the frequency " << token[5]
              << " of this radio-frequency field is below 1 MHz; field lines give it in Hz" << std::endl;
  DeckReal(token[6]);  // the phase, which the scan reads again
  const double eScale = DeckReal(token[7]), bScale = DeckReal(token[8]);
  if (type == 0) return;
  const int map = lattice.LoadMap(inputFilePath + token[9], type);
  const FieldMatrix& m = lattice.fieldM;
  const double electric = type == 3 ? 0.0 : m.peakLow[map] * std::fabs(eScale);
  const double magnetic = (type == 1 ? m.peakHigh[map] : type == 3 ? m.peakLow[map] : 0.0) * std::fabs(bScale);
  if (!(electric <= kMaxElectricField))
    Initial::errorOut(where + "the electric factor " + token[7] + " gives map " + token[9] + " a peak field of " +
                      FormatNumber(electric) + " MV/m; no accelerator reaches 10000 MV/m");
  if (!(magnetic <= kMaxMagneticField))
    Initial::errorOut(where + "the magnetic factor " + token[8] + " gives map " + token[9] + " a peak field of " +
                      FormatNumber(magnetic) + " T; no magnet reaches 1000 T");
}

void CheckRfqLine(const std::vector<std::string>& token, int lineNumber) {
  const std::string where = Where(lineNumber);
  if (token.size() < 8) Initial::errorOut(where + "an rfq line needs 8 tokens, up to the name of its cell table");
  deck::WarnExtraTokens(token, 8, lineNumber);
  if (!(DeckReal(token[1]) > 0.0))
    Initial::errorOut(where + "the length of an rfq must be a positive number of metres, got " + token[1]);
  if (!(DeckReal(token[2]) > 0.0))
    Initial::errorOut(where + "the aperture of an rfq must be a positive number of metres, got " + token[2]);
  const double frequency = DeckReal(token[5]);
  if (!(frequency > 0.0)) Initial::errorOut(where + "an rfq needs a frequency above 0 Hz, got " + token[5]);
  if (frequency < kLowestRadioFrequency)
    std::cout << "Warning! " << where << "the frequency " << token[5]
              << " of this rfq is below 1 MHz; rfq lines give it in Hz" << std::endl;
}

void AddFieldLine(std::vector<std::string> token, int lineNumber, int& rfIndex, Lattice& lattice) {
  if (token.size() < 10) {
    // The element reports the short list itself and ends the run.
    std::cout << Where(lineNumber) << "a field line needs 10 tokens, up to the name of its map" << std::endl;
    Field().SetParameter(static_cast<int>(lattice.element.size()), 0.0, token);
  }
  deck::WarnExtraTokens(token, 10, lineNumber);
  CheckFieldLine(token, lineNumber, lattice);
  token[9] = inputFilePath + token[9];
  if (DeckReal(token[5]) != 0.0) NumberCavity(token, rfIndex);
  lattice.SetElement(token, new Field());
}

void SuperposedSet::Begin(const std::vector<std::string>& token, int lineNumber) {
  const int endLine = consumedEnd;
  *this = SuperposedSet();
  consumedEnd = endLine;
  firstLine = lineNumber;
  AddStart(token);
  state = kAfterSuperpose;
}

void SuperposedSet::AddStart(const std::vector<std::string>& token) {
  const std::size_t arguments = token.size() - 1;
  if (arguments != 1 && arguments < 6) Initial::errorOut("Abnormal number of parameters for keyword superpose");
  std::vector<double> six(6, 0.0);
  for (std::size_t k = 0; k < (arguments == 1 ? 1 : 6); ++k) six[k] = DeckReal(token[1 + k]);
  starts.push_back(six[0]);
  offsets.push_back(six);
}

void SuperposedSet::AddErrorRow(const std::vector<std::string>& token, int lineNumber, int elementCount) {
  // Arguments fill places 3 to 17; 18 and 19 say what kind of member and which.
  if (token.size() - 1 > 15)
    Initial::errorOut(Where(lineNumber) + "keyword: " + token[0] +
                      ", too many parameters in a set of superimposed fields, at most 15");
  std::vector<double> row(20, 0.0);
  row[0] = 2.0;
  row[1] = token[0].find("_dyn") != std::string::npos ? 1.0 : 0.0;
  row[2] = static_cast<double>(elementCount);
  for (std::size_t k = 1; k < token.size(); ++k) row[2 + k] = DeckReal(token[k]);
  row[18] = token[0].compare(4, 3, "cav") == 0 ? 1.0 : 0.0;
  row[19] = static_cast<double>(members.size());
  errorRows.insert(errorRows.end(), row.begin(), row.end());
}

void SuperposedSet::AddMember(const std::vector<std::string>& token, int lineNumber, Lattice& lattice) {
  const std::string& key = token[0];
  if (IsSetErrorKeyword(key))
    Initial::errorOut(Where(lineNumber) + "only one error line may stand before a member of a set of "
                                          "superimposed fields");
  if (key == "superpose" || key == "superposeout")
    Initial::errorOut(Where(lineNumber) + key + " stands where a set of superimposed fields needs a member line");
  // The set's element reads field and drift groups; any other line would
  // leave its member without a field, unseen.
  if (key != "field" && key != "drift")
    Initial::errorOut(Where(lineNumber) + "a member of a set of superimposed fields is a field or a drift line, not " +
                      key);
  if (token.size() < 4)
    Initial::errorOut(Where(lineNumber) + "a member of a set of superimposed fields needs a type, a length, an "
                                          "aperture and a second aperture");
  // Each member is one group of twenty tokens in the element: twelve of its
  // own, then its start, end and six offsets.
  if (token.size() > 12)
    Initial::errorOut(Where(lineNumber) + "a member of a set of superimposed fields may hold at most 12 tokens, "
                                          "this one holds " + std::to_string(token.size()));
  if (key == "field" && token.size() < 10)
    Initial::errorOut(Where(lineNumber) + "a field line needs 10 tokens, up to the name of its map");
  const double length = DeckReal(token[1]);
  if (!(length > 0.0))
    Initial::errorOut(Where(lineNumber) + "the length of a member of a set of superimposed fields must be a positive "
                                          "number of metres, got " + token[1]);
  const double aperture = DeckReal(token[2]);
  if (!(aperture > 0.0))
    Initial::errorOut(Where(lineNumber) + "the aperture of a member of a set of superimposed fields must be a "
                                          "positive number of metres, got " + token[2]);
  if (key == "field") CheckFieldLine(token, lineNumber, lattice);
  if (aperture < minAperture) minAperture = aperture;
  ends.push_back(length + starts.back());
  members.push_back(token);
}

void SuperposedSet::Read(const std::vector<std::string>& token, int lineNumber, Lattice& lattice,
                         ErrorParameter& error, int& rfIndex) {
  const std::string& key = token[0];
  switch (state) {
    case kClosed:
      return;
    case kAfterSuperpose:
      if (IsSetErrorKeyword(key)) {
        AddErrorRow(token, lineNumber, static_cast<int>(lattice.element.size()));
        state = kAfterErrorLine;
        return;
      }
      AddMember(token, lineNumber, lattice);
      state = kAfterMember;
      return;
    case kAfterErrorLine:
      AddMember(token, lineNumber, lattice);
      state = kAfterMember;
      return;
    case kAfterMember:
      if (key == "superpose") {
        AddStart(token);
        state = kAfterSuperpose;
        return;
      }
      if (key == "superposeout") {
        if (token.size() < 7) Initial::errorOut("Abnormal number of parameters for keyword superposeout");
        const double a5 = DeckReal(token[5]), a6 = DeckReal(token[6]);
        outRecord = {DeckReal(token[1]), DeckReal(token[2]), DeckReal(token[3]),
                     DeckReal(token[4]) * kPi / 180.0, a5 * kPi / 180.0, a6 * kPi / 180.0};
        curveFlag = a6 == 0.0 && a5 != 0.0 ? 1 : 2;
      } else {
        // Any other line closes a straight set and is used up by it; an end
        // line so used is named if the lattice then has none.
        curveFlag = 0;
        if (key == "end") consumedEnd = lineNumber;
      }
      state = kClosed;
      Close(lattice, error, rfIndex);
      return;
  }
}

void SuperposedSet::EndOfDeck() const {
  if (Open())
    Initial::errorOut("lattice.txt ends inside the set of superimposed fields that begins on line " +
                      std::to_string(firstLine) + "; close it with superposeout or another line");
}

std::vector<std::string> SuperposedSet::Block(std::size_t i) const {
  std::vector<std::string> block = members[i];
  block.resize(12, "invalid");
  block.push_back(FormatFixed(starts[i]));
  block.push_back(FormatFixed(ends[i]));
  for (double v : offsets[i]) block.push_back(FormatFixed(v));
  return block;
}

void SuperposedSet::PlaceSection(std::vector<std::string> header, const std::vector<std::size_t>& chosen,
                                 Lattice& lattice, ErrorParameter& error) const {
  std::vector<double> rows;
  for (std::size_t b = 0; b < chosen.size(); ++b) {
    const std::vector<std::string> block = Block(chosen[b]);
    header.insert(header.end(), block.begin(), block.end());
    for (std::size_t r = 0; r + 20 <= errorRows.size(); r += 20) {
      if (errorRows[r + 19] != static_cast<double>(chosen[b])) continue;
      rows.insert(rows.end(), errorRows.begin() + r, errorRows.begin() + r + 20);
      rows.back() = static_cast<double>(b);
    }
  }
  lattice.SetElement(header, new Field());
  if (!rows.empty()) error.elementError.push_back(rows);
}

void SuperposedSet::Close(Lattice& lattice, ErrorParameter& error, int& rfIndex) {
  const std::string folder = inputFilePath;
  std::vector<std::size_t> radioFrequency;
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members[i][0] != "field") continue;
    members[i][9] = folder + members[i][9];
    if (DeckReal(members[i][5]) != 0.0) radioFrequency.push_back(i);
  }
  if (radioFrequency.size() > 1)
    Initial::errorOut("Only one RF cavity is allowed to be used in a set of superimposed fields");
  if (radioFrequency.size() == 1 && curveFlag != 0)
    Initial::errorOut("RF cavity is temporarily not allowed in curve transmission");

  const double E = *std::max_element(ends.begin(), ends.end());
  const double S = *std::min_element(starts.begin(), starts.end());
  const std::vector<std::string> invalid6(6, "invalid");

  if (radioFrequency.empty()) {
    std::vector<std::string> token = {"field", FormatFixed(E - S), FormatFixed(minAperture), "0", "4", "0", "0",
                                      "0", "0", "0", std::to_string(curveFlag), "invalid", "0", FormatFixed(E - S)};
    token.insert(token.end(), invalid6.begin(), invalid6.end());
    for (std::size_t i = 0; i < members.size(); ++i) {
      const std::vector<std::string> block = Block(i);
      token.insert(token.end(), block.begin(), block.end());
    }
    lattice.SetElement(token, new Field());
    if (!errorRows.empty()) error.elementError.push_back(errorRows);
    if (curveFlag != 0) {
      std::vector<double> record = outRecord;
      record.push_back(lattice.zEnd.back());
      lattice.outputPlane.push_back(record);
      lattice.element.back()->outputMark = curveFlag;
    }
    return;
  }

  // Cut at the start s and the end e of the cavity R.
  const std::size_t R = radioFrequency[0];
  const std::vector<std::string>& r = members[R];
  const double s = starts[R], e = ends[R];
  auto plainHeader = [&](double a, double b) {
    std::vector<std::string> h = {"field", FormatFixed(b - a), FormatFixed(minAperture), "0", "4", "0", "0", "0",
                                  "0", "0", "invalid", "invalid", a == 0.0 ? "0" : FormatFixed(a), FormatFixed(b)};
    h.insert(h.end(), invalid6.begin(), invalid6.end());
    return h;
  };
  auto select = [&](auto keep) {
    std::vector<std::size_t> chosen;
    for (std::size_t i = 0; i < members.size(); ++i)
      if (keep(i)) chosen.push_back(i);
    return chosen;
  };
  std::vector<std::string> cavity = {"field", r[1], FormatFixed(minAperture), "0", "4", r[5], r[6], r[7], r[8], "0",
                                     "invalid", "invalid"};
  if (s == 0.0) {
    // Twenty-one header tokens: the blocks behind it do not line up with
    // the groups the element reads.
    cavity.insert(cavity.end(), {"0", r[1], std::to_string(rfIndex)});
    cavity.insert(cavity.end(), invalid6.begin(), invalid6.end());
    PlaceSection(cavity, select([&](std::size_t i) { return starts[i] < e; }), lattice, error);
    PlaceSection(plainHeader(e, E), select([&](std::size_t i) { return ends[i] > e; }), lattice, error);
  } else {
    cavity.insert(cavity.end(), {FormatFixed(s), FormatFixed(e), std::to_string(rfIndex)});
    cavity.insert(cavity.end(), 5, "invalid");
    PlaceSection(plainHeader(0.0, s), select([&](std::size_t i) { return starts[i] < s; }), lattice, error);
    if (e != E) {
      PlaceSection(cavity, select([&](std::size_t i) { return ends[i] > s && starts[i] < e; }), lattice, error);
      PlaceSection(plainHeader(e, E), select([&](std::size_t i) { return ends[i] > e; }), lattice, error);
    } else {
      PlaceSection(cavity, select([&](std::size_t i) { return ends[i] > s; }), lattice, error);
    }
  }
  ++rfIndex;
}
