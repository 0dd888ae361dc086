// The hard-edge transfer maps against their analytic matrices, the rules of kickMode and timeOut, the reference
// row, the preparation of a solve, and the space-charge kick between two map steps.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "beamline/Bend.h"
#include "beamline/Drift.h"
#include "beamline/Lattice.h"
#include "beamline/Quadrupole.h"
#include "beamline/Solenoid.h"
#include "run/Keld.h"
#include "tests/spacecharge/PICTestSupport.h"
#include "tracking/HardEdgeTrans.h"
#include "tracking/MethodMP.h"

namespace {

const double kC = 299792458.0;
const double kRatio = 1.60217653e-19 / 1.67262171e-27;  // proton q/m

// Rows of n particles and the reference, owned by the test.
struct Bunch {
  Beam beam;
  std::unique_ptr<Particle[]> store;
  CrossingTable rows;
  explicit Bunch(int n) : store(new Particle[n + 1]()), rows(n + 1) {
    beam.particleNumber = n;
    beam.particle = store.get();
    for (int i = 0; i <= n; ++i) store[i].chargeMassRatio = kRatio;
  }
  // A row from slopes: x, x', y, y', gamma beta z, time; alive.
  void Set(int i, double x, double xp, double y, double yp, double gbz, double t = 0.0) {
    rows[i] = {x, xp * gbz, y, yp * gbz, 0.0, gbz, t, 1.0};
  }
  std::vector<double> Slopes(int i) const {
    const ConstCrossingRow r = rows[i];
    return {r[0], r[1] / r[5], r[2], r[3] / r[5]};
  }
};

struct Engine {
  MethodMP mp;
  Engine() { mp.cores = {1, 2, 2, 2, 1, 1, 1, 1, 1, 1}; }
};

// 2 by 2 blocks of the analytic matrices.
struct Block {
  double a, b, c, d;
};
Block Focus(double k, double L) { return {std::cos(k * L), std::sin(k * L) / k, -k * std::sin(k * L), std::cos(k * L)}; }
Block Defocus(double k, double L) {
  return {std::cosh(k * L), std::sinh(k * L) / k, k * std::sinh(k * L), std::cosh(k * L)};
}

void ExpectNear(const std::vector<double>& got, const std::vector<double>& want, double tolerance, const char* what) {
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t k = 0; k < got.size(); ++k)
    EXPECT_NEAR(got[k], want[k], tolerance * (1.0 + std::fabs(want[k]))) << what << ", entry " << k;
}

Element* AddQuad(Lattice& lattice, double length, double gradient) {
  Element* e = new Quadrupole();
  lattice.SetElement({"quad", std::to_string(length), "0.02", "0", std::to_string(gradient), "0", "0"}, e);
  return e;
}

}  // namespace

// Focusing and defocusing quadrupole: cos and cosh of k L with k^2 = (q/m) G / (c gamma beta) of each particle, x
// focusing for G > 0; entry 4 the flight time L / vz, entry 6 advanced by it, entry 5 untouched, and the particle
// record holds the slopes. Without gradient the map is the drift that it tends to for a small one.
TEST(HardEdgeMap, QuadrupoleMatchesThickLensMatrix) {
  const double L = 0.25;
  for (double G : {12.0, -7.5, 0.0, 1e-6}) {
    Lattice lattice;
    AddQuad(lattice, L, G);
    Engine e;
    Bunch b(2);
    b.Set(0, 1e-3, 2e-3, -2e-3, 1e-3, 0.08, 1e-8);
    b.Set(1, -3e-3, -1e-3, 1e-3, -4e-3, 0.081, 2e-8);
    b.Set(2, 0.0, 0.0, 0.0, 0.0, 0.08);
    const CrossingTable before = b.rows;
    int kick = 0;
    double timeOut = 0.0;
    e.mp.HardEdgeTrans(0, 0.0, L, b.rows, b.beam, lattice, kick, timeOut);
    for (int i = 0; i < 2; ++i) {
      const ConstCrossingRow r = before[i];
      const double gbz = r[5], gbx = r[1], gby = r[3];
      const double gamma = std::sqrt(1.0 + gbx * gbx + gby * gby + gbz * gbz), beta = std::sqrt(1.0 - 1.0 / gamma / gamma);
      const double k = std::sqrt(std::fabs(kRatio * G / (kC * gamma * beta)));
      const Block fx = G == 0.0 ? Block{1, L, 0, 1} : G > 0 ? Focus(k, L) : Defocus(k, L);
      const Block fy = G == 0.0 ? Block{1, L, 0, 1} : G > 0 ? Defocus(k, L) : Focus(k, L);
      const double x = r[0], xp = gbx / gbz, y = r[2], yp = gby / gbz;
      const std::vector<double> want = {fx.a * x + fx.b * xp, fx.c * x + fx.d * xp, fy.a * y + fy.b * yp,
                                        fy.c * y + fy.d * yp};
      ExpectNear(b.Slopes(i), want, 1e-12, ("G " + std::to_string(G)).c_str());
      if (G == 1e-6) ExpectNear(want, {x + L * xp, xp, y + L * yp, yp}, 1e-7, "limit");
      const double vz = beta * kC / std::sqrt(xp * xp + yp * yp + 1.0);
      EXPECT_NEAR(b.rows[i][4], L / vz, 1e-12 * L / vz);
      EXPECT_NEAR(b.rows[i][6], r[6] + L / vz, 1e-12 * L / vz);
      EXPECT_EQ(b.rows[i][5], gbz);
      EXPECT_EQ(b.rows[i][7], 1.0);
      ExpectNear({b.store[i].coordinate, b.store[i].coordinate + 4}, b.Slopes(i), 1e-14, "record");
    }
    EXPECT_EQ(b.rows[2], before[2]) << "the reference row moves only by its own overload";
  }
}

// Solenoid: the matrix is the focusing of the Larmor frame, cos and sin of K L in both planes, followed by a
// rotation of the frame by K L, with K = B q/m / (2 c beta gamma). Energy and the transverse emittance are kept.
TEST(HardEdgeMap, SolenoidIsLarmorFocusingAndRotation) {
  const double L = 0.3, B = 0.8, gbz = 0.08;
  Lattice lattice;
  lattice.SetElement({"solenoid", "0.3", "0.02", "0", "0.8"}, new Solenoid());
  Engine e;
  Bunch b(1);
  const double x = 2e-3, xp = -1e-3, y = -1e-3, yp = 3e-3;
  b.Set(0, x, xp, y, yp, gbz);
  int kick = 0;
  double timeOut = 0.0;
  e.mp.HardEdgeTrans(0, 0.0, L, b.rows, b.beam, lattice, kick, timeOut);
  const double gamma = std::sqrt(1.0 + gbz * gbz * (1.0 + xp * xp + yp * yp)), beta = std::sqrt(1.0 - 1.0 / gamma / gamma);
  const double K = B * kRatio / (2.0 * kC * beta * gamma), C = std::cos(K * L), S = std::sin(K * L);
  const Block f{C, S / K, -K * S, C};
  const double fx = f.a * x + f.b * xp, fxp = f.c * x + f.d * xp, fy = f.a * y + f.b * yp, fyp = f.c * y + f.d * yp;
  ExpectNear(b.Slopes(0), {C * fx + S * fy, C * fxp + S * fyp, -S * fx + C * fy, -S * fxp + C * fyp}, 1e-12, "map");
  EXPECT_EQ(b.rows[0][5], gbz);
}

// Sector bend, field index 0, 30 degrees on a 1 m radius, bending in x: the textbook matrix with R16 = rho (1 -
// cos), R26 = sin, R51 = -sin; y drifts over the arc. With d = 0 no dispersion term; bending in y swaps the planes;
// field index 0.5 focuses both planes equally. A step much shorter than the arc takes half of it.
TEST(HardEdgeMap, SectorBendWithDispersion) {
  const double theta = 30.0 / 180.0 * 3.141592653589793, rho = 1.0, arc = rho * theta;
  for (int plane : {0, 1}) {
    for (double n : {0.0, 0.5}) {
      Lattice lattice;
      lattice.SetElement({"drift", "0.1", "0.02", "0"}, new Drift());
      lattice.SetElement({"bend", std::to_string(arc), "0.02", "0", "30", "1", n == 0.0 ? "0" : "0.5",
                          std::to_string(plane)},
                         new Bend());
      Engine e;
      Bunch b(2);
      const double ref = 0.08, d = 2e-3;
      b.Set(0, 1e-3, 2e-3, -1e-3, 1e-3, ref * (1.0 + d));
      b.Set(1, 1e-3, 2e-3, -1e-3, 1e-3, ref);  // on momentum
      b.Set(2, 0.0, 0.0, 0.0, 0.0, ref);
      const CrossingTable before = b.rows;
      int kick = 0;
      double timeOut = 0.0;
      const double start = 0.1, end = start + std::stod(std::to_string(arc));
      e.mp.HardEdgeTrans(1, start, end, b.rows, b.beam, lattice, kick, timeOut);
      const double kx = std::sqrt(1.0 - n) / rho, ky = std::sqrt(n) / rho, L = arc;
      const Block bx = Focus(kx, L), by = n == 0.0 ? Block{1, L, 0, 1} : Focus(ky, L);
      for (int i = 0; i < 2; ++i) {
        const double di = i == 0 ? d : 0.0;
        const double u = 1e-3, up = 2e-3, w = -1e-3, wp = 1e-3;  // x, y before
        const double R16 = (1.0 - std::cos(kx * L)) / (rho * kx * kx), R26 = std::sin(kx * L) / (rho * kx);
        double bu = bx.a * u + bx.b * up + R16 * di, bup = bx.c * u + bx.d * up + R26 * di;
        double nw = by.a * w + by.b * wp, nwp = by.c * w + by.d * wp;
        if (plane == 1) {  // y bends: y takes kx, x takes ky
          bu = by.a * u + by.b * up, bup = by.c * u + by.d * up;
          nw = bx.a * w + bx.b * wp + R16 * di, nwp = bx.c * w + bx.d * wp + R26 * di;
        }
        ExpectNear(b.Slopes(i), {bu, bup, nw, nwp}, 1e-12, ("plane " + std::to_string(plane)).c_str());
        const double g = plane == 0 ? u : w, gp = plane == 0 ? up : wp;
        const double gamma = std::sqrt(1.0 + std::pow(before[i][1], 2) + std::pow(before[i][3], 2) + std::pow(before[i][5], 2));
        const double beta2 = 1.0 - 1.0 / gamma / gamma;
        const double z = -g * std::sin(kx * L) / (rho * kx) - gp * (1.0 - std::cos(kx * L)) / (rho * kx * kx) +
                         di * (-(kx * L * beta2 - std::sin(kx * L)) / (rho * rho * kx * kx * kx) +
                               (1.0 - 1.0 / (rho * rho * kx * kx)) * L / (gamma * gamma));
        EXPECT_NEAR(b.store[i].coordinate[4], z, 1e-15) << "path term";
        EXPECT_EQ(b.store[i].coordinate[5], before[i][5]);
      }
      // Half of the element's span: the arc is walked in two halves.
      kick = 0;
      const RowMotion m = MotionOfRow(b.rows[1].data());
      e.mp.HardEdgeTrans(1, start, start + 0.5 * (end - start), b.rows, b.beam, lattice, kick, timeOut);
      EXPECT_DOUBLE_EQ(b.rows[1][4], 0.5 * arc / m.vz);
    }
  }
}

// On two threads the rows go through the maps in batches: every carried row comes out as the map of that row
// alone gives it, to the bit (behind the kick that mode 1 gives first), and rows not carried keep their entries.
TEST(HardEdgeMap, BatchesMatchTheMapOfEachRowAlone) {
  for (int kind : {0, 1})
    for (int mode : {0, 1}) {
      Lattice lattice;
      if (kind == 0)
        AddQuad(lattice, 0.25, 12.0);
      else
        lattice.SetElement({"solenoid", "0.25", "0.02", "0", "0.8"}, new Solenoid());
      Engine e;
      const int n = 75;
      Bunch b(n);
      for (int i = 0; i <= n; ++i) {
        b.Set(i, 1e-3 * std::sin(i), 1e-3 * std::cos(2.0 * i), 1e-3 * std::sin(5.0 * i), 1e-3 * std::cos(i),
              0.08 * (1.0 + 1e-3 * std::sin(3.0 * i)), 1e-9 * i);
        b.rows[i][4] = 1e-9;  // the flight time of the last step, which the kick acts over
        for (int c = 0; c < 3; ++c) b.store[i].spaceChargeField[c] = 1e5 * std::cos(i + c);
      }
      for (int i : {3, 40, 71}) b.rows[i][7] = 0.5;
      const CrossingTable before = b.rows;
      int kick = mode;
      double timeOut = 0.0;
      e.mp.HardEdgeTrans(0, 0.0, 0.25, b.rows, b.beam, lattice, kick, timeOut);
      for (int i = 0; i < n; ++i) {
        std::vector<double> row = before[i].Values();
        if (row[7] == 1.0) {
          const double f = 2.0 * (kRatio / kC) * row[4];
          for (int c = 0; c < 3 && mode == 1; ++c) row[1 + 2 * c] += f * b.store[i].spaceChargeField[c];
          Particle alone = b.store[i];
          e.mp.SeHardEdgeTrans(0, 0.0, 0.25, row, alone, lattice, 0);
        }
        ASSERT_EQ(b.rows[i], row) << "kind " << kind << " mode " << mode << " row " << i;
      }
    }
}

// kickMode comes back as 0; mode 2 leaves the mean time of the alive rows, modes 0 and 1 the earliest time of all
// rows; a row not marked exactly 1.0 keeps its eight entries. Mode 1 kicks the momenta by 2 (q/m) / c times entry 4
// times the self-field before the map.
TEST(HardEdgeMap, KickModeAndTimeOut) {
  Lattice lattice;
  AddQuad(lattice, 0.2, 0.0);  // a drift, so the kick is easy to follow
  Engine e;
  Bunch b(3);
  b.Set(0, 1e-3, 0.0, 0.0, 0.0, 0.08, 4e-8);
  b.Set(1, 0.0, 1e-3, 0.0, 0.0, 0.08, 6e-8);
  b.rows[2] = {1, 2, 3, 4, 5, 6, 1e-9, 0.999999};
  b.Set(3, 0.0, 0.0, 0.0, 0.0, 0.08);
  const std::vector<double> dead = b.rows[2].Values();
  int kick = 2;
  double timeOut = -1.0;
  e.mp.HardEdgeTrans(0, 0.0, 0.1, b.rows, b.beam, lattice, kick, timeOut);
  EXPECT_EQ(kick, 0);
  EXPECT_DOUBLE_EQ(timeOut, 0.5 * (b.rows[0][6] + b.rows[1][6]));
  EXPECT_EQ(b.rows[2], dead);

  const double tau = b.rows[0][4], Ex = 1e5, Ez = -2e5;
  b.store[0].spaceChargeField[0] = Ex, b.store[0].spaceChargeField[2] = Ez;
  const double gbx = b.rows[0][1], gbz = b.rows[0][5];
  kick = 1;
  e.mp.HardEdgeTrans(0, 0.1, 0.2, b.rows, b.beam, lattice, kick, timeOut);
  EXPECT_EQ(kick, 0);
  EXPECT_DOUBLE_EQ(b.rows[0][5], gbz + 2.0 * (kRatio / kC) * tau * Ez);
  EXPECT_DOUBLE_EQ(b.rows[0][1], gbx + 2.0 * (kRatio / kC) * tau * Ex);
  // The earliest time of the rows still carried: a dead row's time would send the bunch back.
  EXPECT_EQ(timeOut, std::min(b.rows[0][6], b.rows[1][6]));
  EXPECT_EQ(b.rows[2], dead);
  kick = 0;
  e.mp.HardEdgeTrans(0, 0.2, 0.3, b.rows, b.beam, lattice, kick, timeOut);
  EXPECT_EQ(timeOut, std::min(b.rows[0][6], b.rows[1][6]));
  // Any other element leaves everything as it was.
  lattice.SetElement({"drift", "0.1", "0.02", "0"}, new Drift());
  const CrossingTable rows = b.rows;
  kick = 2, timeOut = 7.0;
  e.mp.HardEdgeTrans(1, 0.3, 0.4, b.rows, b.beam, lattice, kick, timeOut);
  EXPECT_EQ(b.rows, rows);
  EXPECT_EQ(timeOut, 7.0);
}

// The reference overload moves only the reference row, through the whole element; in a bend its slopes count as 0.
TEST(HardEdgeMap, ReferenceRowCrossesTheWholeElement) {
  Lattice lattice;
  AddQuad(lattice, 0.2, 10.0);
  lattice.SetElement({"bend", "0.5", "0.02", "0", "20", "1.5", "0", "0"}, new Bend());
  Engine e;
  Bunch b(1);
  b.Set(0, 1e-3, 1e-3, 1e-3, 1e-3, 0.08, 1e-8);
  b.Set(1, 0.0, 0.0, 0.0, 0.0, 0.08, 2e-8);
  const std::vector<double> particle = b.rows[0].Values();
  e.mp.HardEdgeTrans(0, b.rows, b.beam, lattice);
  const double vz = MotionOfRow(b.rows[1].data()).vz;
  EXPECT_DOUBLE_EQ(b.rows[1][6], 2e-8 + 0.2 / vz);
  b.rows[1][1] = 1e-4;  // a slope the bend ignores
  const double vzBend = MotionOfRow(b.rows[1].data()).vz;
  e.mp.HardEdgeTrans(1, b.rows, b.beam, lattice);
  const double arc = 1.5 * std::fabs(20.0 / 180.0 * 3.141592653589793);
  EXPECT_DOUBLE_EQ(b.rows[1][6], 2e-8 + 0.2 / vz + arc / vzBend);
  EXPECT_EQ(b.rows[1][0], 0.0);
  EXPECT_EQ(b.rows[1][1], 0.0);
  EXPECT_EQ(b.rows[0], particle);
}

// The rows at one z with their own times are carried on straight lines to the common time: a row that arrives
// d later stands d vz behind; mean and rms of the alive rows, the z rms in the rest frame of the mean; gamma of the
// beam is left alone.
TEST(HardEdgeMap, FieldPreparationPutsTheBunchAtOneTime) {
  Lattice lattice;
  Engine e;
  Bunch b(3);
  b.beam.gamma = 42.0;
  b.Set(0, 1e-3, 1e-3, 0.0, 0.0, 0.08, 1e-9);
  b.Set(1, -1e-3, 0.0, 2e-3, 0.0, 0.08, -1e-9);
  b.rows[2] = {9, 9, 9, 9, 9, 9, 9, 0.0};
  double t = 0.0;
  e.mp.HESCFieldPre(b.beam, b.rows, lattice, t);
  const RowMotion m0 = MotionOfRow(b.rows[0].data()), m1 = MotionOfRow(b.rows[1].data());
  const double* r0 = b.store[0].relativeCoordinate;
  EXPECT_DOUBLE_EQ(r0[0], 1e-3 - 1e-9 * (0.08 * 1e-3 / m0.gamma) * kC);
  EXPECT_DOUBLE_EQ(r0[4], -1e-9 * m0.vz);
  EXPECT_DOUBLE_EQ(b.store[1].relativeCoordinate[4], 1e-9 * m1.vz);
  EXPECT_DOUBLE_EQ(b.beam.average[4], 0.5 * (r0[4] + b.store[1].relativeCoordinate[4]));
  EXPECT_DOUBLE_EQ(b.beam.average[5], 0.08);
  const double dz = r0[4] - b.beam.average[4];
  const double g = std::sqrt(1.0 + std::pow(b.beam.average[1], 2) + 0.08 * 0.08);
  const double gz = 1.0 / std::sqrt(1.0 - std::pow(0.08 / g, 2));
  EXPECT_NEAR(b.beam.rms[2], gz * std::fabs(dz), 1e-12 * std::fabs(dz));
  EXPECT_NEAR(b.beam.rms[1], 1e-3, 1e-15);
  EXPECT_EQ(b.beam.gamma, 42.0);
}

// The kick between the two halves of an element comes from a real solve of the bunch at its middle; it is linear in
// the charge, so half and twice the current give half and twice the change of every momentum.
TEST(HardEdgeMap, SpaceChargeKickScalesWithCurrent) {
  const int n = 2000;
  std::vector<double> change[3];
  const double charges[3] = {1e-15, 0.5e-15, 2e-15};
  for (int c = 0; c < 3; ++c) {
    Lattice lattice;
    lattice.SetElement({"drift", "0.1", "0.02", "0"}, new Drift());
    AddQuad(lattice, 0.2, 0.0);  // no gradient: the momenta change by the kick alone
    Engine e;
    e.mp.spaceCharge = 1;
    e.mp.timeStep = 1e-10;
    Bunch b(n);
    b.beam.gamma = std::sqrt(1.0 + 0.08 * 0.08);
    unsigned state = 12345;
    for (int i = 0; i < n; ++i) {
      b.store[i].charge = charges[c];
      b.Set(i, 1e-3 * pictest::Spread(state), 1e-3 * pictest::Spread(state), 1e-3 * pictest::Spread(state),
            1e-3 * pictest::Spread(state), 0.08 * (1.0 + 1e-3 * pictest::Spread(state)), 1e-10 * pictest::Spread(state));
    }
    b.Set(n, 0.0, 0.0, 0.0, 0.0, 0.08);
    Mesh mesh;
    std::vector<int> grid = {16, 16, 16};
    mesh.Initial(grid, n);
    std::vector<double> parameters = pictest::Parameters(0.0, 5.0);
    PIC pic(mesh, b.beam, parameters, 0);
    int kick = 2;
    double timeOut = 0.0;
    e.mp.HardEdgeTrans(1, 0.1, 0.2, b.rows, b.beam, lattice, kick, timeOut);
    e.mp.HESCFieldPre(b.beam, b.rows, lattice, timeOut);
    ASSERT_EQ(pic.Weight(mesh, b.beam, e.mp.timeStep), 0) << pic.fitFailure;
    pic.FFT(mesh);
    pic.Allocate(mesh, b.beam);
    const CrossingTable half = b.rows;
    kick = 1;
    e.mp.HardEdgeTrans(1, 0.2, 0.3, b.rows, b.beam, lattice, kick, timeOut);
    CrossingTable free = half;
    kick = 0;
    e.mp.HardEdgeTrans(1, 0.2, 0.3, free, b.beam, lattice, kick, timeOut);
    for (int i = 0; i < n; ++i)
      for (int k : {1, 3, 5}) change[c].push_back(b.rows[i][k] - free[i][k]);
  }
  double largest = 0.0;
  for (double v : change[0]) largest = std::max(largest, std::fabs(v));
  ASSERT_GT(largest, 1e-9);
  for (std::size_t j = 0; j < change[0].size(); ++j) {
    ASSERT_NEAR(change[1][j], 0.5 * change[0][j], 1e-9 * largest) << j;
    ASSERT_NEAR(change[2][j], 2.0 * change[0][j], 1e-9 * largest) << j;
  }
}

// A quadrupole or solenoid of length 0 has no map; the reader refuses such a deck, and the run refuses such a
// lattice built otherwise, with status 2 before anything moves (here with a log folder that does not exist).
TEST(HardEdgeMap, ZeroLengthElementIsRefused) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string saved = outputFilePath;
  outputFilePath = "/nonexistent-keld-folder/";
  for (const char* type : {"quad", "solenoid"}) {
    Lattice lattice;
    lattice.SetElement({"drift", "0.1", "0.02", "0"}, new Drift());
    if (std::string(type) == "quad")
      AddQuad(lattice, 0.0, 5.0);
    else
      lattice.SetElement({"solenoid", "0", "0.02", "0", "0.5"}, new Solenoid());
    Engine e;
    EXPECT_EXIT({ dup2(2, 1); e.mp.CheckZcodeSections(lattice, {{1}}, {{-3}}); }, testing::ExitedWithCode(2),
                std::string("The hard-edge ") + type + " at lattice index 1 has length 0 m; a transfer map needs a "
                "length above 0\n");
  }
  outputFilePath = saved;
}
