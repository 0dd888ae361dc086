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

// Relativistic Boris step of one particle from its totalField: half electric
// kick, magnetic rotation with the full-step vector t = k B dt / gamma (no
// tangent correction), half electric kick, drift. Particles with lost == 1
// are left untouched by BorisPush. Shared by LeapFrog and the time-step kernel so that the
// arithmetic exists once.
inline void BorisStep(double dt, Particle& p) {
  double* c = p.coordinate;
  const double* f = p.totalField;
  const double k = p.chargeMassRatio;

  const double h = k / 299792458.0 * dt * 0.5;
  c[1] += h * f[0];
  c[3] += h * f[1];
  c[5] += h * f[2];

  double g = std::sqrt(1.0 + c[1] * c[1] + c[3] * c[3] + c[5] * c[5]);
  const double s = k * dt / g;
  BorisRotate(s * f[3], s * f[4], s * f[5], c[1], c[3], c[5]);

  c[1] += h * f[0];
  c[3] += h * f[1];
  c[5] += h * f[2];

  g = std::sqrt(1.0 + c[1] * c[1] + c[3] * c[3] + c[5] * c[5]);
  const double v = 299792458.0 / g * dt;
  c[0] += v * c[1];
  c[2] += v * c[3];
  c[4] += v * c[5];
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
