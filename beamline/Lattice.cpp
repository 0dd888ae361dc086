#include "beamline/Lattice.h"

#include "run/Initial.h"

namespace {

// Loads the map named by token at + 9 for a field of `type` and writes the
// map index in its place. A map is shared by name whatever type loaded it; a
// map with fewer values per node than the field reads would be read past its
// nodes, so that is refused.
void LoadMap(Lattice& lattice, std::vector<std::string>& token, std::size_t at, int type) {
  std::string& name = token[at + 9];
  const int map = lattice.SetMatrix(name, type, lattice.fieldM);
  lattice.lastMapIndex = map;
  const int needed = type == 1 ? 6 : (type == 2 || type == 3 ? 3 : 0);
  const int held = lattice.fieldM.components[map];
  if (held < needed)
    Initial::errorOut("Field map " + name + " holds " + std::to_string(held) +
                      " values per node and cannot serve a field of type " + std::to_string(type));
  name = std::to_string(map);
}

}  // namespace

int Lattice::SetElement(std::vector<std::string> token, Element* newElement) {
  const double start = zStart.empty() ? 0.0 : zStart.back() + elementLength.back();
  zStart.push_back(start);
  elementLength.push_back(std::stod(token.at(1)));
  zEnd.push_back(zStart.back() + elementLength.back());
  // A field line too short to name its map is reported by the element itself.
  if (token[0] == "field" && token.size() >= 10) {
    const int type = std::stoi(token[4]);
    if (type == 4) {
      for (std::size_t g = 20; g + 20 <= token.size(); g += 20)
        if (token[g] == "field") LoadMap(*this, token, g, std::stoi(token[g + 4]));
    } else {
      LoadMap(*this, token, 0, type);
    }
  }
  const int elementIndex = static_cast<int>(element.size());
  newElement->SetParameter(elementIndex, zStart.back(), token);
  element.push_back(newElement);
  return 0;
}

void Lattice::GetExternalField(double t, Beam& beam) {
  if (beam.particleNumber == -1) return;
  const double lastEnd = zEnd.back();
  const bool lastPlane = planeIndex == static_cast<int>(outputPlane.size());
  const double planeZ = CurrentPlaneZ();
  for (int i = 0; i <= beam.particleNumber; ++i) {
    Particle& p = beam.particle[i];
    const double z = p.coordinate[4];
    if (z < 0.0 || z > planeZ || p.lost != 0) {
      if (z > lastEnd && lastPlane && p.lost == 0) p.lost = 2;
      for (double& f : p.externalField) f = 0.0;
      continue;
    }
    LocateElement(p);
    element[p.indexElem]->GetField(t, p, fieldM);
  }
}

void Lattice::GetErrExternalField(double t, Beam& beam, ErrorSample& sample) {
  const double lastEnd = zEnd.back();
  const double planeZ = CurrentPlaneZ();
  for (int i = 0; i < beam.particleNumber; ++i) {
    Particle& p = beam.particle[i];
    const double z = p.coordinate[4];
    if (z < 0.0 || z > planeZ || p.lost != 0) {
      if (z > lastEnd && p.lost == 0) p.lost = 2;
      for (double& f : p.externalField) f = 0.0;
      continue;
    }
    LocateElement(p);
    if (UsesErrorField(sample, p.indexElem))
      element[p.indexElem]->GetErrField(t, p, fieldM);
    else
      element[p.indexElem]->GetField(t, p, fieldM);
  }
  // The reference never sees element errors and is never marked lost here.
  Particle& reference = beam.particle[beam.particleNumber];
  const double z = reference.coordinate[4];
  if (z < 0.0 || z > lastEnd || reference.lost != 0) {
    for (double& f : reference.externalField) f = 0.0;
    return;
  }
  LocateElement(reference);
  element[reference.indexElem]->GetField(t, reference, fieldM);
}

void Lattice::GetExternalField(double t, Particle& particle) {
  const double z = particle.coordinate[4];
  if (z < 0.0 || z > zEnd.back() || particle.lost != 0) {
    // Only Ex and Bx are cleared here; the other four keep their values.
    particle.externalField[0] = 0.0;
    particle.externalField[3] = 0.0;
    return;
  }
  StepToElement<true>(particle, "Warning! particle.indexElem<0");
  element[particle.indexElem]->GetField(t, particle, fieldM);
}

void Lattice::SetErrInEle(ErrorSample& sample) {
  for (Element* e : element) e->SetErrPara(sample);
}
