// Buffers, plans and the units of work of the doubled-grid convolution with
// the integrated Green's function.
#include "spacecharge/IGFGrid.h"
#include "spacecharge/PIC.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace {

constexpr double kCoulomb = 8987551787.368176;  // 1 / (4 pi epsilon 0)
// Offsets nearer than this many of the largest cell side take the exact
// integral; beyond it the Taylor series of the cell mean to fourth order
// differs from it by less than 1e-7 of the value, at a fraction of the cost.
constexpr double kExactReach = 6.0;

template <class T>
T* Allocate(std::size_t count) {
  T* p = static_cast<T*>(fftw_malloc(sizeof(T) * count));
  if (!p) throw std::bad_alloc();
  return p;
}

// A plan made on the first unit serves the others through new-array execute
// only if they share its alignment; where a unit step breaks it, the plan is
// made without the aligned codelets.
template <class T>
unsigned AlignmentFlag(T* base, std::size_t step) {
  const int first = fftw_alignment_of(reinterpret_cast<double*>(base));
  return fftw_alignment_of(reinterpret_cast<double*>(base + step)) == first ? 0u : FFTW_UNALIGNED;
}

void Check(fftw_plan plan) {
  if (!plan) throw std::runtime_error("FFTW could not plan the transforms of the IGF solver");
}

// Vertex m of the octant of cells along one axis: the cell of offset i spans
// vertices i and i + 1; the cell of offset 0 is cut at its middle (vertex 0)
// and counted twice, since 1 / r is even.
inline double Vertex(int m, double h) { return m == 0 ? 0.0 : (m - 0.5) * h; }
inline double Weight(int m) { return m == 0 ? 2.0 : 1.0; }

}  // namespace

double FarCellMean(double x, double y, double z, const double square[3]) {
  const double x2 = x * x, y2 = y * y, z2 = z * z, r2 = x2 + y2 + z2;
  const double inverse = 1.0 / std::sqrt(r2), inverse5 = inverse / (r2 * r2), inverse9 = inverse5 / (r2 * r2);
  // Second derivatives of 1 / r, each with its h^2 / 24.
  const double second = (square[0] * (3.0 * x2 - r2) + square[1] * (3.0 * y2 - r2) + square[2] * (3.0 * z2 - r2)) *
                        inverse5 / 24.0;
  // Fourth: d4/dx4 with h^4 / 1920, d4/dx2 dy2 with hx^2 hy^2 / 576.
  const double r4 = r2 * r2;
  auto pure = [&](double a2) { return 3.0 * (35.0 * a2 * a2 - 30.0 * a2 * r2 + 3.0 * r4); };
  auto mixed = [&](double a2, double b2) { return 3.0 * (35.0 * a2 * b2 - 5.0 * r2 * (a2 + b2) + r4); };
  const double fourth =
      ((square[0] * square[0] * pure(x2) + square[1] * square[1] * pure(y2) + square[2] * square[2] * pure(z2)) /
           1920.0 +
       (square[0] * square[1] * mixed(x2, y2) + square[0] * square[2] * mixed(x2, z2) +
        square[1] * square[2] * mixed(y2, z2)) /
           576.0) *
      inverse9;
  return inverse + second + fourth;
}

double IntegratedInverseDistance(double x, double y, double z) {
  const double r = std::sqrt(x * x + y * y + z * z);
  // Each pair of terms vanishes where its factors do: on the coordinate
  // planes, and at the origin, where r is 0.
  double f = 0.0;
  if (y > 0.0 && z > 0.0) {
    f += y * z * std::log(x + r);
    if (x > 0.0) f -= 0.5 * x * x * std::atan(y * z / (x * r));
  }
  if (x > 0.0 && z > 0.0) {
    f += x * z * std::log(y + r);
    if (y > 0.0) f -= 0.5 * y * y * std::atan(x * z / (y * r));
  }
  if (x > 0.0 && y > 0.0) {
    f += x * y * std::log(z + r);
    if (z > 0.0) f -= 0.5 * z * z * std::atan(x * y / (z * r));
  }
  return f;
}

void IGFGrid::Make(int nodesX, int nodesY, int nodesZ, int kernelTasks) {
  Release();
  nx = nodesX, ny = nodesY, nz = nodesZ;
  lineStride = (nz + 2) / 2 * 2;
  const std::size_t line = 2 * static_cast<std::size_t>(nz);
  const std::size_t plane = 2 * static_cast<std::size_t>(ny) * lineStride;  // complex entries per doubled plane
  const std::size_t chargeSize = static_cast<std::size_t>(nx) * ny * line;
  const std::size_t potentialSize = static_cast<std::size_t>(nx + 2) * (ny + 2) * line;
  const std::size_t spectrumSize = 2 * static_cast<std::size_t>(nx) * plane;
  const std::size_t kernelPlane = static_cast<std::size_t>(ny + 1) * (nz + 1);
  const std::size_t kernelSize = static_cast<std::size_t>(nx + 1) * kernelPlane;
  charge = Allocate<double>(chargeSize);
  potential = Allocate<double>(potentialSize);
  spectrum = Allocate<fftw_complex>(spectrumSize);
  kernel = Allocate<double>(kernelSize);

  const int n2z = 2 * nz, n2y = 2 * ny, n2x = 2 * nx;
  const int kz = nz + 1, ky = ny + 1, kx = nx + 1;
  const int stride = static_cast<int>(lineStride), planeStride = static_cast<int>(plane);
  const int kernelStride = static_cast<int>(kernelPlane);
  const fftw_r2r_kind cosine = FFTW_REDFT00;
  fftw_complex* plane1 = spectrum + plane;
  // The pool runs these plans line by line on its own threads: each plan is
  // serial, whatever thread count the FFT solver's plans were made with.
  PlanTransformsOnThreads(1);
  forwardZ = fftw_plan_many_dft_r2c(1, &n2z, ny, charge, nullptr, 1, n2z, plane1 + lineStride, nullptr, 1, stride,
                                    FFTW_MEASURE | AlignmentFlag(charge, ny * line) |
                                        AlignmentFlag(plane1 + lineStride, plane));
  const unsigned planeFlag = AlignmentFlag(spectrum, plane), columnFlag = AlignmentFlag(spectrum, lineStride);
  forwardY = fftw_plan_many_dft(1, &n2y, kz, plane1, nullptr, stride, 1, plane1, nullptr, stride, 1, FFTW_FORWARD,
                                FFTW_MEASURE | planeFlag);
  backwardY = fftw_plan_many_dft(1, &n2y, kz, plane1, nullptr, stride, 1, plane1, nullptr, stride, 1, FFTW_BACKWARD,
                                 FFTW_MEASURE | planeFlag);
  forwardX = fftw_plan_many_dft(1, &n2x, kz, spectrum, nullptr, planeStride, 1, spectrum, nullptr, planeStride, 1,
                                FFTW_FORWARD, FFTW_MEASURE | columnFlag);
  backwardX = fftw_plan_many_dft(1, &n2x, kz, spectrum, nullptr, planeStride, 1, spectrum, nullptr, planeStride, 1,
                                 FFTW_BACKWARD, FFTW_MEASURE | columnFlag);
  backwardZ = fftw_plan_many_dft_c2r(1, &n2z, ny + 2, spectrum, nullptr, 1, stride, potential, nullptr, 1, n2z,
                                     FFTW_MEASURE | planeFlag | AlignmentFlag(potential, (ny + 2) * line));
  kernelZ = fftw_plan_many_r2r(1, &kz, ky, kernel, nullptr, 1, kz, kernel, nullptr, 1, kz, &cosine,
                               FFTW_MEASURE | AlignmentFlag(kernel, kernelPlane));
  kernelY = fftw_plan_many_r2r(1, &ky, kz, kernel, nullptr, kz, 1, kernel, nullptr, kz, 1, &cosine,
                               FFTW_MEASURE | AlignmentFlag(kernel, kernelPlane));
  kernelX = fftw_plan_many_r2r(1, &kx, kz, kernel, nullptr, kernelStride, 1, kernel, nullptr, kernelStride, 1,
                               &cosine, FFTW_MEASURE | AlignmentFlag(kernel, static_cast<std::size_t>(kz)));
  for (fftw_plan p : {forwardZ, forwardY, forwardX, backwardX, backwardY, backwardZ, kernelZ, kernelY, kernelX})
    Check(p);

  // Planning has written over the buffers: the padding of the charge lines
  // must be zero, and is never written again.
  std::memset(charge, 0, sizeof(double) * chargeSize);
  std::memset(potential, 0, sizeof(double) * potentialSize);
  std::memset(spectrum, 0, sizeof(fftw_complex) * spectrumSize);
  std::memset(kernel, 0, sizeof(double) * kernelSize);
  kernelCell[0] = kernelCell[1] = kernelCell[2] = 0.0;
  scratch.assign(kernelTasks < 1 ? 1 : kernelTasks,
                 std::vector<double>(static_cast<std::size_t>(ny + 2) * (nz + 2) + 2 * kernelPlane, 0.0));
}

void IGFGrid::Release() {
  for (fftw_plan* p : {&forwardZ, &forwardY, &forwardX, &backwardX, &backwardY, &backwardZ, &kernelZ, &kernelY,
                       &kernelX}) {
    if (*p) fftw_destroy_plan(*p);
    *p = nullptr;
  }
  fftw_free(charge);
  fftw_free(potential);
  fftw_free(spectrum);
  fftw_free(kernel);
  charge = potential = kernel = nullptr;
  spectrum = nullptr;
  kernelCell[0] = kernelCell[1] = kernelCell[2] = 0.0;
}

void IGFGrid::KernelPlanes(double hx, double hy, double hz, int task, int iFirst, int iEnd) {
  // Offsets within kExactReach of the largest cell side take the exact
  // integral; the box of them, per axis, in cells.
  const double reach = kExactReach * std::max({hx, hy, hz});
  auto nearCells = [reach](double h, int n) { return static_cast<int>(std::min(std::ceil(reach / h), 1.0 * n)); };
  const int nearX = nearCells(hx, nx), nearY = nearCells(hy, ny), nearZ = nearCells(hz, nz);
  const int vy = nearY + 2, vz = nearZ + 2;  // vertices of a plane of the box
  const int dy = nearY + 1, dz = nearZ + 1;  // cells of a plane of the box
  double* f = scratch[task].data();
  double* below = f + static_cast<std::size_t>(vy) * vz;
  double* above = below + static_cast<std::size_t>(dy) * dz;
  // The kernel is the mean of 1 / r over the source cell, scaled for the
  // charge in coulomb and for the unnormalised transforms.
  const double scale = kCoulomb / (8.0 * nx * ny * nz);
  const double exactScale = scale / (hx * hy * hz);
  const double square[3] = {hx * hx, hy * hy, hz * hz};
  // The antiderivative on vertex plane m of the box, differenced across the plane.
  auto differences = [&](int m, double* d) {
    const double x = Vertex(m, hx);
    for (int j = 0; j < vy; ++j) {
      const double y = Vertex(j, hy);
      double* row = f + static_cast<std::size_t>(j) * vz;
      for (int k = 0; k < vz; ++k) row[k] = IntegratedInverseDistance(x, y, Vertex(k, hz));
    }
    for (int j = 0; j < dy; ++j) {
      const double* lo = f + static_cast<std::size_t>(j) * vz;
      const double* hi = lo + vz;
      double* out = d + static_cast<std::size_t>(j) * dz;
      for (int k = 0; k < dz; ++k) out[k] = Weight(j) * Weight(k) * ((hi[k + 1] - hi[k]) - (lo[k + 1] - lo[k]));
    }
  };
  if (iFirst <= nearX) differences(iFirst, below);
  const std::size_t line = static_cast<std::size_t>(nz) + 1;
  for (int i = iFirst; i < iEnd; ++i) {
    double* out = kernel + static_cast<std::size_t>(i) * (ny + 1) * line;
    const bool nearPlane = i <= nearX;
    for (int j = 0; j <= ny; ++j) {
      double* row = out + j * line;
      for (int k = nearPlane && j <= nearY ? nearZ + 1 : 0; k <= nz; ++k)
        row[k] = scale * FarCellMean(i * hx, j * hy, k * hz, square);
    }
    if (nearPlane) {
      differences(i + 1, above);
      const double s = exactScale * Weight(i);
      for (int j = 0; j < dy; ++j)
        for (int k = 0; k < dz; ++k) out[j * line + k] = s * (above[j * dz + k] - below[j * dz + k]);
      std::swap(below, above);
    }
    fftw_execute_r2r(kernelZ, out, out);
    fftw_execute_r2r(kernelY, out, out);
  }
}

void IGFGrid::KernelColumns(int jFirst, int jEnd) {
  for (int j = jFirst; j < jEnd; ++j) {
    double* column = kernel + static_cast<std::size_t>(j) * (nz + 1);
    fftw_execute_r2r(kernelX, column, column);
  }
}

void IGFGrid::ForwardPlanes(const double* rho, int iFirst, int iEnd) {
  const std::size_t line = 2 * static_cast<std::size_t>(nz);
  const std::size_t plane = 2 * static_cast<std::size_t>(ny) * lineStride;
  for (int i = iFirst; i < iEnd; ++i) {
    double* lines = charge + static_cast<std::size_t>(i) * ny * line;
    const double* from = rho + static_cast<std::size_t>(i) * ny * nz;
    for (int j = 0; j < ny; ++j)
      std::memcpy(lines + j * line + 1, from + static_cast<std::size_t>(j) * nz, sizeof(double) * nz);
    fftw_complex* p = spectrum + static_cast<std::size_t>(i + 1) * plane;
    fftw_execute_dft_r2c(forwardZ, lines, p + lineStride);
    // The lines of the plane that hold no charge, then the plane's transform
    // across.
    std::memset(p, 0, sizeof(fftw_complex) * lineStride);
    std::memset(p + static_cast<std::size_t>(ny + 1) * lineStride, 0,
                sizeof(fftw_complex) * (ny - 1) * static_cast<std::size_t>(lineStride));
    fftw_execute_dft(forwardY, p, p);
    // One of the Nx planes without charge: plane 0 and planes Nx + 1 to 2 Nx - 1.
    std::memset(spectrum + static_cast<std::size_t>(i == 0 ? 0 : nx + i) * plane, 0, sizeof(fftw_complex) * plane);
  }
}

void IGFGrid::ConvolveColumns(int jFirst, int jEnd) {
  const std::size_t plane = 2 * static_cast<std::size_t>(ny) * lineStride;
  const std::size_t kernelPlane = static_cast<std::size_t>(ny + 1) * (nz + 1);
  for (int j = jFirst; j < jEnd; ++j) {
    fftw_complex* column = spectrum + static_cast<std::size_t>(j) * lineStride;
    fftw_execute_dft(forwardX, column, column);
    // The mirrored kernel's transform is real and even in each frequency.
    const int gj = j <= ny ? j : 2 * ny - j;
    for (int p = 0; p < 2 * nx; ++p) {
      const int gi = p <= nx ? p : 2 * nx - p;
      const double* g = kernel + gi * kernelPlane + static_cast<std::size_t>(gj) * (nz + 1);
      fftw_complex* c = column + p * plane;
      for (int k = 0; k <= nz; ++k) {
        c[k][0] *= g[k];
        c[k][1] *= g[k];
      }
    }
    fftw_execute_dft(backwardX, column, column);
  }
}

void IGFGrid::BackwardPlanes(int pFirst, int pEnd) {
  const std::size_t plane = 2 * static_cast<std::size_t>(ny) * lineStride;
  const std::size_t potentialPlane = static_cast<std::size_t>(ny + 2) * 2 * nz;
  for (int p = pFirst; p < pEnd; ++p) {
    fftw_complex* s = spectrum + p * plane;
    fftw_execute_dft(backwardY, s, s);
    fftw_execute_dft_c2r(backwardZ, s, potential + p * potentialPlane);
  }
}

void IGFGrid::FieldPlanes(Mesh& mesh, double hx, double hy, double hz, int iFirst, int iEnd) const {
  const std::ptrdiff_t sy = 2 * static_cast<std::ptrdiff_t>(nz), sx = (ny + 2) * sy;
  const double ix = 1.0 / (hx + hx), iy = 1.0 / (hy + hy), iz = 1.0 / (hz + hz);
  for (int i = iFirst; i < iEnd; ++i)
    for (int j = 0; j < ny; ++j) {
      const double* c = potential + (i + 1) * sx + (j + 1) * sy + 1;
      const std::size_t at = mesh.Index(i, j, 0);
      double* phi = mesh.phi.data() + at;
      double* ex = mesh.ex.data() + at;
      double* ey = mesh.ey.data() + at;
      double* ez = mesh.ez.data() + at;
      for (int k = 0; k < nz; ++k) {
        phi[k] = c[k];
        ex[k] = -(c[k + sx] - c[k - sx]) * ix;
        ey[k] = -(c[k + sy] - c[k - sy]) * iy;
        ez[k] = -(c[k + 1] - c[k - 1]) * iz;
      }
    }
}
