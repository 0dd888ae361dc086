#pragma once
// Trilinear lookup in a uniform field map, and the rotation of a field vector
// back out of a tilted frame. Short and inline: this is the hottest code of a
// run with maps, one call per particle per step.
#include <cmath>
#include <cstddef>

#include "beamline/FieldMatrix.h"
#include "run/HelperFunc.h"

// Interpolates `Count` components, from component `first` on, of map `m` at
// (x, y, z), z measured from the map's start. A point counts as inside only
// strictly between the faces; outside nothing is written and the result is
// false. The eight corners are the nodes around the point, the upper one at
// ceil(u), ceil(v), ceil(w) with u = (x - xmin) / dx and so on, each with the
// weight (1 - |u - i|) (1 - |v - j|) (1 - |w - k|): plain trilinear
// interpolation, exact on the nodes and for fields linear in x, y and z.
template <int Count>
[[gnu::always_inline]] inline bool SampleMap(const FieldMatrix& fieldM, int m, double x, double y, double z, int first,
                                             double* out) {
  if (!(x > fieldM.xmin[m] && x < fieldM.xmax[m] && y > fieldM.ymin[m] && y < fieldM.ymax[m] && z > 0.0 &&
        z < fieldM.zmax[m]))
    return false;
  const int nx = fieldM.nx[m], ny = fieldM.ny[m], nz = fieldM.nz[m];
  // Divided, not multiplied by a stored reciprocal: the mesh coordinates must
  // come out exactly as the map's own spacing gives them.
  const double u = (x - fieldM.xmin[m]) / fieldM.dx[m];
  const double v = (y - fieldM.ymin[m]) / fieldM.dy[m];
  const double w = z / fieldM.dz[m];
  // Inside, u lies in (0, nx]; rounding at the upper face may push it a hair
  // beyond, so the cell is kept within the mesh. For a positive value the
  // ceiling is the truncation, raised by one unless the value is whole.
  int i = static_cast<int>(u), j = static_cast<int>(v), k = static_cast<int>(w);
  i += i < u, j += j < v, k += k < w;
  i = i < 1 ? 1 : (i > nx ? nx : i);
  j = j < 1 ? 1 : (j > ny ? ny : j);
  k = k < 1 ? 1 : (k > nz ? nz : k);
  const double wx1 = 1.0 - std::fabs(u - i), wx0 = 1.0 - std::fabs(u - (i - 1));
  const double wy1 = 1.0 - std::fabs(v - j), wy0 = 1.0 - std::fabs(v - (j - 1));
  const double wz1 = 1.0 - std::fabs(w - k), wz0 = 1.0 - std::fabs(w - (k - 1));
  const double weight[8] = {wx1 * wy1 * wz1, wx0 * wy1 * wz1, wx1 * wy0 * wz1, wx0 * wy0 * wz1,
                            wx1 * wy1 * wz0, wx0 * wy1 * wz0, wx1 * wy0 * wz0, wx0 * wy0 * wz0};
  const std::ptrdiff_t c = fieldM.components[m];
  const std::ptrdiff_t sx = c, sy = c * (nx + 1), sz = sy * (ny + 1);
  const double* p = fieldM.field[m].data() + ((static_cast<std::ptrdiff_t>(k) * (ny + 1) + j) * (nx + 1) + i) * c + first;
  const double* corner[8] = {p, p - sx, p - sy, p - sy - sx, p - sz, p - sz - sx, p - sz - sy, p - sz - sy - sx};
  // Corner by corner, the components of a node side by side: each sum still
  // runs over the corners in their order. Unrolled, the sums stay in
  // registers (a loop keeps them in memory, each corner waiting on the store
  // of the last) and the compiler packs the components in pairs.
  double sum[Count];
#pragma GCC unroll 6
  for (int q = 0; q < Count; ++q) sum[q] = 0.0;
#pragma GCC unroll 8
  for (int n = 0; n < 8; ++n) {
    const double wn = weight[n];
    const double* node = corner[n];
#pragma GCC unroll 6
    for (int q = 0; q < Count; ++q) sum[q] += wn * node[q];
  }
#pragma GCC unroll 6
  for (int q = 0; q < Count; ++q) out[q] = sum[q];
  return true;
}

// Brings a vector found in a frame turned by `frame` back into the outer
// frame: the inverse of FrameRotation::Apply, the (y, z) turn first.
inline void RotateBack(const FrameRotation& frame, double& fx, double& fy, double& fz) {
  const double y1 = fy * frame.cc - fz * frame.sc;
  const double z1 = fy * frame.sc + fz * frame.cc;
  const double x1 = fx * frame.cb + z1 * frame.sb;
  fz = z1 * frame.cb - fx * frame.sb;
  fx = x1 * frame.ca - y1 * frame.sa;
  fy = x1 * frame.sa + y1 * frame.ca;
}
