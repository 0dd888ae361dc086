#include "beam/SynParticle.h"

#include <cmath>

#include "beam/LeapFrog.h"

SynParticle::SynParticle() : coordinate(6, 0.0), electricField(3, 0.0), magneticField(3, 0.0) {}

void SynParticle::Update(double dt) {
  const double c = 299792458.0;
  const double k = chargeMassRatio;
  std::vector<double>& q = coordinate;
  const std::vector<double>& E = electricField;
  const std::vector<double>& B = magneticField;

  if (dimension == 0) {
    // Longitudinal motion only.
    q[0] = q[1] = q[2] = q[3] = 0.0;
    q[5] += k * E[2] / c * dt;
    const double g = std::sqrt(1.0 + q[5] * q[5]);
    q[4] += c / g * q[5] * dt;
    return;
  }

  if (B[0] == 0.0 && B[1] == 0.0) {
    // No transverse magnetic field: a full electric kick; Bz is not applied.
    q[1] += k * E[0] / c * dt;
    q[3] += k * E[1] / c * dt;
    q[5] += k * E[2] / c * dt;
  } else {
    const double h = k / c * dt * 0.5;
    q[1] += h * E[0];
    q[3] += h * E[1];
    q[5] += h * E[2];
    const double g = std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]);
    const double s = k * dt / g;
    BorisRotate(s * B[0], s * B[1], s * B[2], q[1], q[3], q[5]);
    q[1] += h * E[0];
    q[3] += h * E[1];
    q[5] += h * E[2];
  }
  const double g = std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]);
  q[0] += c / g * q[1] * dt;
  q[2] += c / g * q[3] * dt;
  q[4] += c / g * q[5] * dt;
}
