#pragma once
#include <iostream>
#include <limits>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beam/Particle.h"
#include "beamline/Element.h"
#include "beamline/FieldMatrix.h"
#include "run/ErrorSample.h"

// The beamline as the tracking sees it: elements end to end along z, the
// shared field maps and the output planes. Elements are owned for the life of
// the process and are not deleted here.
class Lattice {
 public:
  std::vector<Element*> element;
  FieldMatrix fieldM;
  std::vector<double> zEnd;    // m, exit of each element
  std::vector<double> zStart;  // m, entrance of each element
  int planeIndex = 0;          // plane the bunch is heading for
  // One row per plane: dz, dx, dy offsets, three angles (rad), z (m) at [6].
  std::vector<std::vector<double>> outputPlane;
  int planeCount = 0;    // planes set by the deck, before the closing one
  int crossedTotal = 0;  // particles past the current rotated plane
  std::vector<double> elementLength;
  int lastMapIndex = 0;
  std::vector<double> reservedList;

  // Places an element behind the last one. For a "field" line the maps are
  // loaded first and token 9 (of each sub-field group of a superposition)
  // becomes the map index; then the element reads the tokens.
  int SetElement(std::vector<std::string> token, Element* newElement);
  // Loads the map set `name` of field type `type` (1 radio-frequency, 2
  // static electric, 3 static magnetic) into fieldM, once per name, and
  // returns its index. A name ending in "b" is read in the binary form.
  int SetMatrix(std::string name, int type, FieldMatrix& maps);
  // SetMatrix into fieldM, refusing a map with fewer values per node than a
  // field of `type` reads.
  int LoadMap(const std::string& name, int type);

  // Field of every slot, the reference included. Particles outside the
  // tracked stretch get zero field, and past the lattice end with the last
  // plane in force they become lost 2.
  void GetExternalField(double t, Beam& beam);
  // Single-particle form of the secondary run: strict boundaries, no loss.
  void GetExternalField(double t, Particle& particle);
  void GetErrExternalField(double t, Beam& beam, ErrorSample& sample);
  void SetErrInEle(ErrorSample& sample);

  // Steps particle.indexElem to the element that contains z, starting from
  // where it stood: one or two comparisons for a particle that stays.
  // Boundaries belong to the upper element.
  void LocateElement(Particle& particle) const {
    StepToElement<false>(particle, "Warning! beam.particle[i].indexElem<0");
  }

  // z of the plane the bunch is heading for. Once every plane has been
  // passed nothing is inside the tracked stretch any more.
  double CurrentPlaneZ() const {
    if (planeIndex < static_cast<int>(outputPlane.size())) return outputPlane[planeIndex][6];
    return -std::numeric_limits<double>::infinity();
  }

  // Whether element `elementIndex` takes its error field: the first value of
  // its error row, in the static set when static element errors are on, else
  // in the dynamic set, is 1.0. Row 0 belongs to the beam; a set that was
  // never drawn has no element rows and means no error.
  static bool UsesErrorField(const ErrorSample& sample, int elementIndex) {
    const ErrorSet& set = sample.onFlag[2] == 1 ? sample.staticSet : sample.dynamicSet;
    const std::size_t row = static_cast<std::size_t>(elementIndex) + 1;
    return row < set.size() && !set[row].empty() && set[row][0] == 1.0;
  }
 private:
  // The stepping of the index. Strict comparisons (the single-particle form)
  // keep a particle that stands exactly on a boundary in the lower element.
  // A z exactly on the end of the last element keeps the last element, since
  // there is none above it; a negative index is repaired with a warning.
  template <bool Strict>
  void StepToElement(Particle& particle, const char* warning) const {
    auto beyond = [](double z, double bound) { return Strict ? z > bound : z >= bound; };
    const double z = particle.coordinate[4];
    const int last = static_cast<int>(zEnd.size()) - 1;
    int i = particle.indexElem;
    for (;;) {
      if (beyond(z, zStart[i])) {
        if (beyond(z, zEnd[i])) {
          do ++i;
          while (i < last && beyond(z, zEnd[i]));
          if (i > last) i = last;
          particle.indexElem = i;
        }
        return;
      }
      if (z < zStart[i]) {
        do particle.indexElem = --i;
        while (i >= 0 && zStart[i] > z);
        if (i >= 0) return;
        i = 0;
        particle.indexElem = 0;
        std::cout << warning << std::endl;
        if (z < zStart[0]) return;  // callers keep z >= 0; never spin on a bad one
        continue;
      }
      return;  // z is not a number: the index stays
    }
  }
};
