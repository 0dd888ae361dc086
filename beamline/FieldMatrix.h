#pragma once
#include <string>
#include <vector>

// All loaded field maps and the per-cavity phase tables. One per Lattice,
// passed read-only to every GetField. Maps are told apart by their index.
struct FieldMatrix {
  // field[map][node] holds Ex, Ey, Ez, Bx, By, Bz (type 1) or three values
  // (types 2, 3); node = (iz (ny + 1) + iy) (nx + 1) + ix.
  std::vector<std::vector<std::vector<double>>> field;
  std::vector<std::string> fieldName;
  std::vector<double> phase;  // deg, entrance phase per radio-frequency element
  std::vector<double> time;   // s, arrival time at which phase holds
  int fieldCount = 0;
  std::vector<int> nx, ny, nz;
  std::vector<double> xmin, xmax, ymin, ymax;
  std::vector<double> zmax;
  std::vector<double> dx, dy, dz;
  // Scratch of the map being read.
  int sxnum = 0, synum = 0, sznum = 0;
  double sxmin = 0.0, sxmax = 0.0, symin = 0.0, symax = 0.0, szmax = 0.0;
  double sdx = 0.0, sdy = 0.0, sdz = 0.0;
};
