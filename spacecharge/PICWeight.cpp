// Fitting the mesh to the bunch, deposition of the charge on the nodes in the
// bunch rest frame (cloud in cell), and the gather of the field back to the
// particles.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <sstream>

#include "run/HelperFunc.h"
#include "spacecharge/PIC.h"

namespace {

constexpr double kCoulomb = 8987551787.368176;  // 1 / (4 pi epsilon 0)
constexpr int kAhead = 6;                       // particles prefetched ahead

// Why the mesh cannot be spanned over `size` metres on one axis, or empty.
std::string SizeProblem(const char* axis, double size) {
  if (std::isfinite(size) && size > 0.0) return "";
  std::ostringstream message;
  if (std::isfinite(size))
    message << "The bunch has collapsed to zero size in " << axis << " (rms " << size
            << " m), the space-charge mesh cannot be fitted";
  else
    message << "The bunch size in " << axis << " is not a finite number (" << size
            << "), the space-charge mesh cannot be fitted";
  return message.str();
}

}  // namespace

int PIC::Weight(Mesh& mesh, Beam& beam, double) {
  const auto start = std::chrono::system_clock::now();
  const double* rms = beam.rms.data();
  const double* average = beam.average.data();

  fitFailure = SizeProblem("x", rms[0]);
  if (fitFailure.empty()) fitFailure = SizeProblem("y", rms[1]);
  if (fitFailure.empty())
    fitFailure = lpBoundary == 1 ? SizeProblem("z (beta gamma lambda)", beam.bunchScale) : SizeProblem("z", rms[2]);
  if (fitFailure.empty() && !(std::isfinite(average[0]) && std::isfinite(average[2]) && std::isfinite(average[4])))
    fitFailure = "The bunch centre is not a finite number, the space-charge mesh cannot be fitted";
  if (fitFailure.empty() && !(std::isfinite(beam.gamma) && beam.gamma >= 1.0))
    fitFailure = "The bunch energy is not a finite number, the space-charge mesh cannot be fitted";
  if (!fitFailure.empty()) return 1;

  // The mesh spans plus and minus meshRms rms around the bunch centre; rms[2]
  // is already the rest-frame length.
  std::fill(mesh.rho.begin(), mesh.rho.end(), 0.0);
  hx = 2.0 * rms[0] * meshRms[0] / (nx - 1);
  hy = 2.0 * rms[1] * meshRms[1] / (ny - 1);
  hz = lpBoundary == 1 ? beam.bunchScale / (nz - 1) : 2.0 * rms[2] * meshRms[2] / (nz - 1);
  for (int i = 0; i < nx; ++i) mesh.nodeX[i] = (i - nx / 2.0 + 0.5) * hx + average[0];
  for (int j = 0; j < ny; ++j) mesh.nodeY[j] = (j - ny / 2.0 + 0.5) * hy + average[2];
  for (int k = 0; k < nz; ++k) mesh.nodeZ[k] = (k - nz / 2.0 + 0.5) * hz + average[4];
  cellVolume = hx * hy * hz;
  inMeshCount = 0;
  gamma = beam.gamma;
  inverseGamma = 1.0 / gamma;

  const int tasks = threadPlan[4];
  if (multithread == 1 && tasks != 1) {
    for (int t = 0; t < tasks; ++t)
      pool.enqueue(Calculate_Weight, std::ref(beam), std::ref(mesh), std::ref(weight), std::ref(taskRho[t]),
                   std::ref(taskCount), hx, hy, hz, nx, ny, nz, gamma, cellVolume, t, weightRanges[t],
                   weightRanges[t + 1]);
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
    timeWeight += ElapsedMicroseconds(start);

    // Sum the task grids into rho in task order, so that the result depends on
    // the split and not on the scheduling; each grid is left zeroed for the
    // next deposition.
    const auto reduceStart = std::chrono::system_clock::now();
    const std::size_t plane = static_cast<std::size_t>(ny) * nz;
    ForPlaneBlocks(threadPlan[5], [&mesh, this, plane](int iFirst, int iEnd) {
      Reduce_Grids(mesh.rho, taskRho, true, plane, iFirst, iEnd);
    });
    inMeshCount = 0;
    for (int t = 0; t < tasks; ++t) inMeshCount += taskCount[t];
    timeWeightReduce += ElapsedMicroseconds(reduceStart);
  } else {
    Calculate_Weight(beam, mesh, weight, mesh.rho, taskCount, hx, hy, hz, nx, ny, nz, gamma, cellVolume, 0, 0,
                     weightRanges.back());
    inMeshCount = taskCount[0];
    timeWeight += ElapsedMicroseconds(start);
  }
  return 0;
}

void Calculate_Weight(Beam& beam, Mesh& mesh, std::vector<double>& weights, std::vector<double>& grid,
                      std::vector<int>& counts, double hx, double hy, double hz, int nx, int ny, int nz, double gamma,
                      double cellVolume, int taskNumber, int first, int last) {
  const double* nodeX = mesh.nodeX.data();
  const double* nodeY = mesh.nodeY.data();
  const double* nodeZ = mesh.nodeZ.data();
  const double centreZ = beam.average[4];
  const double xMax = nx - 1, yMax = ny - 1, zMax = nz - 1;
  const std::size_t sx = static_cast<std::size_t>(ny) * nz, sy = nz;
  double* rho = grid.data();
  int inside = 0;
  for (int p = first; p < last; ++p) {
    Particle& particle = beam.particle[p];
    // The records are large; ask for the lines of a later one early.
    if (p + kAhead < last) {
      __builtin_prefetch(beam.particle[p + kAhead].relativeCoordinate, 1);
      __builtin_prefetch(&beam.particle[p + kAhead].charge);
    }
    if (particle.lost == 1) continue;
    const double* r = particle.relativeCoordinate;
    double* w = &weights[8 * static_cast<std::size_t>(p)];
    int* cell = &mesh.cellIndex[3 * static_cast<std::size_t>(p)];
    // Rest frame: the bunch length stretched by gamma about its centre.
    const double x = r[0], y = r[2], z = (r[4] - centreZ) * gamma + centreZ;
    const double fi = std::floor((x - nodeX[0]) / hx);
    const double fj = std::floor((y - nodeY[0]) / hy);
    const double fk = std::floor((z - nodeZ[0]) / hz);
    // Tested as doubles, so that a far or non-finite position never becomes
    // an out-of-range integer.
    if (!(fi >= 0.0 && fj >= 0.0 && fk >= 0.0 && fi < xMax && fj < yMax && fk < zMax)) {
      if (particle.outsideMesh != 1) particle.outsideMesh = 1;
      for (int n = 0; n < 8; ++n) w[n] = 0.0;
      cell[0] = cell[1] = cell[2] = -1;
      continue;
    }
    const int i = static_cast<int>(fi), j = static_cast<int>(fj), k = static_cast<int>(fk);
    cell[0] = i, cell[1] = j, cell[2] = k;
    // Written only on a change: most records keep their state from step to
    // step, and an unwritten record need not go back to memory.
    if (particle.outsideMesh != 0) particle.outsideMesh = 0;
    ++inside;
    // Corner n = (i + a, j + b, k + c) with a = n % 2, b = n / 2 % 2, c = n / 4
    // takes the volume of the opposite sub-box.
    const double dx[2] = {std::fabs(x - nodeX[i + 1]), std::fabs(x - nodeX[i])};
    const double dy[2] = {std::fabs(y - nodeY[j + 1]), std::fabs(y - nodeY[j])};
    const double dz[2] = {std::fabs(z - nodeZ[k + 1]), std::fabs(z - nodeZ[k])};
    const double q = particle.charge;
    double* corner = rho + (static_cast<std::size_t>(i) * sx + static_cast<std::size_t>(j) * sy + k);
    // Unrolled: the corner offsets become constants.
#pragma GCC unroll 8
    for (int n = 0; n < 8; ++n) {
      const int a = n & 1, b = (n >> 1) & 1, c = n >> 2;
      w[n] = dx[a] * dy[b] * dz[c] / cellVolume;
      corner[a * sx + b * sy + c] += w[n] * q;
    }
  }
  counts[taskNumber] = inside;
  // The cell follows from the node positions; the spacings are implied.
  (void)hx, (void)hy, (void)hz;
}

void PIC::Allocate(Mesh& mesh, Beam& beam) {
  const auto start = std::chrono::system_clock::now();
  const double totalCharge = inMeshCount * beam.particle[0].charge;
  const std::size_t plane = static_cast<std::size_t>(ny) * nz;
  ForPlaneBlocks(multithread == 1 ? threadPlan[9] : 1, [&mesh, plane](int iFirst, int iEnd) {
    double* field = mesh.fieldXYZ.data();
    for (std::size_t n = iFirst * plane; n < iEnd * plane; ++n) {
      field[3 * n] = mesh.ex[n];
      field[3 * n + 1] = mesh.ey[n];
      field[3 * n + 2] = mesh.ez[n];
    }
  });
  if (multithread == 1) {
    for (int t = 0; t < threadPlan[9]; ++t)
      pool.enqueue(Calculate_Allocate, std::ref(beam), std::ref(mesh), std::ref(weight), gamma, totalCharge,
                   inverseGamma, allocateRanges[t], allocateRanges[t + 1]);
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  } else {
    Calculate_Allocate(beam, mesh, weight, gamma, totalCharge, inverseGamma, 0, allocateRanges.back());
  }
  timeAllocate += ElapsedMicroseconds(start);
}

void Calculate_Allocate(Beam& beam, Mesh& mesh, std::vector<double>& weights, double gamma, double totalCharge,
                        double inverseGamma, int first, int last) {
  const double* average = beam.average.data();
  const int bendPlane = beam.bendPlane;
  const double cb = std::cos(beam.bendAngle), sb = std::sin(beam.bendAngle);
  const std::size_t sx = static_cast<std::size_t>(mesh.numOfGrid[1]) * mesh.numOfGrid[2], sy = mesh.numOfGrid[2];
  const double* field = mesh.fieldXYZ.data();
  for (int p = first; p < last; ++p) {
    Particle& particle = beam.particle[p];
    if (p + kAhead < last) {
      __builtin_prefetch(beam.particle[p + kAhead].spaceChargeField, 1);
      __builtin_prefetch(beam.particle[p + kAhead].spaceChargeField + 5, 1);
      __builtin_prefetch(&beam.particle[p + kAhead].outsideMesh);
    }
    double* f = particle.spaceChargeField;
    f[3] = f[4] = f[5] = 0.0;
    if (particle.lost == 1) {
      f[0] = f[1] = f[2] = 0.0;
      continue;
    }
    if (particle.outsideMesh == 1) {
      // Field of the deposited charge as one point at the bunch centre, from
      // the laboratory distance.
      const double* r = particle.relativeCoordinate;
      const double dx = r[0] - average[0], dy = r[2] - average[2], dz = r[4] - average[4];
      const double d = std::sqrt(dx * dx + dy * dy + dz * dz);
      const double s = d > 0.0 ? kCoulomb * totalCharge / d / d / d * inverseGamma : 0.0;
      f[0] = s * dx;
      f[1] = s * dy;
      f[2] = s * dz * gamma;
      continue;
    }
    const int* cell = &mesh.cellIndex[3 * static_cast<std::size_t>(p)];
    const std::size_t base = static_cast<std::size_t>(cell[0]) * sx + static_cast<std::size_t>(cell[1]) * sy + cell[2];
    const double* w = &weights[8 * static_cast<std::size_t>(p)];
    double sumX = 0.0, sumY = 0.0, sumZ = 0.0;
#pragma GCC unroll 8
    for (int n = 0; n < 8; ++n) {
      const double* e = field + 3 * (base + (n & 1) * sx + ((n >> 1) & 1) * sy + (n >> 2));
      sumX += w[n] * e[0];
      sumY += w[n] * e[1];
      sumZ += w[n] * e[2];
    }
    // The 1 / gamma on the transverse field stands for the magnetic
    // self-force of the moving bunch.
    double Ex = inverseGamma * sumX, Ey = inverseGamma * sumY, Ez = sumZ;
    if (bendPlane == 1) {
      const double y = Ey * cb - Ez * sb, z = Ey * sb + Ez * cb;
      Ey = y, Ez = z;
    } else if (bendPlane == 2) {
      const double x = Ex * cb + Ez * sb, z = Ez * cb - Ex * sb;
      Ex = x, Ez = z;
    }
    f[0] = Ex, f[1] = Ey, f[2] = Ez;
  }
}

void Reduce_Grids(std::vector<double>& target, std::vector<std::vector<double>>& grids, bool clearGrids,
                  std::size_t plane, int iFirst, int iEnd) {
  double* out = target.data();
  const std::size_t first = static_cast<std::size_t>(iFirst) * plane, end = static_cast<std::size_t>(iEnd) * plane;
  const int count = static_cast<int>(grids.size());
  for (std::size_t n = first; n < end; ++n) {
    double sum = out[n];
    for (int t = 0; t < count; ++t) sum += grids[t][n];
    out[n] = sum;
  }
  if (clearGrids)
    for (std::vector<double>& grid : grids) std::fill(grid.begin() + first, grid.begin() + end, 0.0);
}
