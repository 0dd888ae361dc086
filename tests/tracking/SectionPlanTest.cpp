#include <gtest/gtest.h>

#include <deque>
#include <sstream>
#include <tuple>

#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "beamline/Steerer.h"
#include "tracking/SectionPlan.h"

// Lattices from words like "D0.5 S Q0.25 O0.25" (drift, steerer, quad, solenoid); binary-fraction lengths keep
// element ends exact, so that a plane can equal one.
TEST(SectionPlan, CutsRepresentativeLattices) {
  const int T = SectionPlan::kTimeCode, Z = SectionPlan::kZCode;
  const std::string big = "D0.5 Q0.25 Q0.25 O0.25 D0.25 Q0.5 D0.5";  // ends 0.5 .75 1 1.25 1.5 2 2.5
  const struct { std::string lattice; std::vector<double> planes; SectionPlan want; } cases[] = {
      // A plane at the very start gives no stop; one at a section end is one stop with -1.
      {"D0.5 D0.5", {0.0, 0.25, 0.5}, {{T}, {{0.25, 0.5, 1.0}}, {{-1, -1, -2}}, {}, {}}},
      {"D0.5 D0.5", {0.25, 0.75, 1.0}, {{T}, {{0.25, 0.75, 1.0}}, {{-1, -1, -1}}, {}, {}}},
      // A steerer acts at the middle of the element behind it; planes up to that stop are dropped.
      {"D0.5 S D0.5", {0.6, 0.75, 0.875}, {{T}, {{0.75, 0.875, 1.0}}, {{1, -1, -2}}, {}, {}}},
      {"S D0.5 S D0.25", {}, {{T}, {{0.625, 0.75}}, {{2, -2}}, {}, {}}},  // the first steerer has no kick
      {"D0.5 S", {}, {{T}, {{0.5}}, {{-2}}, {}, {}}},
      {"D0.5 Q0.25 S", {}, {{T, Z}, {{0.5}}, {{-2}}, {{1}}, {{-3}}}},
      {"D0.5 S Q0.25 S Q0.25 D0.25", {0.625}, {{T, Z, T}, {{0.5}, {1.25}}, {{-2}, {-2}}, {{2, 4}}, {{1, 3}}}},
      {"Q0.25 D0.25", {}, {{Z, T}, {{0.5}}, {{-2}}, {{0}}, {{-3}}}},
      // Inside -1 (the first plane in list order that fits), at an exit -2; 1.25 is not above 1.25.
      {big, {0.5, 0.625, 0.7, 1.0, 1.25, 1.75, 2.0, 2.5},
       {{T, Z, T, Z, T}, {{0.5}, {1.5}, {2.5}}, {{-1}, {-2}, {-1}}, {{1, 2, 3}, {5}}, {{-1, -2, -2}, {-1}}}},
      {big, {}, {{T, Z, T, Z, T}, {{0.5}, {1.5}, {2.5}}, {{-2}, {-2}, {-2}}, {{1, 2, 3}, {5}},
                 {{-3, -3, -3}, {-3}}}}};
  for (const auto& c : cases) {
    Lattice lattice;  // the elements are owned here with their own types
    std::deque<Drift> d;
    std::deque<Quadrupole> q;
    std::deque<Solenoid> o;
    std::deque<Steerer> s;
    std::istringstream words(c.lattice);
    for (std::string w; words >> w;) {
      if (w[0] == 'D') lattice.SetElement({"drift", w.substr(1), "0.02", "0"}, &d.emplace_back());
      if (w[0] == 'Q') lattice.SetElement({"quad", w.substr(1), "0.02", "0", "10", "0", "0"}, &q.emplace_back());
      if (w[0] == 'O') lattice.SetElement({"solenoid", w.substr(1), "0.02", "0", "0.5"}, &o.emplace_back());
      if (w[0] == 'S') lattice.SetElement({"steerer", "0", "0.02", "0", "0", "0.001", "0", "0"}, &s.emplace_back());
    }
    const SectionPlan p = SectionPlan::Build(lattice, c.planes);
    const SectionPlan& e = c.want;
    EXPECT_EQ(std::tie(p.sectionKind, p.stopZ, p.stopCode, p.sectionElements, p.elementCode),
              std::tie(e.sectionKind, e.stopZ, e.stopCode, e.sectionElements, e.elementCode)) << c.lattice;
  }
}
