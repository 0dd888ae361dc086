#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "beam/Beam.h"
#include "beam/Particle.h"
#include "beamline/Drift.h"
#include "beamline/Element.h"
#include "beamline/Lattice.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "run/ErrorSample.h"

namespace {

using Tokens = std::vector<std::string>;

// Appends a solenoid of the given length whose field Bz = bz names it.
void AddMarker(Lattice& lattice, const std::string& length, const std::string& bz) {
  lattice.SetElement({"solenoid", length, "0.1", "0", bz}, new Solenoid());
}

std::vector<double> PlaneAt(double z) {
  std::vector<double> row(7, 0.0);
  row[6] = z;
  return row;
}

// Five unit-length solenoids with Bz = 1, 2, 3, 4, 5 T, a plane at the end.
void FiveMarkers(Lattice& lattice) {
  for (int k = 1; k <= 5; ++k) AddMarker(lattice, "1", std::to_string(k));
  lattice.outputPlane.push_back(PlaneAt(5.0));
}

// A bunch of n particles plus the reference slot, all alive in element 0,
// with junk in the field values.
struct Bunch {
  std::vector<Particle> store;
  Beam beam;
  explicit Bunch(int n, int spare = 0) : store(n + 1 + spare) {
    for (Particle& p : store) {
      p = Particle{};
      for (int k = 0; k < 6; ++k) p.externalField[k] = 100.0 + k;
    }
    beam.particle = store.data();
    beam.particleNumber = n;
  }
  Particle& operator[](int i) { return store[i]; }
};

void Place(Particle& p, double z, int indexElem = 0) {
  p.coordinate[4] = z;
  p.indexElem = indexElem;
}

bool AllZero(const Particle& p) {
  for (double f : p.externalField)
    if (f != 0.0) return false;
  return true;
}

// Tells GetField and GetErrField apart: Ex = 1 for the plain field, 2 for the
// field with errors.
class Probe : public Element {
 public:
  void GetField(double, Particle& p, FieldMatrix const&) override { p.externalField[0] = 1.0; }
  void GetErrField(double, Particle& p, FieldMatrix const&) override { p.externalField[0] = 2.0; }
};

}  // namespace

TEST(LatticePlacement, ElementsSitEndToEnd) {
  Lattice lattice;
  EXPECT_EQ(lattice.SetElement({"drift", "0.5", "0.1", "0"}, new Drift()), 0);
  lattice.SetElement({"quad", "1.25", "0.1", "0", "2", "0", "0"}, new Quadrupole());
  lattice.SetElement({"drift", "2", "0.1", "0"}, new Drift());
  EXPECT_EQ(lattice.zStart, (std::vector<double>{0.0, 0.5, 1.75}));
  EXPECT_EQ(lattice.zEnd, (std::vector<double>{0.5, 1.75, 3.75}));
  EXPECT_EQ(lattice.elementLength, (std::vector<double>{0.5, 1.25, 2.0}));
  ASSERT_EQ(lattice.element.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(lattice.element[i]->index, i);
    EXPECT_EQ(lattice.element[i]->zStart, lattice.zStart[i]);
  }
  EXPECT_EQ(lattice.element[1]->type, "quad");
  EXPECT_EQ(lattice.element[1]->strength, 2.0);
}

// The positions are entered before the element parses its own tokens.
TEST(LatticePlacement, PositionsEnteredWhenElementComplains) {
  Lattice lattice;
  lattice.SetElement({"drift", "0.5", "0.1", "0"}, new Drift());
  testing::internal::CaptureStdout();
  lattice.SetElement({"quad", "0.25", "0.1", "0", "2"}, new Quadrupole());
  const std::string console = testing::internal::GetCapturedStdout();
  lattice.SetElement({"drift", "1", "0.1", "0"}, new Drift());
  EXPECT_EQ(console, "Error! parameter not enough in element : \n\nquad\t0.25\t0.1\t0\t2\t\n");
  ASSERT_EQ(lattice.element.size(), 3u);
  EXPECT_EQ(lattice.zStart, (std::vector<double>{0.0, 0.5, 0.75}));
  EXPECT_EQ(lattice.zEnd, (std::vector<double>{0.5, 0.75, 1.75}));
  EXPECT_EQ(lattice.element[1]->index, 0) << "the complaining element stays unconfigured";
  EXPECT_EQ(lattice.element[1]->type, "drift");
  EXPECT_EQ(lattice.element[2]->index, 2);
}

TEST(LatticeLookup, ParticleOnElementEndMovesUp) {
  Lattice lattice;
  FiveMarkers(lattice);
  Bunch bunch(2);
  Place(bunch[0], 1.0, 0);   // exactly on zEnd of element 0
  Place(bunch[1], 0.5, 0);   // stays
  Place(bunch[2], 2.0, 1);   // the reference slot, on zEnd of element 1
  lattice.GetExternalField(0.0, bunch.beam);
  EXPECT_EQ(bunch[0].indexElem, 1);
  EXPECT_EQ(bunch[0].externalField[5], 2.0);
  EXPECT_EQ(bunch[1].indexElem, 0);
  EXPECT_EQ(bunch[1].externalField[5], 1.0);
  EXPECT_EQ(bunch[2].indexElem, 2);
  EXPECT_EQ(bunch[2].externalField[5], 3.0);

  // The same rule holds in the form with element errors.
  ErrorSample sample;
  sample.dynamicSet.assign(6, std::vector<double>(12, 0.0));
  Bunch again(1);
  Place(again[0], 1.0, 0);
  Place(again[1], 3.0, 2);
  lattice.GetErrExternalField(0.0, again.beam, sample);
  EXPECT_EQ(again[0].indexElem, 1);
  EXPECT_EQ(again[0].externalField[5], 2.0);
  EXPECT_EQ(again[1].indexElem, 3);
  EXPECT_EQ(again[1].externalField[5], 4.0);
}

TEST(LatticeLookup, StepsSeveralElementsInOneCall) {
  Lattice lattice;
  FiveMarkers(lattice);
  Bunch bunch(2);
  Place(bunch[0], 1.5, 4);   // three elements back
  Place(bunch[1], 3.25, 0);  // three elements forward
  Place(bunch[2], 0.0, 3);   // back to the very first element
  lattice.GetExternalField(0.0, bunch.beam);
  EXPECT_EQ(bunch[0].indexElem, 1);
  EXPECT_EQ(bunch[0].externalField[5], 2.0);
  EXPECT_EQ(bunch[1].indexElem, 3);
  EXPECT_EQ(bunch[1].externalField[5], 4.0);
  EXPECT_EQ(bunch[2].indexElem, 0);
  EXPECT_EQ(bunch[2].externalField[5], 1.0);
}

// The lowering can pass below the first element only when z lies before the
// first entrance; the first element is moved downstream here to get there.
TEST(LatticeLookup, NegativeIndexIsRepairedWithWarning) {
  Lattice lattice;
  FiveMarkers(lattice);
  lattice.zStart[0] = 0.5;
  Bunch bunch(1);
  Place(bunch[0], 0.25, 3);
  Place(bunch[1], 4.5, 4);
  testing::internal::CaptureStdout();
  lattice.GetExternalField(0.0, bunch.beam);
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_EQ(console, "Warning! beam.particle[i].indexElem<0\n");
  EXPECT_EQ(bunch[0].indexElem, 0);
  EXPECT_EQ(bunch[0].externalField[5], 1.0);
  EXPECT_EQ(bunch[1].indexElem, 4);
}

TEST(LatticeLookup, LostTwoOnlyPastLastPlaneAndLatticeEnd) {
  Lattice lattice;
  AddMarker(lattice, "1", "1");
  AddMarker(lattice, "1", "2");
  lattice.outputPlane.push_back(PlaneAt(1.0));
  lattice.outputPlane.push_back(PlaneAt(2.0));

  // Heading for the last plane: past the end is not yet lost.
  lattice.planeIndex = 1;
  Bunch heading(2);
  Place(heading[0], 2.5, 1);
  Place(heading[1], 1.5, 0);
  Place(heading[2], 1.75, 1);  // the reference slot
  lattice.GetExternalField(0.0, heading.beam);
  EXPECT_EQ(heading[0].lost, 0);
  EXPECT_TRUE(AllZero(heading[0]));
  EXPECT_EQ(heading[1].lost, 0);
  EXPECT_EQ(heading[1].externalField[5], 2.0);
  EXPECT_EQ(heading[2].lost, 0);
  EXPECT_EQ(heading[2].externalField[5], 2.0);

  // Every plane passed.
  lattice.planeIndex = 2;
  Bunch done(4);
  Place(done[0], 2.5, 1);
  Place(done[1], 1.5, 1);   // inside the lattice: zero field, not lost
  Place(done[2], 3.0, 1);
  done[2].lost = 1;         // already lost for another reason
  Place(done[3], 3.0, 1);
  done[3].lost = 2;
  Place(done[4], 2.5, 1);   // the reference slot is treated alike
  lattice.GetExternalField(0.0, done.beam);
  EXPECT_EQ(done[0].lost, 2);
  EXPECT_EQ(done[1].lost, 0);
  EXPECT_EQ(done[2].lost, 1);
  EXPECT_EQ(done[3].lost, 2);
  EXPECT_EQ(done[4].lost, 2);
  for (int i = 0; i <= 4; ++i) EXPECT_TRUE(AllZero(done[i])) << "particle " << i;
}

TEST(LatticeLookup, OutsideTrackedStretchGetsZeroField) {
  Lattice lattice;
  FiveMarkers(lattice);
  lattice.outputPlane.insert(lattice.outputPlane.begin(), PlaneAt(2.5));
  Bunch bunch(3);
  Place(bunch[0], -0.1, 0);  // before the lattice
  Place(bunch[1], 3.0, 2);   // behind the plane the bunch heads for
  Place(bunch[2], 1.5, 1);
  bunch[2].lost = 1;         // lost inside a solenoid
  Place(bunch[3], 2.25, 2);  // reference, in front of the plane
  lattice.GetExternalField(0.0, bunch.beam);
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(AllZero(bunch[i])) << "particle " << i;
    EXPECT_EQ(bunch[i].lost, i == 2 ? 1 : 0) << "particle " << i;
  }
  EXPECT_EQ(bunch[1].indexElem, 2) << "a waiting particle keeps its element";
  EXPECT_EQ(bunch[3].externalField[5], 3.0);
}

TEST(LatticeLookup, ReferenceSlotServedAndEmptyBeams) {
  Lattice lattice;
  FiveMarkers(lattice);

  // Only the reference slot: the record behind it is not touched.
  Bunch lone(0, 1);
  Place(lone[0], 4.5, 0);
  Place(lone[1], 0.5, 0);
  lattice.GetExternalField(0.0, lone.beam);
  EXPECT_EQ(lone[0].indexElem, 4);
  EXPECT_EQ(lone[0].externalField[5], 5.0);
  EXPECT_EQ(lone[1].externalField[5], 105.0);

  // No bunch yet: nothing is done.
  Bunch none(0);
  none.beam.particleNumber = -1;
  Place(none[0], 0.5, 0);
  lattice.GetExternalField(0.0, none.beam);
  EXPECT_EQ(none[0].externalField[5], 105.0);
}

TEST(LatticeErrorLookup, ErrorRowSelectsErrorField) {
  Lattice lattice;
  for (int k = 0; k < 3; ++k) lattice.SetElement({"probe", "1", "0.1", "0"}, new Probe());
  lattice.outputPlane.push_back(PlaneAt(3.0));

  ErrorSample sample;
  sample.onFlag = {0, 0, 1, 0};
  // Row 0 is the beam; rows 1.. belong to elements 0..
  sample.staticSet = {{0.0}, {1.0}, {0.0}, {1.0000000000000002}};
  sample.dynamicSet = {{0.0}, {0.0}, {1.0}, {1.0}};
  Bunch bunch(3);
  Place(bunch[0], 0.5, 0);
  Place(bunch[1], 1.5, 0);
  Place(bunch[2], 2.5, 0);
  Place(bunch[3], 0.5, 0);  // the reference never sees element errors
  lattice.GetErrExternalField(0.0, bunch.beam, sample);
  EXPECT_EQ(bunch[0].externalField[0], 2.0);
  EXPECT_EQ(bunch[1].externalField[0], 1.0);
  EXPECT_EQ(bunch[2].externalField[0], 1.0) << "only exactly 1.0 switches errors on";
  EXPECT_EQ(bunch[3].externalField[0], 1.0);

  // Static element errors off: the dynamic set is read.
  sample.onFlag = {0, 0, 0, 1};
  Bunch dyn(3);
  Place(dyn[0], 0.5, 0);
  Place(dyn[1], 1.5, 0);
  Place(dyn[2], 2.5, 0);
  Place(dyn[3], 1.5, 0);
  lattice.GetErrExternalField(0.0, dyn.beam, sample);
  EXPECT_EQ(dyn[0].externalField[0], 1.0);
  EXPECT_EQ(dyn[1].externalField[0], 2.0);
  EXPECT_EQ(dyn[2].externalField[0], 2.0);
  EXPECT_EQ(dyn[3].externalField[0], 1.0);
}

TEST(LatticeErrorLookup, LossesAndReferenceBounds) {
  Lattice lattice;
  AddMarker(lattice, "1", "1");
  AddMarker(lattice, "1", "2");
  lattice.outputPlane.push_back(PlaneAt(1.0));
  lattice.outputPlane.push_back(PlaneAt(2.0));
  lattice.planeIndex = 0;  // the plane index is not looked at for losses
  ErrorSample sample;
  sample.dynamicSet.assign(3, std::vector<double>(12, 0.0));

  Bunch bunch(3);
  Place(bunch[0], 2.5, 1);  // past the end: lost 2 here
  Place(bunch[1], 1.5, 1);  // past the plane, inside: waits, not lost
  Place(bunch[2], 2.5, 1);
  bunch[2].lost = 1;
  Place(bunch[3], 1.5, 0);  // reference: bounded by the lattice end, not the plane
  lattice.GetErrExternalField(0.0, bunch.beam, sample);
  EXPECT_EQ(bunch[0].lost, 2);
  EXPECT_TRUE(AllZero(bunch[0]));
  EXPECT_EQ(bunch[1].lost, 0);
  EXPECT_TRUE(AllZero(bunch[1]));
  EXPECT_EQ(bunch[2].lost, 1);
  EXPECT_TRUE(AllZero(bunch[2]));
  EXPECT_EQ(bunch[3].indexElem, 1);
  EXPECT_EQ(bunch[3].externalField[5], 2.0);

  // A reference past the end gets no field and is never marked lost here.
  Bunch past(1);
  Place(past[0], 0.5, 0);
  Place(past[1], 2.5, 1);
  lattice.GetErrExternalField(0.0, past.beam, sample);
  EXPECT_EQ(past[0].externalField[5], 1.0);
  EXPECT_EQ(past[1].lost, 0);
  EXPECT_TRUE(AllZero(past[1]));
}

TEST(LatticeSingleParticle, StrictBoundariesAndNoLoss) {
  Lattice lattice;
  FiveMarkers(lattice);
  lattice.planeIndex = 7;  // planes are not looked at in this form

  Particle p = Particle{};
  Place(p, 1.0, 0);  // on zEnd of element 0: stays below
  lattice.GetExternalField(0.0, p);
  EXPECT_EQ(p.indexElem, 0);
  EXPECT_EQ(p.externalField[5], 1.0);

  Place(p, 3.5, 0);
  lattice.GetExternalField(0.0, p);
  EXPECT_EQ(p.indexElem, 3);
  EXPECT_EQ(p.externalField[5], 4.0);

  Place(p, 0.25, 4);
  lattice.GetExternalField(0.0, p);
  EXPECT_EQ(p.indexElem, 0);
  EXPECT_EQ(p.externalField[5], 1.0);

  Place(p, 5.0, 4);  // on the lattice end: still inside
  lattice.GetExternalField(0.0, p);
  EXPECT_EQ(p.indexElem, 4);
  EXPECT_EQ(p.externalField[5], 5.0);
}

// Outside the lattice, or lost, only Ex and Bx are cleared.
TEST(LatticeSingleParticle, OutsideClearsOnlyExAndBx) {
  Lattice lattice;
  FiveMarkers(lattice);
  const double zs[] = {5.5, -0.5, 2.5};
  for (double z : zs) {
    Particle p = Particle{};
    Place(p, z, 2);
    if (z == 2.5) p.lost = 1;
    for (int k = 0; k < 6; ++k) p.externalField[k] = 100.0 + k;
    lattice.GetExternalField(0.0, p);
    EXPECT_EQ(p.externalField[0], 0.0) << "z = " << z;
    EXPECT_EQ(p.externalField[3], 0.0) << "z = " << z;
    EXPECT_EQ(p.externalField[1], 101.0) << "z = " << z;
    EXPECT_EQ(p.externalField[2], 102.0) << "z = " << z;
    EXPECT_EQ(p.externalField[4], 104.0) << "z = " << z;
    EXPECT_EQ(p.externalField[5], 105.0) << "z = " << z;
    EXPECT_EQ(p.lost, z == 2.5 ? 1 : 0) << "z = " << z;
  }
}
