#pragma once
#include <cstddef>
#include <vector>

#include "beam/Beam.h"

// Passive container of the space-charge grid: sizes, node coordinates, the
// cell of each macro particle and the grids the solvers fill.
//
// The grids are flat arrays in [i][j][k] order with k fastest: node (i, j, k)
// sits at Index(i, j, k) = (i Ny + j) Nz + k. The FFT buffers use the same
// layout, so rho and phi go in and out of the transforms without reordering.
class Mesh {
 public:
  std::vector<int> numOfGrid;  // Nx, Ny, Nz nodes
  int particleCount = 0;
  // Lower-corner node (i, j, k) of the cell of macro particle p, at 3 p.
  std::vector<int> cellIndex;
  std::vector<double> nodeX, nodeY, nodeZ;  // m; nodeZ in the bunch rest frame
  std::vector<double> rho;                  // C on each node, before division by the cell volume
  std::vector<double> phi;                  // V
  std::vector<double> ex, ey, ez;           // V/m, rest frame
  std::vector<double> bx, by, bz;           // kept zero: no solver writes a magnetic field
  // ex, ey, ez side by side per node, at 3 Index(i, j, k): filled by the
  // gather from the three grids, so that the eight corners of a cell are read
  // from four short runs of memory instead of twelve.
  std::vector<double> fieldXYZ;

  std::size_t Index(int i, int j, int k) const {
    return (static_cast<std::size_t>(i) * static_cast<std::size_t>(numOfGrid[1]) + static_cast<std::size_t>(j)) *
               static_cast<std::size_t>(numOfGrid[2]) +
           static_cast<std::size_t>(k);
  }
  std::size_t NodeCount() const {
    return static_cast<std::size_t>(numOfGrid[0]) * static_cast<std::size_t>(numOfGrid[1]) *
           static_cast<std::size_t>(numOfGrid[2]);
  }

  // Sizes everything; may be called again, releasing what was there.
  void Initial(std::vector<int>& grid, double particles);
  // The grid is placed by the solver before each solve; nothing to do here.
  int MeshGenerator(Beam& beam);
};
