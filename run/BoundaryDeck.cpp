#include "run/BoundaryDeck.h"

#include <cmath>
#include <fstream>
#include <iostream>

#include "run/DeckReading.h"
#include "run/DeckValue.h"
#include "run/Initial.h"
#include "run/Keld.h"

namespace {

std::string Where(int lineNumber) { return "boundary.txt line " + std::to_string(lineNumber) + ": "; }

// What a section needs before it can be placed: a length, for a pipe also a
// radius, and no more than six placement values behind "RLP".
void CheckSection(const std::vector<std::string>& token, int lineNumber) {
  std::size_t rlp = 0;
  while (rlp < token.size() && token[rlp] != "RLP") ++rlp;
  const std::size_t needed = token[0] == "1" ? 4 : 3;
  if (rlp < needed)
    Initial::errorOut(Where(lineNumber) + (token[0] == "1" ? "a circular pipe needs a name, a length and a radius"
                                                           : "an open section needs a name and a length"));
  if (rlp < token.size() && token.size() - rlp - 1 > 6)
    Initial::errorOut(Where(lineNumber) + "at most six placement values may follow RLP");
  const double length = DeckReal(token[2]);
  if (!(length > 0.0))
    Initial::errorOut(Where(lineNumber) + "the length of a section must be a positive number of metres, got " +
                      token[2]);
  // Every particle is outside a pipe of radius 0 or below.
  if (token[0] == "1" && !(DeckReal(token[3]) > 0.0))
    Initial::errorOut(Where(lineNumber) + "the radius of a circular pipe must be a positive number of metres, got " +
                      token[3]);
}

}  // namespace

void ReadBoundaryDeck(const Lattice& lattice, Boundary& boundaryList) {
  std::cout << "Initialising boundary..." << std::endl;
  std::ifstream file;
  if (!deck::OpenDeck(file, "boundary.txt"))
    Initial::errorOut("File \"boundary.txt\" cannot be opened, Check the inputFile routing and boundary.txt.");
  bool waitingForStart = true;
  deck::ForEachTokenLine(file, "boundary.txt", [&](std::vector<std::string>& token, int lineNumber,
                                                   const std::string&) {
    const std::string& key = token[0];
    if (waitingForStart) {
      if (key == "start") waitingForStart = false;
      return true;
    }
    if (key == "1" || key == "2") {
      CheckSection(token, lineNumber);
      boundaryList.SetElement(token, new Geometry());
    } else if (key == "end") {
      std::cout << "Boundary loaded, total length: " << (boundaryList.zEnd.empty() ? 0.0 : boundaryList.zEnd.back())
                << " m,  Lattice length: " << (lattice.zEnd.empty() ? 0.0 : lattice.zEnd.back()) << " m."
                << std::endl;
    } else {
      Initial::errorOut("Undefined shape exists, check boundary.txt");
    }
    return true;
  });
  // With boundary 1 the elements leave every loss to this list: without a
  // section no particle could be lost anywhere.
  if (waitingForStart)
    Initial::errorOut("boundary.txt has no start line, so no aperture section was read; boundary 1 needs them");
  if (boundaryList.geometry.empty())
    Initial::errorOut("boundary.txt holds no aperture section after its start line; boundary 1 needs them");
  const double covered = boundaryList.zEnd.back(), total = lattice.zEnd.empty() ? 0.0 : lattice.zEnd.back();
  if (covered < total)
    std::cout << "Warning! boundary.txt ends at " << covered << " m, before the end of the lattice at " << total
              << " m: no aperture is checked beyond it" << std::endl;
}
