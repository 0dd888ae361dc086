#include "beamline/Boundary.h"

#include "run/DeckValue.h"

int Boundary::SetElement(std::vector<std::string> token, Geometry* section) {
  zStart.push_back(zStart.empty() ? 0.0 : zStart.back() + length.back());
  length.push_back(DeckReal(token.at(2)));
  zEnd.push_back(zStart.back() + length.back());
  section->SetParameter(static_cast<int>(geometry.size()), zStart.back(), token);
  geometry.push_back(section);
  return 0;
}
