#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

#include "beamline/Bend.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "beamline/Steerer.h"
#include "tracking/SectionPlan.h"

namespace {

// A lattice built by hand. The elements are owned here with their own types,
// since Element has no virtual destructor. Lengths are binary fractions, so
// that element ends are exact and a plane can equal one.
struct HandLattice {
  Lattice lattice;
  std::deque<Drift> drifts;
  std::deque<Quadrupole> quads;
  std::deque<Solenoid> solenoids;
  std::deque<Steerer> steerers;

  HandLattice& drift(const std::string& length) {
    drifts.emplace_back();
    lattice.SetElement({"drift", length, "0.02", "0"}, &drifts.back());
    return *this;
  }
  HandLattice& quad(const std::string& length) {
    quads.emplace_back();
    lattice.SetElement({"quad", length, "0.02", "0", "10", "0", "0"}, &quads.back());
    return *this;
  }
  HandLattice& solenoid(const std::string& length) {
    solenoids.emplace_back();
    lattice.SetElement({"solenoid", length, "0.02", "0", "0.5"}, &solenoids.back());
    return *this;
  }
  HandLattice& steerer() {
    steerers.emplace_back();
    lattice.SetElement({"steerer", "0", "0.02", "0", "0.0", "0.001", "0", "0"}, &steerers.back());
    return *this;
  }
  SectionPlan plan(const std::vector<double>& planes) const { return SectionPlan::Build(lattice, planes); }
};

const int T = SectionPlan::kTimeCode;
const int Z = SectionPlan::kZCode;

}  // namespace

TEST(SectionPlan, FieldFreeLatticeIsOneTimeSectionWithPlanesAndFinalStop) {
  HandLattice h;
  h.drift("0.5").drift("0.5");
  // A plane at the very start is not above the first element's start and
  // gives no stop; one at an element's end belongs to that element.
  SectionPlan p = h.plan({0.0, 0.25, 0.5});
  EXPECT_EQ(p.sectionKind, std::vector<int>({T}));
  ASSERT_EQ(p.stopZ.size(), 1u);
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.25, 0.5, 1.0}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({-1, -1, -2}));
  EXPECT_TRUE(p.sectionElements.empty());

  // A plane on the section end is one stop with -1, not a -1 and a -2.
  p = h.plan({0.25, 0.75, 1.0});
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.25, 0.75, 1.0}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({-1, -1, -1}));

  // No planes at all: only the final stop.
  p = h.plan({});
  EXPECT_EQ(p.stopZ[0], std::vector<double>({1.0}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({-2}));
}

TEST(SectionPlan, SteererInTimeSectionStopsAtMiddleOfElementBehind) {
  HandLattice h;
  h.drift("0.5").steerer().drift("0.5");
  // The steerer (index 1) acts at the middle of the drift behind it, 0.75.
  SectionPlan p = h.plan({1.0});
  EXPECT_EQ(p.sectionKind, std::vector<int>({T}));
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.75, 1.0}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({1, -1}));

  // Planes of that element that do not lie beyond the steerer's stop are
  // dropped; later ones stay, and the end gets its own -2.
  p = h.plan({0.6, 0.75, 0.875});
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.75, 0.875, 1.0}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({1, -1, -2}));

  // Without planes the steerer stop stays, with the final stop.
  p = h.plan({});
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.75, 1.0}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({1, -2}));
}

TEST(SectionPlan, SteererAtVeryStartIsOrdinaryMemberWithoutKick) {
  HandLattice h;
  h.steerer().drift("0.5").steerer().drift("0.25");
  SectionPlan p = h.plan({});
  EXPECT_EQ(p.sectionKind, std::vector<int>({T}));
  // Only the second steerer (index 2) gives a stop, at 0.5 + 0.125.
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.625, 0.75}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({2, -2}));
}

TEST(SectionPlan, SteererAsLastElementEndsSection) {
  HandLattice h;
  h.drift("0.5").steerer();
  SectionPlan p = h.plan({});
  EXPECT_EQ(p.sectionKind, std::vector<int>({T}));
  EXPECT_EQ(p.stopZ[0], std::vector<double>({0.5}));
  EXPECT_EQ(p.stopCode[0], std::vector<int>({-2}));

  HandLattice g;
  g.drift("0.5").quad("0.25").steerer();
  p = g.plan({});
  EXPECT_EQ(p.sectionKind, std::vector<int>({T, Z}));
  EXPECT_EQ(p.sectionElements, std::vector<std::vector<int>>({{1}}));
  EXPECT_EQ(p.elementCode, std::vector<std::vector<int>>({{-3}}));
}

TEST(SectionPlan, SteererBeforeHardEdgeElementGivesItsIndexAsElementCode) {
  HandLattice h;
  h.drift("0.5").steerer().quad("0.25").steerer().quad("0.25").drift("0.25");
  // A plane inside the quadrupole after a steerer does not displace the
  // steerer's code.
  SectionPlan p = h.plan({0.625});
  EXPECT_EQ(p.sectionKind, std::vector<int>({T, Z, T}));
  // The time section ends at the steerer's end, which is the drift's end.
  EXPECT_EQ(p.stopZ, std::vector<std::vector<double>>({{0.5}, {1.25}}));
  EXPECT_EQ(p.stopCode, std::vector<std::vector<int>>({{-2}, {-2}}));
  EXPECT_EQ(p.sectionElements, std::vector<std::vector<int>>({{2, 4}}));
  EXPECT_EQ(p.elementCode, std::vector<std::vector<int>>({{1, 3}}));
}

TEST(SectionPlan, PlanesInsideAtEndOfAndBetweenHardEdgeSections) {
  HandLattice h;
  // drift [0, 0.5], quad [0.5, 0.75], quad [0.75, 1], solenoid [1, 1.25],
  // drift [1.25, 1.5], quad [1.5, 2], drift [2, 2.5]
  h.drift("0.5").quad("0.25").quad("0.25").solenoid("0.25").drift("0.25").quad("0.5").drift("0.5");
  const std::vector<double> planes = {0.5, 0.625, 0.7, 1.0, 1.25, 1.75, 2.0, 2.5};
  SectionPlan p = h.plan(planes);
  EXPECT_EQ(p.sectionKind, std::vector<int>({T, Z, T, Z, T}));
  // 0.5 closes the first drift with -1; 1.25 is the solenoid's end and not
  // above the next drift's start; 2.0 is the quad's end.
  EXPECT_EQ(p.stopZ, std::vector<std::vector<double>>({{0.5}, {1.5}, {2.5}}));
  EXPECT_EQ(p.stopCode, std::vector<std::vector<int>>({{-1}, {-2}, {-1}}));
  EXPECT_EQ(p.sectionElements, std::vector<std::vector<int>>({{1, 2, 3}, {5}}));
  // Two planes inside the first quad give one -1; a plane at an exit gives
  // -2; the solenoid's exit plane 1.25 gives -2; the last quad has 1.75
  // inside it before its exit plane 2.0 in the list, so -1 wins.
  EXPECT_EQ(p.elementCode, std::vector<std::vector<int>>({{-1, -2, -2}, {-1}}));

  // Without planes every hard-edge element has nothing to do, and each time
  // section has only its final stop.
  p = h.plan({});
  EXPECT_EQ(p.stopZ, std::vector<std::vector<double>>({{0.5}, {1.5}, {2.5}}));
  EXPECT_EQ(p.stopCode, std::vector<std::vector<int>>({{-2}, {-2}, {-2}}));
  EXPECT_EQ(p.elementCode, std::vector<std::vector<int>>({{-3, -3, -3}, {-3}}));
}

TEST(SectionPlan, LatticeBeginningWithHardEdgeStartsWithZCodeSection) {
  HandLattice h;
  h.quad("0.25").drift("0.25");
  SectionPlan p = h.plan({});
  EXPECT_EQ(p.sectionKind, std::vector<int>({Z, T}));
  EXPECT_EQ(p.sectionElements, std::vector<std::vector<int>>({{0}}));
  EXPECT_EQ(p.elementCode, std::vector<std::vector<int>>({{-3}}));
  EXPECT_EQ(p.stopZ, std::vector<std::vector<double>>({{0.5}}));
}
