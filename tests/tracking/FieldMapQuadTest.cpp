// A quadrupole given as a map and pushed by the Boris step reproduces the thick-lens transfer matrix of the hard-edge
// quadrupole (cos and cosh of k L) to the step error, and the error falls in proportion to the step.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "beam/LeapFrog.h"
#include "beamline/Drift.h"
#include "beamline/Field.h"
#include "beamline/Lattice.h"

namespace {
const double kC = 299792458.0;
const double kRatio = 1.60217653e-19 / 1.67262171e-27;  // proton q/m

// drift 0.05, map quadrupole of gradient g and length 0.2 on a 0.02 half-width mesh, drift 0.05.
void Build(Lattice& lattice, double g) {
  FieldMatrix& f = lattice.fieldM;
  f.sxnum = f.synum = 8, f.sznum = 4;
  f.sxmin = f.symin = -0.02, f.sxmax = f.symax = 0.02, f.szmax = 0.2;
  f.sdx = f.sdy = 0.005, f.sdz = 0.05;
  std::vector<double> nodes;
  for (int iz = 0; iz <= 4; ++iz)
    for (int iy = 0; iy <= 8; ++iy)
      for (int ix = 0; ix <= 8; ++ix) nodes.insert(nodes.end(), {g * (-0.02 + iy * 0.005), g * (-0.02 + ix * 0.005), 0.0});
  f.AddMap("quad", 3, nodes);
  lattice.SetElement({"drift", "0.05", "1", "0"}, new Drift());
  lattice.SetElement({"field", "0.2", "1", "0", "3", "0", "0", "0", "1", "quad"}, new Field());
  lattice.SetElement({"drift", "0.05", "1", "0"}, new Drift());
}

// x, x', y, y' at z = 0.3 of a particle started at z = 0 with (x, x', y, y') and gamma beta z.
std::vector<double> Track(Lattice& lattice, const std::vector<double>& start, double gbz, double dt) {
  Particle p{};
  p.coordinate[0] = start[0], p.coordinate[1] = start[1] * gbz, p.coordinate[2] = start[2];
  p.coordinate[3] = start[3] * gbz, p.coordinate[4] = 1e-12, p.coordinate[5] = gbz;
  p.chargeMassRatio = kRatio;
  double t = 0.0, old[6];
  while (p.coordinate[4] < 0.3) {
    lattice.GetExternalField(t, p);
    for (int k = 0; k < 6; ++k) p.totalField[k] = p.externalField[k], old[k] = p.coordinate[k];
    BorisPush(dt, p);
    t += dt;
  }
  const double f = (0.3 - old[4]) / (p.coordinate[4] - old[4]);
  double at[6];
  for (int k = 0; k < 6; ++k) at[k] = old[k] + f * (p.coordinate[k] - old[k]);
  return {at[0], at[1] / at[5], at[2], at[3] / at[5]};
}

// Thick quadrupole between drifts: k^2 = (q/m) g / (c gamma beta), focusing in x for g > 0.
std::vector<double> Matrix(const std::vector<double>& s, double g, double gbz) {
  const double k = std::sqrt(kRatio * g / (kC * gbz)), L = 0.2, d = 0.05;
  auto plane = [&](double x, double xp, bool focus) {
    x += d * xp;
    const double c = focus ? std::cos(k * L) : std::cosh(k * L), sn = focus ? std::sin(k * L) : std::sinh(k * L);
    const double x1 = c * x + sn / k * xp, xp1 = (focus ? -k * sn : k * sn) * x + c * xp;
    return std::vector<double>{x1 + d * xp1, xp1};
  };
  const std::vector<double> a = plane(s[0], s[1], true), b = plane(s[2], s[3], false);
  return {a[0], a[1], b[0], b[1]};
}
}  // namespace

TEST(FieldMapQuadrupole, MatchesTheThickLensMatrixToTheStepError) {
  Lattice lattice;
  Build(lattice, 5.0);
  const double gbz = 0.08;  // about 3 MeV
  const std::vector<std::vector<double>> starts = {{0.001, 0, 0, 0}, {0, 0.002, 0, 0}, {0, 0, 0.001, 0},
                                                   {0, 0, 0, -0.002}, {0.0005, -0.001, -0.0007, 0.0015}};
  // A step of 1 mm of path and one of a quarter of that.
  const double dtCoarse = 1e-3 / (gbz * kC), dtFine = dtCoarse / 4;
  for (const std::vector<double>& s : starts) {
    const std::vector<double> want = Matrix(s, 5.0, gbz);
    const std::vector<double> coarse = Track(lattice, s, gbz, dtCoarse), fine = Track(lattice, s, gbz, dtFine);
    double errCoarse = 0.0, errFine = 0.0;
    for (int k = 0; k < 4; ++k) {
      const double scale = k % 2 == 0 ? 1e-3 : 1e-3 / 0.3;  // 1 mm and the matching angle
      errCoarse = std::max(errCoarse, std::fabs(coarse[k] - want[k]) / scale);
      errFine = std::max(errFine, std::fabs(fine[k] - want[k]) / scale);
    }
    // The field is taken at the start of each step, so the steps that straddle the hard edges make the error of
    // first order in the step: a quarter of the step, about a quarter of the error.
    EXPECT_LT(errFine, 1.5e-3) << s[0] << " " << s[1] << " " << s[2] << " " << s[3];
    EXPECT_LT(errFine, errCoarse / 3.0) << "the error falls with the step";
  }
}
