#include "spacecharge/PIC.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "run/HelperFunc.h"

namespace {

// Bounds of `count` items cut into at most `tasks` contiguous runs of
// ceil(count / tasks): 0, c, 2c, ... below count, then count.
std::vector<int> SplitRanges(int count, int tasks) {
  const int wanted = std::max(tasks, 1);
  const int chunk = static_cast<int>(std::ceil(static_cast<double>(count) / wanted));
  std::vector<int> bounds(1, 0);
  int added = 0;
  while (added < wanted && chunk > 0 && bounds.back() + chunk < count) {
    bounds.push_back(bounds.back() + chunk);
    ++added;
  }
  bounds.push_back(count);
  return bounds;
}

// Bounds of `cost.size()` items cut into `tasks` contiguous runs of about
// equal total cost.
std::vector<int> SplitByCost(const std::vector<double>& cost, int tasks) {
  const int wanted = std::max(tasks, 1);
  double total = 0.0;
  for (double c : cost) total += c;
  std::vector<int> bounds(1, 0);
  double sum = 0.0;
  int item = 0;
  const int count = static_cast<int>(cost.size());
  for (int t = 1; t < wanted; ++t) {
    while (item < count && sum + 0.5 * cost[item] < total * t / wanted) sum += cost[item++];
    bounds.push_back(item);
  }
  bounds.push_back(count);
  return bounds;
}

double UsableMemory() {
  double usable = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
  struct rlimit limit;
  if (getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
    usable = std::min(usable, static_cast<double>(limit.rlim_cur));
  return usable;
}

}  // namespace

PIC::PIC() : pool(DefaultPoolSize()) {}

PIC::PIC(Mesh& mesh, Beam& beam, std::vector<double>& parameters, int lpBoundaryIn)
    : pool(DefaultPoolSize()), lpBoundary(lpBoundaryIn) {
  Initial(mesh, beam, parameters);
}

PIC::~PIC() { ReleaseFFT(); }

void PIC::Initial(Mesh& mesh, Beam& beam, std::vector<double>& parameters) {
  // A periodic mesh once meant the FFT solver; the parameter vector has the
  // last word all the same.
  if (lpBoundary == 1) scMethod = 0.0;

  nx = mesh.numOfGrid[0];
  ny = mesh.numOfGrid[1];
  nz = mesh.numOfGrid[2];
  nxMax = nx - 1, nyMax = ny - 1, nzMax = nz - 1;
  nxHalf = nx / 2, nyHalf = ny / 2, nzHalf = nz / 2;

  for (int k = 0; k < 3; ++k) meshRms[k] = parameters[1 + k];
  scMethod = parameters[0];
  negligibleRatio = parameters[8];
  multithread = static_cast<int>(parameters[9]);
  for (int k = 0; k < 10; ++k) threadPlan[k] = multithread == 0 ? 1 : std::max(static_cast<int>(parameters[10 + k]), 1);

  const int N = std::max(beam.particleNumber, 0);
  weight.assign(8 * static_cast<std::size_t>(N), 0.0);

  std::cout << nx << " " << ny << " " << nz << " " << negligibleRatio << " " << meshRms[0] << " " << meshRms[1] << " "
            << meshRms[2] << std::endl;

  weightRanges = SplitRanges(N, threadPlan[4]);
  threadPlan[4] = static_cast<int>(weightRanges.size()) - 1;
  allocateRanges = SplitRanges(N, threadPlan[9]);
  threadPlan[9] = static_cast<int>(allocateRanges.size()) - 1;

  // S-PICNIC: the reach of each axis is three quarters of that axis's own
  // node count, so that a grid longer in z is summed over its whole length.
  reachX = static_cast<int>(std::lround(3.0 * nx / 4.0));
  reachY = static_cast<int>(std::lround(3.0 * ny / 4.0));
  reachZ = static_cast<int>(std::lround(3.0 * nz / 4.0));
  nearLimit = static_cast<int>(std::ceil((nx / 2.0 + 1.0) * (nx / 2.0 + 1.0)));
  for (int k = 0; k < 3; ++k) integralGrid[k] = static_cast<int>(parameters[4 + k]);
  // A kernel entry near the origin is a cell integral of many points, one
  // further out a single point: the table tasks (as many as runs of equal
  // length would make) get (di, dj) runs of equal cost. Each entry is its
  // own, so the split changes no value.
  std::vector<double> cost(static_cast<std::size_t>(std::max(reachX * reachY, 0)), 0.0);
  const double cellPoints = std::max(1.0, static_cast<double>(parameters[4]) * parameters[5] * parameters[6]);
  for (int di = 0; di < reachX; ++di)
    for (int dj = 0; dj < reachY; ++dj) {
      double& c = cost[static_cast<std::size_t>(di) * reachY + dj];
      if (di > nx || dj > ny) continue;
      for (int dk = 0; dk < std::min(reachZ, nz + 1); ++dk) {
        const int s = di * di + dj * dj + dk * dk;
        c += s != 0 && s <= nearLimit ? cellPoints : 1.0;
      }
    }
  threadPlan[6] = static_cast<int>(SplitRanges(reachX * reachY, threadPlan[6]).size()) - 1;
  tabulationRanges = SplitByCost(cost, threadPlan[6]);
  convolutionRanges = SplitRanges(nxHalf * nyHalf, threadPlan[7]);
  threadPlan[7] = static_cast<int>(convolutionRanges.size()) - 1;

  std::cout << "mulitthread:";
  for (int v : threadPlan) std::cout << " " << v;
  std::cout << std::endl;

  // Scratch of the step loop, allocated once for the whole sample.
  const std::size_t nodes = mesh.NodeCount();
  taskCount.assign(threadPlan[4], 0);
  taskRho.clear();
  if (multithread == 1 && threadPlan[4] != 1) taskRho.assign(threadPlan[4], std::vector<double>(nodes, 0.0));
  ReleaseFFT();
  igf.Release();
  if (scMethod == 0.0) {
    MakeFFTPlans();
  } else if (scMethod == 2.0) {
    igf.Make(nx, ny, nz, threadPlan[6]);
  } else {
    phiKernel.assign(static_cast<std::size_t>(2 * nx + 1) * (2 * ny + 1) * (2 * nz + 1), 0.0);
    taskPhi.assign(threadPlan[7], std::vector<double>(nodes, 0.0));
    taskSum.assign(threadPlan[7], std::vector<double>(static_cast<std::size_t>(kPairGroup) * nz, 0.0));
    foldedRho.assign(nodes, 0.0);
    rowFirst.assign(static_cast<std::size_t>(nx) * ny, 0);
    rowEnd.assign(static_cast<std::size_t>(nx) * ny, 0);
  }
}

void PlanTransformsOnThreads(int threads) {
  // Once per process, before the first plan; FFTW keeps its workers between
  // transforms, idle ones asleep.
  static const bool ready = fftw_init_threads() != 0;
  fftw_plan_with_nthreads(ready ? std::max(threads, 1) : 1);
}

void PIC::MakeFFTPlans() {
  const std::size_t nodes = static_cast<std::size_t>(nx) * ny * nz;
  realA = static_cast<double*>(fftw_malloc(sizeof(double) * nodes));
  realB = static_cast<double*>(fftw_malloc(sizeof(double) * nodes));
  complexA = static_cast<fftw_complex*>(fftw_malloc(sizeof(fftw_complex) * nodes));
  complexB = static_cast<fftw_complex*>(fftw_malloc(sizeof(fftw_complex) * nodes));
  complexC = static_cast<fftw_complex*>(fftw_malloc(sizeof(fftw_complex) * nodes));
  if (!realA || !realB || !complexA || !complexB || !complexC) throw std::bad_alloc();
  // DST-I on both transverse axes of each z column; complex DFT along z. On a
  // mesh worth splitting the transforms take the threads of the field phase;
  // FFTW's planner measures and keeps a split only where it pays. A split plan
  // may round differently from a serial one, in the last bits.
  const bool split = multithread == 1 && static_cast<long>(nodes) >= kNodesPerTask;
  PlanTransformsOnThreads(split ? threadPlan[8] : 1);
  int sine[2] = {nx, ny};
  const fftw_r2r_kind kinds[2] = {FFTW_RODFT00, FFTW_RODFT00};
  planSineForward = fftw_plan_many_r2r(2, sine, nz, realA, sine, nz, 1, realB, sine, nz, 1, kinds, 0);
  planSineBackward = fftw_plan_many_r2r(2, sine, nz, realB, sine, nz, 1, realA, sine, nz, 1, kinds, 0);
  int line[1] = {nz};
  planDftForward = fftw_plan_many_dft(1, line, nx * ny, complexA, line, 1, nz, complexB, line, 1, nz, FFTW_FORWARD, 0);
  planDftBackward =
      fftw_plan_many_dft(1, line, nx * ny, complexB, line, 1, nz, complexC, line, 1, nz, FFTW_BACKWARD, 0);
  PlanTransformsOnThreads(1);
  eigenX.assign(nx, 0.0);
  eigenY.assign(ny, 0.0);
  eigenZ.assign(nz, 0.0);
}

void PIC::ReleaseFFT() {
  for (fftw_plan* p : {&planSineForward, &planSineBackward, &planDftForward, &planDftBackward}) {
    if (*p) fftw_destroy_plan(*p);
    *p = nullptr;
  }
  fftw_free(realA);
  fftw_free(realB);
  fftw_free(complexA);
  fftw_free(complexB);
  fftw_free(complexC);
  realA = realB = nullptr;
  complexA = complexB = complexC = nullptr;
}

int PIC::autoPIC(Beam& beam) {
  if (previousRms[0] == 0.0) {
    previousRms = beam.rms;
    ++callCount;
    ++solveCount;
    return 1;
  }
  // Each axis overwrites the last: only the bunch length decides.
  for (int k = 0; k < 3; ++k) rmsChange = std::fabs(previousRms[k] - beam.rms[k]) / previousRms[k];
  if (rmsChange < 0.00015) {
    ++callCount;
    return 0;
  }
  previousRms = beam.rms;
  ++callCount;
  ++solveCount;
  return 1;
}

void PIC::Solve(Mesh& mesh) {
  if (scMethod == 0.0)
    FFT(mesh);
  else if (scMethod == 2.0)
    IGF(mesh);
  else
    PICNIC(mesh);
}

int PIC::SelfField(Mesh& mesh, Beam& beam, double timeStep) {
  const bool everyCall = scMethod == 0.0 || scMethod == 2.0;
  if (!everyCall && autoPIC(beam) == 0) return 0;
  if (Weight(mesh, beam, timeStep) != 0) return 1;
  Solve(mesh);
  Allocate(mesh, beam);
  return 0;
}

double PIC::MemoryNeeded(const std::vector<int>& numOfGrid, const std::vector<double>& parameters, int particleNumber) {
  const double x = numOfGrid[0], y = numOfGrid[1], z = numOfGrid[2];
  const double grid = x * y * z * sizeof(double);
  const int multi = static_cast<int>(parameters[9]);
  auto tasks = [&](int k) { return multi == 0 ? 1.0 : std::max(1.0, parameters[10 + k]); };
  double bytes = 11.0 * grid;                                   // the mesh grids, the gather's copy
  bytes += 8.0 * sizeof(double) * std::max(particleNumber, 0);  // corner weights
  if (multi == 1 && tasks(4) != 1.0) bytes += tasks(4) * grid;  // deposition grids
  if (parameters[0] == 0.0)
    bytes += 2.0 * grid + 3.0 * 2.0 * grid;  // transform buffers
  else if (parameters[0] == 2.0)
    bytes += 2.0 * x * y * 2.0 * z * sizeof(double)                  // charge lines, potential with its ghosts
             + 2.0 * x * 2.0 * y * (z + 2.0) * 2.0 * sizeof(double)  // spectrum of the doubled grid
             + (x + 1) * (y + 1) * (z + 1) * sizeof(double);         // kernel
  else
    bytes += (2 * x + 1) * (2 * y + 1) * (2 * z + 1) * sizeof(double)  // kernel table
             + (tasks(7) + 1.0) * grid;                                // corrections, folded charge
  return bytes;
}

std::string PIC::CheckSettings(const std::vector<int>& numOfGrid, const std::vector<double>& parameters,
                               int lpBoundaryIn, int particleNumber) {
  const bool picnic = parameters[0] != 0.0 && parameters[0] != 2.0;
  const char* axis[3] = {"x", "y", "z"};
  std::ostringstream grid;
  grid << numOfGrid[0] << " " << numOfGrid[1] << " " << numOfGrid[2];
  for (int k = 0; k < 3; ++k) {
    if (numOfGrid[k] < 2)
      return "numofgrid " + grid.str() + ": the " + axis[k] + " size is " + std::to_string(numOfGrid[k]) +
             ", the space-charge mesh needs at least 2 nodes on each axis";
    if (picnic && numOfGrid[k] % 2 != 0)
      return "numofgrid " + grid.str() + ": the " + axis[k] + " size is " + std::to_string(numOfGrid[k]) +
             ", the S-PICNIC solver needs an even number of nodes on each axis";
  }
  for (int k = 0; k < 3; ++k) {
    if (k == 2 && lpBoundaryIn == 1) continue;  // a periodic mesh spans one beta gamma lambda instead
    const double v = parameters[1 + k];
    if (!(v > 0.0) || !std::isfinite(v))
      return std::string("meshrms ") + axis[k] + " is " + FormatNumber(v) +
             ", the mesh half width in rms sizes must be above 0";
  }
  if (picnic)
    for (int k = 0; k < 3; ++k) {
      const double v = parameters[4 + k];
      if (!(v >= 1.0) || v > 2147483647.0)
        return std::string("integralgrid ") + axis[k] + " is " + FormatNumber(v) +
               ", the S-PICNIC cell integral needs 1 or more points on each axis";
    }
  const double nodes = static_cast<double>(numOfGrid[0]) * numOfGrid[1] * numOfGrid[2];
  const double kernel = (2.0 * numOfGrid[0] + 1) * (2.0 * numOfGrid[1] + 1) * (2.0 * numOfGrid[2] + 1);
  const double doubled = 8.0 * nodes;  // the IGF solver's transforms
  if (nodes > 2147483647.0 || (picnic && kernel > 2147483647.0) || (parameters[0] == 2.0 && doubled > 2147483647.0))
    return "numofgrid " + grid.str() + " has too many nodes for the space-charge solver, at most 2147483647";
  const double needed = MemoryNeeded(numOfGrid, parameters, particleNumber), usable = UsableMemory();
  if (needed > usable) {
    std::ostringstream message;
    message << std::fixed << std::setprecision(1) << "numofgrid " << grid.str()
            << ": the space-charge solver needs about " << needed / 1073741824.0 << " GiB of memory, but only "
            << usable / 1073741824.0 << " GiB can be used";
    return message.str();
  }
  return "";
}
