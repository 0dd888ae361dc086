// The map element: trilinear lookup, faces, aperture, radio-frequency phase, misalignment, error combination and
// superposition.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "beamline/Field.h"
#include "tools/fieldmap/FieldMapWriter.h"

namespace {
using V = std::vector<double>;
using Tokens = std::vector<std::string>;
const double kPi = 3.141592653589793;

// Puts a map with `count` values per node, value(c, x, y, z) at each node, straight into `f`.
template <class F>
int AddMap(FieldMatrix& f, const fieldmap::MapMesh& m, int count, F value) {
  f.sxnum = m.nx, f.synum = m.ny, f.sznum = m.nz;
  f.sxmin = m.xmin, f.sxmax = m.xmax, f.symin = m.ymin, f.symax = m.ymax, f.szmax = m.zmax;
  f.sdx = (m.xmax - m.xmin) / m.nx, f.sdy = (m.ymax - m.ymin) / m.ny, f.sdz = m.zmax / m.nz;
  V values;
  for (int iz = 0; iz <= m.nz; ++iz)
    for (int iy = 0; iy <= m.ny; ++iy)
      for (int ix = 0; ix <= m.nx; ++ix)
        for (int c = 0; c < count; ++c) values.push_back(value(c, m.xmin + ix * f.sdx, m.ymin + iy * f.sdy, iz * f.sdz));
  return f.AddMap("map", count, values);
}

fieldmap::MapMesh Mesh(int nx, int ny, int nz, double half, double zmax) {
  fieldmap::MapMesh m;
  m.nx = nx, m.ny = ny, m.nz = nz, m.xmin = -half, m.xmax = half, m.ymin = -half, m.ymax = half, m.zmax = zmax;
  return m;
}

// A field line as the lattice hands it over: token 9 is the map index, token 14 the cavity number.
Field Made(double zStart, Tokens tokens, int index = 3) {
  Field f;
  f.SetParameter(index, zStart, tokens);
  return f;
}
Tokens Line(const std::string& type, const std::string& frequency, const std::string& phase, const std::string& map,
            const std::string& radius = "1") {
  return {"field", "0.3", radius, "0", type, frequency, phase, "2", "0.5", map, "i", "i", "i", "i", "0"};
}

// Six field values and the loss mark of a particle at (x, y, z) whose fields start as junk.
V At(Element& e, const FieldMatrix& f, double x, double y, double z, double t = 0.0, int boundaryMode = 0,
     bool errors = false) {
  Particle p{};
  p.coordinate[0] = x, p.coordinate[2] = y, p.coordinate[4] = z, p.boundaryMode = boundaryMode;
  for (int k = 0; k < 6; ++k) p.externalField[k] = 100.0 + k;
  errors ? e.GetErrField(t, p, f) : e.GetField(t, p, f);
  const double* o = p.externalField;
  return {o[0], o[1], o[2], o[3], o[4], o[5], double(p.lost)};
}

// A field linear in x, y, z with a different slope per component.
double Linear(int c, double x, double y, double z) { return 0.5 + c + (2.0 + c) * x - 3.0 * y + (1.0 - c) * z; }
}  // namespace

// On a node the value is the node's; a field linear in x, y, z comes out exactly (up to rounding) anywhere inside;
// on a face and beyond all six values are zero. The map starts at the element's zStart, and x varies fastest.
TEST(FieldLookup, ExactOnNodesLinearInsideZeroOnFaces) {
  FieldMatrix f;
  AddMap(f, Mesh(4, 8, 4, 0.5, 1.0), 3, Linear);  // steps of 1/4, 1/8 and 1/4 m: nodes stand exactly
  Field electric = Made(1.0, Line("2", "0", "0", "0"));
  Field magnetic = Made(1.0, Line("3", "0", "0", "0"));
  const double x = -0.5 + 3 * 0.25, y = -0.5 + 2 * 0.125, z = 3 * 0.25;
  const V node = At(electric, f, x, y, 1.0 + z);
  for (int c = 0; c < 3; ++c) EXPECT_EQ(node[c], f.field[0][(((3 * 9) + 2) * 5 + 3) * 3 + c] * 2e6) << c;
  for (const V& p : {V{0.123, -0.041, 0.1234}, V{-0.499, 0.499, 0.0001}, V{0.03, 0.17, 0.9999}}) {
    const V e = At(electric, f, p[0], p[1], 1.0 + p[2]), b = At(magnetic, f, p[0], p[1], 1.0 + p[2]);
    for (int c = 0; c < 3; ++c) {
      const double want = Linear(c, p[0], p[1], 1.0 + p[2] - 1.0);
      EXPECT_NEAR(e[c], 2e6 * want, 1e-9 * 2e6) << c << " at " << p[0] << " " << p[1] << " " << p[2];
      EXPECT_NEAR(b[3 + c], 0.5 * want, 1e-12) << c;
      EXPECT_EQ(e[3 + c], 0.0);
      EXPECT_EQ(b[c], 0.0);
    }
  }
  const V zero(7, 0.0);
  for (const V& p : {V{0.5, 0, 0.1}, V{0, -0.5, 0.1}, V{0, 0, 0.0}, V{0, 0, 1.0}, V{0, 0, 1.05}, V{0.7, 0, 0.1}})
    EXPECT_EQ(At(electric, f, p[0], p[1], 1.0 + p[2]), zero) << p[0] << " " << p[1] << " " << p[2];
}

// At r = radius a particle is lost with its old field kept, unless the aperture list decides; type 0 leaves the
// field alone; an unknown type says so and does nothing.
TEST(FieldLookup, ApertureTypeZeroAndUnknownType) {
  FieldMatrix f;
  AddMap(f, Mesh(2, 2, 2, 0.02, 0.3), 3, Linear);
  Field e = Made(0.0, Line("2", "0", "0", "0", "0.01"));
  EXPECT_EQ(At(e, f, 0.006, -0.008, 0.1), (V{100, 101, 102, 103, 104, 105, 1}));
  EXPECT_EQ(At(e, f, 0.006, -0.008, 0.1, 0.0, 1)[6], 0.0);
  Field none = Made(0.0, Line("0", "0", "0", "0"));
  EXPECT_EQ(At(none, f, 0.0, 0.0, 0.1), (V{100, 101, 102, 103, 104, 105, 0}));
  testing::internal::CaptureStdout();
  Field odd = Made(0.0, Line("7", "0", "0", "0"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Field type error!\n");
  EXPECT_EQ(At(odd, f, 0.0, 0.0, 0.1), (V{100, 101, 102, 103, 104, 105, 0}));
}

// phi = 2 pi f (t - time) + phase: at phi = 0 the electric map at full amplitude and B zero, at pi / 2 the reverse.
// Without tables the deck's phase holds from t = 0. The synchronous particle sees Ez alone, with its own tables.
TEST(FieldRadioFrequency, PhaseZeroAndQuarterPeriod) {
  FieldMatrix f;
  AddMap(f, Mesh(2, 2, 2, 0.02, 0.3), 6, [](int c, double, double, double) { return 1.0 + c; });
  const double freq = 1e8;
  Field cavity = Made(0.0, Line("1", "1e8", "30", "0"));
  EXPECT_EQ(std::vector<int>({cavity.cavityIndex, cavity.mapIndex}), std::vector<int>({0, 0}));
  EXPECT_DOUBLE_EQ(cavity.phaseRad, kPi / 6);
  const V deckPhase = At(cavity, f, 0, 0, 0.1);
  EXPECT_DOUBLE_EQ(deckPhase[2], 3 * 2e6 * std::cos(kPi / 6));
  f.phase = {0.0}, f.time = {2e-9};
  const V full = At(cavity, f, 0, 0, 0.1, 2e-9);
  for (int c = 0; c < 3; ++c) {
    EXPECT_EQ(full[c], (1.0 + c) * 2e6);
    EXPECT_NEAR(full[3 + c], 0.0, 1e-15);
  }
  const V quarter = At(cavity, f, 0, 0, 0.1, 2e-9 + 0.25 / freq);
  f.phase = {90.0};
  const V shifted = At(cavity, f, 0, 0, 0.1, 2e-9);
  for (const V& v : {quarter, shifted})
    for (int c = 0; c < 3; ++c) {
      EXPECT_NEAR(v[c], 0.0, 1e-9);
      EXPECT_NEAR(v[3 + c], (4.0 + c) * 0.5, 1e-15);
    }
  SynParticle sp;
  sp.coordinate = {0, 0, 0, 0, 0.1, 0.1};
  sp.phaseList = {0.0}, sp.timeList = {0.0};
  cavity.GetField(0.0, sp, f);
  EXPECT_EQ(sp.electricField, (V{0, 0, 3 * 2e6}));
  EXPECT_EQ(sp.magneticField, V(3, 0.0));
}

// A misaligned element moves its field by the offset: a quadrupole map shifted by 2 mm in x has By = G (x - 2 mm);
// rolled by 90 degrees its uniform Bx turns into By. Inside its length the element's own radius is the wall, even
// with the aperture list in charge.
TEST(FieldErrors, MisalignmentMovesTheField) {
  FieldMatrix f;
  AddMap(f, Mesh(4, 4, 2, 0.02, 0.3), 3, fieldmap::Quadrupole(10.0));
  AddMap(f, Mesh(4, 4, 2, 0.02, 0.3), 3, [](int c, double, double, double) { return c == 0 ? 1.0 : 0.0; });
  Field quad = Made(0.0, Line("3", "0", "0", "0", "0.015"));
  Field roll = Made(0.0, Line("3", "0", "0", "1", "0.015"), 4);
  ErrorSample s;
  s.onFlag = {0, 0, 1, 0};
  // Element 3 moved by 2 mm in x, element 4 rolled by 90 degrees about z.
  s.staticSet = {{0.0}, {}, {}, {}, V{1, 2.0, 0, 0, 0, 0, 0, 0}, V{1, 0, 0, 0, 0, 90.0, 0, 0}};
  quad.SetErrPara(s);
  roll.SetErrPara(s);
  EXPECT_DOUBLE_EQ(quad.errDx, 0.002);
  const V shifted = At(quad, f, 0.005, 0.001, 0.1, 0.0, 1, true);
  EXPECT_NEAR(shifted[3], 0.5 * 10.0 * 0.001, 1e-14);
  EXPECT_NEAR(shifted[4], 0.5 * 10.0 * (0.005 - 0.002), 1e-14);
  const V turned = At(roll, f, 0.001, 0.001, 0.1, 0.0, 1, true);
  EXPECT_NEAR(turned[3], 0.0, 1e-15);
  EXPECT_NEAR(turned[4], 0.5, 1e-15);
  EXPECT_EQ(At(quad, f, 0.017 + 0.002, 0.0, 0.1, 0.0, 1, true)[6], 1.0) << "lost at the shifted wall";
  EXPECT_EQ(At(quad, f, 0.016, 0.0, 0.1, 0.0, 1, true)[6], 0.0);
}

// Static errors set the misalignment, dynamic ones add; amplitudes add in percent; the phase error is never cleared
// without static errors, so dynamic samples add up. With selector 1 only the static set counts. In a superposition a
// cavity keeps its static amplitude error under dynamic errors, a static sub-field does not.
TEST(FieldErrors, StaticAndDynamicCombination) {
  Field cav = Made(0.0, Line("1", "1e8", "0", "0"));
  ErrorSample s;
  s.staticSet = {{0.0}, {}, {}, {}, V{1, 1.0, 2.0, 0, 0, 10.0, 5.0, 3.0}};
  s.dynamicSet = {{0.0}, {}, {}, {}, V{1, 0.5, 0, 0, 0, 20.0, 1.0, 0}};
  s.onFlag = {0, 0, 1, 1};
  cav.SetErrPara(s);
  EXPECT_EQ(V({cav.errDx, cav.errDy, cav.errDz, cav.errPhase}), V({0.001 + 0.0005, 0.002, 0.003, 6.0}));
  EXPECT_DOUBLE_EQ(cav.errEScale, (1.0 + 0.2 + 0.1) * 2);
  EXPECT_DOUBLE_EQ(cav.errBScale, (1.0 + 0.2 + 0.1) * 0.5);
  s.onFlag = {0, 0, 0, 1};
  cav.SetErrPara(s);
  cav.SetErrPara(s);
  EXPECT_EQ(V({cav.errDx, cav.errDy, cav.errPhase, cav.errEScale}), V({0.0005, 0.0, 8.0, 1.2 * 2}));
  s.onFlag = {0, 0, 1, 1};
  s.errorSelector = 1;
  cav.SetErrPara(s);
  EXPECT_EQ(V({cav.errDx, cav.errPhase, cav.errEScale}), V({0.001, 5.0, 1.1 * 2}));

  // Sub-field 0 a cavity (amplitude in column 5), sub-field 1 a magnet (amplitude in column 6).
  Tokens set = {"field", "0.3", "1", "0", "4", "1e8", "0", "0", "0", "0", "0", "i", "0", "0.3", "0", "i", "i", "i", "i", "i"};
  const Tokens rf = {"field", "0.3", "1", "0", "1", "1e8", "0", "3", "4", "0", "i", "i", "0", "0.3", "0", "0", "0", "0", "0", "0"};
  Tokens magnet = rf;
  magnet[4] = "3", magnet[8] = "5";
  set.insert(set.end(), rf.begin(), rf.end());
  set.insert(set.end(), magnet.begin(), magnet.end());
  Field sum = Made(0.0, set);
  ASSERT_EQ(sum.subType, std::vector<int>({2, 1}));
  V staticRow(24, 0.0), dynamicRow(24, 0.0);
  staticRow[0] = staticRow[12] = dynamicRow[0] = dynamicRow[12] = 1.0;
  staticRow[5] = 10.0, staticRow[12 + 6] = 10.0, dynamicRow[5] = 20.0, dynamicRow[12 + 6] = 20.0;
  staticRow[6] = 2.0, dynamicRow[6] = 1.0, staticRow[1] = 1.0, dynamicRow[1] = 1.0;
  s.staticSet[4] = staticRow, s.dynamicSet[4] = dynamicRow, s.errorSelector = 0;
  sum.SetErrPara(s);
  ASSERT_EQ(sum.subError.size(), 2u);
  EXPECT_DOUBLE_EQ(sum.subError[0][8], (1.0 + 0.2 + 0.1) * 3);
  EXPECT_DOUBLE_EQ(sum.subError[0][7], (1.0 + 0.2 + 0.1) * 4);
  EXPECT_DOUBLE_EQ(sum.subError[1][7], (1.0 + 0.2) * 5);
  EXPECT_EQ(V({sum.subError[0][0], sum.subError[0][1], sum.subError[0][9]}), V({1.0, 0.002, 3.0}));
}

TEST(FieldErrorsDeathTest, SelectorOtherThanZeroOrOneEndsProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Field cav = Made(0.0, Line("1", "1e8", "0", "0"));
  ErrorSample s;
  s.errorSelector = 2;
  EXPECT_EXIT({ dup2(STDERR_FILENO, STDOUT_FILENO); cav.SetErrPara(s); }, testing::ExitedWithCode(1), "errorUsed\n");
  const Tokens nine = {"field", "0.3", "1", "0", "2", "0", "0", "2", "0.5"};
  EXPECT_EXIT({ dup2(STDERR_FILENO, STDOUT_FILENO); Made(0.0, nine); },
              testing::ExitedWithCode(1), "Error! parameter not enough in element : \n\nfield\t0.3\t1\t0\t2\t0\t0\t2\t0.5\t\n");
}

// Sub-fields placed at zero add up to the plain map values; an offset moves one, a roll of 90 degrees about z turns
// its field; the set's own start is subtracted from each group's start. No loss test without errors.
TEST(FieldSuperposition, PlacementsAndSum) {
  FieldMatrix f;
  AddMap(f, Mesh(4, 4, 2, 0.02, 0.2), 3, fieldmap::Quadrupole(10.0));
  AddMap(f, Mesh(4, 4, 2, 0.02, 0.2), 3, [](int c, double, double, double) { return c == 0 ? 1.0 : 0.0; });
  // Section from 0.5 to 0.8 of its set: group starts 0.5 and 0.6 put the sub-fields at zStart and zStart + 0.1.
  Tokens set = {"field", "0.3", "0.01", "0", "4", "0", "0", "0", "0", "0", "0", "i", "0.5", "0.8", "i", "i", "i", "i", "i", "i"};
  Tokens a = {"field", "0.2", "0.001", "0", "3", "0", "0", "0", "1", "0", "i", "i", "0.5", "0.7", "0", "0", "0", "0", "0", "0"};
  Tokens b = a;
  b[9] = "1", b[12] = "0.6", b[13] = "0.8", b[15] = "0.001", b[17] = "90";
  set.insert(set.end(), a.begin(), a.end());
  set.insert(set.end(), b.begin(), b.end());
  Field sum = Made(2.0, set);
  EXPECT_EQ(sum.subStart, V({2.0, 2.1}));
  const V front = At(sum, f, 0.05, 0.003, 2.05);  // beyond both maps transversally, and only in a's stretch
  EXPECT_EQ(front, V(7, 0.0));
  const V both = At(sum, f, 0.004, 0.003, 2.15);
  EXPECT_NEAR(both[3], 10.0 * 0.003 + 0.0, 1e-15) << "b's Bx = 1 turned into By";
  EXPECT_NEAR(both[4], 10.0 * 0.004 + 1.0, 1e-14);
  EXPECT_EQ(V({both[0], both[1], both[2], both[5], both[6]}), V(5, 0.0));
}

// The word "drift" is looked for at token 15 k while groups stand 20 apart. Such a group is a sub-field without a
// field; it gets a zero placement row of its own, so that the placement rows still belong to their sub-fields.
TEST(FieldSuperposition, DriftGroupKeepsPlacementRowsInStep) {
  FieldMatrix f;
  AddMap(f, Mesh(4, 4, 2, 0.02, 0.2), 3, [](int c, double, double, double) { return c == 0 ? 1.0 : 0.0; });
  Tokens set = {"field", "0.4", "0.01", "0", "4", "0", "0", "0", "0", "0", "0", "i", "0", "0.4", "i", "drift", "i", "i", "i", "i"};
  const Tokens gap = {"drift", "0.2", "0.03", "0", "i", "i", "i", "i", "i", "i", "i", "i", "0", "0.2", "0", "0", "0", "0", "0", "0"};
  const Tokens a = {"field", "0.2", "0.001", "0", "3", "0", "0", "0", "1", "0", "i", "i", "0.2", "0.4", "0", "0", "0", "90", "0", "0"};
  set.insert(set.end(), gap.begin(), gap.end());
  set.insert(set.end(), a.begin(), a.end());
  Field sum = Made(0.0, set);
  ASSERT_EQ(sum.subType, std::vector<int>({0, 1}));
  ASSERT_EQ(sum.subPlacement.size(), 2u);
  EXPECT_EQ(sum.subPlacement[0], V(6, 0.0));
  EXPECT_EQ(sum.subStart, V({0.0, 0.2}));
  // The second sub-field is turned by 90 degrees in the x-y plane, with its own row: its Bx = 1 comes out along y.
  const V b = At(sum, f, 0.001, 0.001, 0.3);
  EXPECT_NEAR(b[3], 0.0, 1e-15);
  EXPECT_NEAR(b[4], 1.0, 1e-15);
}
