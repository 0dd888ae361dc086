#include "tracking/TcodeTrans.h"

#include <algorithm>
#include <cmath>

#include "beam/LeapFrog.h"
#include "beamline/PlaneFrame.h"

namespace {

constexpr int kPushBlock = 8;

// The Boris pushes of a block of slots, the values side by side so that the
// arithmetic packs; slots with lost == 1 are left untouched.
struct PushBlock {
  double x[kPushBlock], px[kPushBlock], y[kPushBlock], py[kPushBlock], z[kPushBlock], pz[kPushBlock];
  double f[6][kPushBlock], ratio[kPushBlock];

  // Slot j of the block: its coordinates, field in force and ratio q/m.
  void Set(int j, const double* c, const double* field, double chargeMassRatio) {
    x[j] = c[0], px[j] = c[1], y[j] = c[2], py[j] = c[3], z[j] = c[4], pz[j] = c[5];
#pragma GCC unroll 6
    for (int k = 0; k < 6; ++k) f[k][j] = field[k];
    ratio[j] = chargeMassRatio;
  }

  void Push(Particle* slots, int count, double dt) {
#pragma omp simd
    for (int j = 0; j < count; ++j)
      BorisKernel(dt, ratio[j], f[0][j], f[1][j], f[2][j], f[3][j], f[4][j], f[5][j], x[j], px[j], y[j], py[j], z[j],
                  pz[j]);
    for (int j = 0; j < count; ++j) {
      Particle& p = slots[j];
      if (p.lost == 1) continue;
      double* c = p.coordinate;
      c[0] = x[j], c[1] = px[j], c[2] = y[j], c[3] = py[j], c[4] = z[j], c[5] = pz[j];
    }
  }
};

}  // namespace

void TcodeTrans(Lattice& lattice, Beam& beam, double startPlane, ErrorSample& sample,
                const std::vector<double>& stopZ, CrossingTable& planeCrossing, CrossingTable& curveCrossing,
                PreviousTable& previous, double time, double timeStep, const double* referenceCoordinate,
                std::vector<RangeAccumulator>& accumulators, double gamma, int range, int first, int end) {
  // Work on a local copy of the range's sums and store it once at the end.
  RangeAccumulator acc = accumulators[range];

  const int reference = beam.particleNumber;
  const double* a = beam.average.data();
  const bool driveAll = beam.zMin > startPlane;
  const double dt = timeStep;
  const int stopCount = static_cast<int>(stopZ.size());
  const double planeZ = lattice.CurrentPlaneZ();
  const bool lastPlanePassed = lattice.planeIndex == static_cast<int>(lattice.outputPlane.size());
  const double lastEnd = lattice.zEnd.back();
  const bool errorsOn = sample.onFlag[2] != 0 || sample.onFlag[3] != 0;
  const bool curvedPlane = lattice.planeIndex < lattice.planeCount;
  const int bendPlane = beam.bendPlane;
  const double cb = std::cos(beam.bendAngle), sb = std::sin(beam.bendAngle);
  const double* b = referenceCoordinate;
  const std::vector<double>* planeRow = curvedPlane ? &lattice.outputPlane[lattice.planeIndex] : nullptr;
  static const std::vector<double> kNoPlane(7, 0.0);
  const PlaneFrame planeFrame(planeRow ? *planeRow : kNoPlane);

  // The slots go in blocks: first the moments, fields in force and previous
  // states of a block, then the pushes of the block side by side (a push is a
  // long chain of square roots and divisions, and a block's chains overlap),
  // then the rest slot by slot. Each slot meets its own steps in their order,
  // and the sums take the slots in their order.
  PushBlock block;
  for (int blockFirst = first; blockFirst < end; blockFirst += kPushBlock) {
    const int blockEnd = std::min(end, blockFirst + kPushBlock);
    for (int i = blockFirst; i < blockEnd; ++i) {
      Particle& p = beam.particle[i];
      const double* q = p.coordinate;
      const double* rel = p.relativeCoordinate;
      const bool counted = p.lost != 1 && i != reference;

      // 1. Moments of the state before this push.
      if (counted) {
        acc.rangeZMin = std::min(acc.rangeZMin, q[4]);
        acc.rangeZMax = std::max(acc.rangeZMax, q[4]);
        const double dx = rel[0] - a[0], dy = rel[2] - a[2], dz = rel[4] - a[4];
        const double xp = (rel[1] - a[1]) / rel[5];
        const double yp = (rel[3] - a[3]) / rel[5];
        const double d = (rel[5] - a[5]) / rel[5];
        acc.sumRestLength += (gamma * dz) * (gamma * dz);
        const double v[6] = {dx, xp, dy, yp, dz, d};
#pragma GCC unroll 6
        for (int k = 0; k < 6; ++k) {
          acc.absMax[k] = std::max(acc.absMax[k], std::fabs(v[k]));
          acc.sumSquare[k] += v[k] * v[k];
        }
        acc.sumCross[0] += dx * xp;
        acc.sumCross[1] += dy * yp;
        acc.sumCross[2] += dz * d;
      }

      // 2. Field in force: the tail drifts field-free up to the start plane.
      if (driveAll || q[4] > startPlane) {
#pragma GCC unroll 6
        for (int k = 0; k < 6; ++k) p.totalField[k] = p.externalField[k] + p.spaceChargeField[k];
      } else {
        for (int k = 0; k < 6; ++k) p.totalField[k] = 0.0;
      }

      // 3. State before the push, for interpolated crossings.
      std::array<double, 6>& old = previous[i];
#pragma GCC unroll 6
      for (int k = 0; k < 6; ++k) old[k] = q[k];
      block.Set(i - blockFirst, q, p.totalField, p.chargeMassRatio);
    }

    // 4., 5. The pushes of the slots not lost.
    block.Push(beam.particle + blockFirst, blockEnd - blockFirst, dt);

    for (int i = blockFirst; i < blockEnd; ++i) {
      Particle& p = beam.particle[i];
      double* q = p.coordinate;
      double* rel = p.relativeCoordinate;
      const std::array<double, 6>& old = previous[i];
      if (p.lost == 1) {
        if (i != reference && p.indexPlane == 1) ++acc.passedCount;
        continue;
      }
      // 6. Relative coordinates in the frame of the statistics.
      const double dx = q[0] - b[0], dy = q[2] - b[2], dz = q[4] - b[4];
      if (bendPlane == 0) {
        rel[0] = dx, rel[1] = q[1], rel[2] = dy, rel[3] = q[3], rel[4] = dz, rel[5] = q[5];
      } else if (bendPlane == 1) {
        // The last value takes gamma beta x, as the statistics frame defines it.
        rel[0] = dx, rel[1] = q[1];
        rel[2] = cb * dy + sb * dz, rel[3] = cb * q[3] + sb * q[5];
        rel[4] = cb * dz - sb * dy, rel[5] = cb * q[5] - sb * q[1];
      } else {
        rel[0] = cb * dx - sb * dz, rel[1] = cb * q[1] - sb * q[5];
        rel[2] = dy, rel[3] = q[3];
        rel[4] = sb * dx + cb * dz, rel[5] = sb * q[1] + cb * q[5];
      }

      // 7. External field for the next step.
      const double z = q[4];
      if (z >= 0.0 && z <= planeZ && p.lost == 0) {
        lattice.LocateElement(p);
        Element* e = lattice.element[p.indexElem];
        if (errorsOn && Lattice::UsesErrorField(sample, p.indexElem))
          e->GetErrField(time, p, lattice.fieldM);
        else
          e->GetField(time, p, lattice.fieldM);
      } else {
        if (z > lastEnd && lastPlanePassed && p.lost == 0) p.lost = 2;
        for (int k = 0; k < 6; ++k) p.externalField[k] = 0.0;
      }

      // 8. Crossing of the current stop, interpolated to the stop itself.
      if (p.indexPlane >= 0 && p.indexPlane < stopCount) {
        const double stop = stopZ[p.indexPlane];
        if (z >= stop && planeZ >= stop) {
          const double f = (stop - old[4]) / (z - old[4]);
          double* row = planeCrossing.Row(i);
          for (int k = 0; k < 6; ++k) row[k] = old[k] + (q[k] - old[k]) * f;
          row[6] = time + (f - 1.0) * dt;
          row[7] = 1.0;
          ++p.indexPlane;
        }
      }

      // 9. Crossing of a rotated plane, in the plane's own frame.
      if (curvedPlane && lattice.element[p.indexElem]->outputMark != 0 && curveCrossing[i][7] == 0.0) {
        double at[6], f;
        if (planeFrame.Crossing(lattice.zStart[p.indexElem], old.data(), q, at, f)) {
          double* row = curveCrossing.Row(i);
          for (int k = 0; k < 6; ++k) row[k] = at[k];
          row[6] = time + (f - 1.0) * dt;
          row[7] = 1.0;
          ++acc.crossedCount;
        }
      }

      // 10. Sums of the state after the push.
      if (p.lost != 1 && i != reference) {
        ++acc.aliveCount;
#pragma GCC unroll 6
        for (int k = 0; k < 6; ++k) acc.sumValue[k] += rel[k];
      }
      if (i != reference && p.indexPlane == 1) ++acc.passedCount;
    }
  }
  accumulators[range] = acc;
}
