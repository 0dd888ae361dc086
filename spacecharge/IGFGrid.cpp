// Buffers, plans and the units of work of the doubled-grid convolution with
// the integrated Green's function.
#include "spacecharge/IGFGrid.h"

#include <cmath>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace {

constexpr double kCoulomb = 8987551787.368176;  // 1 / (4 pi epsilon 0)

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
  const int vy = ny + 2, vz = nz + 2;  // vertices of a plane
  const int dy = ny + 1, dz = nz + 1;  // cells of a plane
  const std::size_t cells = static_cast<std::size_t>(dy) * dz;
  double* f = scratch[task].data();
  double* below = f + static_cast<std::size_t>(vy) * vz;
  double* above = below + cells;
  // The kernel is the mean of 1 / r over the source cell, scaled for the
  // charge in coulomb and for the unnormalised transforms.
  const double scale = kCoulomb / (hx * hy * hz) / (8.0 * nx * ny * nz);
  // The antiderivative on vertex plane m, differenced across the plane.
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
  differences(iFirst, below);
  for (int i = iFirst; i < iEnd; ++i) {
    differences(i + 1, above);
    double* out = kernel + static_cast<std::size_t>(i) * cells;
    const double s = scale * Weight(i);
    for (std::size_t n = 0; n < cells; ++n) out[n] = s * (above[n] - below[n]);
    std::swap(below, above);
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
