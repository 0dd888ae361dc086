#pragma once
#include <cmath>

#include "beam/Beam.h"
#include "beam/Particle.h"

// Magnetic rotation of the momenta (px, py, pz) by the Boris vector t. The
// matrix is exactly orthogonal, so |p| is kept up to rounding. All three new
// values come from the old ones.
inline void BorisRotate(double tx, double ty, double tz, double& px, double& py, double& pz) {
  const double tx2 = tx * tx, ty2 = ty * ty, tz2 = tz * tz;
  const double d = 1.0 / (1.0 + (tx2 + ty2 + tz2) * 0.25);
  const double x = px, y = py, z = pz;
  px = d * (((tx2 - ty2 - tz2) * 0.25 + 1.0) * x + (tx * ty / 2.0 + tz) * y + (tx * tz / 2.0 - ty) * z);
  py = d * ((tx * ty / 2.0 - tz) * x + ((ty2 - tz2 - tx2) * 0.25 + 1.0) * y + (ty * tz / 2.0 + tx) * z);
  pz = d * ((ty + tx * tz / 2.0) * x + (ty * tz / 2.0 - tx) * y + ((tz2 - ty2 - tx2) * 0.25 + 1.0) * z);
}

// Relativistic Boris step of one particle: half electric kick, magnetic
// rotation with the full-step vector t = k B dt / gamma (no tangent
// correction), half electric kick, drift. On plain values, so that a batch of
// particles can take it side by side; the same arithmetic serves LeapFrog,
// the time-step kernel and the secondary run.
inline void BorisKernel(double dt, double k, double ex, double ey, double ez, double bx, double by, double bz,
                        double& x, double& px, double& y, double& py, double& z, double& pz) {
  const double h = k / 299792458.0 * dt * 0.5;
  px += h * ex;
  py += h * ey;
  pz += h * ez;

  double g = std::sqrt(1.0 + px * px + py * py + pz * pz);
  const double s = k * dt / g;
  BorisRotate(s * bx, s * by, s * bz, px, py, pz);

  px += h * ex;
  py += h * ey;
  pz += h * ez;

  g = std::sqrt(1.0 + px * px + py * py + pz * pz);
  const double v = 299792458.0 / g * dt;
  x += v * px;
  y += v * py;
  z += v * pz;
}

// The step of one particle from its totalField. Particles with lost == 1 are
// left untouched by BorisPush.
inline void BorisStep(double dt, Particle& p) {
  double* c = p.coordinate;
  const double* f = p.totalField;
  BorisKernel(dt, p.chargeMassRatio, f[0], f[1], f[2], f[3], f[4], f[5], c[0], c[1], c[2], c[3], c[4], c[5]);
}

inline void BorisPush(double dt, Particle& p) {
  if (p.lost != 1) BorisStep(dt, p);
}

class LeapFrog {
 public:
  void Update(double dt, Particle& particle);
  // All macro particles that are not lost, then the reference slot always.
  void Update(double dt, Beam& beam);
};
