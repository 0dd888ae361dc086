#pragma once
#include <string>
#include <utility>
#include <vector>

// All loaded field maps and the per-cavity phase tables. One per Lattice,
// passed read-only to every GetField. Maps are told apart by their index.
//
// A map is stored once, as one flat array with the components of a node side
// by side: value c of node n stands at field[map][n * components[map] + c],
// with n = (iz (ny + 1) + iy) (nx + 1) + ix. A node holds Ex, Ey, Ez, Bx, By,
// Bz (type 1) or three values (types 2, 3). Electric values are in MV/m,
// magnetic ones in T; the elements scale them at lookup time.
struct FieldMatrix {
  std::vector<std::vector<double>> field;
  std::vector<std::string> fieldName;
  std::vector<double> phase;  // deg, entrance phase per radio-frequency element
  std::vector<double> time;   // s, arrival time at which phase holds
  int fieldCount = 0;
  std::vector<int> nx, ny, nz;  // mesh intervals; nx + 1 nodes along x
  std::vector<double> xmin, xmax, ymin, ymax;
  std::vector<double> zmax;  // m, the map runs from z = 0 of its own frame
  std::vector<double> dx, dy, dz;
  // Scratch of the map being read.
  int sxnum = 0, synum = 0, sznum = 0;
  double sxmin = 0.0, sxmax = 0.0, symin = 0.0, symax = 0.0, szmax = 0.0;
  double sdx = 0.0, sdy = 0.0, sdz = 0.0;

  // Per map, worked out once when it is added, for the lookup.
  std::vector<int> components;                  // values per node: 6, 3, or 0 for an empty map
  // Largest magnitude among the values 0 to 2 and 3 to 5 of the nodes: what
  // a factor on the map can make of it at most.
  std::vector<double> peakLow, peakHigh;

  // Appends a map whose mesh stands in the scratch fields; `values` holds
  // (sxnum + 1) (synum + 1) (sznum + 1) nodes of `valuesPerNode` values.
  // Returns the new map index.
  int AddMap(const std::string& name, int valuesPerNode, std::vector<double> values) {
    field.push_back(std::move(values));
    fieldName.push_back(name);
    nx.push_back(sxnum);
    ny.push_back(synum);
    nz.push_back(sznum);
    xmin.push_back(sxmin);
    xmax.push_back(sxmax);
    ymin.push_back(symin);
    ymax.push_back(symax);
    zmax.push_back(szmax);
    dx.push_back(sdx);
    dy.push_back(sdy);
    dz.push_back(sdz);
    components.push_back(valuesPerNode);
    double low = 0.0, high = 0.0;
    const std::vector<double>& v = field.back();
    for (std::size_t k = 0; k < v.size(); ++k) {
      const double a = v[k] < 0.0 ? -v[k] : v[k];
      double& peak = static_cast<int>(k % static_cast<std::size_t>(valuesPerNode)) < 3 ? low : high;
      if (a > peak) peak = a;
    }
    peakLow.push_back(low);
    peakHigh.push_back(high);
    return fieldCount++;
  }
};
