// S-PICNIC: the free-space potential as a direct sum of the charge with a
// tabulated 1 / r kernel, within a fixed reach, dropping negligible charge.
// The charge is assumed symmetric in the eight octants about the mesh centre;
// nodes whose mirrored charge differs get a correction potential.
#include <algorithm>
#include <chrono>
#include <cmath>

#include "run/HelperFunc.h"
#include "spacecharge/PIC.h"

namespace {
constexpr double kCoulomb = 8987551787.368176;  // 1 / (4 pi epsilon 0)
}

void Calculate_Tabulation(std::vector<double>& kernel, const std::vector<int>& integralGrid, int nearLimit, double hx,
                          double hy, double hz, double cellVolume, int reachX, int reachY, int reachZ, int nx, int ny,
                          int nz, int first, int last) {
  const std::size_t sb = 2 * static_cast<std::size_t>(nz) + 1, sa = (2 * static_cast<std::size_t>(ny) + 1) * sb;
  const int gx = integralGrid[0], gy = integralGrid[1], gz = integralGrid[2];
  const double subVolume = (hx / gx) * (hy / gy) * (hz / gz);
  // The table holds distances up to N on each axis.
  const int dkEnd = std::min(reachZ, nz + 1);
  (void)reachX;  // the pairs are numbered di reachY + dj
  for (int pair = first; pair < last; ++pair) {
    const int di = pair / reachY, dj = pair % reachY;
    if (di > nx || dj > ny) continue;
    for (int dk = 0; dk < dkEnd; ++dk) {
      const int s = di * di + dj * dj + dk * dk;
      double value;
      if (s == 0) {
        value = 0.0;  // a cell's charge does not act on its own node
      } else if (s <= nearLimit) {
        // Mean of 1 / r over the cell by the midpoint rule.
        double sum = 0.0;
        for (int u = 0; u < gx; ++u) {
          const double x = di * hx + (-0.5 + (u + 0.5) / gx) * hx;
          for (int v = 0; v < gy; ++v) {
            const double y = dj * hy + (-0.5 + (v + 0.5) / gy) * hy;
            for (int w = 0; w < gz; ++w) {
              const double z = dk * hz + (-0.5 + (w + 0.5) / gz) * hz;
              sum += subVolume / std::sqrt(x * x + y * y + z * z);
            }
          }
        }
        value = sum / cellVolume;
      } else {
        const double x = di * hx, y = dj * hy, z = dk * hz;
        value = 1.0 / std::sqrt(x * x + y * y + z * z);
      }
      for (int a : {nx - di, nx + di})
        for (int b : {ny - dj, ny + dj})
          for (int c : {nz - dk, nz + dk}) kernel[a * sa + b * sb + c] = value;
    }
  }
}

void Calculate_S_PICNIC(Mesh& mesh, const std::vector<double>& kernel, std::vector<std::vector<double>>& taskPhi,
                        std::vector<double>& sums, const std::vector<double>& foldedRho,
                        const std::vector<int>& rowFirst, const std::vector<int>& rowEnd, double negligibleCharge,
                        int reachX, int reachY, int reachZ, int nx, int ny, int nz, int first, int last,
                        int taskNumber) {
  const std::size_t kb = 2 * static_cast<std::size_t>(nz) + 1, ka = (2 * static_cast<std::size_t>(ny) + 1) * kb;
  const std::size_t sx = static_cast<std::size_t>(ny) * nz;
  const int xHalf = nx / 2, yHalf = ny / 2, zHalf = nz / 2;
  const double* rho = mesh.rho.data();
  double* phi = mesh.phi.data();
  const double* K = kernel.data();
  const double* F = foldedRho.data();
  double* A = sums.data();
  std::vector<double>& correction = taskPhi[taskNumber];
  std::fill(correction.begin(), correction.end(), 0.0);
  bool corrected = false;
  int cp = 0, cq = 0, cr = 0;
  double cd = 0.0;

  // The pairs go in groups of kPairGroup neighbours. A kernel line belongs to
  // an index distance (a - i, b - j), not to a pair, so the group walks the
  // distances and each line, read once from the large table, serves the whole
  // group from the first-level cache. Each pair still takes its terms in the
  // order (a, b, c), and the potentials and corrections follow in pair order.
  for (int g = first; g < last; g += kPairGroup) {
    const int members = std::min(kPairGroup, last - g);
    int gi[kPairGroup], gj[kPairGroup];
    int diFirst = reachX, diEnd = -reachX, djFirst = reachY, djEnd = -reachY;
    for (int m = 0; m < members; ++m) {
      gi[m] = xHalf + (g + m) / yHalf, gj[m] = yHalf + (g + m) % yHalf;
      diFirst = std::min(diFirst, std::max(-reachX, -gi[m])), diEnd = std::max(diEnd, std::min(reachX, nx - gi[m]));
      djFirst = std::min(djFirst, std::max(-reachY, -gj[m])), djEnd = std::max(djEnd, std::min(reachY, ny - gj[m]));
      std::fill(A + m * nz + zHalf, A + (m + 1) * nz, 0.0);
    }
    for (int di = diFirst; di < diEnd; ++di)
      for (int dj = djFirst; dj < djEnd; ++dj) {
        // Kernel entry of node k and lattice c at [.. + Nz - k + c], which
        // the table holds again at [.. + Nz + k - c]: read forward along k.
        const double* line = K + static_cast<std::size_t>(nx + di) * ka + static_cast<std::size_t>(ny + dj) * kb + nz;
        for (int m = 0; m < members; ++m) {
          const int a = gi[m] + di, b = gj[m] + dj;
          if (a < 0 || a >= nx || b < 0 || b >= ny) continue;
          const std::size_t row = static_cast<std::size_t>(a) * ny + b;
          const int cFirst = std::max(rowFirst[row], 0), cEnd = rowEnd[row];
          // F holds the mirrored upper-octant charge with negligible charge
          // set to 0, and each row is walked only where it holds charge.
          const double* charge = F + row * nz;
          double* sum = A + m * nz;
          for (int c = cFirst; c < cEnd; ++c) {
            const double q = charge[c];
            if (q == 0.0) continue;
            // Nodes k with c inside [k - reach, k + reach).
            const int kFirst = std::max(c - reachZ + 1, zHalf), kLast = std::min(c + reachZ, nz - 1);
            const double* kc = line - c;
            // Each sum[k] is its own sum, so the lanes of a vector never mix.
#pragma omp simd
            for (int k = kFirst; k <= kLast; ++k) sum[k] += q * kc[k];
          }
        }
      }
    for (int m = 0; m < members; ++m) {
      const int i = gi[m], j = gj[m];
      for (int k = zHalf; k < nz; ++k) {
        const double P = A[m * nz + k] * kCoulomb;
        const double own = rho[static_cast<std::size_t>(i) * sx + static_cast<std::size_t>(j) * nz + k];
        for (int p : {nx - 1 - i, i})
          for (int q : {ny - 1 - j, j})
            for (int r : {nz - 1 - k, k}) {
              const std::size_t at = static_cast<std::size_t>(p) * sx + static_cast<std::size_t>(q) * nz + r;
              phi[at] = P;
              const double D = rho[at] - own;
              if (D >= negligibleCharge || D <= -negligibleCharge) {
                // Each correction replaces the task's last one; only the last
                // survives, so it is written once at the end.
                corrected = true;
                cp = p, cq = q, cr = r, cd = D;
              }
            }
      }
    }
  }
  if (!corrected) return;
  for (int a = 0; a < nx; ++a)
    for (int b = 0; b < ny; ++b) {
      double* out = correction.data() + static_cast<std::size_t>(a) * sx + static_cast<std::size_t>(b) * nz;
      const double* line =
          K + static_cast<std::size_t>(nx + cp - a) * ka + static_cast<std::size_t>(ny + cq - b) * kb + nz + cr;
      for (int c = 0; c < nz; ++c) out[c] = line[-c] * cd * kCoulomb;
    }
}

void PIC::PICNIC(Mesh& mesh) {
  // Phase 1: the kernel table for the spacings of this solve.
  auto start = std::chrono::system_clock::now();
  for (int t = 0; t < threadPlan[6]; ++t)
    pool.enqueue(Calculate_Tabulation, std::ref(phiKernel), std::cref(integralGrid), nearLimit, hx, hy, hz, cellVolume,
                 reachX, reachY, reachZ, nx, ny, nz, tabulationRanges[t], tabulationRanges[t + 1]);
  pool.wait_until_empty();
  pool.wait_until_nothing_in_flight();
  timeTable += ElapsedMicroseconds(start);

  // Phase 2: the threshold is a share of the centre node's charge. The charge
  // each node sees under the octant symmetry is read from the upper octant,
  // with what lies at or below the threshold dropped.
  start = std::chrono::system_clock::now();
  // Magnitudes, so that a bunch of negative ions keeps its strong nodes.
  negligibleCharge = negligibleRatio * std::fabs(mesh.rho[mesh.Index(nxHalf, nyHalf, nzHalf)]);
  for (int a = 0; a < nx; ++a)
    for (int b = 0; b < ny; ++b) {
      const int ma = a < nxHalf ? nx - 1 - a : a, mb = b < nyHalf ? ny - 1 - b : b;
      const double* source = mesh.rho.data() + mesh.Index(ma, mb, 0);
      const std::size_t row = static_cast<std::size_t>(a) * ny + b;
      double* target = foldedRho.data() + row * nz;
      int firstC = nz, endC = 0;
      for (int c = 0; c < nz; ++c) {
        const double q = source[c < nzHalf ? nz - 1 - c : c];
        target[c] = std::fabs(q) > negligibleCharge ? q : 0.0;
        if (target[c] != 0.0) {
          firstC = std::min(firstC, c);
          endC = c + 1;
        }
      }
      rowFirst[row] = firstC;
      rowEnd[row] = endC;
    }

  // Phase 3: the symmetric sums over the upper quarter of (i, j), with corrections.
  for (int t = 0; t < threadPlan[7]; ++t)
    pool.enqueue(Calculate_S_PICNIC, std::ref(mesh), std::cref(phiKernel), std::ref(taskPhi), std::ref(taskSum[t]),
                 std::cref(foldedRho), std::cref(rowFirst), std::cref(rowEnd), negligibleCharge, reachX, reachY, reachZ,
                 nx, ny, nz, convolutionRanges[t], convolutionRanges[t + 1], t);
  pool.wait_until_empty();
  pool.wait_until_nothing_in_flight();
  timeConvolution += ElapsedMicroseconds(start);

  // Phase 4: the corrections, added in task order.
  start = std::chrono::system_clock::now();
  const std::size_t plane = static_cast<std::size_t>(ny) * nz;
  ForPlaneBlocks(threadPlan[5], [&mesh, this, plane](int iFirst, int iEnd) {
    Reduce_Grids(mesh.phi, taskPhi, false, plane, iFirst, iEnd);
  });
  timeConvolutionReduce += ElapsedMicroseconds(start);

  // Phase 5: central differences, one-sided at the ends of each axis: the
  // field at the edge comes from free space, nothing wraps round.
  start = std::chrono::system_clock::now();
  ForPlaneBlocks(threadPlan[8], [&mesh, this](int iFirst, int iEnd) {
    Calculate_Gradient(mesh, hx, hy, hz, false, iFirst, iEnd);
  });
  timeGradient += ElapsedMicroseconds(start);
}
