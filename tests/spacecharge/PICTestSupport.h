#pragma once
// Bunches and solver set-ups for the space-charge tests.
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "beam/Beam.h"
#include "spacecharge/Mesh.h"
#include "spacecharge/PIC.h"

namespace pictest {

constexpr double kCoulomb = 8987551787.368176;

// A bunch of n macro particles of charge q at the origin, owned by the test.
struct TestBeam {
  Beam beam;
  std::unique_ptr<Particle[]> store;
  TestBeam(int n, double q) : store(new Particle[n + 1]()) {
    beam.particleNumber = n;
    beam.particle = store.get();
    beam.gamma = 1.0;
    for (int i = 0; i <= n; ++i) {
      store[i].charge = q;
      store[i].relativeCoordinate[5] = 0.1;
    }
  }
  void Place(int i, double x, double y, double z) {
    double* r = store[i].relativeCoordinate;
    r[0] = x, r[2] = y, r[4] = z;
  }
  // Means and rms sizes as the transports leave them; rms z in the rest frame.
  void Measure() {
    const int n = beam.particleNumber;
    double s[3] = {0, 0, 0}, s2[3] = {0, 0, 0};
    for (int i = 0; i < n; ++i)
      for (int a = 0; a < 3; ++a) s[a] += store[i].relativeCoordinate[2 * a];
    for (int a = 0; a < 3; ++a) beam.average[2 * a] = s[a] / n;
    for (int i = 0; i < n; ++i)
      for (int a = 0; a < 3; ++a) {
        const double d = store[i].relativeCoordinate[2 * a] - beam.average[2 * a];
        s2[a] += d * d;
      }
    beam.rms[0] = std::sqrt(s2[0] / n);
    beam.rms[1] = std::sqrt(s2[1] / n);
    beam.rms[2] = beam.gamma * std::sqrt(s2[2] / n);
  }
};

// The parameter vector of the run deck: solver 0 FFT / 1 S-PICNIC, mesh half
// width in rms sizes, the thread plan's entries all `threads`.
inline std::vector<double> Parameters(double method, double meshRms, int threads = 2, int multithread = 1) {
  std::vector<double> p(20, 1.0);
  p[0] = method;
  p[1] = p[2] = p[3] = meshRms;
  p[4] = p[5] = p[6] = 8.0;
  p[7] = -1.0;
  p[8] = 0.07;
  p[9] = multithread;
  for (int k = 10; k < 20; ++k) p[k] = threads;
  return p;
}

// A deterministic, roughly Gaussian cloud (sum of three uniforms per axis).
inline double Spread(unsigned& state) {
  double s = 0.0;
  for (int k = 0; k < 3; ++k) {
    state = state * 1664525u + 1013904223u;
    s += (state >> 8) / 16777216.0 - 0.5;
  }
  return s * 2.0;  // variance 1
}

// Fills rho with a spherical Gaussian of charge Q and rms sigma at the mesh
// centre, sampled at the nodes, on cubic cells of side h.
inline void GaussianCharge(Mesh& mesh, PIC& pic, double Q, double sigma, double h) {
  const int n = mesh.numOfGrid[0];
  pic.hx = pic.hy = pic.hz = h;
  pic.cellVolume = h * h * h;
  const double norm = Q / std::pow(2.0 * 3.141592653589793 * sigma * sigma, 1.5) * pic.cellVolume;
  for (int i = 0; i < n; ++i)
    for (int j = 0; j < n; ++j)
      for (int k = 0; k < n; ++k) {
        const double x = (i - n / 2.0 + 0.5) * h, y = (j - n / 2.0 + 0.5) * h, z = (k - n / 2.0 + 0.5) * h;
        mesh.rho[mesh.Index(i, j, k)] = norm * std::exp(-(x * x + y * y + z * z) / (2 * sigma * sigma));
      }
}

// Radial field of that Gaussian: Q / (4 pi eps0 r^2) (erf(u) - 2 u exp(-u^2) / sqrt(pi)), u = r / (sqrt 2 sigma).
inline double GaussianField(double Q, double sigma, double r) {
  const double u = r / (std::sqrt(2.0) * sigma);
  return kCoulomb * Q / (r * r) * (std::erf(u) - 2.0 * u * std::exp(-u * u) / std::sqrt(3.141592653589793));
}

// Carlson's R_D(x, y, z) by duplication: the integral of
// 3/2 dt / sqrt((t + x)(t + y)(t + z)^3) from 0 to infinity.
inline double CarlsonRD(double x, double y, double z) {
  double sum = 0.0, factor = 1.0;
  for (int k = 0; k < 40; ++k) {
    const double sx = std::sqrt(x), sy = std::sqrt(y), sz = std::sqrt(z);
    const double lambda = sx * sy + sx * sz + sy * sz;
    sum += factor / (sz * (z + lambda));
    factor *= 0.25;
    x = 0.25 * (x + lambda), y = 0.25 * (y + lambda), z = 0.25 * (z + lambda);
  }
  return 3.0 * sum + factor / (z * std::sqrt(z));
}

// Inside a uniform ellipsoid of charge Q and semi-axes a, b, c the field is
// E_x = Q / (4 pi eps0) 3/2 I_x x, with I_x = 2/3 R_D(b^2, c^2, a^2).
inline double FieldSlope(double Q, double a, double b, double c) {
  return kCoulomb * Q * CarlsonRD(b * b, c * c, a * a);
}

// A solver (0 FFT, 1 S-PICNIC, 2 IGF) on nx x ny x nz nodes with cells h, its mesh and an empty beam.
struct SolverCase {
  Mesh mesh;
  TestBeam beam{0, 0.0};
  std::unique_ptr<PIC> pic;
  SolverCase(int nx, int ny, int nz, const double h[3], int threads = 2, double method = 2.0) {
    std::vector<int> grid = {nx, ny, nz};
    mesh.Initial(grid, 0);
    std::vector<double> p = Parameters(method, 3.0, threads);
    pic = std::make_unique<PIC>(mesh, beam.beam, p, 0);
    SetCells(h);
  }
  void SetCells(const double h[3]) {
    pic->hx = h[0], pic->hy = h[1], pic->hz = h[2];
    pic->cellVolume = h[0] * h[1] * h[2];
  }
  // Node (i, j, k) sits at (i - N / 2 + 0.5) h, as Weight places it.
  double X(int i, int axis) const {
    const double h[3] = {pic->hx, pic->hy, pic->hz};
    return (i - mesh.numOfGrid[axis] / 2.0 + 0.5) * h[axis];
  }
  void Fill(const std::function<double(int, int, int)>& charge) {
    for (int i = 0; i < mesh.numOfGrid[0]; ++i)
      for (int j = 0; j < mesh.numOfGrid[1]; ++j)
        for (int k = 0; k < mesh.numOfGrid[2]; ++k) mesh.rho[mesh.Index(i, j, k)] = charge(i, j, k);
    pic->Solve(mesh);
  }
};

// Charge Q spread uniformly over the ellipsoid of semi-axes s at the mesh
// centre: each node holds the part of its cell inside, from 8^3 sample
// points in the cells that the surface crosses.
inline std::function<double(int, int, int)> Ellipsoid(const SolverCase& c, const double s[3], double Q) {
  const double density = Q / (4.0 / 3.0 * 3.141592653589793 * s[0] * s[1] * s[2]);
  const double h[3] = {c.pic->hx, c.pic->hy, c.pic->hz};
  const double reach = std::sqrt(std::pow(h[0] / s[0], 2) + std::pow(h[1] / s[1], 2) + std::pow(h[2] / s[2], 2)) / 2;
  return [&c, s, h, density, reach](int i, int j, int k) {
    const double x = c.X(i, 0), y = c.X(j, 1), z = c.X(k, 2);
    const double u = std::sqrt(x * x / (s[0] * s[0]) + y * y / (s[1] * s[1]) + z * z / (s[2] * s[2]));
    if (u + reach < 1.0) return density * h[0] * h[1] * h[2];
    if (u - reach > 1.0) return 0.0;
    int inside = 0;
    for (int a = 0; a < 8; ++a)
      for (int b = 0; b < 8; ++b)
        for (int d = 0; d < 8; ++d) {
          const double px = (x + ((a + 0.5) / 8 - 0.5) * h[0]) / s[0], py = (y + ((b + 0.5) / 8 - 0.5) * h[1]) / s[1],
                       pz = (z + ((d + 0.5) / 8 - 0.5) * h[2]) / s[2];
          inside += px * px + py * py + pz * pz < 1.0;
        }
    return density * h[0] * h[1] * h[2] * inside / 512.0;
  };
}

}  // namespace pictest
