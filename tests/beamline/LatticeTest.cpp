#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beamline/Lattice.h"
#include "beamline/Solenoid.h"
#include "run/ErrorSample.h"

namespace {
using V = std::vector<double>;
enum Form { kBeam, kErrors, kSingle };

// Solenoids of the given lengths whose Bz = 1, 2, ... names them, and a plane at the end.
void Markers(Lattice& lattice, const V& lengths) {
  for (double l : lengths)
    lattice.SetElement({"s", std::to_string(l), "1", "0", std::to_string(lattice.element.size() + 1)}, new Solenoid());
  lattice.outputPlane.push_back({0, 0, 0, 0, 0, 0, lattice.zEnd.back()});
}

// Slots {z, indexElem, lost} with junk fields, the last the reference; per slot indexElem, Ex + Bx,
// Bz, lost.
V Lookup(Lattice& lattice, const std::vector<V>& slots, Form form = kBeam, ErrorSample sample = ErrorSample()) {
  std::vector<Particle> p(slots.size());
  for (std::size_t i = 0; i < p.size(); ++i) {
    p[i].coordinate[4] = slots[i][0], p[i].indexElem = int(slots[i][1]), p[i].lost = int(slots[i][2]);
    for (int k = 0; k < 6; ++k) p[i].externalField[k] = 100.0 + k;
  }
  Beam beam;
  beam.particle = p.data(), beam.particleNumber = static_cast<int>(p.size()) - 1;
  if (form == kBeam) lattice.GetExternalField(0.0, beam);
  if (form == kErrors) lattice.GetErrExternalField(0.0, beam, sample);
  if (form == kSingle) for (Particle& q : p) lattice.GetExternalField(0.0, q);
  V v;
  for (const Particle& q : p)
    v.insert(v.end(), {1.0 * q.indexElem, q.externalField[0] + q.externalField[3], q.externalField[5], 1.0 * q.lost});
  return v;
}

// Ex tells the calls apart: 1 for the plain field, 2 for the field with errors.
struct Probe : Element {
  void GetField(double, Particle& p, FieldMatrix const&) override { ZeroField(p), p.externalField[0] = 1.0; }
  void GetErrField(double, Particle& p, FieldMatrix const&) override { ZeroField(p), p.externalField[0] = 2.0; }
};
}  // namespace

// Beam forms move a particle on zEnd up, the single-particle form keeps it below and, outside,
// clears only Ex and Bx. A negative index (z before a moved first entrance) is repaired.
TEST(LatticeLookup, StepsAcrossBoundariesInEachForm) {
  Lattice lattice;
  Markers(lattice, {1, 0.5, 1.5, 1, 1});
  EXPECT_EQ(lattice.zStart, (V{0, 1, 1.5, 3, 4}));
  EXPECT_EQ(lattice.zEnd, (V{1, 1.5, 3, 4, 5}));
  // On zEnd of 0, three back, three on, back to the first; the reference on zEnd of 1.
  EXPECT_EQ(Lookup(lattice, {{1.0, 0, 0}, {1.2, 4, 0}, {3.25, 0, 0}, {0.0, 3, 0}, {1.5, 1, 0}}),
            (V{1, 0, 2, 0, 1, 0, 2, 0, 3, 0, 4, 0, 0, 0, 1, 0, 2, 0, 3, 0}));
  EXPECT_EQ(Lookup(lattice, {{1.0, 0, 0}, {3.0, 2, 0}}, kErrors), (V{1, 0, 2, 0, 3, 0, 4, 0}));
  EXPECT_EQ(Lookup(lattice, {{1.0, 0, 0}, {3.5, 0, 0}, {0.25, 4, 0}, {5.0, 4, 0}, {5.5, 2, 0}, {2.5, 2, 1}}, kSingle),
            (V{0, 0, 1, 0, 3, 0, 4, 0, 0, 0, 1, 0, 4, 0, 5, 0, 2, 0, 105, 0, 2, 0, 105, 1}));
  lattice.zStart[0] = 0.5;
  testing::internal::CaptureStdout();
  EXPECT_EQ(Lookup(lattice, {{0.25, 3, 0}, {4.5, 4, 0}}), (V{0, 0, 1, 0, 4, 0, 5, 0}));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Warning! beam.particle[i].indexElem<0\n");
}

// lost becomes 2 past the lattice end: in the Beam form once every plane is passed, in the
// error form whatever the plane, never for its reference. Exactly 1.0 in the element's error
// row (after the beam's row 0) of the chosen set calls GetErrField, never for the reference.
TEST(LatticeLookup, LostTwoAndErrorFieldChoice) {
  Lattice lattice;
  for (int k = 0; k < 3; ++k) lattice.SetElement({"probe", "1", "0.1", "0"}, new Probe());
  lattice.outputPlane.push_back({0, 0, 0, 0, 0, 0, 3.0});
  EXPECT_EQ(Lookup(lattice, {{3.5, 2, 0}, {2.5, 0, 0}}), (V{2, 0, 0, 0, 2, 1, 0, 0}));
  lattice.planeIndex = 1;
  EXPECT_EQ(Lookup(lattice, {{2.5, 2, 0}, {4, 2, 1}, {4, 2, 2}, {3.5, 2, 0}}),
            (V{2, 0, 0, 0, 2, 0, 0, 1, 2, 0, 0, 2, 2, 0, 0, 2}));
  lattice.planeIndex = 0;
  ErrorSample sample;
  sample.staticSet = {{0.0}, {1.0}, {0.0}, {1.0000000000000002}};
  sample.dynamicSet = {{0.0}, {0.0}, {1.0}, {1.0}};
  sample.onFlag = {0, 0, 1, 0};
  const std::vector<V> slots = {{0.5, 0, 0}, {1.5, 0, 0}, {2.5, 0, 0}, {3.5, 2, 0}, {0.5, 0, 0}};
  EXPECT_EQ(Lookup(lattice, slots, kErrors, sample),
            (V{0, 2, 0, 0, 1, 1, 0, 0, 2, 1, 0, 0, 2, 0, 0, 2, 0, 1, 0, 0}));
  sample.onFlag = {0, 0, 0, 1};
  EXPECT_EQ(Lookup(lattice, slots, kErrors, sample),
            (V{0, 1, 0, 0, 1, 2, 0, 0, 2, 2, 0, 0, 2, 0, 0, 2, 0, 1, 0, 0}));
  EXPECT_EQ(Lookup(lattice, {{3.5, 2, 0}}, kErrors, sample), (V{2, 0, 0, 0}));
}
