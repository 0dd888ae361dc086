#include "spacecharge/Mesh.h"

void Mesh::Initial(std::vector<int>& grid, double particles) {
  numOfGrid = grid;
  particleCount = static_cast<int>(particles);
  nodeX.assign(numOfGrid[0], 0.0);
  nodeY.assign(numOfGrid[1], 0.0);
  nodeZ.assign(numOfGrid[2], 0.0);
  cellIndex.assign(3 * static_cast<std::size_t>(particleCount), 0);
  const std::size_t n = NodeCount();
  for (std::vector<double>* g : {&rho, &phi, &ex, &ey, &ez, &bx, &by, &bz}) {
    std::vector<double>().swap(*g);
    g->assign(n, 0.0);
  }
  std::vector<double>().swap(fieldXYZ);
  fieldXYZ.assign(3 * n, 0.0);
}

int Mesh::MeshGenerator(Beam&) { return 0; }
