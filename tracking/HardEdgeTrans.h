#pragma once
#include <cmath>

#include "beam/PhysicalConstants.h"

// First-order transfer maps of the hard-edge elements over one step of z.
// They act on the transverse point (x, x', y, y') of one crossing row; the
// per-step constants are worked out once, before the loop over the rows, and
// each map then holds only the arithmetic that depends on the particle.

// Transverse point of a row: positions in m, slopes in rad.
struct Slopes {
  double x, xp, y, yp;
};

// Kinematics of a row from its momenta (entries 1, 3, 5 of a crossing row).
struct RowMotion {
  double gamma, beta, xp, yp, vz;
};

inline RowMotion Motion(double px, double py, double pz) {
  RowMotion m;
  m.gamma = std::sqrt(1.0 + px * px + py * py + pz * pz);
  m.beta = std::sqrt(1.0 - 1.0 / (m.gamma * m.gamma));
  m.xp = px / pz;
  m.yp = py / pz;
  m.vz = m.beta * constants::kLightSpeed / std::sqrt(m.xp * m.xp + m.yp * m.yp + 1.0);
  return m;
}

inline RowMotion MotionOfRow(const double* r) { return Motion(r[1], r[3], r[5]); }

// The transcendental values of one particle's map: cosine and sine of its
// phase advance and, for the quadrupole, expm1 of it. They are library calls
// and are taken apart from the arithmetic around them, so that a batch of
// particles can do that arithmetic side by side.
struct MapAngles {
  double c = 0.0, s = 0.0, e = 0.0;
};

// cosh and sinh of phi >= 0 from em = expm1(phi), accurate also for small phi.
inline void HyperbolicFromExpm1(double em, double& ch, double& sh) {
  const double twiceE = 2.0 * (1.0 + em);
  ch = 1.0 + em * em / twiceE;
  sh = em * (em + 2.0) / twiceE;
}

// Each map below is applied in three stages: Strength (arithmetic: the
// particle's focusing strength and phase advance from its gamma, beta and
// q/m; plain values, so that a loop of it packs), Angles (the library calls),
// Apply (arithmetic: the transfer matrix on the point). kAngles says whether
// the map has per-particle angles at all.

// Field-free stretch of length L: also a quadrupole without gradient and a
// solenoid without field, the limits of their maps.
struct DriftMap {
  static constexpr bool kAngles = false;
  double length;
  double Strength(double, double, double, double& phase) const { return phase = 0.0; }
  static MapAngles Angles(double) { return {}; }
  Slopes Apply(const Slopes& u, double, const MapAngles&, double) const {
    return {u.x + u.xp * length, u.xp, u.y + u.yp * length, u.yp};
  }
};

// Quadrupole of gradient G (T/m): k = sqrt(|G / B rho|) with the particle's
// own rigidity, so the map is chromatic. x focuses when G q/m is above 0.
struct QuadMap {
  static constexpr bool kAngles = true;
  double gradient;
  double length;
  double Strength(double gamma, double beta, double chargeMassRatio, double& phase) const {
    const double k = std::sqrt(std::fabs(gradient / (gamma * constants::kLightSpeed * beta / chargeMassRatio)));
    phase = k * length;
    return k;
  }
  static MapAngles Angles(double phi) { return {std::cos(phi), std::sin(phi), std::expm1(phi)}; }
  Slopes Apply(const Slopes& u, double k, const MapAngles& a, double chargeMassRatio) const {
    const bool focusX = gradient * chargeMassRatio > 0.0;
    const double C = a.c, S = a.s;
    double ch, sh;
    HyperbolicFromExpm1(a.e, ch, sh);
    const double fx = focusX ? u.x : u.y, fxp = focusX ? u.xp : u.yp;  // focusing plane
    const double dx = focusX ? u.y : u.x, dxp = focusX ? u.yp : u.xp;  // defocusing plane
    const double f1 = fx * C + fxp * S / k, f1p = -fx * k * S + fxp * C;
    const double d1 = dx * ch + dxp * sh / k, d1p = dx * k * sh + dxp * ch;
    return {focusX ? f1 : d1, focusX ? f1p : d1p, focusX ? d1 : f1, focusX ? d1p : f1p};
  }
};

// Solenoid of field B (T): K = B q/m / (2 c beta gamma), the rotation and the
// focusing of the Larmor frame in one matrix.
struct SolenoidMap {
  static constexpr bool kAngles = true;
  double field;
  double length;
  double Strength(double gamma, double beta, double chargeMassRatio, double& phase) const {
    const double K = field * chargeMassRatio / (599584916.0 * beta * gamma);
    phase = K * length;
    return K;
  }
  static MapAngles Angles(double phi) { return {std::cos(phi), std::sin(phi), 0.0}; }
  Slopes Apply(const Slopes& u, double K, const MapAngles& a, double) const {
    const double C = a.c, S = a.s;
    const double CC = C * C, SC = S * C, SS = S * S;
    return {u.x * CC + u.xp * SC / K + u.y * SC + u.yp * SS / K,
            -u.x * K * SC + u.xp * CC - u.y * K * SS + u.yp * SC,
            -u.x * SC - u.xp * SS / K + u.y * CC + u.yp * SC / K,
            u.x * K * SS - u.xp * SC - u.y * K * SC + u.yp * CC};
  }
};

// Sector bend with curvature h and focusing kx (bending plane) and ky (the
// other plane), over the arc L. The matrix is the same for every particle;
// the momentum offset d = (gamma beta z - reference) / reference adds the
// dispersion and the path-length term.
struct BendMap {
  double h, kx, ky, length;
  double cx, sx, cy, sy;
  double referenceMomentum;  // gamma beta z of the reference row
  bool bendsInY;             // plane y: y plays the part of x

  BendMap(double curvature, double kxIn, double kyIn, double arc, double reference, bool inY)
      : h(curvature), kx(kxIn), ky(kyIn), length(arc), cx(std::cos(kxIn * arc)), sx(std::sin(kxIn * arc)),
        cy(std::cos(kyIn * arc)), sy(std::sin(kyIn * arc)), referenceMomentum(reference), bendsInY(inY) {}

  // (u, u') in the bending plane, (w, w') in the other; zTerm gets the
  // longitudinal displacement.
  void Planes(double u, double up, double w, double wp, double d, const RowMotion& m, double& u1, double& u1p,
              double& w1, double& w1p, double& zTerm) const {
    u1 = u * cx + up * sx / kx + d * h * (1.0 - cx) / (kx * kx);
    u1p = -u * kx * sx + up * cx + d * h * sx / kx;
    if (ky != 0.0) {
      w1 = w * cy + wp * sy / ky;
      w1p = -w * ky * sy + wp * cy;
    } else {
      w1 = w + wp * length;
      w1p = wp;
    }
    zTerm = -u * h * sx / kx - up * h * (1.0 - cx) / (kx * kx) +
            d * (-h * h * (kx * length * m.beta * m.beta - sx) / (kx * kx * kx) +
                 (1.0 - h * h / (kx * kx)) * length / (m.gamma * m.gamma));
  }

  Slopes Apply(const Slopes& s, const RowMotion& m, double momentum, double& zTerm) const {
    const double d = (momentum - referenceMomentum) / referenceMomentum;
    Slopes o;
    if (bendsInY)
      Planes(s.y, s.yp, s.x, s.xp, d, m, o.y, o.yp, o.x, o.xp, zTerm);
    else
      Planes(s.x, s.xp, s.y, s.yp, d, m, o.x, o.xp, o.y, o.yp, zTerm);
    return o;
  }
};
