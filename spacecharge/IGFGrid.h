#pragma once
#include <fftw3.h>

#include <vector>

#include "spacecharge/Mesh.h"

// The open-boundary convolution of the IGF solver: the node charges placed in
// a grid of twice the nodes on each axis, convolved with the Green's function
// integrated over a cell (Hockney's doubled grid), by real-to-complex
// transforms.
//
// Layout. The charge of node (i, j, k) sits at doubled index (i + 1, j + 1,
// k + 1); with the kernel mirrored about the middle of the doubled grid the
// cyclic convolution is the free-space one for every offset from -N to N,
// so the potential comes out on the nodes and on one ghost layer round them
// (nodes -1 and N), and the field needs no one-sided differences at the edge.
//
// The work is cut into independent units (planes or columns), so that the
// solver can hand blocks of them to pool tasks: each unit writes only its own
// part of the buffers, and one plan per pass serves every unit through FFTW's
// new-array execute, which may run concurrently.
class IGFGrid {
 public:
  int nx = 0, ny = 0, nz = 0;
  int lineStride = 0;  // complex entries per spectrum line: Nz + 1 rounded up to even
  // Nx Ny lines of 2 Nz: the charge at 1..Nz of each line, zeros around it.
  double* charge = nullptr;
  // (Nx + 2) (Ny + 2) lines of 2 Nz: nodes -1..N at indices 0..N + 1 of each axis.
  double* potential = nullptr;
  // 2 Nx by 2 Ny lines of lineStride: the transform of the doubled grid.
  fftw_complex* spectrum = nullptr;
  // (Nx + 1)(Ny + 1)(Nz + 1): the Green's function on one octant of offsets,
  // then its cosine transform, which is the (real) transform of the mirrored
  // doubled kernel, scaled by 1 / (4 pi eps0) and the transforms' 8 Nx Ny Nz.
  double* kernel = nullptr;
  // Cell sizes the kernel was made for; zero while there is none.
  double kernelCell[3] = {0.0, 0.0, 0.0};
  // One scratch per kernel task: a plane of the antiderivative and two planes
  // of its differences across the plane.
  std::vector<std::vector<double>> scratch;

  fftw_plan forwardZ = nullptr;   // r2c along z, the Ny lines of one plane
  fftw_plan forwardY = nullptr;   // along y, the Nz + 1 lines of one plane
  fftw_plan forwardX = nullptr;   // along x, the Nz + 1 lines of one y column
  fftw_plan backwardX = nullptr;  // the three inverses
  fftw_plan backwardY = nullptr;
  fftw_plan backwardZ = nullptr;  // c2r along z, the Ny + 2 lines of one plane
  fftw_plan kernelZ = nullptr;    // DCT-I of the kernel: along z and y per plane, along x per column
  fftw_plan kernelY = nullptr;
  fftw_plan kernelX = nullptr;

  IGFGrid() = default;
  ~IGFGrid() { Release(); }
  IGFGrid(const IGFGrid&) = delete;
  IGFGrid& operator=(const IGFGrid&) = delete;

  // Allocates the buffers for Nx, Ny, Nz nodes and makes the plans (once;
  // planning measures, so it is done before the buffers hold data).
  void Make(int nodesX, int nodesY, int nodesZ, int kernelTasks);
  void Release();
  bool Ready() const { return forwardZ != nullptr; }
  bool KernelFits(double hx, double hy, double hz) const {
    return kernelCell[0] == hx && kernelCell[1] == hy && kernelCell[2] == hz;
  }

  // Units of work; each writes only the part of the buffers named.
  // Kernel planes [iFirst, iEnd) of 0..Nx: the integrated Green's function
  // (exact near the origin, by its Taylor series far from it) and its
  // transforms along z and y; task picks the scratch.
  void KernelPlanes(double hx, double hy, double hz, int task, int iFirst, int iEnd);
  // Kernel columns [jFirst, jEnd) of 0..Ny: the transform along x.
  void KernelColumns(int jFirst, int jEnd);
  // Node planes [iFirst, iEnd) of 0..Nx - 1: the charge from rho, transformed
  // along z and y, and the empty planes and lines of the doubled grid zeroed.
  void ForwardPlanes(const double* rho, int iFirst, int iEnd);
  // Doubled columns [jFirst, jEnd) of 0..2 Ny - 1: along x, the product with
  // the kernel, and back along x.
  void ConvolveColumns(int jFirst, int jEnd);
  // Doubled planes [pFirst, pEnd) of 0..Nx + 1: back along y and z into the
  // potential.
  void BackwardPlanes(int pFirst, int pEnd);
  // Node planes [iFirst, iEnd): phi and, by central differences over the
  // ghost layer, the field.
  void FieldPlanes(Mesh& mesh, double hx, double hy, double hz, int iFirst, int iEnd) const;
};

// The antiderivative of 1 / r: its mixed third derivative d3F / dx dy dz is
// 1 / sqrt(x^2 + y^2 + z^2). For x, y, z at or above 0.
double IntegratedInverseDistance(double x, double y, double z);
// The mean of 1 / r over the cell of squared sides `square` centred at
// (x, y, z), by its Taylor series to fourth order in the sides: for cells far
// from the origin, where it costs a fraction of the exact integral.
double FarCellMean(double x, double y, double z, const double square[3]);
