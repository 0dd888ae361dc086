// The secondary-beam run: particles that do not act on each other, each
// tracked alone through the section plan with its own clock and time step.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <iostream>

#include "beam/LeapFrog.h"
#include "beamline/PlaneFrame.h"
#include "run/HelperFunc.h"
#include "run/Keld.h"
#include "run/OutputFile.h"
#include "tracking/MethodMP.h"
#include "tracking/SectionPlan.h"

void MethodMP::SeRun(Lattice& lattice, Beam& beam, ErrorSample& sample, Boundary& boundaryList) {
  if (lattice.element.empty()) errorOut("The lattice holds no element, check the start line of lattice.txt");
  if (lattice.outputPlane.empty()) errorOut("lattice.txt has no end line, the output planes are not closed");

  // Built as in a bunch run; no solver is ever called on it.
  Mesh mesh;
  mesh.Initial(numOfGrid, static_cast<double>(beam.particleNumber));
  PIC pic(mesh, beam, scParameters, lpBoundary);

  BeginRun(lattice, beam, sample,
           {"DataSet.txt", "synParticle.txt", "SeSynParticle.txt", "testP.txt", "collisionData.txt"});

  SectionPlan plan = SectionPlan::Build(lattice, outputPlanes);
  latticeEnd = lattice.zEnd.back();
  if (plan.sectionKind.front() != SectionPlan::kTimeCode)
    errorOut("Do not allow the first element to be a hard-edged model element; very short drift can be added at "
             "the beginning");
  CheckZcodeSections(lattice, plan.sectionElements, plan.elementCode);

  LeapFrog leapFrog;
  const int N = beam.particleNumber;
  auto runAll = [&](Particle& p, int reference) {
    std::vector<double> row(8, 0.0);
    std::size_t timeSection = 0, zSection = 0;
    for (int kind : plan.sectionKind) {
      if (kind == SectionPlan::kTimeCode) {
        SeTRun(plan.stopCode[timeSection], plan.stopZ[timeSection], row, p, lattice, leapFrog, sample, reference,
               boundaryList);
        ++timeSection;
      } else {
        SeZRun(plan.elementCode[zSection], plan.sectionElements[zSection], row, p, lattice, sample, reference);
        ++zSection;
      }
    }
  };

  runAll(beam.particle[N], 1);
  std::cout << "Synchronized particles have completed simulation." << std::endl;

  // A particle may take ten times the reference's steps in one time-code
  // section; one that needs more is lost.
  stepLimit *= 10;
  for (int i = 0; i < N; ++i) {
    runAll(beam.particle[i], 0);
    std::printf("Simulating the %d particle.  total number of particles %d.                          \r", i, N);
    std::fflush(stdout);
  }

  int alive = 0;
  for (int i = 0; i < N; ++i)
    if (beam.particle[i].lost != 1) ++alive;
  std::cout << "Simulation completed, completion time " << TimeStamp() << "   Number of particles not lost: " << alive
            << std::string(77, ' ') << std::endl;
}

namespace {

// The element index for z, as the kernel steps it, except that raising stops
// at an element that ends a curved set: the particle leaves it only through
// the set's rotated plane.
void StepIndexHeldByCurve(const Lattice& lattice, Particle& p) {
  const double z = p.coordinate[4];
  const int last = static_cast<int>(lattice.zEnd.size()) - 1;
  int& i = p.indexElem;
  while (i < last && z >= lattice.zEnd[i] && lattice.element[i]->outputMark == 0) ++i;
  while (i > 0 && lattice.zStart[i] > z) --i;
}

}  // namespace

void MethodMP::SeTRun(std::vector<int>& stopCode, std::vector<double>& stopZ, std::vector<double>& row,
                      Particle& particle, Lattice& lattice, LeapFrog&, ErrorSample& sample, int reference,
                      Boundary& boundaryList) {
  Particle& p = particle;
  if (p.lost != 0) return;
  double* q = p.coordinate;
  const double lastEnd = lattice.zEnd.back();
  const bool errorsOn = sample.onFlag[2] != 0 || sample.onFlag[3] != 0;
  const int stopCount = static_cast<int>(stopZ.size());
  const bool apertures = boundary == 1 && !boundaryList.geometry.empty();
  const int lastGeometry = static_cast<int>(boundaryList.geometry.size()) - 1;
  const int planeRows = static_cast<int>(lattice.outputPlane.size());
  std::array<double, 6> previous;
  int steps = 0;

  // The reference's longest section sets the limit of the others.
  auto finish = [&]() {
    if (reference == 1 && stepLimit < steps) stepLimit = steps;
  };

  for (;;) {
    // 1. Step count.
    ++steps;
    if (reference == 1)
      SeSynPout(p);
    else if (steps > stepLimit) {
      p.lost = 1;
      return;
    }

    // 2., 3. Range and field.
    const double z = q[4];
    const bool outOfRange = z < 0.0 || p.lost != 0 || z > lastEnd;
    const bool onCurve = lattice.element[p.indexElem]->outputMark != 0;
    if ((outOfRange && !onCurve) || p.lost != 0) {
      if (z > lastEnd) p.lost = 2;
      if (z < 0.0) p.lost = 1;
      for (double& f : p.totalField) f = 0.0;
    } else if (z < 0.0) {
      for (double& f : p.totalField) f = 0.0;
    } else {
      if (errorsOn)
        lattice.LocateElement(p);
      else
        StepIndexHeldByCurve(lattice, p);
      Element* e = lattice.element[p.indexElem];
      if (errorsOn && Lattice::UsesErrorField(sample, p.indexElem))
        e->GetErrField(p.startTime, p, lattice.fieldM);
      else
        e->GetField(p.startTime, p, lattice.fieldM);
      for (int k = 0; k < 6; ++k) p.totalField[k] = p.externalField[k];
    }

    // 4. State before the push.
    for (int k = 0; k < 6; ++k) previous[k] = q[k];
    if (p.lost != 0) {
      finish();
      return;
    }

    // 5. Push by the particle's own step; the clock moves with it.
    const double dt = p.delayTime;
    BorisStep(dt, p);
    p.startTime += dt;

    // 6. Crossing of the next stop of this section.
    if (p.indexPlane >= 0 && p.indexPlane < stopCount) {
      const double stopPlane = stopZ[p.indexPlane];
      if (q[4] >= stopPlane && lattice.element[p.indexElem]->outputMark == 0) {
        const double f = (stopPlane - previous[4]) / (q[4] - previous[4]);
        for (int k = 0; k < 6; ++k) row[k] = previous[k] + (q[k] - previous[k]) * f;
        row[6] = p.startTime + (f - 1.0) * dt;
        row[7] = 1.0;
        ++p.indexPlane;
        if (p.indexPlane == stopCount) {
          if (stopCode[stopCount - 1] == -1) SePlaneOut(p, row, stopPlane, reference);
          finish();
          return;
        }
      }
    }

    // 7. Rotated plane at the end of a curved set: the particle itself is
    // put on the plane, in the plane's frame.
    if (p.nextBend < lattice.planeCount && lattice.element[p.indexElem]->outputMark != 0) {
      const std::vector<double>& R = lattice.outputPlane[p.nextBend];
      double at[6], f;
      if (PlaneFrame(R).Crossing(lattice.zStart[p.indexElem], previous.data(), q, at, f)) {
        for (int k = 0; k < 6; ++k) q[k] = at[k];
        q[4] = R[6];
        p.startTime += (f - 1.0) * dt;
        if (R[6] == lastEnd) {
          for (int k = 0; k < 6; ++k) row[k] = q[k];
          row[6] = p.startTime;
          row[7] = 1.0;
          SePlaneOut(p, row, R[6], reference);
          finish();
          return;
        }
        ++p.indexElem;
        ++p.nextBend;
      }
    }

    // 8. Apertures, with the particle's own next plane in place of the
    // bunch's.
    if (apertures) {
      const double zNow = q[4];
      const double planeZ = p.nextBend < planeRows ? lattice.outputPlane[p.nextBend][6] : -1e300;
      if (zNow < 0.0 || zNow > planeZ || p.lost != 0) {
        if (zNow > lastEnd && p.nextBend == planeRows && p.lost == 0) p.lost = 2;
        continue;
      }
      int& k = p.indexBoundary;
      while (k > 0 && zNow < boundaryList.zStart[k]) --k;
      while (k < lastGeometry && zNow >= boundaryList.zEnd[k]) ++k;
      boundaryList.geometry[k]->Boundary(p.startTime, dt, p, previous, outputFilePath);
    }
  }
}

void MethodMP::SeZRun(std::vector<int>& elementCode, std::vector<int>& sectionElements, std::vector<double>& row,
                      Particle& particle, Lattice& lattice, ErrorSample&, int reference) {
  Particle& p = particle;
  if (p.lost != 0 || row[7] != 1.0) return;
  const int count = static_cast<int>(sectionElements.size());
  for (int j = 0; j < count; ++j) {
    const int index = sectionElements[j];
    Element& e = *lattice.element[index];
    // Steerers are not applied to secondary particles, and every element
    // is mapped whole.
    if (e.type == "quad" || e.type == "solenoid" || e.type == "bend")
      SeHardEdgeTrans(index, lattice.zStart[index], lattice.zStart[index] + e.length, row, p, lattice, reference);
    if (std::sqrt(row[0] * row[0] + row[2] * row[2]) >= e.radius) {
      p.lost = 1;
      return;
    }
    if (elementCode[j] == -2) SePlaneOut(p, row, lattice.zEnd[index], reference);
  }

  const double zEnd = lattice.zEnd[sectionElements.back()];
  p.indexPlane = 0;
  if (row[7] != 1.0) {
    p.lost = 1;
  } else {
    // Each particle keeps its own clock: no move to a common time.
    double* q = p.coordinate;
    q[0] = row[0], q[1] = row[1], q[2] = row[2], q[3] = row[3], q[5] = row[5];
    q[4] = zEnd;
    p.startTime = row[6];
  }
  std::fill(row.begin(), row.end(), 0.0);
}

void MethodMP::SePlaneOut(Particle& particle, std::vector<double>& row, double z, int reference) {
  const std::string name = outputFilePath + "outData_" + FormatFixed(z) + ".txt";
  if (reference == 1) {
    WriteOutput(name, "", WriteStage::kTracking);
    return;
  }
  std::ostringstream out;
  out << particle.index << " " << std::fixed << std::setprecision(15) << row[0] << "  " << row[1] << "  " << row[2]
      << "  " << row[3] << "  " << row[6] << "  " << row[5] << "\n";
  AppendOutput(name, out.str(), WriteStage::kTracking);
}
