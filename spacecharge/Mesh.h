#pragma once
#include <vector>

#include "beam/Beam.h"

using Grid3D = std::vector<std::vector<std::vector<double>>>;  // [i][j][k], k fastest

// Passive container of the space-charge grid: sizes, node coordinates, the
// cell of each macro particle and the grids the solvers fill.
class Mesh {
 public:
  std::vector<int> numOfGrid;  // Nx, Ny, Nz nodes
  int particleCount = 0;
  std::vector<std::vector<int>> cellIndex;  // lower-corner node per particle
  std::vector<double> nodeX, nodeY, nodeZ;  // m; nodeZ in the bunch rest frame
  Grid3D rho, phi, ex, ey, ez, bx, by, bz;

  // Sizes everything; may be called again, releasing what was there.
  void Initial(std::vector<int>& grid, double particles);
  // The grid is placed by the solver before each solve; nothing to do here.
  int MeshGenerator(Beam& beam);
};
