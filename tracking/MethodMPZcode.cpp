// The z code: a run of hard-edge elements walked element by element with the
// transfer maps, the bunch held as crossing rows at one z with their own
// arrival times.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include "beam/PhysicalConstants.h"
#include "beamline/Bend.h"
#include "run/HelperFunc.h"
#include "tracking/MethodMP.h"

namespace {

bool IsHardEdgeType(const std::string& type) { return type == "quad" || type == "solenoid" || type == "bend"; }

std::string Named(const Element& e, int index) {
  return "hard-edge " + e.type + " at lattice index " + std::to_string(index);
}

}  // namespace

void MethodMP::CheckZcodeSections(Lattice& lattice, const std::vector<std::vector<int>>& sectionElements,
                                  const std::vector<std::vector<int>>& elementCode) {
  for (std::size_t s = 0; s < sectionElements.size(); ++s) {
    for (std::size_t j = 0; j < sectionElements[s].size(); ++j) {
      const int index = sectionElements[s][j];
      Element& e = *lattice.element[index];
      const double start = e.zStart, end = e.zStart + e.length;
      if (!(e.length > 0.0) || !std::isfinite(e.length))
        errorOut("The " + Named(e, index) + " has length " + FormatNumber(e.length) +
                 " m; a transfer map needs a length above 0");
      if (const Bend* bend = dynamic_cast<const Bend*>(&e)) {
        if (bend->angle == 0.0 || !(bend->curvatureRadius > 0.0) || !std::isfinite(bend->curvatureRadius))
          errorOut("The " + Named(e, index) + " has angle " + FormatNumber(bend->angle * 180.0 / constants::kPi) +
                   " deg and curvature radius " + FormatNumber(bend->curvatureRadius) +
                   " m; a bend needs an angle that is not 0 and a curvature radius above 0");
        if (!(bend->kx > 0.0) || !std::isfinite(bend->kx) || !std::isfinite(bend->ky))
          errorOut("The " + Named(e, index) + " has field index " + FormatNumber(bend->fieldIndex) +
                   "; its transfer map needs a field index from 0 up to, not including, 1");
      }
      // The z code writes one plane per element, at its exit or at its
      // middle, and none in an element whose middle holds a steerer.
      const int code = elementCode[s][j];
      int inside = 0;
      double last = start;
      for (double plane : outputPlanes) {
        if (!(plane > start && plane <= end) || (inside > 0 && plane == last)) continue;
        ++inside;
        last = plane;
        if (inside > 1 || code >= 0)
          errorOut("The output plane at z = " + FormatFixed(plane) + " m lies in the " + Named(e, index) + " (z " +
                   FormatFixed(start) + " to " + FormatFixed(end) + " m), where the z code cannot write it: " +
                   (code >= 0 ? "a steerer acts in this element" : "another plane of this element is written") +
                   "; move the plane into a drift");
      }
    }
  }
}

void MethodMP::zcodeRun(double& time, double& startPlane, std::vector<int>& elementCode,
                        std::vector<int>& sectionElements, CrossingTable& planeCrossing, Beam& beam,
                        Lattice& lattice, PIC& pic, Mesh& mesh, ErrorSample&) {
  CrossingTable& rows = planeCrossing;
  double timeOut = 0.0;
  int kickMode = 0;
  double zEnd = startPlane;
  for (std::size_t j = 0; j < sectionElements.size(); ++j) {
    const int index = sectionElements[j];
    Element& e = *lattice.element[index];
    const int code = elementCode[j];
    const double start = e.zStart, end = e.zStart + e.length;
    zEnd = end;
    kickMode = 0;

    // The type word is compared here once for the element; the maps decide
    // their kind once for each step.
    if (IsHardEdgeType(e.type)) {
      if (spaceCharge != 1 && code < -1) {
        const auto t0 = std::chrono::system_clock::now();
        HardEdgeTrans(index, start, end, rows, beam, lattice, kickMode, timeOut);
        timeMap += ElapsedMicroseconds(t0);
        HardEdgeTrans(index, rows, beam, lattice);
      } else {
        // Cut at the middle: one space-charge kick for the whole element, a
        // plane inside it or a steerer acts there.
        const double zm = start + 0.5 * e.length;
        kickMode = 2;
        auto t0 = std::chrono::system_clock::now();
        HardEdgeTrans(index, start, zm, rows, beam, lattice, kickMode, timeOut);
        ++stepCounter;
        timeMap += ElapsedMicroseconds(t0);
        if (spaceCharge == 1) {
          t0 = std::chrono::system_clock::now();
          HESCFieldPre(beam, rows, lattice, timeOut);
          timeFieldPre += ElapsedMicroseconds(t0);
          if (pic.SelfField(mesh, beam, timeStep) != 0) errorOut(pic.fitFailure);
          kickMode = 1;
        }
        if (code == -1) dstOut(beam, rows, zm);  // at the middle, whatever the plane's own z
        if (code >= 0) ApplySteerer(lattice, beam, rows, code, e.length, false);
        t0 = std::chrono::system_clock::now();
        HardEdgeTrans(index, zm, end, rows, beam, lattice, kickMode, timeOut);
        timeMap += ElapsedMicroseconds(t0);
        HardEdgeTrans(index, rows, beam, lattice);
      }
    }

    if (dumpPeriodicity != 0) beamOut(beam, rows, 1, timeOut, end, stepCounter);
    ++stepCounter;
    if (code == -2) dstOut(beam, rows, end);
  }

  // A map that overflowed (a gradient of 1e300, say) leaves rows that are no
  // numbers; the run stops here rather than hand them on.
  for (int i = 0; i <= beam.particleNumber; ++i) {
    const double* r = rows.Row(i);
    if (r[7] == 1.0 && !std::isfinite(r[0] + r[1] + r[2] + r[3] + r[5] + r[6])) NotFiniteStop(stepCounter);
  }
  const auto t0 = std::chrono::system_clock::now();
  time = zTotcode(zEnd, beam, rows, timeOut);
  timeZtoT += ElapsedMicroseconds(t0);
  startPlane = zEnd;
}
