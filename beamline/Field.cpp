#include "beamline/Field.h"

#include <cmath>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "beamline/MapLookup.h"

namespace {

constexpr double kPi = 3.141592653589793;
constexpr double kDegree = kPi / 180.0;

// The phase factors depend on the time and the cavity only, not on the
// particle: all particles of one step share them. Each thread keeps the last
// pair, so a step costs two cosines per thread rather than per particle.
struct RfCache {
  double t = std::numeric_limits<double>::quiet_NaN();
  double arrival = 0.0, phaseDeg = 0.0, omega = 0.0;
  double eCos = 0.0, bCos = 0.0;
};
thread_local RfCache rfCache;

// Zero-padded read of place k of an error row that may be short or missing.
double RowValue(const std::vector<double>* row, std::size_t k) {
  return row != nullptr && k < row->size() ? (*row)[k] : 0.0;
}

const std::vector<double>* ErrorRow(const ErrorSet& set, int elementIndex) {
  const std::size_t r = static_cast<std::size_t>(elementIndex) + 1;
  return r < set.size() ? &set[r] : nullptr;
}

}  // namespace

void Field::RfFactors(double t, double arrival, double phaseDeg, double& eCos, double& bCos) const {
  RfCache& c = rfCache;
  if (!(c.t == t && c.arrival == arrival && c.phaseDeg == phaseDeg && c.omega == omega)) {
    const double phi = omega * (t - arrival) + phaseDeg / 180.0 * kPi;
    c.t = t, c.arrival = arrival, c.phaseDeg = phaseDeg, c.omega = omega;
    c.eCos = std::cos(phi);
    c.bCos = std::cos(phi - 1.5707963267948966);
  }
  eCos = c.eCos;
  bCos = c.bCos;
}

void Field::CavityTable(const std::vector<double>& times, const std::vector<double>& phases, double& arrival,
                        double& phaseDeg) const {
  const std::size_t i = static_cast<std::size_t>(cavityIndex);
  if (cavityIndex >= 0 && i < times.size() && i < phases.size()) {
    arrival = times[i];
    phaseDeg = phases[i];
  } else {
    // No phase scan has filled the tables: the phase of the deck, from t = 0.
    arrival = 0.0;
    phaseDeg = deckPhase;
  }
}

bool Field::MapField(double t, double x, double y, double z, FieldMatrix const& fieldM,
                     const std::vector<double>& times, const std::vector<double>& phases, bool errors, double* e,
                     double* b) const {
  if (fieldType == 1) {
    double v[6];
    if (!SampleMap<6>(fieldM, mapIndex, x, y, z, 0, v)) return false;
    double arrival, phaseDeg, eCos, bCos;
    CavityTable(times, phases, arrival, phaseDeg);
    if (errors) phaseDeg += errPhase;
    RfFactors(t, arrival, phaseDeg, eCos, bCos);
    const double fe = (errors ? errEFactor : eFactor) * eCos;
    const double fb = (errors ? errBScale : bScale) * bCos;
    for (int k = 0; k < 3; ++k) {
      e[k] = v[k] * fe;
      b[k] = v[3 + k] * fb;
    }
    return true;
  }
  double v[3];
  if (!SampleMap<3>(fieldM, mapIndex, x, y, z, 0, v)) return false;
  if (fieldType == 2) {
    const double fe = errors ? errEFactor : eFactor;
    for (int k = 0; k < 3; ++k) e[k] = v[k] * fe, b[k] = 0.0;
  } else {
    const double fb = errors ? errBScale : bScale;
    for (int k = 0; k < 3; ++k) e[k] = 0.0, b[k] = v[k] * fb;
  }
  return true;
}

void Field::SumSubFields(double t, const double* c, FieldMatrix const& fieldM, const std::vector<double>& times,
                         const std::vector<double>& phases, bool errors, double* e, double* b, int* lost) const {
  const int count = static_cast<int>(subType.size());
  for (int k = 0; k < count; ++k) {
    const int kind = subType[k];
    double x, y, z;
    const FrameRotation* frame = nullptr;
    const std::vector<double>* err = errors ? &subError[k] : nullptr;
    if (!errors) {
      const std::vector<double>& p = subPlacement[k];
      x = c[0] - p[1], y = c[2] - p[2], z = c[4] - subStart[k];
      frame = &subFrame[k];
    } else if ((*err)[0] == 1.0) {
      x = c[0] - (*err)[1], y = c[2] - (*err)[2], z = c[4] - (*err)[3] - subStart[k];
      frame = &subErrFrame[k];
    } else {
      // Without an error of its own, a sub-field stands on the beam axis.
      x = c[0], y = c[2], z = c[4] - subStart[k];
    }
    if (frame) frame->Apply(x, y, z);
    if (kind == 0) continue;
    if (errors && z > 0.0 && z < subLength[k] && std::sqrt(x * x + y * y) >= subRadius[k]) {
      *lost = 1;
      return;
    }
    const int m = subMapIndex[k];
    double fe[3] = {0.0, 0.0, 0.0}, fb[3] = {0.0, 0.0, 0.0};
    bool electric = false, magnetic = false;
    if (kind == 1) {
      if (!SampleMap<3>(fieldM, m, x, y, z, 0, fb)) continue;
      const double s = errors ? (*err)[7] : subBScale[k];
      for (double& v : fb) v *= s;
      magnetic = true;
    } else if (kind == 3) {
      if (!SampleMap<3>(fieldM, m, x, y, z, 0, fe)) continue;
      const double s = 1e6 * (errors ? (*err)[8] : subEScale[k]);
      for (double& v : fe) v *= s;
      electric = true;
    } else {
      double v[6];
      if (!SampleMap<6>(fieldM, m, x, y, z, 0, v)) continue;
      double arrival, phaseDeg, eCos, bCos;
      CavityTable(times, phases, arrival, phaseDeg);
      if (errors) phaseDeg += (*err)[9];
      RfFactors(t, arrival, phaseDeg, eCos, bCos);
      const double se = 1e6 * (errors ? (*err)[8] : subEScale[k]) * eCos;
      const double sb = (errors ? (*err)[7] : subBScale[k]) * bCos;
      for (int q = 0; q < 3; ++q) fe[q] = v[q] * se, fb[q] = v[3 + q] * sb;
      electric = magnetic = true;
    }
    if (frame) {
      if (electric) RotateBack(*frame, fe[0], fe[1], fe[2]);
      if (magnetic) RotateBack(*frame, fb[0], fb[1], fb[2]);
    }
    for (int q = 0; q < 3; ++q) e[q] += fe[q], b[q] += fb[q];
  }
}

void Field::GetField(double t, Particle& particle, FieldMatrix const& fieldM) {
  const double* c = particle.coordinate;
  double* out = particle.externalField;
  if (fieldType >= 1 && fieldType <= 3) {
    if (std::sqrt(c[0] * c[0] + c[2] * c[2]) >= radius && particle.boundaryMode == 0) {
      particle.lost = 1;
      return;
    }
    double e[3], b[3];
    if (!MapField(t, c[0], c[2], c[4] - zStart, fieldM, fieldM.time, fieldM.phase, false, e, b)) {
      for (int k = 0; k < 6; ++k) out[k] = zeroField[k % 3];
      return;
    }
    for (int k = 0; k < 3; ++k) out[k] = e[k], out[3 + k] = b[k];
  } else if (fieldType == 4) {
    double e[3] = {0.0, 0.0, 0.0}, b[3] = {0.0, 0.0, 0.0};
    SumSubFields(t, c, fieldM, fieldM.time, fieldM.phase, false, e, b, nullptr);
    for (int k = 0; k < 3; ++k) out[k] = e[k], out[3 + k] = b[k];
  }
}

void Field::GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) {
  const double* c = particle.coordinate;
  double* out = particle.externalField;
  if (fieldType >= 1 && fieldType <= 3) {
    double x = c[0] - errDx, y = c[2] - errDy, z = c[4] - errDz - zStart;
    errFrame.Apply(x, y, z);
    // In the misaligned frame the element's own radius is the wall, whatever
    // the aperture list says.
    if (z > 0.0 && z < length && std::sqrt(x * x + y * y) >= radius) {
      particle.lost = 1;
      return;
    }
    double e[3], b[3];
    if (!MapField(t, x, y, z, fieldM, fieldM.time, fieldM.phase, true, e, b)) {
      for (int k = 0; k < 6; ++k) out[k] = zeroField[k % 3];
      return;
    }
    RotateBack(errFrame, e[0], e[1], e[2]);
    RotateBack(errFrame, b[0], b[1], b[2]);
    for (int k = 0; k < 3; ++k) out[k] = e[k], out[3 + k] = b[k];
  } else if (fieldType == 4) {
    // Without an error sample loaded there is no error state to apply.
    if (subError.size() < subType.size()) {
      GetField(t, particle, fieldM);
      return;
    }
    double e[3] = {0.0, 0.0, 0.0}, b[3] = {0.0, 0.0, 0.0};
    int lost = 0;
    SumSubFields(t, c, fieldM, fieldM.time, fieldM.phase, true, e, b, &lost);
    // A particle lost on a sub-field's wall keeps the sum up to that sub-field.
    for (int k = 0; k < 3; ++k) out[k] = e[k], out[3 + k] = b[k];
    if (lost) particle.lost = 1;
  }
}

void Field::GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) {
  const std::vector<double>& c = particle.coordinate;
  if (fieldType >= 1 && fieldType <= 3) {
    if (std::sqrt(c[0] * c[0] + c[2] * c[2]) >= radius) {
      std::cout << "Synchronised particles can't reach the exit plane, problems with the beamline" << std::endl;
      std::exit(1);
    }
    const double z = c[4] - zStart;
    double v[3];
    bool inside;
    if (fieldType == 1) {
      // The scan follows the longitudinal motion: Ez alone.
      inside = SampleMap<1>(fieldM, mapIndex, c[0], c[2], z, 2, &v[2]);
      // The scan sums the phase of the field along the flight from this
      // amplitude, without the time factor.
      particle.axialField = inside ? v[2] * eFactor : 0.0;
      if (inside) {
        double arrival, phaseDeg, eCos, bCos;
        CavityTable(particle.timeList, particle.phaseList, arrival, phaseDeg);
        RfFactors(t, arrival, phaseDeg, eCos, bCos);
        particle.electricField.assign({0.0, 0.0, v[2] * eFactor * eCos});
        particle.magneticField.assign(3, 0.0);
      }
    } else {
      inside = SampleMap<3>(fieldM, mapIndex, c[0], c[2], z, 0, v);
      if (inside && fieldType == 2) {
        particle.electricField.assign({v[0] * eFactor, v[1] * eFactor, v[2] * eFactor});
        particle.magneticField.assign(3, 0.0);
      } else if (inside) {
        particle.electricField.assign(3, 0.0);
        particle.magneticField.assign({v[0] * bScale, v[1] * bScale, v[2] * bScale});
      }
    }
    if (!inside) {
      particle.electricField = zeroField;
      particle.magneticField = zeroField;
    }
  } else if (fieldType == 4) {
    double e[3] = {0.0, 0.0, 0.0}, b[3] = {0.0, 0.0, 0.0};
    SumSubFields(t, c.data(), fieldM, particle.timeList, particle.phaseList, false, e, b, nullptr);
    particle.electricField.assign(e, e + 3);
    particle.magneticField.assign(b, b + 3);
  }
}

void Field::GetParameter(std::vector<double>&) {}

void Field::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  if (!EnoughTokens(token, 10)) std::exit(1);
  index = elementIndex;
  SetBasicParameter(start, token);
  zExit = zStart + length;
  fieldType = DeckInteger(token.at(4));
  frequency = DeckReal(token.at(5));
  deckPhase = DeckReal(token.at(6));
  phaseRad = deckPhase / 180.0 * kPi;
  eScale = DeckReal(token.at(7));
  bScale = DeckReal(token.at(8));
  mapIndex = DeckInteger(token.at(9));
  omega = 6.283185307179586 * frequency;
  eFactor = 1e6 * eScale;
  errEScale = eScale;
  errBScale = bScale;
  errEFactor = eFactor;

  switch (fieldType) {
    case 0:
    case 2:
    case 3:
      return;
    case 1:
      cavityIndex = DeckInteger(token.at(14));
      return;
    case 4:
      if (frequency != 0.0) cavityIndex = DeckInteger(token.at(14));
      break;
    default:
      std::cout << "Field type error!" << std::endl;
      return;
  }

  // The groups of a superposition, twenty tokens each; the first group is
  // the element's own.
  const std::size_t groups = token.size() / 20;
  const double setStart = groups >= 2 ? DeckReal(token.at(12)) : 0.0;
  for (std::size_t k = 1; k < groups; ++k) {
    const std::size_t g = 20 * k;
    int kind = -1;
    if (token[g] == "field") {
      const int groupType = DeckInteger(token[g + 4]);
      if (groupType == 1) {
        kind = 2;
        subEScale.push_back(DeckReal(token[g + 7]));
        subBScale.push_back(DeckReal(token[g + 8]));
        frequency = DeckReal(token[g + 5]);
        deckPhase = DeckReal(token[g + 6]);
        phaseRad = deckPhase / 180.0 * kPi;
        omega = 6.283185307179586 * frequency;
      } else if (groupType == 2) {
        kind = 3;
        subEScale.push_back(DeckReal(token[g + 7]));
        subBScale.push_back(0.0);
      } else if (groupType == 3) {
        kind = 1;
        subEScale.push_back(0.0);
        subBScale.push_back(DeckReal(token[g + 8]));
      } else {
        continue;
      }
      subMapIndex.push_back(DeckInteger(token[g + 9]));
      std::vector<double> p = {DeckReal(token[g + 14]), DeckReal(token[g + 15]), DeckReal(token[g + 16]),
                               DeckReal(token[g + 17]) * kPi / 180.0, DeckReal(token[g + 18]) * kPi / 180.0,
                               DeckReal(token[g + 19]) * kPi / 180.0};
      subPlacement.push_back(p);
    } else if (token[15 * k] == "drift") {
      // The word is looked for fifteen tokens apart while the groups stand
      // twenty apart: that is how the set's layout has always been read.
      kind = 0;
      subMapIndex.push_back(0);
      subEScale.push_back(0.0);
      subBScale.push_back(0.0);
      // A sub-field without a field still gets a placement row, so that row
      // k always belongs to sub-field k.
      subPlacement.push_back(std::vector<double>(6, 0.0));
    } else {
      continue;
    }
    subType.push_back(kind);
    subStart.push_back(zStart + DeckReal(token[g + 12]) - setStart);
    subRadius.push_back(DeckReal(token[g + 2]));
    subLength.push_back(DeckReal(token[g + 1]));
    const std::vector<double>& p = subPlacement.back();
    subFrame.emplace_back(p[3], p[5], p[4]);
  }
  subErrFrame = subFrame;
}

void Field::SetErrPara(ErrorSample const& sample) {
  const int selector = sample.errorSelector;
  if (selector != 0 && selector != 1) {
    std::cout << "errorUsed" << std::endl;
    std::exit(1);
  }
  const bool useStatic = sample.onFlag[2] == 1;
  const bool useDynamic = selector == 0 && sample.onFlag[3] == 1;
  const std::vector<double>* S = useStatic ? ErrorRow(sample.staticSet, index) : nullptr;
  const std::vector<double>* D = useDynamic ? ErrorRow(sample.dynamicSet, index) : nullptr;

  if (fieldType >= 1 && fieldType <= 3) {
    // Static errors set the misalignment from zero, dynamic ones add to it.
    errDx = useStatic ? RowValue(S, 1) * 0.001 : 0.0;
    errDy = useStatic ? RowValue(S, 2) * 0.001 : 0.0;
    errAngleX = useStatic ? RowValue(S, 3) * kPi / 180.0 : 0.0;
    errAngleY = useStatic ? RowValue(S, 4) * kPi / 180.0 : 0.0;
    errDz = useStatic ? RowValue(S, 7) * 0.001 : 0.0;
    if (fieldType != 1) errAngleZ = useStatic ? RowValue(S, 5) * kPi / 180.0 : 0.0;
    // The phase error is not cleared without static errors: repeated dynamic
    // samples add up.
    if (fieldType == 1 && useStatic) errPhase = RowValue(S, 6);
    if (useDynamic) {
      errDx += RowValue(D, 1) * 0.001;
      errDy += RowValue(D, 2) * 0.001;
      errAngleX += RowValue(D, 3) * kPi / 180.0;
      errAngleY += RowValue(D, 4) * kPi / 180.0;
      errDz += RowValue(D, 7) * 0.001;
      if (fieldType == 1)
        errPhase += RowValue(D, 6);
      else
        errAngleZ += RowValue(D, 5) * kPi / 180.0;
    }
    const std::size_t amplitudePlace = fieldType == 1 ? 5 : 6;
    double factor = 1.0;
    if (useStatic && useDynamic)
      factor = 1.0 + 0.01 * RowValue(D, amplitudePlace) + 0.01 * RowValue(S, amplitudePlace);
    else if (useStatic)
      factor = 1.0 + 0.01 * RowValue(S, amplitudePlace);
    else if (useDynamic)
      factor = 1.0 + 0.01 * RowValue(D, amplitudePlace);
    if (fieldType != 3) errEScale = factor * eScale;
    if (fieldType != 2) errBScale = factor * bScale;
    errEFactor = 1e6 * errEScale;
    errFrame = FrameRotation(errAngleZ, errAngleY, errAngleX);
    return;
  }
  if (fieldType != 4) return;

  const std::size_t count = subType.size();
  subError.assign(count, std::vector<double>(12, 0.0));
  for (std::size_t k = 0; k < count; ++k) {
    std::vector<double>& e = subError[k];
    if (subType[k] == 1 || subType[k] == 2) e[7] = subBScale[k];
    if (subType[k] == 3 || subType[k] == 2) e[8] = subEScale[k];
  }
  // One pass per set in use: twelve columns per sub-field in the element's row.
  auto pass = [&](const std::vector<double>* row, bool dynamicPass) {
    for (std::size_t k = 0; k < count; ++k) {
      const std::size_t c = 12 * k;
      if (RowValue(row, c) != 1.0) continue;
      std::vector<double>& e = subError[k];
      e[0] = 1.0;
      e[1] += RowValue(row, c + 1) * 0.001;
      e[2] += RowValue(row, c + 2) * 0.001;
      e[3] += RowValue(row, c + 7) * 0.001;
      e[4] += RowValue(row, c + 3) * kPi / 180.0;
      e[5] += RowValue(row, c + 4) * kPi / 180.0;
      if (subType[k] == 1) {
        e[6] += RowValue(row, c + 5) * kPi / 180.0;
        e[7] = (1.0 + 0.01 * RowValue(row, c + 6)) * subBScale[k];
      } else if (subType[k] == 3) {
        e[6] += RowValue(row, c + 5) * kPi / 180.0;
        e[8] = (1.0 + 0.01 * RowValue(row, c + 6)) * subEScale[k];
      } else if (subType[k] == 2) {
        // Over the dynamic set a cavity keeps its static amplitude error
        // too, while a static sub-field does not.
        double f = 1.0 + 0.01 * RowValue(row, c + 5);
        if (dynamicPass && useStatic) f += 0.01 * RowValue(S, c + 5);
        e[7] = f * subBScale[k];
        e[8] = f * subEScale[k];
        e[9] += RowValue(row, c + 6);
      }
    }
  };
  if (useStatic) pass(S, false);
  if (useDynamic) pass(D, true);
  subErrFrame.clear();
  for (const std::vector<double>& e : subError) subErrFrame.emplace_back(e[6], e[5], e[4]);
}
