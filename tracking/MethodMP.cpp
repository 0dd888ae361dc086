#include "tracking/MethodMP.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "beam/PhysicalConstants.h"
#include "run/HelperFunc.h"
#include "run/Keld.h"
#include "run/OutputFile.h"
#include "tracking/SectionPlan.h"

namespace {

using constants::kLightSpeed;
using constants::kPi;

bool AllFinite(const double* values, int count) {
  for (int k = 0; k < count; ++k)
    if (!std::isfinite(values[k])) return false;
  return true;
}

template <class T>
void Put(std::string& buffer, const T& value) {
  buffer.append(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

MethodMP::MethodMP() : ThreadPool(DefaultPoolSize()) {}

void MethodMP::errorOut(std::string message) {
  std::cout << message << std::endl;
  std::ofstream log(outputFilePath + "ErrorLog.txt", std::ios::app);
  log << TimeStamp() << "   simulation stage error: " << message << "\n";
  log.close();
  std::exit(2);
}

void MethodMP::Run(Lattice& lattice, Beam& beam, ErrorSample& sample, Boundary& boundaryList) {
  const auto t0 = std::chrono::system_clock::now();

  if (lattice.element.empty()) errorOut("The lattice holds no element, check the start line of lattice.txt");
  if (lattice.outputPlane.empty()) errorOut("lattice.txt has no end line, the output planes are not closed");

  Mesh mesh;
  mesh.Initial(numOfGrid, static_cast<double>(beam.particleNumber));
  PIC pic(mesh, beam, scParameters, lpBoundary);

  const int N = beam.particleNumber;
  CrossingTable planeCrossing(N + 1);
  CrossingTable curveCrossing(N + 1);

  BeginRun(lattice, beam, sample, {"DataSet.txt", "synParticle.txt", "test.txt", "testP.txt", "collisionData.txt"});

  SectionPlan plan = SectionPlan::Build(lattice, outputPlanes);
  latticeEnd = lattice.zEnd.back();

  startTime = std::chrono::system_clock::now();
  startZ = beam.particle[N].coordinate[4];
  if (plan.sectionKind.front() != SectionPlan::kTimeCode)
    errorOut("Do not allow the first element to be a hard-edged model element; very short drift can be added at "
             "the beginning");
  CheckZcodeSections(lattice, plan.sectionElements, plan.elementCode);

  double time = beam.phaseHead;
  double dt = timeStep;
  double startPlane = 0.0;
  LeapFrog leapFrog;
  std::size_t timeSection = 0, zSection = 0;
  for (int kind : plan.sectionKind) {
    if (kind == SectionPlan::kTimeCode) {
      tcodeRun(time, dt, startPlane, plan.stopCode[timeSection], plan.stopZ[timeSection], planeCrossing,
               curveCrossing, beam, lattice, pic, mesh, leapFrog, sample, boundaryList);
      ++timeSection;
    } else {
      zcodeRun(time, startPlane, plan.elementCode[zSection], plan.sectionElements[zSection], planeCrossing, beam,
               lattice, pic, mesh, sample);
      ++zSection;
    }
  }

  std::cout << "Simulation completed, completion time " << TimeStamp() << std::string(77, ' ') << std::endl;
  std::cout << "Total number of cycles " << pic.callCount << ". Solving the number of space charge effects "
            << pic.solveCount << std::endl;
  timeTotal += ElapsedMicroseconds(t0);
  WriteSimulationTime(pic);
}

void MethodMP::BeginRun(Lattice& lattice, Beam& beam, ErrorSample& sample, std::initializer_list<const char*> emptied) {
  errSampleOut(sample);
  if (sample.onFlag[2] == 1 || sample.onFlag[3] == 1) lattice.SetErrInEle(sample);
  if (sample.onFlag[0] == 0 && sample.onFlag[1] == 0 && sample.onFlag[2] == 0 && sample.onFlag[3] == 0)
    sample.sampleNumber = 1;

  std::cout << "The total distance simulated is " << lattice.zEnd.back() << " (m)" << std::endl;
  std::cout << "Start simulation, start time " << TimeStamp() << std::endl;

  for (const char* name : emptied) WriteOutput(outputFilePath + name, "", WriteStage::kTracking);
  if (dumpPeriodicity != 0) WriteBeamSetHeader(beam);
}

void MethodMP::WriteBeamSetHeader(Beam& beam) {
  std::string header;
  header.push_back(static_cast<char>(0x7D));
  header.push_back(static_cast<char>(100));
  Put(header, dumpPeriodicity);
  Put(header, beam.particleNumber);
  Put(header, beam.current * 1000.0);
  Put(header, beam.frequency / 1000000.0);
  Put(header, beam.particle[0].restEnergy);
  WriteOutput(outputFilePath + "BeamSet.plt", header, WriteStage::kTracking,
              "BeamSet.plt open failed, Check permissions");
}

void MethodMP::WriteSimulationTime(const PIC& pic) {
  std::ostringstream out;
  out << std::setprecision(5);
  const std::vector<int>& c = cores;
  out << timeTotal / 1e6 << " Exter:";
  const double external[4] = {timePush, timeMap, timeFieldPre, timeZtoT};
  for (int k = 0; k < 4; ++k) out << (k ? " " : "") << c[k] << ": " << external[k] / 1e6;
  out << " Inter:";
  // The solver accounts in their order; entry 5 of the cores stands twice.
  const int core[7] = {4, 5, 6, 7, 5, 8, 9};
  const double internal[7] = {pic.timeWeight,      pic.timeWeightReduce,      pic.timeTable, pic.timeConvolution,
                              pic.timeConvolutionReduce, pic.timeGradient, pic.timeAllocate};
  for (int k = 0; k < 7; ++k) out << (k ? " " : "") << c[core[k]] << ": " << internal[k] / 1e6;
  out << "\n";
  AppendOutput(outputFilePath + "SimulationTime.txt", out.str(), WriteStage::kTracking);
}

void MethodMP::RestoreFromRow(Particle& p, const double* r, double z, double commonTime) {
  const double c = kLightSpeed;
  const double px = r[1], py = r[3], pz = r[5];
  const double G = std::sqrt(1.0 + px * px + py * py + pz * pz);
  const double v = c * std::sqrt(1.0 - 1.0 / G / G);
  const double vz = std::sqrt(v * v / ((px / pz) * (px / pz) + (py / pz) * (py / pz) + 1.0));
  // A row that arrived d later than the common time stands d vz behind the
  // plane, on its straight line.
  const double d = r[6] - commonTime;
  p.coordinate[0] = r[0] - (px * d / G) * c;
  p.coordinate[1] = px;
  p.coordinate[2] = r[2] - (py * d / G) * c;
  p.coordinate[3] = py;
  p.coordinate[4] = z - d * vz;
  p.coordinate[5] = pz;
}

double MethodMP::zTotcode(double z, Beam& beam, CrossingTable& rows, double& timeOut) {
  const int N = beam.particleNumber;
  omp_set_num_threads(std::max(cores[3], 1));
#pragma omp parallel for schedule(static)
  for (int i = 0; i < N; ++i) {
    Particle& p = beam.particle[i];
    double* r = rows.Row(i);
    p.indexPlane = 0;
    if (r[7] == 1.0) RestoreFromRow(p, r, z, timeOut);
    std::fill(r, r + CrossingTable::kWidth, 0.0);
  }

  // The reference goes back onto the axis.
  Particle& reference = beam.particle[N];
  double* r = rows.Row(N);
  RestoreFromRow(reference, r, z, timeOut);
  reference.coordinate[0] = reference.coordinate[1] = reference.coordinate[2] = reference.coordinate[3] = 0.0;
  reference.indexPlane = 0;
  std::fill(r, r + CrossingTable::kWidth, 0.0);
  return timeOut;
}

void MethodMP::tcodeRun(double& time, double& stepSize, double& startPlane, std::vector<int>& stopCode,
                        std::vector<double>& stopZ, CrossingTable& planeCrossing, CrossingTable& curveCrossing,
                        Beam& beam, Lattice& lattice, PIC& pic, Mesh& mesh, LeapFrog& leapFrog,
                        ErrorSample& sample, Boundary& boundaryList) {
  (void)leapFrog;
  const double dt = stepSize;
  const double c = kLightSpeed;
  if (!(stopZ[0] > beam.zMax))
    errorOut("Tcode won't start, there are particles located behind the output plane. headParticleCoordinates: " +
             FormatFixed(beam.zMax) + " line: " + FormatFixed(stopZ[0]));
  auto lastReport = std::chrono::system_clock::now();

  // Contiguous ranges of slots, one pool task each; the reference slot
  // belongs to none of them.
  const int N = beam.particleNumber;
  const int wanted = std::max(cores[0], 1);
  const int chunk = static_cast<int>(std::ceil(static_cast<double>(N) / wanted));
  std::vector<int> rangeStart(1, 0);
  while (chunk > 0 && rangeStart.back() + chunk < N) rangeStart.push_back(rangeStart.back() + chunk);
  rangeStart.push_back(N);
  cores[0] = static_cast<int>(rangeStart.size()) - 1;
  const int ranges = cores[0];

  PreviousTable previous(N + 1);
  std::vector<double> lineRecord(18, 0.0);
  double referenceCoordinate[6] = {0, 0, 0, 0, 0, 0};
  std::vector<RangeAccumulator> accumulators(ranges);
  for (RangeAccumulator& a : accumulators) a.Reset();
  int stopIndex = 0, stallCount = 0, lastPassed = 0;
  const int stopCount = static_cast<int>(stopZ.size());
  Particle& reference = beam.particle[N];

  auto pushReference = [&]() {
    TcodeTrans(lattice, beam, startPlane, sample, stopZ, planeCrossing, curveCrossing, previous, time, dt,
               referenceCoordinate, accumulators, 0.0, 0, N, N + 1);
  };
  auto recordState = [&]() {
    for (int k = 0; k < 6; ++k) lineRecord[k] = beam.average[k];
    for (int k = 0; k < 6; ++k) lineRecord[6 + k] = reference.coordinate[k];
    lineRecord[12] = beam.gamma;
    lineRecord[13] = beam.aliveNumber;
  };

  UpdateBeamParameters(beam, lattice);
  synPout(beam, time);
  recordState();
  time += dt;
  pushReference();
  std::copy(reference.coordinate, reference.coordinate + 6, referenceCoordinate);
  for (RangeAccumulator& a : accumulators) a.Reset();
  double g = beam.gamma;
  double beta = std::sqrt(1.0 - 1.0 / g / g);

  for (;;) {
    // 1. Self-field. The FFT and IGF solvers run at every step; S-PICNIC
    // only when the bunch length has changed enough, else the last field stays.
    if (spaceCharge == 1 && pic.SelfField(mesh, beam, dt) != 0) errorOut(pic.fitFailure);

    // 2. The pooled push of the bunch.
    const auto pushStart = std::chrono::system_clock::now();
    for (int k = 0; k < ranges; ++k)
      enqueue(TcodeTrans, std::ref(lattice), std::ref(beam), startPlane, std::ref(sample), std::cref(stopZ),
              std::ref(planeCrossing), std::ref(curveCrossing), std::ref(previous), time, dt,
              static_cast<const double*>(referenceCoordinate), std::ref(accumulators), g, k, rangeStart[k],
              rangeStart[k + 1]);
    wait_until_empty();
    wait_until_nothing_in_flight();
    timePush += ElapsedMicroseconds(pushStart);

    // 3. Apertures of the boundary list.
    if (boundary == 1 && !boundaryList.geometry.empty())
      ApplyApertures(beam, lattice, boundaryList, previous, time, dt);

    // 4. Merge the range sums, in range order.
    RangeAccumulator total;
    total.Reset();
    for (const RangeAccumulator& a : accumulators) {
      total.aliveCount += a.aliveCount;
      total.crossedCount += a.crossedCount;
      total.passedCount += a.passedCount;
      total.rangeZMin = std::min(total.rangeZMin, a.rangeZMin);
      total.rangeZMax = std::max(total.rangeZMax, a.rangeZMax);
      for (int k = 0; k < 6; ++k) {
        total.absMax[k] = std::max(total.absMax[k], a.absMax[k]);
        total.sumSquare[k] += a.sumSquare[k];
        total.sumValue[k] += a.sumValue[k];
      }
      for (int k = 0; k < 3; ++k) total.sumCross[k] += a.sumCross[k];
      total.sumRestLength += a.sumRestLength;
    }
    beam.aliveNumber = total.aliveCount;
    lattice.crossedTotal += total.crossedCount;
    beam.zMin = total.rangeZMin;
    beam.zMax = total.rangeZMax;
    const int passed = total.passedCount;

    // 5. Moments of the state before the push; the alive count is that of
    // the same state.
    const double n = lineRecord[13];
    double alpha[3], betaTwiss[3], emittance[3], rmsValue[6];
    for (int k = 0; k < 3; ++k) total.sumCross[k] /= n;
    for (int k = 0; k < 6; ++k) total.sumSquare[k] /= n;
    for (int plane = 0; plane < 3; ++plane) {
      const double p2 = total.sumSquare[2 * plane], a2 = total.sumSquare[2 * plane + 1];
      const double cross = total.sumCross[plane];
      const double e = std::sqrt(p2 * a2 - cross * cross);
      betaTwiss[plane] = p2 / e;
      alpha[plane] = -cross / e;
      emittance[plane] = e * beta * g;
    }
    for (int k = 0; k < 6; ++k) rmsValue[k] = std::sqrt(total.sumSquare[k]);
    for (int k = 0; k < 6; ++k) beam.average[k] = total.sumValue[k] / beam.aliveNumber;
    const double newGamma =
        std::sqrt(1.0 + beam.average[1] * beam.average[1] + beam.average[3] * beam.average[3] +
                  beam.average[5] * beam.average[5]);
    const double newBeta = std::sqrt(1.0 - 1.0 / newGamma / newGamma);
    beam.rms[0] = rmsValue[0];
    beam.rms[1] = rmsValue[2];
    beam.rms[2] = std::sqrt(total.sumRestLength / n);
    // A bunch that is no longer a number must neither be written nor pass a
    // stop: NaN positions compare false and would look like a passed tail.
    // With no particle left the means are 0/0; step 10 reports that case.
    if (beam.aliveNumber > 0 && n > 0 &&
        (!AllFinite(beam.average.data(), 6) || !AllFinite(rmsValue, 6) || !std::isfinite(newGamma)))
      NotFiniteStop(stepCounter - 1);
    beam.gamma = newGamma;
    beam.bunchScale = c / beam.frequency * beam.average[5];
    g = newGamma;
    beta = newBeta;

    // 6. One line of DataSet.txt.
    {
      std::ostringstream line;
      line << (lineRecord[12] - 1.0) * beam.particle[0].restEnergy;
      for (int k = 0; k < 6; ++k) line << ' ' << lineRecord[k];
      for (double v : alpha) line << ' ' << v;
      for (double v : betaTwiss) line << ' ' << v;
      for (double v : emittance) line << ' ' << v;
      for (double v : rmsValue) line << ' ' << v;
      for (double v : total.absMax) line << ' ' << v;
      line << ' ' << lineRecord[13];
      for (int k = 6; k < 12; ++k) line << ' ' << lineRecord[k];
      for (int k = 14; k < 18; ++k) line << ' ' << lineRecord[k];
      line << ' ' << stepCounter - 1 << '\n';
      AppendOutput(outputFilePath + "DataSet.txt", line.str(), WriteStage::kTracking);
    }

    // 7., 8.
    for (RangeAccumulator& a : accumulators) a.Reset();
    synPout(beam, time);

    // 9. The state after the push, and the frame columns.
    recordState();
    FrameColumns(beam, lineRecord, previous[N], curveCrossing.Row(N), startPlane, time, dt);

    // 10.
    if (beam.aliveNumber == 0) errorOut("End of simulation, all particles lost");

    // 11. A rotated plane that everybody, the reference included, has
    // crossed: restart the bunch at the earliest crossing time in the plane.
    if (beam.aliveNumber + 1 == lattice.crossedTotal && lattice.planeIndex < lattice.planeCount) {
      startPlane = lattice.outputPlane[lattice.planeIndex][6];
      lattice.crossedTotal = 0;
      if (startPlane == lattice.zEnd.back()) {
        dstOut(beam, curveCrossing, startPlane);
        return;
      }
      double tmin = 1e10;
      for (int i = 0; i < N; ++i)
        if (curveCrossing[i][7] == 1.0) tmin = std::min(tmin, curveCrossing[i][6]);
      for (int i = 0; i <= N; ++i) {
        if (curveCrossing[i][7] != 1.0)
          beam.particle[i].lost = 1;
        else
          RestoreFromRow(beam.particle[i], curveCrossing.Row(i), startPlane, tmin);
      }
      beam.bendPlane = 0;
      beam.bendAngle = 0.0;
      time = tmin - dt;
      lattice.planeIndex += 1;
      lattice.element[reference.indexElem]->reservedMark = 0;
      curveCrossing.Clear();
    }

    // 12. Stops: done once the tail has passed.
    if (beam.zMin > stopZ[stopIndex]) {
      const int next = stopIndex + 1;
      if (next >= stopCount) {
        if (stopCode[stopIndex] == -1) {
          dstOut(beam, planeCrossing, stopZ[stopIndex]);
          beamOut(beam, planeCrossing, 0, time, reference.coordinate[4], stepCounter);
        }
        return;
      }
      if (!(stopZ[next] > beam.zMax))
        errorOut("The output plane interval is less than the bunch length. Increase the output plane interval and "
                 "restart the program");
      const int code = stopCode[stopIndex];
      const double stopPlane = stopZ[stopIndex];
      stopIndex = next;
      if (code > 0) {
        ApplySteerer(lattice, beam, planeCrossing, code, lattice.element[code + 1]->length, true);
        // Earliest crossing time of the bunch, with the current thread count.
        double tmin = 1e10;
#pragma omp parallel for reduction(min : tmin)
        for (int i = 0; i < N; ++i)
          if (planeCrossing[i][7] == 1.0 && planeCrossing[i][6] < tmin) tmin = planeCrossing[i][6];
        time = zTotcode(stopPlane, beam, planeCrossing, tmin);
        startPlane = stopPlane;
        std::vector<double> remainingZ(stopZ.begin() + stopIndex, stopZ.end());
        std::vector<int> remainingCode(stopCode.begin() + stopIndex, stopCode.end());
        tcodeRun(time, stepSize, startPlane, remainingCode, remainingZ, planeCrossing, curveCrossing, beam, lattice,
                 pic, mesh, leapFrog, sample, boundaryList);
        return;
      }
      dstOut(beam, planeCrossing, stopPlane);
      planeCrossing.Clear();
    }

    // 13. Progress, at most every progressInterval seconds.
    if (ElapsedSeconds(lastReport) > progressInterval) {
      lastReport = std::chrono::system_clock::now();
      simulationProgress(beam, sample);
    }

    // 14. The reference leads the bunch by one push.
    time += dt;
    pushReference();
    SeSynPout(reference);

    // 15. Frame of the statistics, from the reference's direction.
    FrameOfReference(beam, lattice, referenceCoordinate);

    // 16. Dump.
    if (dumpPeriodicity != 0 && stepCounter % dumpPeriodicity == 0)
      beamOut(beam, planeCrossing, 0, time - dt, reference.coordinate[4], stepCounter);
    ++stepCounter;

    // 17. Waiting limit: particles that never reach the last stop.
    if (passed == lastPassed && passed != 0)
      ++stallCount;
    else
      stallCount = 0;
    lastPassed = passed;
    if (stepCounter * 0.5 < stallCount && stopIndex + 1 >= stopCount) {
      dstOut(beam, planeCrossing, stopZ.back());
      errorOut("There are particles that have not passed the exit plane, exceeding the waiting limit, and the "
               "simulation is stopped. Number of particles passing through the outplane:" +
               std::to_string(passed));
    }
  }
}

void MethodMP::ApplySteerer(Lattice& lattice, Beam& beam, CrossingTable& rows, int code, double length,
                            bool clearEntry4) {
  std::vector<double> p;
  lattice.element[code]->GetParameter(p);
  const double k = length * beam.particle[0].chargeMassRatio;
  double a, b;
  if (p[0] == 0.0) {  // magnetic: p[1] = Bx, p[2] = By
    a = p[2] * k / kLightSpeed;
    b = p[1] * k / kLightSpeed;
  } else {  // electric, by c squared
    a = p[1] * k / 8.987551787368176e+16;
    b = p[2] * k / 8.987551787368176e+16;
  }
  for (int i = 0; i < beam.particleNumber; ++i) {
    double* r = rows.Row(i);
    if (r[7] != 1.0) continue;
    if (clearEntry4) r[4] = 0.0;
    if (p[0] == 1.0) {
      const double G = std::sqrt(1.0 + r[1] * r[1] + r[3] * r[3] + r[5] * r[5]);
      const double rowBeta = std::sqrt(1.0 - 1.0 / G / G);
      r[1] += a / rowBeta;
      r[3] += b / rowBeta;
    } else {
      r[1] -= a;
      r[3] += b;
    }
  }
}

void MethodMP::ApplyApertures(Beam& beam, Lattice& lattice, Boundary& boundaryList, PreviousTable& previous,
                              double time, double dt) {
  const double planeZ = lattice.CurrentPlaneZ();
  const bool lastPlanePassed = lattice.planeIndex == static_cast<int>(lattice.outputPlane.size());
  const int last = static_cast<int>(boundaryList.geometry.size()) - 1;
  for (int i = 0; i < beam.particleNumber; ++i) {
    Particle& p = beam.particle[i];
    const double z = p.coordinate[4];
    if (z < 0.0 || z > planeZ || p.lost != 0) {
      if (z > lattice.zEnd.back() && lastPlanePassed && p.lost == 0) p.lost = 2;
      continue;
    }
    int& k = p.indexBoundary;
    while (k > 0 && z < boundaryList.zStart[k]) --k;
    while (k < last && z >= boundaryList.zEnd[k]) ++k;
    boundaryList.geometry[k]->Boundary(time, dt, p, previous[i], outputFilePath);
  }
}

void MethodMP::FrameColumns(Beam& beam, std::vector<double>& lineRecord,
                            const std::array<double, 6>& previousReference,
                            const double* referenceCurveRow, double startPlane, double time,
                            double dt) {
  const double* r = beam.particle[beam.particleNumber].coordinate;
  const std::array<double, 6>& q = previousReference;
  const double before = lineRecord[14];
  double state, plane = 0.0, bendStep = 0.0, zStep = 0.0;
  if (beam.bendPlane == 0) {
    if (before == 2.0 && r[4] < startPlane) {
      state = 2.0;
    } else if (before == 2.0) {
      state = 0.0;
      zStep = r[4] - startPlane;
    } else {
      state = 0.0;
      zStep = r[4] - q[4];
    }
  } else if (before == 2.0) {
    state = 2.0;
  } else {
    const double s = beam.bendPlane;
    const double transverse = beam.bendPlane == 2 ? r[0] - q[0] : r[2] - q[2];
    plane = s;
    if (referenceCurveRow[7] == 1.0) {
      // Only the part of the step up to the rotated plane.
      const double f = 1.0 - (time - referenceCurveRow[6]) / dt;
      state = 2.0;
      bendStep = transverse * f;
      zStep = (r[4] - q[4]) * f;
    } else {
      state = 1.0;
      bendStep = transverse;
      zStep = r[4] - q[4];
    }
  }
  lineRecord[14] = state;
  lineRecord[15] = plane;
  lineRecord[16] = bendStep;
  lineRecord[17] = zStep;
}

void MethodMP::FrameOfReference(Beam& beam, Lattice& lattice, double* referenceCoordinate) {
  Particle& reference = beam.particle[beam.particleNumber];
  const double* q = reference.coordinate;
  Element* e = lattice.element[reference.indexElem];
  const int mark = e->outputMark;
  if (mark == 0) {
    std::copy(q, q + 6, referenceCoordinate);
    beam.bendPlane = 0;
    return;
  }
  // Angle of the reference's direction in the bending plane; near a right
  // angle the sign alone decides.
  const double transverse = mark == 1 ? q[3] : q[1];
  const double pz = q[5];
  double angle, sine, cosine;
  if (std::fabs(pz) <= 0.0003) {
    angle = transverse > 0.0 ? kPi / 2.0 : -kPi / 2.0;
    sine = transverse > 0.0 ? 1.0 : -1.0;
    cosine = 6.123233995736766e-17;
  } else {
    angle = std::atan(transverse / std::fabs(pz));
    sine = std::sin(angle);
    cosine = std::cos(angle);
  }
  beam.bendAngle = angle;
  double* b = referenceCoordinate;
  if (mark == 1) {
    beam.bendPlane = 1;
    b[0] = q[0], b[1] = q[1], b[2] = q[2];
    b[3] = q[3] * cosine + pz * sine;
    b[4] = q[4];
    b[5] = pz * cosine - q[3] * sine;
    e->reservedMark = 1;
  } else {
    beam.bendPlane = 2;
    b[0] = q[0];
    b[1] = q[1] * cosine - pz * sine;
    b[2] = q[2], b[3] = q[3], b[4] = q[4];
    b[5] = pz * cosine + q[1] * sine;
    e->reservedMark = 2;
  }
}

void MethodMP::UpdateBeamParameters(Beam& beam, Lattice&) {
  const int N = beam.particleNumber;
  const double* r = beam.particle[N].coordinate;
  beam.aliveNumber = 0;
  beam.zMin = 1e10;
  beam.zMax = -1e10;
  beam.rms.assign(3, 0.0);
  double sum[6] = {0, 0, 0, 0, 0, 0};
  for (int i = 0; i < N; ++i) {
    Particle& p = beam.particle[i];
    if (p.lost == 1) continue;
    ++beam.aliveNumber;
    double* rel = p.relativeCoordinate;
    const double* q = p.coordinate;
    rel[0] = q[0] - r[0], rel[1] = q[1], rel[2] = q[2] - r[2];
    rel[3] = q[3], rel[4] = q[4] - r[4], rel[5] = q[5];
    for (int k = 0; k < 6; ++k) sum[k] += rel[k];
  }
  for (int k = 0; k < 6; ++k) beam.average[k] = sum[k] / beam.aliveNumber;
  const double* a = beam.average.data();
  beam.gamma = std::sqrt(1.0 + a[1] * a[1] + a[3] * a[3] + a[5] * a[5]);
  const double bz = a[5] / beam.gamma;
  const double gz = 1.0 / std::sqrt(1.0 - bz * bz);
  beam.bunchScale = kLightSpeed / beam.frequency * bz * gz;

  // Laboratory coordinates against the relative means, lost particles too:
  // this is how the first pass has always measured the bunch.
  double sx = 0.0, sy = 0.0, sz = 0.0;
  for (int i = 0; i < N; ++i) {
    const double* q = beam.particle[i].coordinate;
    beam.zMin = std::min(beam.zMin, q[4]);
    beam.zMax = std::max(beam.zMax, q[4]);
    const double dx = q[0] - a[0], dy = q[2] - a[2], dz = q[4] - a[4];
    sx += dx * dx;
    sy += dy * dy;
    sz += (gz * dz) * (gz * dz);
  }
  beam.rms[0] = std::sqrt(sx / beam.aliveNumber);
  beam.rms[1] = std::sqrt(sy / beam.aliveNumber);
  beam.rms[2] = std::sqrt(sz / beam.aliveNumber);
  if (beam.aliveNumber > 0 && (!AllFinite(beam.average.data(), 6) || !AllFinite(beam.rms.data(), 3)))
    NotFiniteStop(stepCounter);
}

void MethodMP::NotFiniteStop(int step) {
  errorOut("The bunch is not finite at step " + std::to_string(step) +
           ": its mean or rms values are not numbers, the run is stopped");
}

void MethodMP::synPout(Beam& beam, double&) {
  const double* q = beam.particle[beam.particleNumber].coordinate;
  const double G = std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]);
  std::ostringstream out;
  out << std::fixed << std::setprecision(12);
  out << TimeStamp() << q[4] << "  " << (G - 1.0) * beam.particle[0].restEnergy << "  " << q[0] << "  " << q[2]
      << "  " << q[1] << "  " << q[3] << "  " << q[5] << "  " << beam.bendPlane << "  " << beam.bendAngle << "\n";
  AppendOutput(outputFilePath + "synParticle.txt", out.str(), WriteStage::kTracking);
}

void MethodMP::SeSynPout(Particle& particle) {
  const double* q = particle.coordinate;
  const double* f = particle.externalField;
  std::ostringstream out;
  out << std::fixed << std::setprecision(12);
  out << q[0] << "  " << q[1] << "  " << q[2] << "  " << q[3] << "  " << q[4] << "  " << q[5] << "  " << f[3]
      << "  " << f[4] << "  " << f[5] << "  " << particle.lost << "\n";
  AppendOutput(outputFilePath + "SeSynParticle.txt", out.str(), WriteStage::kTracking);
}

void MethodMP::beamOut(Beam& beam, CrossingTable& rows, int kind, double time, double z, int step) {
  const int N = beam.particleNumber;
  std::string record;
  record.reserve(25 + 52 * static_cast<std::size_t>(N));
  record.push_back(static_cast<char>(0x7D));
  Put(record, kind);
  Put(record, step);
  Put(record, time);
  Put(record, z);
  for (int i = 0; i < N; ++i) {
    if (kind == 0) {
      const Particle& p = beam.particle[i];
      record.append(reinterpret_cast<const char*>(p.relativeCoordinate), 6 * sizeof(double));
      Put(record, p.lost);
    } else {
      const double* r = rows.Row(i);
      for (int k : {0, 1, 2, 3, 6, 5}) Put(record, r[k]);
      Put(record, static_cast<int>(std::lround(r[7])));
    }
  }
  AppendOutput(outputFilePath + "BeamSet.plt", record, WriteStage::kTracking, "BeamSet.plt cannot be output");
}

void MethodMP::dstOut(Beam& beam, const CrossingTable& rows, double z) {
  const int N = beam.particleNumber;
  const Particle& first = beam.particle[0];
  int count = 0;
  for (int i = 0; i < N; ++i)
    if (rows[i][7] == 1.0) ++count;
  const double currentmA =
      spaceCharge == 1 ? std::fabs(count * first.charge * beam.frequency * 1000.0) : 0.0;
  const double tref = rows[N][6];

  std::string data;
  data.reserve(31 + 48 * static_cast<std::size_t>(count));
  data.push_back(static_cast<char>(0x7D));
  data.push_back(static_cast<char>(100));
  Put(data, count);
  Put(data, currentmA);
  Put(data, beam.frequency / 1000000.0);
  data.push_back(static_cast<char>(0x7D));
  for (int i = 0; i < N; ++i) {
    const double* r = rows.Row(i);
    if (r[7] != 1.0) continue;
    const double G = std::sqrt(1.0 + r[1] * r[1] + r[3] * r[3] + r[5] * r[5]);
    Put(data, r[0] * 100.0);
    Put(data, r[1] / r[5]);
    Put(data, r[2] * 100.0);
    Put(data, r[3] / r[5]);
    Put(data, (r[6] - tref) * kPi * 2.0 * beam.frequency);
    Put(data, (G - 1.0) * first.restEnergy);
  }
  Put(data, first.restEnergy);

  WriteOutput(outputFilePath + "outData_" + FormatFixed(z) + ".dst", data, WriteStage::kTracking);
}

void MethodMP::errSampleOut(ErrorSample& sample) {
  auto write = [](const std::string& name, const ErrorSet& set) {
    std::ostringstream out;
    for (const std::vector<double>& row : set) {
      for (double v : row) out << v << ' ';
      out << '\n';
    }
    WriteOutput(outputFilePath + name, out.str(), WriteStage::kTracking);
  };
  if (sample.onFlag[0] == 1 || sample.onFlag[2] == 1) write("StaticErrorData.txt", sample.staticSet);
  if (sample.onFlag[1] == 1 || sample.onFlag[3] == 1) write("DynamicErrorData.txt", sample.dynamicSet);
}

void MethodMP::testOut(Beam& beam) {
  const int N = beam.particleNumber;
  {
    std::ostringstream out;
    out << std::fixed << std::setprecision(12);
    for (int i = 0; i < N; ++i) {
      const Particle& p = beam.particle[i];
      if (p.lost != 0) continue;
      for (int k = 0; k < 6; ++k) out << p.coordinate[k] << "  ";
      for (int k = 0; k < 6; ++k) out << p.relativeCoordinate[k] << (k < 5 ? "  " : "\n");
    }
    AppendOutput(outputFilePath + "testP.txt", out.str(), WriteStage::kTracking);
  }
  std::ostringstream out;
  out << std::fixed << std::setprecision(12);
  const double* r = beam.particle[N].coordinate;
  const double columns[13] = {beam.average[0], beam.average[1], beam.average[2], beam.average[3], beam.average[4],
                              beam.average[5], beam.rms[0],     beam.rms[1],     beam.rms[2],     beam.bendAngle,
                              r[0],            r[2],            r[4]};
  for (int k = 0; k < 13; ++k) {
    out << columns[k];
    if (k == 12) break;
    out << (k == 3 || k == 4 ? " " : "  ");
  }
  out << "\n";
  AppendOutput(outputFilePath + "test.txt", out.str(), WriteStage::kTracking);
}

void MethodMP::simulationProgress(Beam& beam, ErrorSample&) {
  const double zr = beam.particle[beam.particleNumber].coordinate[4];
  // The goal is the last output plane; a run without planes goes to the end.
  const double L = outputPlanes.empty() ? latticeEnd : outputPlanes.back();
  progressPercent = (zr - startZ) / (L - startZ + zr - beam.zMin) * 100.0;
  progressElapsed = ElapsedMicroseconds(startTime) / 1e6;
  progressRemaining = (100.0 * progressElapsed / progressPercent - progressElapsed) * 0.5;

  // Hours above an hour, minutes above a minute, else seconds.
  auto inUnits = [](double seconds) {
    char text[64];
    if (seconds > 3600.0)
      std::snprintf(text, sizeof text, "%.2fh", seconds / 3600.0);
    else if (seconds > 60.0)
      std::snprintf(text, sizeof text, "%.2fmin", seconds / 60.0);
    else
      std::snprintf(text, sizeof text, "%.0fs", seconds);
    return std::string(text);
  };
  std::printf("Simulate progress %.2f%%. Estimated remaining time %s. Run time %s  %d  %.2fm%30s\r", progressPercent,
              inUnits(progressRemaining).c_str(), inUnits(progressElapsed).c_str(), beam.aliveNumber, zr, "");
  std::fflush(stdout);
}
