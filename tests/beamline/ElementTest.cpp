#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "beamline/Bend.h"
#include "beamline/Drift.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "beamline/Steerer.h"

namespace {
using V = std::vector<double>;
const FieldMatrix kNoMaps;

template <class E>
E Made(const std::vector<std::string>& tokens) {
  E e;
  e.SetParameter(1, 2.0, tokens);
  return e;
}

// Six field values, then the loss mark, of a particle at (x, y) whose fields start as junk.
V FieldAt(Element& e, double x, double y, int boundaryMode = 0, bool errors = false) {
  Particle p{};
  p.coordinate[0] = x, p.coordinate[2] = y, p.boundaryMode = boundaryMode;
  for (int k = 0; k < 6; ++k) p.externalField[k] = 100.0 + k;
  errors ? e.GetErrField(0.0, p, kNoMaps) : e.GetField(0.0, p, kNoMaps);
  const double* f = p.externalField;
  return {f[0], f[1], f[2], f[3], f[4], f[5], double(p.lost)};
}
}  // namespace

// Token 3 is read as text ("0.0" is a value); a short list complains, the run goes on.
TEST(ElementTokens, ApertureModeShortListsAndBadNumbers) {
  const struct { const char* token; double mode, radiusY; } cases[] = {
      {"0", 0, 0.02}, {"-1", 2, 0.0}, {"0.0", 1, 0.0}, {"0.035", 1, 0.035}};
  for (const auto& c : cases) {
    const Drift d = Made<Drift>({"drift", "1.5", "0.02", c.token});
    EXPECT_EQ(V({double(d.apertureMode), d.radiusY}), V({c.mode, c.radiusY})) << c.token;
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(Made<Quadrupole>({"quad", "1", "0.1", "0", "2"}).type, "drift");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Error! parameter not enough in element : \n\nquad\t1\t0.1\t0\t2\t\n");
  // Long enough for the size check, short of the last own token.
  EXPECT_THROW(Quadrupole().SetParameter(0, 0.0, {"quad", "1", "0.1", "0", "2", "0"}), std::out_of_range);
  EXPECT_THROW(Steerer().SetParameter(0, 0.0, {"steerer", "1", "0.1", "0", "1", "2", "0"}), std::out_of_range);
  EXPECT_THROW(Drift().SetParameter(0, 0.0, {"drift", "long", "0.1", "0"}), std::invalid_argument);
  EXPECT_THROW(Drift().SetParameter(0, 0.0, {"drift", "1", "0.1", "none"}), std::invalid_argument);
}

TEST(ElementFields, FormulasOfTheSimpleElements) {
  Drift d = Made<Drift>({"drift", "1", "0.5", "0"});
  Quadrupole q = Made<Quadrupole>({"quad", "1", "0.01", "0", "2.5", "0", "0"});
  Solenoid s = Made<Solenoid>({"solenoid", "1", "0.01", "0", "0.8"});
  Steerer st = Made<Steerer>({"steerer", "1", "0.01", "0", "0.1", "0.2", "0", "0"});
  Bend b = Made<Bend>({"bend", "1", "0.01", "0", "30", "2", "0.5", "0"});
  // A drift loses from r equal to its radius on, and never under the aperture list.
  EXPECT_EQ(FieldAt(d, 0.0, -0.5), (V{0, 0, 0, 0, 0, 0, 1}));
  EXPECT_EQ(FieldAt(d, std::nextafter(0.5, 0.0), 0.0), V(7, 0.0));
  EXPECT_EQ(FieldAt(d, 100.0, -100.0, 1), V(7, 0.0));
  EXPECT_EQ(FieldAt(q, 0.0, 0.0), V(7, 0.0));
  EXPECT_EQ(FieldAt(q, 1.0, 0.0), (V{0, 0, 0, 0, 2.5, 0, 0})) << "no aperture test in a quadrupole";
  EXPECT_EQ(FieldAt(q, 0.02, -0.03), (V{0, 0, 0, 2.5 * -0.03, 2.5 * 0.02, 0, 0}));
  EXPECT_EQ(FieldAt(s, 0.3, -0.2), (V{0, 0, 0, 0, 0, 0.8, 0}));
  Element* all[] = {&d, &q, &s, &st, &b};
  for (Element* el : {all[3], all[4]}) EXPECT_EQ(FieldAt(*el, 0.3, -0.2), V(7, 0.0)) << el->type;
  for (Element* el : all) EXPECT_EQ(FieldAt(*el, 0.2, 0.05, 0, true), FieldAt(*el, 0.2, 0.05)) << el->type;
}

// On the axis of a drift of radius 0: r = 0 is at least the radius.
TEST(DriftFieldDeathTest, SynchronousParticleOnTheRadiusEndsProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Drift d = Made<Drift>({"drift", "1", "0", "0"});
  SynParticle sp;
  EXPECT_EXIT({ dup2(STDERR_FILENO, STDOUT_FILENO); d.GetField(0.0, sp, kNoMaps); }, testing::ExitedWithCode(1),
              "Synchronised particles can't reach the exit plane, problems with the beamline");
}

// Plane 1.7 is cut to 1; h = 1 / 2 m; a negative angle gives negative h, positive arc.
TEST(BendParameters, DerivedValuesAndGetParameter) {
  Bend b = Made<Bend>({"bend", "0.5", "0.03", "0", "30", "2", "0.25", "1.7"});
  Bend negative = Made<Bend>({"bend", "0.5", "0.03", "0", "-30", "2", "0.25", "0"});
  EXPECT_EQ(V({negative.curvature, negative.arcLength}), V({-0.5, b.arcLength}));
  EXPECT_TRUE(std::isnan(Made<Bend>({"bend", "0.5", "0.03", "0", "30", "2", "1.5", "0"}).kx));
  V fresh, handed = {7.5, 99.0};
  b.GetParameter(fresh);
  EXPECT_EQ(fresh, (V{1.0, 2.0 * (30.0 / 180.0 * 3.141592653589793), 0.5, std::sqrt(0.75) * 0.5, 0.25, 0.0}));
  b.GetParameter(handed);
  EXPECT_EQ(handed, (V{1.0, 99.0, b.arcLength, 0.5, b.kx, b.ky, 7.5})) << "v[0] kept as the last input";
}
