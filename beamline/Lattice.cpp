#include "beamline/Lattice.h"

#include "run/DeckValue.h"
#include "run/Initial.h"

int Lattice::LoadMap(const std::string& name, int type) {
  const int map = SetMatrix(name, type, fieldM);
  lastMapIndex = map;
  // A map is shared by name whatever type loaded it; one with fewer values
  // per node than the field reads would be read past its nodes.
  const int needed = type == 1 ? 6 : (type == 2 || type == 3 ? 3 : 0);
  const int held = fieldM.components[map];
  if (held < needed)
    Initial::errorOut("Field map " + name + " holds " + std::to_string(held) +
                      " values per node and cannot serve a field of type " + std::to_string(type));
  return map;
}

int Lattice::SetElement(std::vector<std::string> token, Element* newElement) {
  const double start = zStart.empty() ? 0.0 : zStart.back() + elementLength.back();
  zStart.push_back(start);
  elementLength.push_back(DeckReal(token.at(1)));
  zEnd.push_back(zStart.back() + elementLength.back());
  // A field line too short to name its map is reported by the element itself.
  // The map name of the line, and of each sub-field group of a superposition,
  // becomes the map index.
  if (token[0] == "field" && token.size() >= 10) {
    const int type = DeckInteger(token[4]);
    if (type != 4) token[9] = std::to_string(LoadMap(token[9], type));
    for (std::size_t g = 20; type == 4 && g + 20 <= token.size(); g += 20)
      if (token[g] == "field") token[g + 9] = std::to_string(LoadMap(token[g + 9], DeckInteger(token[g + 4])));
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
