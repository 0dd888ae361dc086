// Particle-mesh coupling: the grid fitted to the bunch, deposition, gather,
// the rest-frame treatment and the solve cadence of autoPIC.
#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

#include "tests/spacecharge/PICTestSupport.h"

using namespace pictest;

// Two thousand particles of a cloud: the grid spans meshRms rms about the
// centre; the deposited charge is the charge of the particles inside, whether
// the tasks split the work or not; the split changes only the rounding.
TEST(Deposition, ConservesChargeWithAndWithoutTasks) {
  const int n = 2000;
  const double q = 1e-15;
  TestBeam b(n, q);
  unsigned state = 7;
  for (int i = 0; i < n; ++i) b.Place(i, 1e-3 * Spread(state), 2e-3 * Spread(state), 3e-3 * Spread(state));
  b.Measure();
  std::vector<double> rho[2];
  int inside[2];
  for (int multithread : {1, 0}) {
    Mesh mesh;
    std::vector<int> grid = {10, 8, 12};
    mesh.Initial(grid, n);
    std::vector<double> p = Parameters(0.0, 2.0, 3, multithread);
    PIC pic(mesh, b.beam, p, 0);
    ASSERT_EQ(pic.Weight(mesh, b.beam, 1e-10), 0);
    EXPECT_DOUBLE_EQ(pic.hx, 2 * b.beam.rms[0] * 2.0 / 9);
    EXPECT_NEAR(mesh.nodeX[0] + mesh.nodeX[9], 2 * b.beam.average[0], 1e-15);  // centred on the bunch
    const double total = std::accumulate(mesh.rho.begin(), mesh.rho.end(), 0.0);
    EXPECT_GT(pic.inMeshCount, n / 2);
    EXPECT_LT(pic.inMeshCount, n);
    EXPECT_NEAR(total, pic.inMeshCount * q, 1e-12 * n * q);
    int outside = 0;
    for (int i = 0; i < n; ++i) outside += b.store[i].outsideMesh;
    EXPECT_EQ(outside + pic.inMeshCount, n);
    rho[multithread] = mesh.rho;
    inside[multithread] = pic.inMeshCount;
  }
  EXPECT_EQ(inside[0], inside[1]);
  for (std::size_t k = 0; k < rho[0].size(); ++k) ASSERT_NEAR(rho[0][k], rho[1][k], 1e-13 * q) << k;
}

// With the mesh geometry fixed by the beam record: a particle on a node puts
// all of its charge there; the last node plane is outside; a lost particle is
// neither deposited nor given a field; the bunch length is stretched by gamma.
TEST(Deposition, NodeParticleLastPlaneLostParticleAndStretch) {
  TestBeam b(4, 2e-15);
  b.beam.rms = {1e-3, 1e-3, 1e-3};
  Mesh mesh;
  std::vector<int> grid = {8, 8, 8};
  mesh.Initial(grid, 4);
  std::vector<double> p = Parameters(0.0, 3.5, 1);
  PIC pic(mesh, b.beam, p, 0);
  ASSERT_EQ(pic.Weight(mesh, b.beam, 1e-10), 0);  // places the nodes
  b.Place(0, mesh.nodeX[2], mesh.nodeY[5], mesh.nodeZ[3]);
  b.Place(1, 0.0, 0.0, mesh.nodeZ[7]);  // k = Nz - 1 after the floor
  b.Place(2, 0.0, 0.0, 0.0);
  b.store[2].lost = 1;
  b.store[2].spaceChargeField[0] = 5.0;
  b.Place(3, 0.0, 0.0, 1.8e-3);
  // Nodes at -3.5, -2.5, ..., 3.5 mm. With gamma 2 the z offsets double: the
  // node particle moves to -1 mm, cell 2; particle 3 to 3.6 mm, beyond the last node.
  b.beam.gamma = 2.0;
  ASSERT_EQ(pic.Weight(mesh, b.beam, 1e-10), 0);
  EXPECT_EQ(pic.inMeshCount, 1);
  EXPECT_EQ(mesh.cellIndex[2], 2);
  EXPECT_EQ(b.store[3].outsideMesh, 1);
  b.beam.gamma = 1.0;
  ASSERT_EQ(pic.Weight(mesh, b.beam, 1e-10), 0);
  EXPECT_EQ(pic.inMeshCount, 2);
  EXPECT_EQ(b.store[1].outsideMesh, 1);  // on the last node plane: k = Nz - 1
  EXPECT_EQ(mesh.cellIndex[11], 5);      // 1.8 mm lies between the nodes at 1.5 and 2.5 mm
  EXPECT_NEAR(mesh.rho[mesh.Index(2, 5, 3)], 2e-15, 1e-14 * 2e-15);
  EXPECT_NEAR(std::accumulate(mesh.rho.begin(), mesh.rho.end(), 0.0), 2 * 2e-15, 1e-28);
  // Gather of a node field: the node particle reads exactly its node.
  std::fill(mesh.ex.begin(), mesh.ex.end(), 0.0);
  mesh.ex[mesh.Index(2, 5, 3)] = 100.0;
  pic.Allocate(mesh, b.beam);
  EXPECT_NEAR(b.store[0].spaceChargeField[0], 100.0, 1e-12);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(b.store[2].spaceChargeField[k], 0.0);
}

// In the bunch rest frame the bunch is gamma times longer and static. Back in
// the laboratory E transverse is gamma E', and B = v x E / c^2 bends the other
// way: a co-moving particle feels E - v B = gamma E' (1 - beta^2) = E' / gamma
// transverse, and E' along z. The gather folds B into E that way, and outside
// the mesh the point-charge field follows the same rule.
TEST(RestFrame, TransverseFieldOverGammaLongitudinalUnchanged) {
  const int n = 3000;
  const double gamma = 2.5, beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  TestBeam atRest(n, 1e-15), moving(n, 1e-15);
  unsigned state = 11;
  for (int i = 0; i < n; ++i) {
    const double x = 1e-3 * Spread(state), y = 1e-3 * Spread(state), z = 1e-3 * Spread(state);
    moving.Place(i, x, y, z);
    atRest.Place(i, x, y, z * gamma);
  }
  moving.beam.gamma = gamma;
  atRest.Measure();
  moving.Measure();
  ASSERT_NEAR(moving.beam.rms[2], atRest.beam.rms[2], 1e-15);
  Mesh m1, m2;
  std::vector<int> grid = {12, 12, 12};
  m1.Initial(grid, n);
  m2.Initial(grid, n);
  std::vector<double> p = Parameters(0.0, 3.0);
  PIC rest(m1, atRest.beam, p, 0), lab(m2, moving.beam, p, 0);
  for (auto [pic, mesh, beam] : {std::tuple<PIC*, Mesh*, Beam*>{&rest, &m1, &atRest.beam}, {&lab, &m2, &moving.beam}}) {
    ASSERT_EQ(pic->Weight(*mesh, *beam, 1e-10), 0);
    pic->FFT(*mesh);
    pic->Allocate(*mesh, *beam);
  }
  ASSERT_EQ(rest.inMeshCount, lab.inMeshCount);
  for (int i = 0; i < n; ++i) {
    const double* e0 = atRest.store[i].spaceChargeField;
    const double* e1 = moving.store[i].spaceChargeField;
    const double scale = std::fabs(e0[0]) + std::fabs(e0[1]) + std::fabs(e0[2]) + 1.0;
    for (int a = 0; a < 2; ++a) {
      const double labE = gamma * e0[a], labB = beta / 299792458.0 * labE;  // |v x E| / c^2
      ASSERT_NEAR(e1[a], labE - beta * 299792458.0 * labB, 1e-9 * scale) << i;
    }
    ASSERT_NEAR(e1[2], e0[2], 1e-9 * scale) << i;
    for (int a = 3; a < 6; ++a) ASSERT_EQ(e1[a], 0.0);
  }
}

// The first call always solves; then only the bunch length decides, against
// the last solved length, with the limit 0.00015.
TEST(AutoPIC, SkipsUntilTheBunchLengthChanges) {
  PIC pic;
  Beam beam;
  beam.rms = {1e-3, 1e-3, 2e-3};
  EXPECT_EQ(pic.autoPIC(beam), 1);
  beam.rms = {2e-3, 3e-3, 2e-3 * (1 + 1e-4)};  // x and y double: ignored
  EXPECT_EQ(pic.autoPIC(beam), 0);
  EXPECT_NEAR(pic.rmsChange, 1e-4, 1e-12);
  beam.rms[2] = 2e-3 * (1 - 2e-4);
  EXPECT_EQ(pic.autoPIC(beam), 1);
  EXPECT_EQ(pic.previousRms, beam.rms);
  beam.rms[2] *= 1 + 1.4e-4;  // measured against the new length
  EXPECT_EQ(pic.autoPIC(beam), 0);
  EXPECT_EQ(pic.callCount, 4);
  EXPECT_EQ(pic.solveCount, 2);
}

// A bunch that has no extent on an axis cannot carry a mesh: Weight says why
// and deposits nothing, instead of spreading non-finite fields.
TEST(Deposition, CollapsedOrNonFiniteBunchIsRefused) {
  TestBeam b(2, 1e-15);
  Mesh mesh;
  std::vector<int> grid = {4, 4, 4};
  mesh.Initial(grid, 2);
  std::vector<double> p = Parameters(0.0, 3.0, 1);
  PIC pic(mesh, b.beam, p, 0);
  b.beam.rms = {1e-3, 0.0, 1e-3};
  EXPECT_EQ(pic.Weight(mesh, b.beam, 1e-10), 1);
  EXPECT_EQ(pic.fitFailure,
            "The bunch has collapsed to zero size in y (rms 0 m), the space-charge mesh cannot be fitted");
  b.beam.rms = {1e-3, 1e-3, NAN};
  EXPECT_EQ(pic.Weight(mesh, b.beam, 1e-10), 1);
  EXPECT_EQ(pic.fitFailure, "The bunch size in z is not a finite number (nan), the space-charge mesh cannot be fitted");
  b.beam.rms = {1e-3, 1e-3, 1e-3};
  EXPECT_EQ(pic.Weight(mesh, b.beam, 1e-10), 0);
  EXPECT_EQ(pic.fitFailure, "");
}
