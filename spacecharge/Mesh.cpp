#include "spacecharge/Mesh.h"

void Mesh::Initial(std::vector<int>& grid, double particles) {
  numOfGrid = grid;
  particleCount = static_cast<int>(particles);
  const int nx = numOfGrid[0], ny = numOfGrid[1], nz = numOfGrid[2];
  nodeX.assign(nx, 0.0);
  nodeY.assign(ny, 0.0);
  nodeZ.assign(nz, 0.0);
  cellIndex.assign(particleCount, std::vector<int>(3, 0));
  const Grid3D zeros(nx, std::vector<std::vector<double>>(ny, std::vector<double>(nz, 0.0)));
  for (Grid3D* g : {&rho, &phi, &ex, &ey, &ez, &bx, &by, &bz}) *g = zeros;
}

int Mesh::MeshGenerator(Beam&) { return 0; }
