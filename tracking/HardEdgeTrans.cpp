// The hard-edge transfer maps of the z code and the preparation of a
// space-charge solve between two map steps.
#include "tracking/HardEdgeTrans.h"

#include <omp.h>

#include <algorithm>
#include <type_traits>
#include <vector>

#include "tracking/MethodMP.h"

namespace {

using constants::kLightSpeed;

enum class MapKind { kNone, kQuad, kSolenoid, kBend };

MapKind KindOf(const Element& e) {
  if (e.type == "quad") return MapKind::kQuad;
  if (e.type == "solenoid") return MapKind::kSolenoid;
  if (e.type == "bend") return MapKind::kBend;
  return MapKind::kNone;
}

// Contiguous block [first, last) of n slots for thread t of T, as equal as
// possible.
void Block(int n, int t, int T, int& first, int& last) {
  const int base = n / T, extra = n % T;
  first = t * base + std::min(t, extra);
  last = first + base + (t < extra ? 1 : 0);
}

// The map of every kind but the bend, on one row: transverse point and the
// slopes of the particle record.
template <class Map>
inline void MapRow(const Map& map, double* r, Particle& p, const RowMotion& m) {
  double phase;
  const double k = map.Strength(m.gamma, m.beta, p.chargeMassRatio, phase);
  const Slopes o = map.Apply({r[0], m.xp, r[2], m.yp}, k, Map::Angles(phase), p.chargeMassRatio);
  r[0] = o.x, r[1] = o.xp * r[5], r[2] = o.y, r[3] = o.yp * r[5];
  double* q = p.coordinate;
  q[0] = o.x, q[1] = o.xp, q[2] = o.y, q[3] = o.yp;
}

// The bend also leaves the path-length term and the momentum in the record.
template <>
inline void MapRow<BendMap>(const BendMap& map, double* r, Particle& p, const RowMotion& m) {
  double zTerm;
  const Slopes o = map.Apply({r[0], m.xp, r[2], m.yp}, m, r[5], zTerm);
  r[0] = o.x, r[1] = o.xp * r[5], r[2] = o.y, r[3] = o.yp * r[5];
  double* q = p.coordinate;
  q[0] = o.x, q[1] = o.xp, q[2] = o.y, q[3] = o.yp, q[4] = zTerm, q[5] = r[5];
}

// The space-charge kick over twice the last step's flight time (entry 4).
inline double KickFactor(double chargeMassRatio, double flightTime) {
  return 2.0 * (chargeMassRatio / kLightSpeed) * flightTime;
}

// One step of one alive row: optional space-charge kick, the flight time of
// this step, the map.
template <class Map, bool Kick>
inline void StepRow(const Map& map, double length, double* r, Particle& p) {
  if (Kick) {
    const double f = KickFactor(p.chargeMassRatio, r[4]);
    const double* E = p.spaceChargeField;
    r[1] += f * E[0];
    r[3] += f * E[1];
    r[5] += f * E[2];
  }
  const RowMotion m = MotionOfRow(r);
  r[4] = length / m.vz;
  r[6] += r[4];
  MapRow(map, r, p, m);
}

// The rows are mapped in batches: the arithmetic of a batch runs in loops
// without calls, which the compiler packs two particles to an instruction,
// and the library's sine, cosine and expm1 in a loop of their own. Each
// particle meets the same operations in the same order as on its own.
constexpr int kBatch = 32;

struct BatchScratch {
  double ratio[kBatch], ex[kBatch], ey[kBatch], ez[kBatch], flight0[kBatch];
  double x0[kBatch], y0[kBatch], px[kBatch], py[kBatch], pz[kBatch];
  double gamma[kBatch], beta[kBatch], xp[kBatch], yp[kBatch], flight[kBatch];
  double strength[kBatch], phase[kBatch], cosine[kBatch], sine[kBatch], expm1[kBatch];
  double x1[kBatch], xp1[kBatch], y1[kBatch], yp1[kBatch], zTerm[kBatch];
};

// Rows [0, count) of `rows` (kWidth values apart) and their records. The
// values are first laid out side by side, so that the packed loops read
// plain arrays. The records are large and read for a value or two each: the
// lines of the next batch's records (`ahead` of them) are asked for on the way.
template <class Map, bool Kick>
void MapBatch(const Map& map, double length, double* rows, Particle* particles, int count, int ahead,
              BatchScratch& s) {
  constexpr int W = CrossingTable::kWidth;
  constexpr bool kBend = std::is_same<Map, BendMap>::value;
  for (int j = 0; j < count; ++j) {
    if (j < ahead) {
      const Particle& next = particles[kBatch + j];
      __builtin_prefetch(&next.chargeMassRatio);
      __builtin_prefetch(next.coordinate, 1);
      if (Kick) __builtin_prefetch(next.spaceChargeField);
    }
    const Particle& p = particles[j];
    const double* r = rows + W * j;
    s.ratio[j] = p.chargeMassRatio;
    s.x0[j] = r[0], s.px[j] = r[1], s.y0[j] = r[2], s.py[j] = r[3], s.pz[j] = r[5];
    if (Kick) {
      s.ex[j] = p.spaceChargeField[0], s.ey[j] = p.spaceChargeField[1], s.ez[j] = p.spaceChargeField[2];
      s.flight0[j] = r[4];
    }
  }
  // Kick, kinematics, strength. Rows that are not carried are computed too
  // and dropped at the end: a branch would keep the loop from packing.
#pragma omp simd
  for (int j = 0; j < count; ++j) {
    double px = s.px[j], py = s.py[j], pz = s.pz[j];
    if (Kick) {
      const double f = KickFactor(s.ratio[j], s.flight0[j]);
      px += f * s.ex[j];
      py += f * s.ey[j];
      pz += f * s.ez[j];
    }
    const RowMotion m = Motion(px, py, pz);
    s.pz[j] = pz;
    s.gamma[j] = m.gamma, s.beta[j] = m.beta, s.xp[j] = m.xp, s.yp[j] = m.yp;
    s.flight[j] = length / m.vz;
    if constexpr (!kBend) s.strength[j] = map.Strength(m.gamma, m.beta, s.ratio[j], s.phase[j]);
  }
  if constexpr (!kBend) {
    if (Map::kAngles)
      for (int j = 0; j < count; ++j) {
        const MapAngles a = rows[W * j + 7] == 1.0 ? Map::Angles(s.phase[j]) : MapAngles{};
        s.cosine[j] = a.c, s.sine[j] = a.s, s.expm1[j] = a.e;
      }
  }
#pragma omp simd
  for (int j = 0; j < count; ++j) {
    const Slopes u = {s.x0[j], s.xp[j], s.y0[j], s.yp[j]};
    Slopes o;
    if constexpr (kBend) {
      RowMotion m;
      m.gamma = s.gamma[j], m.beta = s.beta[j];
      o = map.Apply(u, m, s.pz[j], s.zTerm[j]);
    } else {
      MapAngles a;
      if (Map::kAngles) a.c = s.cosine[j], a.s = s.sine[j], a.e = s.expm1[j];
      o = map.Apply(u, s.strength[j], a, s.ratio[j]);
    }
    s.x1[j] = o.x, s.xp1[j] = o.xp, s.y1[j] = o.y, s.yp1[j] = o.yp;
  }
  for (int j = 0; j < count; ++j) {
    double* r = rows + W * j;
    if (r[7] != 1.0) continue;
    const double pz = s.pz[j];
    r[4] = s.flight[j];
    r[6] += r[4];
    r[0] = s.x1[j], r[1] = s.xp1[j] * pz, r[2] = s.y1[j], r[3] = s.yp1[j] * pz, r[5] = pz;
    double* q = particles[j].coordinate;
    q[0] = s.x1[j], q[1] = s.xp1[j], q[2] = s.y1[j], q[3] = s.yp1[j];
    if constexpr (kBend) q[4] = s.zTerm[j], q[5] = pz;
  }
}

// One parallel region over the bunch's rows. With Mean, the times of the
// alive rows are summed and counted for the mean arrival time.
template <class Map, bool Kick, bool Mean>
void MapRows(const Map& map, double length, CrossingTable& rows, Beam& beam, int threads, double& timeSum,
             long& aliveCount) {
  const int n = beam.particleNumber;
  omp_set_num_threads(std::max(threads, 1));
#pragma omp parallel
  {
    int first, last;
    Block(n, omp_get_thread_num(), omp_get_num_threads(), first, last);
    BatchScratch scratch;
    double sum = 0.0;
    long count = 0;
    for (int i = first; i < last; i += kBatch) {
      const int size = std::min(kBatch, last - i);
      const int ahead = std::max(0, std::min(kBatch, last - i - kBatch));
      MapBatch<Map, Kick>(map, length, rows.Row(i), beam.particle + i, size, ahead, scratch);
      if (Mean)
        for (int j = 0; j < size; ++j) {
          const double* r = rows.Row(i + j);
          if (r[7] != 1.0) continue;
          sum += r[6];
          ++count;
        }
    }
    if (Mean) {
#pragma omp atomic
      timeSum += sum;
#pragma omp atomic
      aliveCount += count;
    }
  }
}

template <class Map>
void MapRowsFor(int mode, const Map& map, double length, CrossingTable& rows, Beam& beam, int threads,
                double& timeSum, long& aliveCount) {
  if (mode == 1)
    MapRows<Map, true, false>(map, length, rows, beam, threads, timeSum, aliveCount);
  else if (mode == 2)
    MapRows<Map, false, true>(map, length, rows, beam, threads, timeSum, aliveCount);
  else
    MapRows<Map, false, false>(map, length, rows, beam, threads, timeSum, aliveCount);
}

// The bend's numbers through its accessor: plane, arc, curvature, kx, ky.
BendMap BendStep(Element& e, double span, double referenceMomentum, double& length) {
  std::vector<double> v;
  e.GetParameter(v);
  const double arc = v[1];
  // A step much shorter than the arc is half of a bend walked in two halves.
  length = 0.85 * arc > span ? 0.5 * arc : arc;
  return BendMap(v[2], v[3], v[4], length, referenceMomentum, v[0] != 0.0);
}

}  // namespace

void MethodMP::HardEdgeTrans(int element, double zStart, double zEnd, CrossingTable& states, Beam& beam,
                             Lattice& lattice, int& kickMode, double& timeOut) {
  Element& e = *lattice.element[element];
  const MapKind kind = KindOf(e);
  if (kind == MapKind::kNone) return;
  const int mode = kickMode;
  kickMode = 0;  // a kick is set for exactly one step
  timeOut = mode == 2 ? 0.0 : 1e10;

  const int n = beam.particleNumber;
  const int threads = cores[1];
  double timeSum = 0.0;
  long aliveCount = 0;
  double length = zEnd - zStart;
  switch (kind) {
    case MapKind::kQuad:
      // Without gradient the quadrupole is the drift that its map tends to.
      if (e.strength == 0.0)
        MapRowsFor(mode, DriftMap{length}, length, states, beam, threads, timeSum, aliveCount);
      else
        MapRowsFor(mode, QuadMap{e.strength, length}, length, states, beam, threads, timeSum, aliveCount);
      break;
    case MapKind::kSolenoid:
      if (e.strength == 0.0)
        MapRowsFor(mode, DriftMap{length}, length, states, beam, threads, timeSum, aliveCount);
      else
        MapRowsFor(mode, SolenoidMap{e.strength, length}, length, states, beam, threads, timeSum, aliveCount);
      break;
    case MapKind::kBend: {
      const BendMap map = BendStep(e, zEnd - zStart, states.Row(n)[5], length);
      MapRowsFor(mode, map, length, states, beam, threads, timeSum, aliveCount);
      break;
    }
    case MapKind::kNone:
      break;
  }

  if (mode == 2) {
    if (aliveCount > 0) timeOut = timeSum / static_cast<double>(aliveCount);
  } else {
    // The earliest time of the rows still carried. A particle lost before or
    // inside the section has a cleared row, whose time 0 would put the bunch
    // back to the start of the line.
    for (int i = 0; i < n; ++i) {
      const double* r = states.Row(i);
      if (r[7] == 1.0) timeOut = std::min(timeOut, r[6]);
    }
    if (timeOut == 1e10) timeOut = states.Row(n)[6];  // nobody left: the reference's time
  }
}

void MethodMP::HardEdgeTrans(int element, CrossingTable& states, Beam& beam, Lattice& lattice) {
  Element& e = *lattice.element[element];
  const MapKind kind = KindOf(e);
  if (kind == MapKind::kNone) return;
  const int n = beam.particleNumber;
  double* r = states.Row(n);
  Particle& p = beam.particle[n];
  double length = e.length;
  switch (kind) {
    case MapKind::kQuad:
      if (e.strength == 0.0)
        StepRow<DriftMap, false>(DriftMap{length}, length, r, p);
      else
        StepRow<QuadMap, false>(QuadMap{e.strength, length}, length, r, p);
      break;
    case MapKind::kSolenoid:
      if (e.strength == 0.0)
        StepRow<DriftMap, false>(DriftMap{length}, length, r, p);
      else
        StepRow<SolenoidMap, false>(SolenoidMap{e.strength, length}, length, r, p);
      break;
    case MapKind::kBend: {
      // The reference follows the design orbit: no slopes, no momentum offset.
      const BendMap map = BendStep(e, e.length, r[5], length);
      const RowMotion m = MotionOfRow(r);
      r[4] = length / m.vz;
      r[6] += r[4];
      double zTerm;
      const Slopes o = map.Apply({r[0], 0.0, r[2], 0.0}, m, r[5], zTerm);
      r[0] = o.x, r[1] = o.xp * r[5], r[2] = o.y, r[3] = o.yp * r[5];
      double* q = p.coordinate;
      q[0] = o.x, q[1] = o.xp, q[2] = o.y, q[3] = o.yp, q[4] = zTerm, q[5] = r[5];
      break;
    }
    case MapKind::kNone:
      break;
  }
}

void MethodMP::HESCFieldPre(Beam& beam, CrossingTable& states, Lattice&, double& time) {
  const int n = beam.particleNumber;
  const double c = kLightSpeed;
  double sums[6] = {0, 0, 0, 0, 0, 0};
  long count = 0;
  omp_set_num_threads(std::max(cores[2], 1));
  // The rows stand at one z with their own times; each is carried on its
  // straight line to the common time, which puts the bunch at one instant.
#pragma omp parallel
  {
    int first, last;
    Block(n, omp_get_thread_num(), omp_get_num_threads(), first, last);
    double local[6] = {0, 0, 0, 0, 0, 0};
    long localCount = 0;
    // In batches, as the maps: the kinematics side by side, then the records
    // and the sums row by row in their order.
    double x[kBatch], y[kBatch], z[kBatch];
    for (int i = first; i < last; i += kBatch) {
      const int size = std::min(kBatch, last - i);
      const double* rows = states.Row(i);
#pragma omp simd
      for (int j = 0; j < size; ++j) {
        const double* r = rows + CrossingTable::kWidth * j;
        const RowMotion m = MotionOfRow(r);
        const double d = r[6] - time;
        x[j] = r[0] - d * (r[1] / m.gamma) * c;
        y[j] = r[2] - d * (r[3] / m.gamma) * c;
        z[j] = -d * m.vz;
      }
      for (int j = 0; j < size; ++j) {
        const double* r = rows + CrossingTable::kWidth * j;
        if (r[7] != 1.0) continue;
        double* rel = beam.particle[i + j].relativeCoordinate;
        rel[0] = x[j];
        rel[1] = r[1];
        rel[2] = y[j];
        rel[3] = r[3];
        rel[4] = z[j];
        rel[5] = r[5];
#pragma GCC unroll 6
        for (int k = 0; k < 6; ++k) local[k] += rel[k];
        ++localCount;
      }
    }
    for (int k = 0; k < 6; ++k) {
#pragma omp atomic
      sums[k] += local[k];
    }
#pragma omp atomic
    count += localCount;
  }

  beam.rms.assign(3, 0.0);
  if (count == 0) {
    beam.average.assign(6, 0.0);
    return;
  }
  for (int k = 0; k < 6; ++k) beam.average[k] = sums[k] / static_cast<double>(count);
  const double* a = beam.average.data();
  const double g = std::sqrt(1.0 + a[1] * a[1] + a[3] * a[3] + a[5] * a[5]);
  const double gz = 1.0 / std::sqrt(1.0 - (a[5] / g) * (a[5] / g));

  double sx = 0.0, sy = 0.0, sz = 0.0;
  omp_set_num_threads(std::max(cores[2], 1));
#pragma omp parallel
  {
    int first, last;
    Block(n, omp_get_thread_num(), omp_get_num_threads(), first, last);
    double lx = 0.0, ly = 0.0, lz = 0.0;
    for (int i = first; i < last; ++i) {
      if (states.Row(i)[7] != 1.0) continue;
      const double* rel = beam.particle[i].relativeCoordinate;
      const double dx = rel[0] - a[0], dy = rel[2] - a[2], dz = gz * (rel[4] - a[4]);
      lx += dx * dx;
      ly += dy * dy;
      lz += dz * dz;
    }
#pragma omp atomic
    sx += lx;
#pragma omp atomic
    sy += ly;
#pragma omp atomic
    sz += lz;
  }
  beam.rms[0] = std::sqrt(sx / static_cast<double>(count));
  beam.rms[1] = std::sqrt(sy / static_cast<double>(count));
  beam.rms[2] = std::sqrt(sz / static_cast<double>(count));
}

void MethodMP::SeHardEdgeTrans(int element, double zFrom, double zTo, std::vector<double>& row, Particle& particle,
                               Lattice& lattice, int reference) {
  Element& e = *lattice.element[element];
  double* r = row.data();
  double length = zTo - zFrom;
  switch (KindOf(e)) {
    case MapKind::kQuad:
      if (e.strength == 0.0)
        StepRow<DriftMap, false>(DriftMap{length}, length, r, particle);
      else
        StepRow<QuadMap, false>(QuadMap{e.strength, length}, length, r, particle);
      break;
    case MapKind::kSolenoid:
      if (e.strength == 0.0)
        StepRow<DriftMap, false>(DriftMap{length}, length, r, particle);
      else
        StepRow<SolenoidMap, false>(SolenoidMap{e.strength, length}, length, r, particle);
      break;
    case MapKind::kBend: {
      // The reference pass leaves its momentum in the bend; the particles
      // after it read it back from there.
      std::vector<double> v;
      if (reference == 1) v.push_back(r[5]);
      e.GetParameter(v);
      const double arc = v[1];
      length = 0.85 * arc > zTo - zFrom ? 0.5 * arc : arc;
      StepRow<BendMap, false>(BendMap(v[2], v[3], v[4], length, v[5], v[0] != 0.0), length, r, particle);
      break;
    }
    case MapKind::kNone:
      break;
  }
}
