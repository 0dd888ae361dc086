#pragma once
#include <vector>

#include "run/HelperFunc.h"

// The frame of a rotated output plane, the plane that closes a curved set of
// superimposed fields. Row R of Lattice.outputPlane holds the plane's offsets
// dz, dx, dy from the start of the element that ends the set, its angles in
// the x-y, y-z and x-z planes, and the z where the particle goes on behind it.
// The phase scan, the time code and the secondary run all cross the plane
// through this one frame, so that the design particle and the bunch see the
// same geometry. The sines and cosines are taken once per plane.
class PlaneFrame {
 public:
  explicit PlaneFrame(const std::vector<double>& row)
      : dz_(row[0]), dx_(row[1]), dy_(row[2]), rotation_(row[3], row[5], row[4]) {}

  // True when the step from `before` to `now` (x, gamma beta x, y, gamma beta
  // y, z, gamma beta z, laboratory frame) has passed the plane of the element
  // that starts at `elementStart`. Then `at` holds the state where the step
  // meets the plane, positions and momenta in the plane's frame (its z is 0),
  // and `fraction` the part of the step taken up to it.
  bool Crossing(double elementStart, const double* before, const double* now, double* at, double& fraction) const {
    double cur[6] = {now[0] - dx_, now[1], now[2] - dy_, now[3], now[4] - dz_ - elementStart, now[5]};
    rotation_.Apply(cur[0], cur[2], cur[4]);
    if (!(cur[4] > 0.0)) return false;
    double pre[6] = {before[0] - dx_, before[1], before[2] - dy_, before[3], before[4] - dz_ - elementStart,
                     before[5]};
    rotation_.Apply(pre[0], pre[2], pre[4]);
    rotation_.Apply(cur[1], cur[3], cur[5]);
    rotation_.Apply(pre[1], pre[3], pre[5]);
    fraction = pre[4] / (pre[4] - cur[4]);
    for (int k = 0; k < 6; ++k) at[k] = pre[k] + (cur[k] - pre[k]) * fraction;
    return true;
  }

 private:
  double dz_, dx_, dy_;
  FrameRotation rotation_;
};
