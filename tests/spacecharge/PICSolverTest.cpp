// The two field solvers on charges whose field is known: a spherical Gaussian,
// symmetric and asymmetric charges, and the two solvers against each other.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/spacecharge/PICTestSupport.h"

using namespace pictest;

namespace {

struct Solved {
  Mesh mesh;
  std::unique_ptr<PIC> pic;
  TestBeam beam{0, 0.0};
};

// A Gaussian of rms sigma on an n^3 mesh of half width `half` sigmas, solved.
std::unique_ptr<Solved> SolveGaussian(double method, int n, double half, double Q, double sigma,
                                      int multithread = 1) {
  auto s = std::make_unique<Solved>();
  std::vector<int> grid = {n, n, n};
  s->mesh.Initial(grid, 0);
  std::vector<double> p = Parameters(method, 3.0, 2, multithread);
  s->pic = std::make_unique<PIC>(s->mesh, s->beam.beam, p, 0);
  GaussianCharge(s->mesh, *s->pic, Q, sigma, 2.0 * half * sigma / (n - 1));
  if (method == 0.0)
    s->pic->FFT(s->mesh);
  else
    s->pic->PICNIC(s->mesh);
  return s;
}

// Largest deviation of the node field from the Gaussian's within `reach`
// sigmas of the centre, relative to the largest field there.
double FieldError(const Solved& s, double Q, double sigma, double reach) {
  const Mesh& m = s.mesh;
  const int n = m.numOfGrid[0];
  const double h = s.pic->hx;
  double worst = 0.0, peak = 0.0;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) {
        const double x = (i - n / 2.0 + 0.5) * h, y = (j - n / 2.0 + 0.5) * h, z = (k - n / 2.0 + 0.5) * h;
        const double r = std::sqrt(x * x + y * y + z * z);
        if (r > reach * sigma) continue;
        const double e = GaussianField(Q, sigma, r) / r;
        const std::size_t at = m.Index(i, j, k);
        peak = std::max(peak, e * r);
        worst =
            std::max({worst, std::fabs(m.ex[at] - e * x), std::fabs(m.ey[at] - e * y), std::fabs(m.ez[at] - e * z)});
      }
  return worst / peak;
}

}  // namespace

// Grounded box of half width 8 sigma: the field of a Gaussian within 2.5
// sigma converges with the mesh at about the rate of the central differences,
// down to the few per cent that the walls and the z images leave.
TEST(FFTSolver, GaussianFieldConvergesWithTheMesh) {
  const double Q = 1e-12, sigma = 1e-3;
  const double coarse = FieldError(*SolveGaussian(0.0, 16, 8.0, Q, sigma), Q, sigma, 2.5);
  const double fine = FieldError(*SolveGaussian(0.0, 32, 8.0, Q, sigma), Q, sigma, 2.5);
  EXPECT_LT(fine, 0.035);
  EXPECT_GT(coarse / fine, 2.5);
  // On 48^3 the transforms may run on FFTW's threads and the differences on the pool: the field is the serial
  // solve's, up to the rounding of a transform that FFTW splits its own way.
  const auto serial = SolveGaussian(0.0, 48, 8.0, Q, sigma, 0), threaded = SolveGaussian(0.0, 48, 8.0, Q, sigma, 1);
  double peak = 0.0, worst = 0.0;
  for (std::size_t n = 0; n < serial->mesh.ex.size(); ++n) {
    peak = std::max(peak, std::fabs(serial->mesh.ex[n]));
    for (std::vector<double> Mesh::*f : {&Mesh::ex, &Mesh::ey, &Mesh::ez})
      worst = std::max(worst, std::fabs((serial->mesh.*f)[n] - (threaded->mesh.*f)[n]));
  }
  EXPECT_LT(worst, 1e-12 * peak);
}

// Eight equal charges at the mirror places of one node: S-PICNIC sums them
// exactly; at a node far from all of them the kernel is the point value, so
// the potential is the Coulomb sum. The symmetric charge needs no correction,
// the eight mirrors of each node hold the same potential, and the field is
// antisymmetric without rounding.
TEST(PICNICSolver, MirrorChargesGiveTheCoulombSumAndNoCorrection) {
  const int n = 16;
  const double q = 1e-15, h = 1e-3;
  Mesh mesh;
  std::vector<int> grid = {n, n, n};
  mesh.Initial(grid, 0);
  TestBeam b(0, 0.0);
  std::vector<double> p = Parameters(1.0, 3.0);
  PIC pic(mesh, b.beam, p, 0);
  pic.hx = pic.hy = pic.hz = h;
  pic.cellVolume = h * h * h;
  for (int i : {6, 9})
    for (int j : {5, 10})
      for (int k : {7, 8}) mesh.rho[mesh.Index(i, j, k)] = q;
  pic.PICNIC(mesh);
  EXPECT_EQ(pic.negligibleCharge, 0.0);  // the centre node holds no charge
  double expected = 0.0;
  for (int i : {6, 9})
    for (int j : {5, 10})
      for (int k : {7, 8})
        expected +=
            kCoulomb * q / (h * std::sqrt((15.0 - i) * (15 - i) + (15.0 - j) * (15 - j) + (15.0 - k) * (15 - k)));
  EXPECT_NEAR(mesh.phi[mesh.Index(15, 15, 15)], expected, 1e-12 * expected);
  for (const std::vector<double>& correction : pic.taskPhi)
    for (double v : correction) ASSERT_EQ(v, 0.0);
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) {
        const double v = mesh.phi[mesh.Index(i, j, k)];
        ASSERT_EQ(mesh.phi[mesh.Index(n - 1 - i, j, k)], v);
        ASSERT_EQ(mesh.phi[mesh.Index(i, n - 1 - j, n - 1 - k)], v);
        ASSERT_EQ(mesh.ex[mesh.Index(n - 1 - i, j, k)], -mesh.ex[mesh.Index(i, j, k)]);
        ASSERT_EQ(mesh.ez[mesh.Index(i, j, n - 1 - k)], -mesh.ez[mesh.Index(i, j, k)]);
      }
}

// The open-boundary sum on a Gaussian: the threshold is a share of the centre
// charge; the field converges with the mesh (the left-out self term makes an
// error that falls with the cell size) and meets the FFT solver's in a box
// large enough for the walls not to matter.
TEST(PICNICSolver, GaussianConvergesAndAgreesWithFFT) {
  const double Q = 1e-12, sigma = 1e-3;
  auto coarse = SolveGaussian(1.0, 16, 6.0, Q, sigma);
  EXPECT_DOUBLE_EQ(coarse->pic->negligibleCharge, 0.07 * coarse->mesh.rho[coarse->mesh.Index(8, 8, 8)]);
  auto picnic = SolveGaussian(1.0, 48, 6.0, Q, sigma);
  auto fft = SolveGaussian(0.0, 48, 6.0, Q, sigma);
  const double coarseError = FieldError(*coarse, Q, sigma, 2.0), fineError = FieldError(*picnic, Q, sigma, 2.0);
  EXPECT_LT(fineError, 0.05);
  EXPECT_GT(coarseError / fineError, 4.0);
  const Mesh &a = picnic->mesh, &b = fft->mesh;
  double worst = 0.0, peak = 0.0;
  for (int i = 0; i < 48; ++i)
    for (int j = 0; j < 48; ++j)
      for (int k = 0; k < 48; ++k) {
        const double x = i - 23.5, y = j - 23.5, z = k - 23.5;
        if (x * x + y * y + z * z > 9.0 * 9.0) continue;  // within about 2 sigma
        const std::size_t at = a.Index(i, j, k);
        peak = std::max(peak, std::fabs(b.ex[at]));
        worst = std::max(
            {worst, std::fabs(a.ex[at] - b.ex[at]), std::fabs(a.ey[at] - b.ey[at]), std::fabs(a.ez[at] - b.ez[at])});
      }
  EXPECT_LT(worst / peak, 0.06);
}

// A bunch mirrored about its centre: its field is antisymmetric, and the sum
// of the forces on all its particles, its force on itself, vanishes, with
// either solver, through deposition, solve and gather.
TEST(SelfForce, SymmetricBunchPushesItsCentreNowhere) {
  const int copies = 250, n = 8 * copies;
  TestBeam b(n, 1e-15);
  unsigned state = 5;
  for (int c = 0; c < copies; ++c) {
    const double x = 1e-3 * Spread(state), y = 2e-3 * Spread(state), z = 3e-3 * Spread(state);
    for (int m = 0; m < 8; ++m) b.Place(8 * c + m, m & 1 ? -x : x, m & 2 ? -y : y, m & 4 ? -z : z);
  }
  b.Measure();
  for (double method : {0.0, 1.0}) {
    Mesh mesh;
    std::vector<int> grid = {12, 12, 16};
    mesh.Initial(grid, n);
    std::vector<double> p = Parameters(method, 3.5);
    PIC pic(mesh, b.beam, p, 0);
    ASSERT_EQ(pic.Weight(mesh, b.beam, 1e-10), 0);
    if (method == 0.0)
      pic.FFT(mesh);
    else
      pic.PICNIC(mesh);
    pic.Allocate(mesh, b.beam);
    double sum[3] = {0, 0, 0}, size[3] = {0, 0, 0};
    for (int i = 0; i < n; ++i)
      for (int a = 0; a < 3; ++a) {
        sum[a] += b.store[i].spaceChargeField[a];
        size[a] += std::fabs(b.store[i].spaceChargeField[a]);
      }
    for (int a = 0; a < 3; ++a) EXPECT_LT(std::fabs(sum[a]), 1e-9 * size[a]) << "solver " << method << " axis " << a;
    double worst = 0.0, peak = 0.0;
    for (int i = 0; i < 12; ++i)
      for (int j = 0; j < 12; ++j)
        for (int k = 0; k < 16; ++k) {
          peak = std::max(peak, std::fabs(mesh.ex[mesh.Index(i, j, k)]));
          worst = std::max(worst, std::fabs(mesh.ex[mesh.Index(i, j, k)] + mesh.ex[mesh.Index(11 - i, j, k)]));
        }
    EXPECT_LT(worst, 1e-9 * peak) << "solver " << method;
  }
}

// The S-PICNIC sum written out node by node, as the solver is defined: the
// octant-folded charge above the threshold within the reach, the same
// potential on the eight mirrors, and per task the last correction alone.
// The solver's faster walk must give the same potential to the last bit.
TEST(PICNICSolver, MatchesTheNodeByNodeDefinition) {
  // Longer in z, so that each axis's reach shows.
  const int n = 8, half = n / 2, nz = 12, halfZ = nz / 2;
  Mesh mesh;
  std::vector<int> grid = {n, n, nz};
  mesh.Initial(grid, 0);
  TestBeam none(0, 0.0);
  std::vector<double> p = Parameters(1.0, 3.0, 3);
  PIC pic(mesh, none.beam, p, 0);
  ASSERT_EQ(pic.reachZ, 9);
  pic.hx = 1e-3, pic.hy = 0.7e-3, pic.hz = 1.3e-3;
  pic.cellVolume = pic.hx * pic.hy * pic.hz;
  unsigned state = 3;
  for (double& q : mesh.rho) q = 1e-15 * (Spread(state) + 1.0);  // some negative, some below the threshold
  // A negative centre: the threshold is a share of its magnitude.
  mesh.rho[mesh.Index(half, half, halfZ)] = -2e-15;
  const std::vector<double> rho = mesh.rho;
  pic.PICNIC(mesh);

  const std::vector<double>& K = pic.phiKernel;
  auto kernel = [&](int a, int b, int c) {
    return K[(static_cast<std::size_t>(a) * (2 * n + 1) + b) * (2 * nz + 1) + c];
  };
  auto at = [&](int a, int b, int c) { return mesh.Index(a, b, c); };
  auto mirror = [&](int a, int size) { return a < size / 2 ? size - 1 - a : a; };
  const double neg = 0.07 * 2e-15;
  ASSERT_EQ(pic.negligibleCharge, neg);
  std::vector<double> phi(rho.size(), 0.0);
  std::vector<std::vector<double>> tasks(pic.threadPlan[7], std::vector<double>(rho.size(), 0.0));
  for (int t = 0; t < pic.threadPlan[7]; ++t)
    for (int pair = pic.convolutionRanges[t]; pair < pic.convolutionRanges[t + 1]; ++pair) {
      const int i = half + pair / half, j = half + pair % half;
      for (int k = halfZ; k < nz; ++k) {
        double A = 0.0;
        for (int a = std::max(i - pic.reachX, 0); a < std::min(i + pic.reachX, n); ++a)
          for (int bb = std::max(j - pic.reachY, 0); bb < std::min(j + pic.reachY, n); ++bb)
            for (int c = std::max(k - pic.reachZ, 0); c < std::min(k + pic.reachZ, nz); ++c) {
              const double q = rho[at(mirror(a, n), mirror(bb, n), mirror(c, nz))];
              if (std::fabs(q) > neg) A += q * kernel(n - i + a, n - j + bb, nz - k + c);
            }
        const double P = A * kCoulomb;
        for (int pp : {n - 1 - i, i})
          for (int qq : {n - 1 - j, j})
            for (int rr : {nz - 1 - k, k}) {
              phi[at(pp, qq, rr)] = P;
              const double D = rho[at(pp, qq, rr)] - rho[at(i, j, k)];
              if (D >= neg || D <= -neg)
                for (int a = 0; a < n; ++a)
                  for (int bb = 0; bb < n; ++bb)
                    for (int c = 0; c < nz; ++c)
                      tasks[t][at(a, bb, c)] = kernel(n + pp - a, n + qq - bb, nz + rr - c) * D * kCoulomb;
            }
      }
    }
  for (const std::vector<double>& correction : tasks)
    for (std::size_t m = 0; m < phi.size(); ++m) phi[m] += correction[m];
  for (std::size_t m = 0; m < phi.size(); ++m) ASSERT_EQ(mesh.phi[m], phi[m]) << m;
}

// S-PICNIC sums each axis over three quarters of that axis's own nodes: a uniform ellipsoid 1 : 1 : 5 on
// 16 x 16 x 48 nodes gets its field along z (Carlson's closed form) as well as a ball on 16^3 does. A reach taken
// from the x size alone would cut the sum in z at 12 of the 48 nodes.
TEST(PICNICSolver, LongEllipsoidIsSummedOverItsWholeLength) {
  const double Q = 1e-10;
  auto worstError = [Q](int nz, double length) {
    const double s[3] = {1e-3, 1e-3, length};
    const double h[3] = {s[0] / 6, s[1] / 6, s[2] / (nz / 2 - 1) * 7.0 / 6.0};  // two nodes to spare each side
    SolverCase c(16, 16, nz, h, 2, 1.0);
    c.Fill(Ellipsoid(c, s, Q));
    const double slope[3] = {FieldSlope(Q, s[0], s[1], s[2]), FieldSlope(Q, s[1], s[0], s[2]),
                             FieldSlope(Q, s[2], s[0], s[1])};
    double worst = 0.0;
    for (int i = 0; i < 16; ++i)
      for (int j = 0; j < 16; ++j)
        for (int k = 0; k < nz; ++k) {
          const double r[3] = {c.X(i, 0), c.X(j, 1), c.X(k, 2)};
          double u = 0.0;
          for (int a = 0; a < 3; ++a) u += r[a] * r[a] / (s[a] * s[a]);
          if (u > 0.64) continue;
          const std::size_t at = c.mesh.Index(i, j, k);
          const double e[3] = {c.mesh.ex[at], c.mesh.ey[at], c.mesh.ez[at]};
          for (int a = 0; a < 3; ++a)
            worst = std::max(worst, std::fabs(e[a] - slope[a] * r[a]) / (slope[a] * 0.8 * s[a]));
        }
    return worst;
  };
  const double ball = worstError(16, 1e-3), longOne = worstError(48, 5e-3);
  EXPECT_LT(ball, 0.03);
  EXPECT_LT(longOne, ball) << "ball " << ball;
}
