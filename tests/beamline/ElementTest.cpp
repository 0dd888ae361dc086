#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "beam/Particle.h"
#include "beam/SynParticle.h"
#include "beamline/Bend.h"
#include "beamline/Drift.h"
#include "beamline/Edge.h"
#include "beamline/Element.h"
#include "beamline/FieldMatrix.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "beamline/Steerer.h"

namespace {

using Tokens = std::vector<std::string>;

const double kPi = 3.141592653589793;

// A particle at (x, y, z) whose field values hold junk, so that a field call
// that forgets a component is caught.
Particle At(double x, double y, double z = 0.0) {
  Particle p{};
  p.coordinate[0] = x;
  p.coordinate[2] = y;
  p.coordinate[4] = z;
  for (int k = 0; k < 6; ++k) p.externalField[k] = 100.0 + k;
  return p;
}

void ExpectField(const Particle& p, const std::vector<double>& expected, const char* what) {
  for (int k = 0; k < 6; ++k) EXPECT_EQ(p.externalField[k], expected[k]) << what << ", component " << k;
}

const std::vector<double> kZero(6, 0.0);

// Console text of one SetParameter call that is expected to complain.
template <class E>
std::string ComplaintOf(const Tokens& tokens, E& element) {
  testing::internal::CaptureStdout();
  element.SetParameter(3, 1.0, tokens);
  return testing::internal::GetCapturedStdout();
}

}  // namespace

// The second aperture token is compared as text: only "0" and "-1" are special.
TEST(ElementTokens, ThirdTokenSelectsApertureMode) {
  Drift round;
  round.SetParameter(4, 2.5, {"drift", "1.5", "0.02", "0"});
  EXPECT_EQ(round.index, 4);
  EXPECT_EQ(round.zStart, 2.5);
  EXPECT_EQ(round.length, 1.5);
  EXPECT_EQ(round.radius, 0.02);
  EXPECT_EQ(round.apertureMode, 0);
  EXPECT_EQ(round.radiusY, 0.02);
  EXPECT_EQ(round.parameter, (Tokens{"drift", "1.5", "0.02", "0"}));
  EXPECT_EQ(round.getRadius(123.0), 0.02);

  Drift none;
  none.radiusY = 7.0;
  none.SetParameter(0, 0.0, {"drift", "1", "0.02", "-1"});
  EXPECT_EQ(none.apertureMode, 2);
  EXPECT_EQ(none.radiusY, 7.0) << "\"-1\" leaves the second aperture alone";

  Drift zeroText;
  zeroText.radiusY = 7.0;
  zeroText.SetParameter(0, 0.0, {"drift", "1", "0.02", "0.0"});
  EXPECT_EQ(zeroText.apertureMode, 1) << "\"0.0\" is not the text \"0\"";
  EXPECT_EQ(zeroText.radiusY, 0.0);

  Drift given;
  given.SetParameter(0, 0.0, {"drift", "1", "0.02", "0.035"});
  EXPECT_EQ(given.apertureMode, 1);
  EXPECT_EQ(given.radiusY, 0.035);

  // The type word is taken from the token list, not from the class.
  Solenoid named;
  EXPECT_EQ(named.type, "drift");
  named.SetParameter(0, 0.0, {"mysolenoid", "1", "0.02", "0", "0.3"});
  EXPECT_EQ(named.type, "mysolenoid");
}

TEST(ElementTokens, TooFewTokensReportAndLeaveElementUnconfigured) {
  {
    Drift e;
    EXPECT_EQ(ComplaintOf({"drift", "1", "0.1"}, e), "Error! parameter not enough in element : \n\ndrift\t1\t0.1\t\n");
    EXPECT_EQ(e.index, 0);
    EXPECT_EQ(e.length, 0.0);
    EXPECT_EQ(e.zStart, 0.0);
    EXPECT_TRUE(e.parameter.empty());
  }
  {
    Quadrupole e;
    EXPECT_EQ(ComplaintOf({"quad", "1", "0.1", "0", "2"}, e),
              "Error! parameter not enough in element : \n\nquad\t1\t0.1\t0\t2\t\n");
    EXPECT_EQ(e.type, "drift");
    EXPECT_EQ(e.strength, 0.0);
    EXPECT_EQ(e.boreDiameter, 0.0);
  }
  {
    Solenoid e;
    EXPECT_EQ(ComplaintOf({"solenoid", "1", "0.1", "0"}, e),
              "Error! parameter not enough in element : \n\nsolenoid\t1\t0.1\t0\t\n");
    EXPECT_EQ(e.type, "drift");
    EXPECT_EQ(e.strength, 0.0);
  }
  {
    Steerer e;
    EXPECT_EQ(ComplaintOf({"steerer", "1", "0.1", "0", "1", "2"}, e),
              "Error! parameter not enough in element : \n\nsteerer\t1\t0.1\t0\t1\t2\t\n");
    EXPECT_EQ(e.type, "drift");
    EXPECT_EQ(e.strengthX, 0.0);
  }
  {
    Bend e;
    EXPECT_EQ(ComplaintOf({"bend", "1", "0.1", "0"}, e),
              "Error! parameter not enough in element : \n\nbend\t1\t0.1\t0\t\n");
    EXPECT_EQ(e.type, "drift");
    EXPECT_EQ(e.angle, 0.0);
  }
  {
    Edge e;
    EXPECT_EQ(ComplaintOf({"edge", "1", "0.1", "0"}, e),
              "Error! parameter not enough in element : \n\nedge\t1\t0.1\t0\t\n");
    EXPECT_EQ(e.type, "drift");
  }
  {
    Drift e;
    EXPECT_EQ(ComplaintOf({}, e), "Error! parameter not enough in element : \n\n\n");
  }
}

// Lists long enough for the size check but short of the last token read.
TEST(ElementTokens, ListsShortOfLastOwnTokenThrowOutOfRange) {
  Quadrupole quad;
  EXPECT_THROW(quad.SetParameter(0, 0.0, {"quad", "1", "0.1", "0", "2", "0"}), std::out_of_range);
  Steerer steerer;
  EXPECT_THROW(steerer.SetParameter(0, 0.0, {"steerer", "1", "0.1", "0", "1", "2", "0"}), std::out_of_range);
  for (std::size_t size = 5; size <= 7; ++size) {
    Tokens tokens = {"bend", "1", "0.1", "0", "30", "2", "0.5"};
    tokens.resize(size);
    Bend bend;
    EXPECT_THROW(bend.SetParameter(0, 0.0, tokens), std::out_of_range) << size << " tokens";
    Edge edge;
    EXPECT_THROW(edge.SetParameter(0, 0.0, tokens), std::out_of_range) << size << " tokens";
  }
}

TEST(ElementTokens, BadNumbersRaiseConversionErrors) {
  Drift d1, d2, d3, d4;
  EXPECT_THROW(d1.SetParameter(0, 0.0, {"drift", "long", "0.1", "0"}), std::invalid_argument);
  EXPECT_THROW(d2.SetParameter(0, 0.0, {"drift", "1", "wide", "0"}), std::invalid_argument);
  EXPECT_THROW(d3.SetParameter(0, 0.0, {"drift", "1", "0.1", "none"}), std::invalid_argument);
  EXPECT_THROW(d4.SetParameter(0, 0.0, {"drift", "1e999", "0.1", "0"}), std::out_of_range);
  Quadrupole q;
  EXPECT_THROW(q.SetParameter(0, 0.0, {"quad", "1", "0.1", "0", "g", "0", "0"}), std::invalid_argument);
  Solenoid s;
  EXPECT_THROW(s.SetParameter(0, 0.0, {"solenoid", "1", "0.1", "0", "B"}), std::invalid_argument);
  Steerer st;
  EXPECT_THROW(st.SetParameter(0, 0.0, {"steerer", "1", "0.1", "0", "1", "2", "kind", "0"}),
               std::invalid_argument);
  Bend b;
  EXPECT_THROW(b.SetParameter(0, 0.0, {"bend", "1", "0.1", "0", "30", "2", "0.5", "x"}), std::invalid_argument);
}

TEST(ElementTokens, OwnTokensOfQuadrupoleSolenoidSteerer) {
  Quadrupole q;
  q.SetParameter(2, 0.5, {"quad", "0.25", "0.015", "0", "12.5", "3", "4"});
  EXPECT_EQ(q.index, 2);
  EXPECT_EQ(q.type, "quad");
  EXPECT_EQ(q.strength, 12.5);
  EXPECT_EQ(q.strength2, 3.0);
  EXPECT_EQ(q.quadParameter3, 4.0);
  EXPECT_EQ(q.boreDiameter, 0.03);
  EXPECT_EQ(q.fringeCoefficient1, -4e-05);
  EXPECT_EQ(q.fringeCoefficient2, 4.518219);

  Solenoid s;
  s.SetParameter(1, 0.0, {"solenoid", "1", "0.1", "0", "-0.75"});
  EXPECT_EQ(s.strength, -0.75);

  Steerer st;
  st.SetParameter(0, 0.0, {"steerer", "0.1", "0.02", "0", "0.001", "-0.002", "1.9", "3.5"});
  EXPECT_EQ(st.kind, 1) << "the kind is cut to an integer";
  EXPECT_EQ(st.strengthX, 0.001);
  EXPECT_EQ(st.strengthY, -0.002);
  EXPECT_EQ(st.steererParameter4, 3.5);
  EXPECT_EQ(st.strength, 0.0);
}

TEST(DriftField, LossIsAtLeastTheRadiusAndOnlyWithOwnApertures) {
  Drift d;
  d.SetParameter(0, 0.0, {"drift", "1", "0.5", "0"});
  FieldMatrix fm;

  Particle onWall = At(0.5, 0.0);
  d.GetField(0.0, onWall, fm);
  EXPECT_EQ(onWall.lost, 1) << "r equal to the radius is lost";
  ExpectField(onWall, kZero, "on the wall");

  Particle onWallY = At(0.0, -0.5);
  d.GetField(0.0, onWallY, fm);
  EXPECT_EQ(onWallY.lost, 1);

  Particle inside = At(std::nextafter(0.5, 0.0), 0.0);
  d.GetField(0.0, inside, fm);
  EXPECT_EQ(inside.lost, 0);
  ExpectField(inside, kZero, "inside");

  Particle diagonal = At(0.3, 0.3);  // r = 0.424
  d.GetField(0.0, diagonal, fm);
  EXPECT_EQ(diagonal.lost, 0);
  Particle outside = At(0.4, 0.4);  // r = 0.566
  d.GetField(0.0, outside, fm);
  EXPECT_EQ(outside.lost, 1);

  // With the aperture list in charge the drift never marks a loss.
  Particle far = At(100.0, -100.0);
  far.boundaryMode = 1;
  d.GetField(0.0, far, fm);
  EXPECT_EQ(far.lost, 0);
  ExpectField(far, kZero, "boundaryMode 1");
}

TEST(QuadrupoleField, IdealGradientFieldWithoutAperture) {
  Quadrupole q;
  q.SetParameter(0, 0.0, {"quad", "1", "0.01", "0", "2.5", "0", "0"});
  FieldMatrix fm;

  Particle axis = At(0.0, 0.0, 0.3);
  q.GetField(0.0, axis, fm);
  ExpectField(axis, kZero, "on axis");

  Particle unitX = At(1.0, 0.0);
  q.GetField(0.0, unitX, fm);
  ExpectField(unitX, {0, 0, 0, 0, 2.5, 0}, "x = 1");
  EXPECT_EQ(unitX.lost, 0) << "far outside the radius, but a quadrupole tests no aperture";

  Particle offAxis = At(0.02, -0.03);
  q.GetField(0.0, offAxis, fm);
  ExpectField(offAxis, {0, 0, 0, 2.5 * -0.03, 2.5 * 0.02, 0}, "x = 0.02, y = -0.03");
}

TEST(SimpleElementFields, SolenoidSteererBendEdge) {
  FieldMatrix fm;
  Solenoid s;
  s.SetParameter(0, 0.0, {"solenoid", "1", "0.01", "0", "0.8"});
  Particle ps = At(0.3, -0.2, 0.7);
  s.GetField(0.0, ps, fm);
  ExpectField(ps, {0, 0, 0, 0, 0, 0.8}, "solenoid");
  EXPECT_EQ(ps.lost, 0);

  Steerer st;
  st.SetParameter(0, 0.0, {"steerer", "1", "0.01", "0", "0.1", "0.2", "0", "0"});
  Particle pst = At(0.3, -0.2);
  st.GetField(0.0, pst, fm);
  ExpectField(pst, kZero, "steerer");

  Bend b;
  b.SetParameter(0, 0.0, {"bend", "1", "0.01", "0", "30", "2", "0.5", "0"});
  Particle pb = At(0.3, -0.2);
  b.GetField(0.0, pb, fm);
  ExpectField(pb, kZero, "bend");

  Edge e;
  e.SetParameter(0, 0.0, {"edge", "1", "0.01", "0", "30", "2", "0.5", "0"});
  Particle pe = At(0.3, -0.2);
  e.GetField(0.0, pe, fm);
  ExpectField(pe, kZero, "edge");
}

// None of the six simple elements has an error model.
TEST(SimpleElementFields, ErrorFieldEqualsPlainField) {
  FieldMatrix fm;
  Drift d;
  d.SetParameter(0, 0.0, {"drift", "1", "0.1", "0"});
  Quadrupole q;
  q.SetParameter(0, 0.0, {"quad", "1", "0.1", "0", "3", "0", "0"});
  Solenoid s;
  s.SetParameter(0, 0.0, {"solenoid", "1", "0.1", "0", "0.4"});
  Steerer st;
  st.SetParameter(0, 0.0, {"steerer", "1", "0.1", "0", "0.1", "0.2", "0", "0"});
  Bend b;
  b.SetParameter(0, 0.0, {"bend", "1", "0.1", "0", "30", "2", "0.5", "0"});
  Edge e;
  e.SetParameter(0, 0.0, {"edge", "1", "0.1", "0", "30", "2", "0.5", "0"});
  Element* elements[] = {&d, &q, &s, &st, &b, &e};
  const double positions[][2] = {{0.01, -0.02}, {0.2, 0.05}};
  for (Element* el : elements) {
    for (const auto& xy : positions) {
      Particle plain = At(xy[0], xy[1]);
      Particle withErrors = At(xy[0], xy[1]);
      el->GetField(0.0, plain, fm);
      el->GetErrField(0.0, withErrors, fm);
      for (int k = 0; k < 6; ++k)
        EXPECT_EQ(withErrors.externalField[k], plain.externalField[k]) << el->type << ", component " << k;
      EXPECT_EQ(withErrors.lost, plain.lost) << el->type;
    }
  }
}

// The synchronous particle sees no quadrupole, solenoid, steerer or bend.
TEST(SimpleElementFields, SynchronousParticleSeesZeroField) {
  FieldMatrix fm;
  Drift d;
  d.SetParameter(0, 0.0, {"drift", "1", "0.1", "0"});
  Quadrupole q;
  q.SetParameter(0, 0.0, {"quad", "1", "0.1", "0", "3", "0", "0"});
  Solenoid s;
  s.SetParameter(0, 0.0, {"solenoid", "1", "0.1", "0", "0.4"});
  Steerer st;
  st.SetParameter(0, 0.0, {"steerer", "1", "0.1", "0", "0.1", "0.2", "0", "0"});
  Bend b;
  b.SetParameter(0, 0.0, {"bend", "1", "0.1", "0", "30", "2", "0.5", "0"});
  Edge e;
  e.SetParameter(0, 0.0, {"edge", "1", "0.1", "0", "30", "2", "0.5", "0"});
  Element* elements[] = {&d, &q, &s, &st, &b, &e};
  for (Element* el : elements) {
    SynParticle sp;
    sp.coordinate = {0.05, 0.0, -0.05, 0.0, 0.5, 0.1};
    sp.electricField = {1.0};
    sp.magneticField = {1.0, 2.0, 3.0, 4.0, 5.0};
    el->GetField(0.0, sp, fm);
    EXPECT_EQ(sp.electricField, std::vector<double>(3, 0.0)) << el->type;
    EXPECT_EQ(sp.magneticField, std::vector<double>(3, 0.0)) << el->type;
  }
}

TEST(DriftFieldDeathTest, SynchronousParticleOutsideRadiusEndsProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Drift d;
  d.SetParameter(0, 0.0, {"drift", "1", "0.5", "0"});
  FieldMatrix fm;
  // The message goes to the console; send it where the death test reads.
  auto fly = [&](double x, double y) {
    dup2(STDERR_FILENO, STDOUT_FILENO);
    SynParticle sp;
    sp.coordinate = {x, 0.0, y, 0.0, 0.5, 0.1};
    d.GetField(0.0, sp, fm);
  };
  const char* message = "Synchronised particles can't reach the exit plane, problems with the beamline";
  EXPECT_EXIT(fly(0.5, 0.0), testing::ExitedWithCode(1), message);
  EXPECT_EXIT(fly(3.0, -4.0), testing::ExitedWithCode(1), message);
}

TEST(BendParameters, DerivedValuesFromTokens) {
  Bend b;
  b.SetParameter(1, 2.0, {"bend", "0.5", "0.03", "0", "30", "2", "0.25", "1.7"});
  const double angle = 30.0 / 180.0 * kPi;
  EXPECT_EQ(b.index, 1);
  EXPECT_EQ(b.bendPlane, 1) << "the plane is cut to an integer";
  EXPECT_DOUBLE_EQ(b.angle, kPi / 6.0);
  EXPECT_EQ(b.curvatureRadius, 2.0);
  EXPECT_EQ(b.fieldIndex, 0.25);
  EXPECT_EQ(b.curvature, 0.5);
  EXPECT_DOUBLE_EQ(b.arcLength, 2.0 * angle);
  EXPECT_DOUBLE_EQ(b.kx, std::sqrt(0.75) * 0.5);
  EXPECT_DOUBLE_EQ(b.ky, 0.25);
  EXPECT_EQ(b.strength, 0.0);

  Bend negative;
  negative.SetParameter(0, 0.0, {"bend", "0.5", "0.03", "0", "-30", "2", "0.25", "0"});
  EXPECT_EQ(negative.curvature, -0.5);
  EXPECT_GT(negative.arcLength, 0.0);
  EXPECT_DOUBLE_EQ(negative.arcLength, b.arcLength);
  EXPECT_DOUBLE_EQ(negative.kx, b.kx);
  EXPECT_EQ(negative.bendPlane, 0);

  Bend steepIndex;
  steepIndex.SetParameter(0, 0.0, {"bend", "0.5", "0.03", "0", "30", "2", "1.5", "0"});
  EXPECT_TRUE(std::isnan(steepIndex.kx));
  EXPECT_DOUBLE_EQ(steepIndex.ky, std::sqrt(1.5) * 0.5);

  Bend straight;
  straight.SetParameter(0, 0.0, {"bend", "0.5", "0.03", "0", "0", "2", "0.25", "0"});
  EXPECT_TRUE(std::isnan(straight.curvature));
  EXPECT_EQ(straight.arcLength, 0.0);

  // An edge takes the same tokens through the same formulas.
  Edge e;
  e.SetParameter(0, 0.0, {"edge", "0.5", "0.03", "0", "-30", "2", "0.25", "1"});
  EXPECT_EQ(e.bendPlane, 1);
  EXPECT_EQ(e.curvature, -0.5);
  EXPECT_DOUBLE_EQ(e.arcLength, b.arcLength);
  EXPECT_DOUBLE_EQ(e.kx, b.kx);
  EXPECT_DOUBLE_EQ(e.ky, b.ky);
}

TEST(BendParameters, GetParameterKeepsHandedValue) {
  Bend b;
  b.SetParameter(0, 0.0, {"bend", "0.5", "0.03", "0", "30", "2", "0.25", "1"});

  std::vector<double> fresh;
  b.GetParameter(fresh);
  EXPECT_EQ(fresh, (std::vector<double>{1.0, b.arcLength, b.curvature, b.kx, b.ky, 0.0}));

  std::vector<double> handed = {7.5, 99.0};
  b.GetParameter(handed);
  EXPECT_EQ(b.lastInput, 7.5);
  EXPECT_EQ(handed, (std::vector<double>{1.0, 99.0, b.arcLength, b.curvature, b.kx, b.ky, 7.5}));

  std::vector<double> later;
  b.GetParameter(later);
  EXPECT_EQ(later.back(), 7.5) << "the handed value is remembered";
}

TEST(ElementParameters, SteererEdgeAndElementsWithout) {
  Steerer st;
  st.SetParameter(0, 0.0, {"steerer", "0.1", "0.02", "0", "0.001", "-0.002", "-2.7", "3.5"});
  std::vector<double> v = {42.0};
  st.GetParameter(v);
  EXPECT_EQ(v, (std::vector<double>{42.0, -2.0, 0.001, -0.002, 3.5}));

  Edge e;
  e.SetParameter(0, 0.0, {"edge", "0.5", "0.03", "0", "30", "2", "0.25", "1"});
  std::vector<double> w = {42.0};
  e.GetParameter(w);
  EXPECT_EQ(w, (std::vector<double>{42.0, 1.0, e.arcLength, e.curvature, e.kx, e.ky}));

  Drift d;
  d.SetParameter(0, 0.0, {"drift", "1", "0.1", "0"});
  Quadrupole q;
  q.SetParameter(0, 0.0, {"quad", "1", "0.1", "0", "3", "0", "0"});
  Solenoid s;
  s.SetParameter(0, 0.0, {"solenoid", "1", "0.1", "0", "0.4"});
  Element* silent[] = {&d, &q, &s};
  for (Element* el : silent) {
    std::vector<double> u = {1.0, 2.0};
    el->GetParameter(u);
    EXPECT_EQ(u, (std::vector<double>{1.0, 2.0})) << el->type;
  }
}
