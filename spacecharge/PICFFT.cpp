// Spectral Poisson solver on the discrete Laplacian: DST-I on the two
// transverse axes (potential 0 one spacing outside the mesh) and a complex DFT
// along z (periodic over Nz hz).
#include <algorithm>
#include <chrono>
#include <cmath>

#include "beam/PhysicalConstants.h"
#include "run/HelperFunc.h"
#include "spacecharge/PIC.h"

namespace {
constexpr double kInverseEpsilon0 = 112940906683.72818;  // 1 / epsilon 0
}

void PIC::FFT(Mesh& mesh) {
  const auto start = std::chrono::system_clock::now();
  if (!planSineForward) MakeFFTPlans();  // a solver set up for S-PICNIC asked once for a transform
  const double* rho = mesh.rho.data();
  double* phi = mesh.phi.data();
  // The node-by-node steps run on the pool in blocks of x planes, as the
  // differences do; every node's value is its own.
  const std::size_t plane = static_cast<std::size_t>(ny) * nz;
  const int tasks = threadPlan[8];

  // 1. Charge density.
  const double density = 1.0 / hx / hy / hz;
  ForPlaneBlocks(tasks, [=](int iFirst, int iEnd) {
    for (std::size_t n = iFirst * plane; n < iEnd * plane; ++n) realA[n] = rho[n] * density;
  });
  // 2., 3.
  fftw_execute(planSineForward);
  ForPlaneBlocks(tasks, [=](int iFirst, int iEnd) {
    for (std::size_t n = iFirst * plane; n < iEnd * plane; ++n) {
      complexA[n][0] = realB[n];
      complexA[n][1] = 0.0;
    }
  });
  // 4.
  fftw_execute(planDftForward);
  // 5. Eigenvalues of the discrete Laplacian; the sine modes start at 1, the
  // Fourier modes at 0.
  const double pi = constants::kPi;
  for (int i = 0; i < nx; ++i) {
    const double s = std::sin((i + 1) * (pi / 2.0) / (nx + 1));
    eigenX[i] = 4.0 / hx / hx * (s * s);
  }
  for (int j = 0; j < ny; ++j) {
    const double s = std::sin((j + 1) * (pi / 2.0) / (ny + 1));
    eigenY[j] = 4.0 / hy / hy * (s * s);
  }
  for (int k = 0; k < nz; ++k) {
    const double s = std::sin(k * pi / nz);
    eigenZ[k] = 4.0 / hz / hz * (s * s);
  }
  // 6. Divide by the eigenvalue; never 0, since the sine eigenvalues are positive.
  ForPlaneBlocks(tasks, [this](int iFirst, int iEnd) {
    for (int i = iFirst; i < iEnd; ++i)
      for (int j = 0; j < ny; ++j) {
        fftw_complex* line = complexB + (static_cast<std::size_t>(i) * ny + j) * nz;
        const double axy = eigenX[i] + eigenY[j];
        for (int k = 0; k < nz; ++k) {
          const double scale = kInverseEpsilon0 / (axy + eigenZ[k]);
          line[k][0] *= scale;
          line[k][1] *= scale;
        }
      }
  });
  // 7., 8., 9.
  fftw_execute(planDftBackward);
  ForPlaneBlocks(tasks, [=](int iFirst, int iEnd) {
    for (std::size_t n = iFirst * plane; n < iEnd * plane; ++n) realB[n] = complexC[n][0];
  });
  fftw_execute(planSineBackward);
  // 10. Normalisation of the three unnormalised pairs: 2 (Nx + 1), 2 (Ny + 1), Nz.
  const long long pairs = (4LL * nx + 4) * (ny + 1) * nz;
  const double norm = 1.0 / static_cast<double>(pairs);
  ForPlaneBlocks(tasks, [=](int iFirst, int iEnd) {
    for (std::size_t n = iFirst * plane; n < iEnd * plane; ++n) phi[n] = realA[n] * norm;
  });
  timeConvolution += ElapsedMicroseconds(start);

  // 11. Central differences; the wall outside the mesh is at potential 0 and z wraps round.
  const auto gradientStart = std::chrono::system_clock::now();
  ForPlaneBlocks(threadPlan[8], [&mesh, this](int iFirst, int iEnd) {
    Calculate_Gradient(mesh, hx, hy, hz, true, iFirst, iEnd);
  });
  timeGradient += ElapsedMicroseconds(gradientStart);
}

void Calculate_Gradient(Mesh& mesh, double hx, double hy, double hz, bool periodic, int iFirst, int iEnd) {
  const int NX = mesh.numOfGrid[0], NY = mesh.numOfGrid[1], NZ = mesh.numOfGrid[2];
  const std::ptrdiff_t sx = static_cast<std::ptrdiff_t>(NY) * NZ;
  const double ix = 1.0 / (hx + hx), iy = 1.0 / (hy + hy), iz = 1.0 / (hz + hz);
  const double* phi = mesh.phi.data();
  double* ex = mesh.ex.data();
  double* ey = mesh.ey.data();
  double* ez = mesh.ez.data();
  for (int i = iFirst; i < iEnd; ++i)
    for (int j = 0; j < NY; ++j) {
      const std::size_t at = static_cast<std::size_t>(i) * sx + static_cast<std::size_t>(j) * NZ;
      const double* c = phi + at;
      double* fx = ex + at;
      double* fy = ey + at;
      double* fz = ez + at;
      if (periodic) {
        // A missing neighbour across is the grounded wall.
        const double* left = i > 0 ? c - sx : nullptr;
        const double* right = i < NX - 1 ? c + sx : nullptr;
        const double* down = j > 0 ? c - NZ : nullptr;
        const double* up = j < NY - 1 ? c + NZ : nullptr;
        for (int k = 0; k < NZ; ++k) {
          const double xr = right ? right[k] : 0.0, xl = left ? left[k] : 0.0;
          const double yu = up ? up[k] : 0.0, yd = down ? down[k] : 0.0;
          const double zu = c[k + 1 < NZ ? k + 1 : 0], zd = c[k > 0 ? k - 1 : NZ - 1];
          fx[k] = -(xr - xl) * ix;
          fy[k] = -(yu - yd) * iy;
          fz[k] = -(zu - zd) * iz;
        }
        continue;
      }
      // Free space: one-sided differences, doubled, at the ends of each axis.
      for (int k = 0; k < NZ; ++k) {
        if (i == 0)
          fx[k] = -(c[k + sx] - c[k]) / hx;
        else if (i == NX - 1)
          fx[k] = -(c[k] - c[k - sx]) / hx;
        else
          fx[k] = -(c[k + sx] - c[k - sx]) * ix;
        if (j == 0)
          fy[k] = -(c[k + NZ] - c[k]) / hy;
        else if (j == NY - 1)
          fy[k] = -(c[k] - c[k - NZ]) / hy;
        else
          fy[k] = -(c[k + NZ] - c[k - NZ]) * iy;
        if (k == 0)
          fz[k] = -(c[1] - c[0]) / hz;
        else if (k == NZ - 1)
          fz[k] = -(c[k] - c[k - 1]) / hz;
        else
          fz[k] = -(c[k + 1] - c[k - 1]) * iz;
      }
    }
}
