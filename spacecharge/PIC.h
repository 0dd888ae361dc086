#pragma once
#include <fftw3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "spacecharge/IGFGrid.h"
#include "spacecharge/Mesh.h"
#include "spacecharge/ThreadPool.h"

// The particle-in-cell solver of one run: fits the mesh to the bunch, moves
// the charge into the bunch rest frame and onto the nodes, solves for the
// field (spectral FFT solver in a grounded, longitudinally periodic box, the
// S-PICNIC free-space direct sum, or the open-boundary IGF convolution on a
// doubled grid) and gathers the field back to the
// particles. Everything that the step loop needs is allocated once here.
class PIC {
 public:
  ThreadPool pool;     // workers for deposition, kernel table, convolution and gather
  int callCount = 0;   // calls of autoPIC
  int solveCount = 0;  // of which asked for a solve
  double kernelMode = 1.0;
  // Microseconds spent in: deposition, deposition reduction, kernel table,
  // convolution, convolution reduction, gradient, gather. The FFT and IGF
  // solvers put their transforms under convolution and their differences
  // under gradient; IGF its Green's function under kernel table.
  double timeWeight = 0.0;
  double timeWeightReduce = 0.0;
  double timeTable = 0.0;
  double timeConvolution = 0.0;
  double timeConvolutionReduce = 0.0;
  double timeGradient = 0.0;
  double timeAllocate = 0.0;
  int nx = 0, ny = 0, nz = 0;
  int nxMax = 0, nyMax = 0, nzMax = 0;
  int nxHalf = 0, nyHalf = 0, nzHalf = 0;
  int multithread = 1;
  int lpBoundary = 0;
  // Tasks or threads per phase: 4 deposition tasks, 5 reduction threads, 6
  // kernel-table tasks, 7 convolution tasks, 8 gradient threads, 9 gather tasks.
  std::vector<int> threadPlan = std::vector<int>(10, 1);
  std::vector<double> previousRms = std::vector<double>(3, 0.0);
  double rmsChange = 0.0;
  double negligibleRatio = 0.07;
  double negligibleCharge = 0.0;
  double meshRms[3] = {-1.0, -1.0, -1.0};
  double scMethod = 1.0;  // 0.0 FFT, 2.0 IGF, anything else S-PICNIC
  double hx = 0.0, hy = 0.0, hz = 0.0;
  double cellVolume = 0.0;
  int inMeshCount = 0;
  std::vector<double> weight;  // eight corner weights per particle, at 8 p
  double gamma = 1.0, inverseGamma = 1.0;
  // Why the last Weight could not fit the mesh; empty when it could.
  std::string fitFailure;

  // Deposition scratch: one grid and one counter per task, and the particle
  // ranges of deposition and gather.
  std::vector<std::vector<double>> taskRho;
  std::vector<int> taskCount;
  std::vector<int> weightRanges;
  std::vector<int> allocateRanges;

  // FFT solver: flat buffers in the mesh layout and plans made once.
  double* realA = nullptr;
  double* realB = nullptr;
  fftw_complex* complexA = nullptr;
  fftw_complex* complexB = nullptr;
  fftw_complex* complexC = nullptr;
  fftw_plan planSineForward = nullptr;
  fftw_plan planSineBackward = nullptr;
  fftw_plan planDftForward = nullptr;
  fftw_plan planDftBackward = nullptr;
  std::vector<double> eigenX, eigenY, eigenZ;

  // S-PICNIC solver.
  int reachX = 0, reachY = 0, reachZ = 0;
  int nearLimit = 0;
  std::vector<int> integralGrid = std::vector<int>(3, -1);
  std::vector<double> phiKernel;             // (2Nx+1)(2Ny+1)(2Nz+1); distance (di,dj,dk) at [Nx+di][Ny+dj][Nz+dk]
  std::vector<int> tabulationRanges;         // bounds of the (di, dj) pairs of each table task, in row order
  std::vector<int> convolutionRanges;        // bounds of the upper-quarter (i, j) pairs of each convolution task
  std::vector<std::vector<double>> taskPhi;  // correction potential of each convolution task
  std::vector<std::vector<double>> taskSum;  // kPairGroup lines of k sums per convolution task
  std::vector<double> foldedRho;             // the charge each node sees under the octant symmetry, thresholded
  std::vector<int> rowFirst, rowEnd;         // nonzero k span of each (a, b) row of foldedRho

  // IGF solver: the doubled grid, its plans and the kernel of the last cell sizes.
  IGFGrid igf;

  PIC();
  PIC(Mesh& mesh, Beam& beam, std::vector<double>& parameters, int lpBoundaryIn);
  ~PIC();
  PIC(const PIC&) = delete;
  PIC& operator=(const PIC&) = delete;

  void Initial(Mesh& mesh, Beam& beam, std::vector<double>& parameters);
  // 1 when the bunch has changed enough since the last solve, else 0.
  int autoPIC(Beam& beam);
  // Fits the mesh to the bunch and deposits the charge. Returns 0, or 1 when
  // the mesh cannot be fitted (fitFailure then says why) and nothing was
  // deposited.
  int Weight(Mesh& mesh, Beam& beam, double timeStep);
  void FFT(Mesh& mesh);
  void PICNIC(Mesh& mesh);
  void IGF(Mesh& mesh);
  // The solve of the chosen method, between Weight and Allocate.
  void Solve(Mesh& mesh);
  // The self-field of one transport step: Weight, Solve and Allocate, at every
  // call for FFT and IGF, for S-PICNIC only when autoPIC asks for it (else
  // the particles keep their field). Returns 0, or 1 when the mesh cannot be
  // fitted (fitFailure says why).
  int SelfField(Mesh& mesh, Beam& beam, double timeStep);
  void Allocate(Mesh& mesh, Beam& beam);

  // Checks the solver settings of a run before anything is built: grid sizes,
  // mesh extents, the S-PICNIC integral grid and the memory the solver needs.
  // Returns the message for the first problem found, or an empty string.
  static std::string CheckSettings(const std::vector<int>& numOfGrid, const std::vector<double>& parameters,
                                   int lpBoundaryIn, int particleNumber);
  // Bytes that the mesh, the solver and its scratch need for these settings.
  static double MemoryNeeded(const std::vector<int>& numOfGrid, const std::vector<double>& parameters,
                             int particleNumber);

 private:
  void MakeFFTPlans();
  void ReleaseFFT();
  // Runs task(iFirst, iEnd) on the pool for `tasks` contiguous blocks of x
  // planes, as a static split would, and waits for all of them. The mesh
  // phases use the pool rather than an OpenMP team: the team's idle threads
  // spin after a region and would take the cores from the gather and the push
  // that follow. Every node's result is its own, so the split changes no
  // value; a mesh too small to be worth the hand-off to the pool runs on the
  // calling thread.
  static constexpr long kNodesPerTask = 65536;
  template <class F>
  void ForPlaneBlocks(int tasks, F task) {
    const long nodes = static_cast<long>(nx) * ny * nz;
    const int count = static_cast<int>(std::max(std::min<long>({tasks, nx, nodes / kNodesPerTask}), 1L));
    if (count == 1) {
      task(0, nx);
      return;
    }
    for (int t = 0; t < count; ++t)
      pool.enqueue(task, static_cast<int>(static_cast<long>(nx) * t / count),
                   static_cast<int>(static_cast<long>(nx) * (t + 1) / count));
    pool.wait_until_empty();
    pool.wait_until_nothing_in_flight();
  }
};

// Pairs (i, j) summed together by one convolution task.
constexpr int kPairGroup = 8;

// Plans made after this call run their transforms on `threads` threads.
void PlanTransformsOnThreads(int threads);

// Pool tasks. Each takes everything by argument and writes only its own grid,
// counter, particle range or block of x planes [iFirst, iEnd).
//
// Adds the grids to target node by node in grid order (the sum depends on the
// split of the work, never on its scheduling); with clearGrids each grid is
// left zeroed for its next use.
void Reduce_Grids(std::vector<double>& target, std::vector<std::vector<double>>& grids, bool clearGrids,
                  std::size_t plane, int iFirst, int iEnd);
// The field as minus the central differences of phi. Periodic: the wall one
// spacing outside the mesh is at potential 0 across and z wraps round (FFT
// solver). Otherwise: one-sided differences at the ends (free space).
void Calculate_Gradient(Mesh& mesh, double hx, double hy, double hz, bool periodic, int iFirst, int iEnd);
void Calculate_Weight(Beam& beam, Mesh& mesh, std::vector<double>& weights, std::vector<double>& grid,
                      std::vector<int>& counts, double hx, double hy, double hz, int nx, int ny, int nz, double gamma,
                      double cellVolume, int taskNumber, int first, int last);
void Calculate_Allocate(Beam& beam, Mesh& mesh, std::vector<double>& weights, double gamma, double totalCharge,
                        double inverseGamma, int first, int last);
void Calculate_Tabulation(std::vector<double>& kernel, const std::vector<int>& integralGrid, int nearLimit, double hx,
                          double hy, double hz, double cellVolume, int reachX, int reachY, int reachZ, int nx, int ny,
                          int nz, int first, int last);
void Calculate_S_PICNIC(Mesh& mesh, const std::vector<double>& kernel, std::vector<std::vector<double>>& taskPhi,
                        std::vector<double>& sums, const std::vector<double>& foldedRho,
                        const std::vector<int>& rowFirst, const std::vector<int>& rowEnd, double negligibleCharge,
                        int reachX, int reachY, int reachZ, int nx, int ny, int nz, int first, int last,
                        int taskNumber);
