// The drawing of an error study: every sample's static and dynamic error set,
// drawn once before the first run. Nothing here seeds the generator, so the
// sets are the same in every process that reads the same deck, and a slice of
// the samples can run anywhere.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>
#include <string>

#include "beamline/Lattice.h"
#include "run/ErrorParameter.h"
#include "run/DeckValue.h"
#include "run/HelperFunc.h"

namespace {

constexpr int kRowWidth = 12;  // values per element (or per member of a set)

double Uniform() { return (std::rand() % 10000) / 10000.0; }

[[noreturn]] void UnknownBeamDistribution(bool dynamic) {
  if (dynamic) std::cout << "\xD6\xB8";
  std::cout << "Specify an unknown error distribution and check the type of error distribution\n" << std::flush;
  std::exit(1);
}

[[noreturn]] void UnknownElementDistribution() {
  std::cout << "Unknown error distribution type, check the error distribution type\n" << std::flush;
  std::exit(1);
}

// Where a value stands: place `at` of a vector, or 0.0 past its end.
template <class V>
double At(const V& v, std::size_t at) {
  return at < v.size() ? static_cast<double>(v[at]) : 0.0;
}

// Start of the block marked `mark` (0 static, 1 dynamic) among the blocks at
// places 0 and 30, or -1.
template <class V>
int BlockOf(const V& v, double mark) {
  for (std::size_t at : {std::size_t(0), std::size_t(30)})
    if (at < v.size() && static_cast<double>(v[at]) == mark) return static_cast<int>(at);
  return -1;
}

bool IsSuperposition(const Element& e) {
  return e.parameter.size() > 4 && e.parameter[0] == "field" && e.parameter[4] == "4";
}

// The empty set of one sample: the beam row, and a row per element when
// element errors are on.
ErrorSet EmptySet(const ErrorParameter& p, const Lattice& lattice) {
  const bool beam = p.onFlag[0] == 1 || p.onFlag[1] == 1;
  const bool elements = p.onFlag[2] == 1 || p.onFlag[3] == 1;
  ErrorSet set(1, std::vector<double>(beam ? 26 : 1, 0.0));
  if (!elements) return set;
  for (const Element* e : lattice.element) {
    std::size_t width = kRowWidth;
    if (IsSuperposition(*e)) width = kRowWidth * (e->parameter.size() / 20 - 1);
    set.emplace_back(width, 0.0);
  }
  return set;
}

// The last switch row of a kind and sense, or null.
const std::vector<int>* SwitchRow(const ErrorParameter& p, int kind, int sense) {
  const std::vector<int>* found = nullptr;
  for (const std::vector<int>& row : p.elementSwitch)
    if (row.size() >= 2 && row[0] == kind && row[1] == sense) found = &row;
  return found;
}

// Beam errors of one block on its sets.
void DrawBeam(const ErrorParameter& p, std::vector<ErrorSet>& sets, bool dynamic) {
  const double mark = dynamic ? 1.0 : 0.0;
  const int values = BlockOf(p.beamError, mark), switches = BlockOf(p.beamSwitch, mark);
  if (values < 0 || switches < 0) return;
  const int a = p.errStep[0], b = p.errStep[1];
  const double type = At(p.beamError, values + 1);
  for (int k = 0; k < 29; ++k) {
    if (At(p.beamSwitch, switches + 1 + k) != 1.0) continue;
    const double v = At(p.beamError, values + 2 + k);
    for (int s = 0; s < b; ++s)
      for (int d = 0; d < a; ++d) {
        std::vector<double>& row = sets[s * a + d][0];
        if (static_cast<std::size_t>(1 + k) >= row.size()) continue;
        const double amplitude = (s + 1) * v / b;
        double value;
        if (type == 0.0) value = dynamic ? amplitude : v;
        else if (type == 1.0) value = Uniform() * amplitude;
        else if (type == 2.0) value = 0.0;
        else UnknownBeamDistribution(dynamic);
        row[1 + k] = value;
        row[0] = 1.0;
      }
  }
}

// One value of an element error by its distribution type. False: the type
// keeps what was drawn before.
bool ElementValue(double type, double v, double amplitude, bool dynamic, double& value) {
  if (type == 0.0) {
    value = dynamic ? amplitude : v;
  } else if (type == 1.0) {
    value = dynamic ? 2.0 * (Uniform() - 0.5) * amplitude : Uniform() * amplitude;
  } else if (type == 2.0) {
    if (!dynamic) UnknownElementDistribution();
    value = GenerateGaussian(0.0, amplitude);
  } else if (type == 3.0) {
    UnknownElementDistribution();
  } else {
    return false;
  }
  return true;
}

// Element errors of one sense (static or dynamic) on its sets.
void DrawElements(const ErrorParameter& p, const Lattice& lattice, std::vector<ErrorSet>& sets, int sense) {
  const int a = p.errStep[0], b = p.errStep[1];
  const bool dynamic = sense == 1;
  std::vector<std::vector<int>> reached(p.elementError.size());
  for (std::size_t r = 0; r < p.elementError.size(); ++r) reached[r] = ErrorReach(p, lattice, r);
  for (int k = 0; k < 18; ++k) {
    for (std::size_t r = 0; r < p.elementError.size(); ++r) {
      const std::vector<double>& row = p.elementError[r];
      if (row.size() < 2) continue;
      if (row[0] == 2.0) {
        // A set of superimposed fields: sub-rows of twenty, one per error line.
        for (std::size_t at = 0; at + 20 <= row.size(); at += 20) {
          if (row[at + 1] != sense) continue;
          const std::vector<int>* sw = SwitchRow(p, row[at + 18] == 1.0 ? 1 : 0, sense);
          if (sw == nullptr || At(*sw, 2 + k) != 1.0) continue;
          const int element = static_cast<int>(row[at + 2]);
          const int member = static_cast<int>(row[at + 19]);
          const double v = At(row, at + 5 + k);
          for (int s = 0; s < b; ++s)
            for (int d = 0; d < a; ++d) {
              double value;
              if (!ElementValue(row[at + 4], v, (s + 1) * v / b, dynamic, value)) continue;
              std::vector<double>& target = sets[s * a + d].at(element + 1);
              const std::size_t base = static_cast<std::size_t>(kRowWidth) * member;
              if (base + 1 + k >= target.size()) continue;
              target[base + 1 + k] = value;
              target[0] = 1.0;
              target[base] = 1.0;
            }
        }
        continue;
      }
      if (row[1] != sense) continue;
      const std::vector<int>* sw = SwitchRow(p, static_cast<int>(row[0]), sense);
      if (sw == nullptr || At(*sw, 2 + k) != 1.0) continue;
      const double v = At(row, 5 + k);
      for (int element : reached[r])
        for (int s = 0; s < b; ++s)
          for (int d = 0; d < a; ++d) {
            double value;
            if (!ElementValue(row[4], v, (s + 1) * v / b, dynamic, value)) continue;
            std::vector<double>& target = sets[s * a + d].at(element + 1);
            if (static_cast<std::size_t>(1 + k) >= target.size()) continue;
            target[1 + k] = value;
            target[0] = 1.0;
          }
    }
  }
}

}  // namespace

std::vector<int> ErrorReach(const ErrorParameter& p, const Lattice& lattice, std::size_t r) {
  std::vector<int> reached;
  const std::vector<double>& row = p.elementError[r];
  if (row.size() < 4 || (row[0] != 0.0 && row[0] != 1.0)) return reached;
  const int wanted = row[0] == 0.0 ? 3 : 1;
  const int first = static_cast<int>(row[2]);
  // The count is a deck value: bounded before it becomes an index.
  const int stop = static_cast<int>(std::max(std::min(row[2] + row[3], static_cast<double>(p.elementNumber)), 0.0));
  for (int i = std::max(first, 0); i < stop && i < static_cast<int>(lattice.element.size()); ++i) {
    const Element& e = *lattice.element[i];
    if (e.parameter.size() > 4 && e.parameter[0] == "field" && DeckInteger(e.parameter[4]) == wanted)
      reached.push_back(i);
  }
  return reached;
}

double rand_gen() { return (std::rand() + 1.0) * 4.656612873077393e-10; }

double normalRandom() {
  const double second = rand_gen();
  const double first = rand_gen();
  return std::sqrt(-2.0 * std::log(first)) * std::cos(6.283185307179586 * second);
}

double GenerateGaussian(double mean, double sigma) {
  static bool toggle = false;
  static double z0 = 0.0, z1 = 0.0;
  toggle = !toggle;
  if (!toggle) return z1 * sigma + mean;
  double u1, u2;
  do {
    u1 = std::rand() / 2147483647.0;
    u2 = std::rand() / 2147483647.0;
  } while (u1 <= 2.2250738585072014e-308);
  z0 = std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185307179586 * u2);
  z1 = std::sqrt(-2.0 * std::log(u1)) * std::sin(6.283185307179586 * u2);
  return z0 * sigma + mean;
}

void GenerateErrorSet(ErrorParameter& parameter, Lattice& lattice) {
  ErrorParameter& p = parameter;
  const int samples = p.errStep[0] * p.errStep[1];
  if (samples < 1) return;
  const ErrorSet empty = EmptySet(p, lattice);
  if (p.onFlag[0] == 1 || p.onFlag[2] == 1) p.staticSets.assign(samples, empty);
  if (p.onFlag[1] == 1 || p.onFlag[3] == 1) p.dynamicSets.assign(samples, empty);
  if (p.onFlag[0] == 1) DrawBeam(p, p.staticSets, false);
  if (p.onFlag[1] == 1) DrawBeam(p, p.dynamicSets, true);
  if (p.onFlag[2] == 1) DrawElements(p, lattice, p.staticSets, 0);
  if (p.onFlag[3] == 1) DrawElements(p, lattice, p.dynamicSets, 1);
}
