#include "tracking/SectionPlan.h"

#include <string>

namespace {

bool IsHardEdge(const Element* e) { return e->type == "quad" || e->type == "solenoid" || e->type == "bend"; }

}  // namespace

SectionPlan SectionPlan::Build(const Lattice& lattice, const std::vector<double>& outputPlanes) {
  SectionPlan plan;
  const std::vector<Element*>& element = lattice.element;
  const int count = static_cast<int>(element.size());
  int i = 0;
  bool afterSteerer = false;

  // Moves past the current element; a steerer behind it is stepped over and
  // remembered. A steerer as the very last element ends the section.
  auto advance = [&]() {
    ++i;
    if (i < count && element[i]->type == "steerer") {
      ++i;
      afterSteerer = true;
    }
  };

  while (i < count) {
    if (IsHardEdge(element[i])) {
      plan.sectionKind.push_back(kZCode);
      std::vector<int> members, codes;
      while (i < count && IsHardEdge(element[i])) {
        const Element* e = element[i];
        const double start = e->zStart, end = e->zStart + e->length;
        members.push_back(i);
        if (afterSteerer) {
          codes.push_back(i - 1);
          afterSteerer = false;
        } else {
          for (double plane : outputPlanes) {
            if (plane == end) {
              codes.push_back(-2);
              break;
            }
            if (plane > start && plane < end) {
              codes.push_back(-1);
              break;
            }
          }
        }
        if (codes.size() < members.size()) codes.push_back(-3);
        advance();
      }
      plan.sectionElements.push_back(members);
      plan.elementCode.push_back(codes);
    } else {
      plan.sectionKind.push_back(kTimeCode);
      std::vector<double> stops;
      std::vector<int> codes;
      while (i < count && !IsHardEdge(element[i])) {
        const Element* e = element[i];
        const double start = e->zStart, end = e->zStart + e->length;
        if (afterSteerer) {
          stops.push_back(start + 0.5 * e->length);
          codes.push_back(i - 1);
          afterSteerer = false;
        }
        for (double plane : outputPlanes) {
          if (plane > start && plane <= end && (stops.empty() || plane > stops.back())) {
            stops.push_back(plane);
            codes.push_back(-1);
          }
        }
        advance();
      }
      const Element* last = element[i - 1];
      const double end = last->zStart + last->length;
      if (stops.empty() || stops.back() != end) {
        stops.push_back(end);
        codes.push_back(-2);
      }
      plan.stopZ.push_back(stops);
      plan.stopCode.push_back(codes);
    }
  }
  return plan;
}
