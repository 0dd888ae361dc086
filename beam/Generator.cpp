#include "beam/Generator.h"

#include <Eigen/Dense>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <iostream>

#include "beam/PhysicalConstants.h"

namespace {

using constants::kPi;
using constants::kTwoPi;

// A uniform number in [0, 1], both ends included.
double Uniform() { return std::rand() / 2147483647.0; }

struct AxialEllipse {
  double r1, r2;  // semi-axes
  double tilt;    // deg
};

// Semi-axes and tilt of one plane from its sigma matrix, through the
// eigenvalues of the inverse; the larger beta-like entry decides the order.
// The second plane takes its roots without the absolute value.
AxialEllipse SigmaToAxial(double s11, double s12, double s22, bool absolute) {
  const double D = s11 * s22 - s12 * s12;
  Eigen::Matrix2d M;
  M(0, 0) = s22 / D;
  M(0, 1) = M(1, 0) = -s12 / D;
  M(1, 1) = s11 / D;
  Eigen::SelfAdjointEigenSolver<Eigen::Matrix2d> solver(M, Eigen::EigenvaluesOnly);
  double first = solver.eigenvalues()(0), second = solver.eigenvalues()(1);
  if (s22 > s11) std::swap(first, second);
  AxialEllipse e;
  e.r1 = absolute ? std::sqrt(std::fabs(1.0 / first)) : std::sqrt(1.0 / first);
  e.r2 = absolute ? std::sqrt(std::fabs(1.0 / second)) : std::sqrt(1.0 / second);
  e.tilt = M(0, 0) == M(1, 1) ? 0.0 : 0.5 * std::atan(2.0 * M(0, 1) / (M(0, 0) - M(1, 1))) * 180.0 / kPi;
  return e;
}

// Position scale and correlation of a tilted ellipse of the given semi-axes.
void ScaleAndCorrelation(const AxialEllipse& e, double& scale, double& correlation) {
  const double t = e.tilt / 180.0 * kPi;
  const double c = std::cos(t), s = std::sin(t);
  scale = std::sqrt(c * c * e.r1 / e.r2 + s * s * e.r2 / e.r1);
  correlation = (e.r1 / e.r2 - e.r2 / e.r1) * std::sin(2.0 * t) / (2.0 * scale);
}

}  // namespace

std::vector<double> PreTreatment(const std::vector<double>& twiss) {
  const double e1 = twiss[0], b1 = twiss[1], a1 = twiss[2];
  const double e2 = twiss[3], b2 = twiss[4], a2 = twiss[5];
  const double s11 = b1 * e1, s12 = -a1 * e1, s22 = (1.0 + a1 * a1) / b1 * e1;
  const double s33 = b2 * e2, s34 = -a2 * e2, s44 = (1.0 + a2 * a2) / b2 * e2;
  // A real ellipse has s11 s22 > s12^2: this catches a zero emittance.
  if (s12 * s12 >= s11 * s22 || s34 * s34 >= s33 * s44) {
    std::cout << "ERROR!!!   @SigmaToAxial2D!" << std::endl;
    std::exit(1);
  }
  const AxialEllipse plane1 = SigmaToAxial(s11, s12, s22, true);
  const AxialEllipse plane2 = SigmaToAxial(s33, s34, s44, false);
  std::vector<double> P(6, 0.0);
  ScaleAndCorrelation(plane1, P[0], P[1]);
  ScaleAndCorrelation(plane2, P[2], P[3]);
  P[4] = (4.0 * plane1.r1 * plane1.r2) / (4.0 * plane2.r1 * plane2.r2);
  P[5] = 0.0;
  return P;
}

void GenerateCoordinates(const std::vector<double>& P, std::vector<double>& row) {
  const double A = P[5];
  const double a1 = std::sqrt(Uniform() * A);
  const double a2 = std::sqrt((A - a1 * a1) / P[4]);
  const double f1 = kTwoPi * Uniform();
  const double f2 = kTwoPi * Uniform();
  row[0] = P[0] * a1 * std::cos(f1);
  row[1] = a1 * (P[1] * std::cos(f1) - std::sin(f1) / P[0]);
  row[2] = P[2] * a2 * std::cos(f2);
  row[3] = a2 * (P[3] * std::cos(f2) - std::sin(f2) / P[2]);
  row[4] = 0.0;
  row[5] = 0.0;
  // A rounding-negative A - a1^2 gives a not-a-number in the second plane:
  // take the first plane's values instead.
  if (!(row[2] < 100000.0 && row[3] > -100000.0)) {
    row[2] = row[0];
    row[3] = row[1];
  }
}

void KV2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows) {
  std::vector<double> P = PreTreatment(twiss);
  P[5] = 4.0 * twiss[0];
  for (std::vector<double>& row : rows) GenerateCoordinates(P, row);
}

void WB2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows) {
  std::vector<double> P = PreTreatment(twiss);
  for (std::vector<double>& row : rows) {
    P[5] = std::sqrt(Uniform()) * 6.0 * twiss[0];
    GenerateCoordinates(P, row);
  }
}

void PB2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows) {
  std::vector<double> P = PreTreatment(twiss);
  const double root3 = std::sqrt(3.0);
  for (std::vector<double>& row : rows) {
    // Closed-form inverse of the cumulative distribution of a parabolic
    // density: the real root of a cubic, through the principal cube root.
    const double u = Uniform();
    const std::complex<double> z = 1.0 - 2.0 * u + 2.0 * std::sqrt(std::complex<double>(u * u - u, 0.0));
    const std::complex<double> w = std::pow(z, 1.0 / 3.0);
    const double A = 8.0 * twiss[0] *
                     (std::real(std::complex<double>(1.0, -root3) / (4.0 * w)) + 0.5 +
                      0.25 * std::real(w * std::complex<double>(1.0, root3)));
    P[5] = A;
    GenerateCoordinates(P, row);
  }
}

int Gaussu(const std::vector<double>& uniform, std::vector<double>& gauss) {
  for (int k = 0; k < 4; ++k) {
    const double a = 2.0 * uniform[2 * k] - 1.0;
    const double b = 2.0 * uniform[2 * k + 1] - 1.0;
    const double q = a * a + b * b;
    if (q > 1.0) return 1;
    gauss[k] = a * std::sqrt(-2.0 * std::log(q) / q);
  }
  return 0;
}

void GS2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows) {
  const std::vector<double> P = PreTreatment(twiss);
  const double k = 1.0 / std::sqrt(P[4]);
  const double s = std::sqrt(4.0 * twiss[0]) / 2.0;
  std::vector<double> uniform(8, 0.0), g(4, 0.0);
  for (std::vector<double>& row : rows) {
    int rejected;
    do {
      // Eight distinct uniforms; a repeated value is drawn again.
      for (int n = 0; n < 8; ++n) {
        bool repeated;
        do {
          uniform[n] = Uniform();
          repeated = false;
          for (int m = 0; m < n; ++m)
            if (uniform[m] == uniform[n]) repeated = true;
        } while (repeated);
      }
      rejected = Gaussu(uniform, g);
      for (double& v : g) v *= s;
      row[0] = g[0] * P[0];
      row[1] = g[1] / P[0] + g[0] * P[1];
      row[2] = k * g[2] * P[2];
      row[3] = k * (g[3] / P[2] + g[2] * P[3]);
      row[4] = 0.0;
      row[5] = 0.0;
    } while (rejected);
  }
}
