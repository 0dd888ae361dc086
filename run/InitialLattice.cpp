#include <algorithm>
#include <cmath>
#include <fstream>
#include <iostream>

#include "beamline/Bend.h"
#include "beamline/Drift.h"
#include "beamline/Quadrupole.h"
#include "beamline/RFQ.h"
#include "beamline/Solenoid.h"
#include "beamline/Steerer.h"
#include "run/BoundaryDeck.h"
#include "run/DeckReading.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "run/SuperposedSet.h"

using deck::ForEachTokenLine;
using deck::NeedArguments;

namespace {

// One row of twenty for an element error line: kind, sense, the element the
// line applies to (the next one created), then the values.
std::vector<double> ElementErrorRow(const std::vector<std::string>& token, double kind, double sense,
                                    int elementCount) {
  if (token.size() - 1 > 17) Initial::errorOut("keyword: " + token[0] + ", too many parameters, at most 17");
  std::vector<double> row(20, 0.0);
  row[0] = kind;
  row[1] = sense;
  row[2] = static_cast<double>(elementCount);
  for (std::size_t k = 1; k < token.size(); ++k) row[2 + k] = DeckReal(token[k]);
  return row;
}

// One row of twenty switches: kind, sense, then one switch per value.
std::vector<int> ElementSwitchRow(const std::vector<std::string>& token, int kind, int sense, bool& anyOn) {
  if (token.size() - 1 > 18) Initial::errorOut("keyword: " + token[0] + ", too many parameters, at most 18");
  std::vector<int> row(20, 0);
  row[0] = kind;
  row[1] = sense;
  anyOn = false;
  for (std::size_t k = 1; k < token.size(); ++k) {
    row[1 + k] = DeckInteger(token[k]);
    if (row[1 + k] != 0) anyOn = true;
  }
  return row;
}

// The beam switches are kept in blocks of thirty: a first block up to place
// 30, a second up to 60.
void PadBeamSwitches(std::vector<int>& beamSwitch) {
  const std::size_t target = beamSwitch.size() <= 30 ? 30 : 60;
  if (beamSwitch.size() < target) beamSwitch.resize(target, 0);
}

// Shortest token list each simple element reads, and the whole list it
// reads when complete.
std::size_t MinimumTokens(const std::string& key) {
  if (key == "drift") return 4;
  if (key == "quad") return 6;
  if (key == "steerer") return 7;
  return 5;  // solenoid, bend
}
std::size_t FullTokens(const std::string& key) {
  if (key == "drift") return 4;
  if (key == "solenoid") return 5;
  if (key == "quad") return 7;
  return 8;  // steerer, bend
}

// Places a simple element. A short line keeps the element's own report (the
// run goes on with the element unconfigured) and adds where the line stands.
// A length that cannot describe a beamline stops the run; a steerer may be
// thin, since it only marks where the kick acts.
void PlaceSimpleElement(Lattice& lattice, std::vector<std::string>& token, Element* element, int lineNumber,
                        const std::string& line, int& lastSteererLine) {
  const std::string key = token[0];
  const bool isSteerer = key == "steerer";
  const bool afterSteerer = lastSteererLine > 0 && lattice.element.size() == static_cast<std::size_t>(lastSteererLine);
  const bool first = lattice.element.empty();
  const bool complete = token.size() >= MinimumTokens(key);
  lattice.SetElement(token, element);
  if (!complete) {
    std::cout << "lattice.txt line " << lineNumber << ": \"" << line << "\" has too few values for a "
              << key << "; the element is left unconfigured" << std::endl;
  } else {
    const double length = element->length;
    if (!(length > 0.0 || (isSteerer && length == 0.0)))
      Initial::errorOut("lattice.txt line " + std::to_string(lineNumber) + ": the length of a " + key +
                        " must be a positive number of metres, got " + token[1] + " in \"" + line + "\"");
    // A particle is lost at the radius: at 0 or below nothing passes, and
    // the design particle of the phase scan would be blamed.
    if (!(element->radius > 0.0))
      Initial::errorOut("lattice.txt line " + std::to_string(lineNumber) + ": the aperture of a " + key +
                        " must be a positive number of metres, got " + token[2] + " in \"" + line + "\"");
    deck::WarnExtraTokens(token, FullTokens(key), lineNumber);
  }
  if (isSteerer) {
    // The kick acts in the element behind the steerer; a steerer with no
    // element before it, or standing right behind another, is never applied.
    if (first)
      std::cout << "Warning! The steerer on lattice.txt line " << lineNumber
                << " is the first element of the lattice and gives no kick" << std::endl;
    else if (afterSteerer)
      std::cout << "Warning! The steerer on lattice.txt line " << lineNumber
                << " stands right behind another steerer and gives no kick" << std::endl;
    lastSteererLine = static_cast<int>(lattice.element.size());
  }
}

// Element errors act on field maps only: a row that covers none of the
// kind it names is said so, with its line.
void WarnUnreachedErrors(const ErrorParameter& error, const Lattice& lattice,
                         const std::vector<std::pair<std::size_t, int>>& rowLines) {
  for (const auto& [row, lineNumber] : rowLines) {
    if (!ErrorReach(error, lattice, row).empty()) continue;
    const bool cavity = error.elementError[row][0] == 1.0;
    std::cout << "Warning! lattice.txt line " << lineNumber << ": " << (cavity ? "err_cav_ncpl" : "err_quad_ncpl")
              << " reaches no element: element errors act on field maps only, err_quad_ on static magnetic ones "
                 "(type 3), err_cav_ on cavities (type 1)"
              << std::endl;
  }
}

// More planes than this cannot be meant; each one is a file.
constexpr double kMaxAutomaticPlanes = 100000.0;

}  // namespace

int Initial::InitLattice(Lattice& lattice, ErrorParameter& error, Boundary& boundaryList) {
  std::ifstream file;
  if (!deck::OpenDeck(file, "lattice.txt"))
    errorOut("File \"lattice.txt\" cannot be opened, Check the inputFile routing and lattice.txt.");
  std::cout << "Initialising lattice..." << std::endl;

  bool waitingForStart = true;
  bool closed = false;
  double automaticOutputStep = 0.0;
  int lastSteererLine = 0;  // element count right after the last steerer
  int rfIndex = 0;          // running number of radio-frequency elements
  SuperposedSet superposedSet;
  std::vector<std::pair<std::size_t, int>> errorLines;  // element error rows and their lines

  ForEachTokenLine(file, "lattice.txt", [&](std::vector<std::string>& token, int lineNumber, const std::string& line) {
    const std::string& key = token[0];
    if (waitingForStart) {
      if (key == "start") {
        waitingForStart = false;
        latticeStarted = true;
      }
      return true;
    }
    if (superposedSet.Open()) {
      superposedSet.Read(token, lineNumber, lattice, error, rfIndex);
      return true;
    }
    const int elementCount = static_cast<int>(lattice.element.size());
    if (key == "drift") {
      PlaceSimpleElement(lattice, token, new Drift(), lineNumber, line, lastSteererLine);
    } else if (key == "quad") {
      PlaceSimpleElement(lattice, token, new Quadrupole(), lineNumber, line, lastSteererLine);
    } else if (key == "solenoid") {
      PlaceSimpleElement(lattice, token, new Solenoid(), lineNumber, line, lastSteererLine);
    } else if (key == "steerer") {
      PlaceSimpleElement(lattice, token, new Steerer(), lineNumber, line, lastSteererLine);
    } else if (key == "bend") {
      PlaceSimpleElement(lattice, token, new Bend(), lineNumber, line, lastSteererLine);
    } else if (key == "automaticoutput") {
      NeedArguments(token, 1);
      automaticOutputStep = DeckReal(token[1]);
      // A negative step would fill the plane list without end.
      if (!(automaticOutputStep >= 0.0))
        errorOut("automaticoutput needs a step of 0 or more metres, got " + token[1]);
    } else if (key == "outputplane") {
      NeedArguments(token, 1);
      const double value = DeckReal(token[1]);
      outputPlanes.push_back(lattice.zEnd.empty() ? value : lattice.zEnd.back() + value);
    } else if (key == "err_step") {
      NeedArguments(token, 2);
      const int draws = DeckInteger(token[1]), steps = DeckInteger(token[2]);
      // The study runs draws x steps samples, counted in 32 bits.
      if (draws < 1 || steps < 1)
        deck::Refuse("lattice.txt", lineNumber, "err_step asks for " + token[1] + " x " + token[2] +
                                                    " samples; both numbers must be 1 or more");
      if (static_cast<long long>(draws) * steps > 2147483647LL)
        deck::Refuse("lattice.txt", lineNumber, "err_step asks for " + token[1] + " x " + token[2] +
                                                    " samples, more than the 2147483647 a study can count");
      error.errStep[0] = draws;
      error.errStep[1] = steps;
    } else if (key == "err_beam_stat" || key == "err_beam_dyn") {
      error.beamError.push_back(key == "err_beam_stat" ? 0.0 : 1.0);
      for (std::size_t k = 1; k < token.size(); ++k) error.beamError.push_back(DeckReal(token[k]));
      PadBeamSwitches(error.beamSwitch);
    } else if (key == "err_beam_stat_on" || key == "err_beam_dyn_on") {
      const int sense = key == "err_beam_stat_on" ? 0 : 1;
      error.beamSwitch.push_back(sense);
      bool anyOn = false;
      for (std::size_t k = 1; k < token.size(); ++k) {
        error.beamSwitch.push_back(DeckInteger(token[k]));
        if (error.beamSwitch.back() != 0) anyOn = true;
      }
      PadBeamSwitches(error.beamSwitch);
      if (anyOn) error.onFlag[sense] = 1;
    } else if (key == "err_quad_ncpl_stat" || key == "err_quad_ncpl_dyn" || key == "err_cav_ncpl_stat" ||
               key == "err_cav_ncpl_dyn") {
      const double kind = key.compare(4, 3, "cav") == 0 ? 1.0 : 0.0;
      const double sense = key.find("_dyn") != std::string::npos ? 1.0 : 0.0;
      errorLines.emplace_back(error.elementError.size(), lineNumber);
      error.elementError.push_back(ElementErrorRow(token, kind, sense, elementCount));
    } else if (key == "err_quad_stat_on" || key == "err_quad_dyn_on" || key == "err_cav_stat_on" ||
               key == "err_cav_dyn_on") {
      const int kind = key.compare(4, 3, "cav") == 0 ? 1 : 0;
      const int sense = key.find("_dyn_") != std::string::npos ? 1 : 0;
      bool anyOn = false;
      error.elementSwitch.push_back(ElementSwitchRow(token, kind, sense, anyOn));
      if (anyOn) error.onFlag[2 + sense] = 1;
    } else if (key == "field") {
      AddFieldLine(token, lineNumber, rfIndex, lattice);
    } else if (key == "superpose") {
      superposedSet.Begin(token, lineNumber);
    } else if (key == "rfq") {
      // The tables are merged first; the element then numbers its cavity
      // like a radio-frequency field. Its own SetParameter is not reached
      // from here (it has another signature): the element keeps the type
      // "drift" and no cells unless a caller configures it by hand.
      CheckRfqLine(token, lineNumber);
      ReadRFQ(inputFilePath, outputFilePath);
      if (token.size() < 14) token.resize(14, "invalid");
      token.push_back(std::to_string(rfIndex++));
      lattice.SetElement(token, new RFQ());
    } else if (key == "end") {
      closed = latticeClosed = true;
      return false;
    } else if (key != "start") {
      // Unknown words are skipped, as they always were, but a misspelt
      // element would shorten the line unseen.
      std::cout << "lattice.txt line " << lineNumber << ": unknown keyword '" << key << "' ignored" << std::endl;
    }
    return true;
  });
  file.close();
  superposedSet.EndOfDeck();
  setEndLine = superposedSet.ConsumedEnd();

  if (closed) {
    error.elementNumber = static_cast<int>(lattice.element.size());
    WarnUnreachedErrors(error, lattice, errorLines);
    const double total = lattice.zEnd.empty() ? 0.0 : lattice.zEnd.back();
    outputPlanes.push_back(total);

    if (automaticOutputStep != 0.0) {
      // Fill gaps wider than twice the step with planes one step apart; every
      // plane of the deck stays, so the farthest of them sets the count.
      const double d = automaticOutputStep;
      const double reach = *std::max_element(outputPlanes.begin(), outputPlanes.end());
      if (reach / d > kMaxAutomaticPlanes)
        errorOut("automaticoutput " + FormatNumber(d) + " would make about " + FormatNumber(reach / d) +
                 " output planes over " + FormatNumber(reach) + " m; at most 100000 are allowed, choose a larger step");
      const std::vector<double> given = outputPlanes;
      outputPlanes.assign(1, 0.0);
      for (double p : given) {
        while (p - outputPlanes.back() > 2.0 * d) outputPlanes.push_back(outputPlanes.back() + d);
        outputPlanes.push_back(p);
      }
    }

    std::vector<double> closing(7, 0.0);
    closing[6] = total;
    if (lattice.outputPlane.empty()) {
      lattice.outputPlane.push_back(closing);
    } else {
      lattice.planeCount = static_cast<int>(lattice.outputPlane.size());
      if (lattice.outputPlane.back()[6] < total) lattice.outputPlane.push_back(closing);
    }

    std::cout << "Lattice initialisation complete, total length " << total << " m" << std::endl;
    std::cout << "A total of " << outputPlanes.size() << " output planes" << std::endl;
    std::cout << "  " << std::endl;
  }

  if (boundary == 1) ReadBoundaryDeck(lattice, boundaryList);
  return 0;
}

void Initial::CheckLattice(const Lattice& lattice) const {
  if (!latticeStarted) errorOut("lattice.txt has no start line, so no element was read");
  if (!latticeClosed && setEndLine > 0)
    errorOut("lattice.txt line " + std::to_string(setEndLine) +
             ": this end line closes the set of superimposed fields above it and is used up by it, so the lattice "
             "has no end line; put another line (a second start will do) between the set and end");
  if (!latticeClosed) errorOut("lattice.txt has no end line, the lattice is not closed");
  if (lattice.element.empty()) errorOut("lattice.txt holds no element between start and end");
}
