#include "host/RunSummary.h"

#include <dirent.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace host {
namespace {

constexpr int kDataSetFields = 40;
// Columns of DataSet.txt, from 0.
constexpr int kEnergy = 0, kEmittance = 13, kRmsX = 16, kRmsY = 18, kRmsZ = 20, kAlive = 28, kReferenceZ = 33;

std::string G(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.6g", value);
  return buffer;
}

std::string Growth(double value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%+.3g", value);
  return buffer;
}

std::string Join(const std::string& folder, const std::string& name) {
  return folder.empty() || folder.back() == '/' ? folder + name : folder + "/" + name;
}

// The tokens of a deck line as the run reads them: blank and tab separate,
// "!" ends the line and takes an unclosed token with it.
std::vector<std::string> Tokens(const std::string& line) {
  std::vector<std::string> tokens;
  std::size_t start = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '!') return tokens;
    if (c == ' ' || c == '\t') {
      if (start != i) tokens.push_back(line.substr(start, i - start));
      start = i + 1;
    }
  }
  if (start < line.size()) tokens.push_back(line.substr(start));
  return tokens;
}

double Number(const std::vector<std::string>& tokens, std::size_t k, double fallback = 0.0) {
  if (k >= tokens.size()) return fallback;
  char* end = nullptr;
  const double v = std::strtod(tokens[k].c_str(), &end);
  return end == tokens[k].c_str() ? fallback : v;
}

// A length as the run hands it on in a token: six decimals.
double Fixed(double value) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, "%f", value);
  return std::strtod(buffer, nullptr);
}

void Place(std::vector<LatticeSpan>& spans, const std::string& kind, double length) {
  LatticeSpan span;
  span.kind = kind;
  span.zStart = spans.empty() ? 0.0 : spans.back().zStart + spans.back().length;
  span.length = length;
  span.zEnd = span.zStart + length;
  spans.push_back(span);
}

bool IsSetErrorWord(const std::string& key) {
  return key == "err_cav_ncpl_stat" || key == "err_cav_ncpl_dyn" || key == "err_quad_ncpl_stat" ||
         key == "err_quad_ncpl_dyn";
}

// A set of superimposed fields becomes one field element, or, around its one
// radio-frequency member, the sections before, of and behind that member.
struct SuperposedSet {
  std::vector<double> starts, ends;
  std::vector<std::vector<std::string>> members;
  bool expectMember = true, errorLineAllowed = true;

  // Takes the next line; true once the set is closed (that line is used up).
  bool Read(const std::vector<std::string>& t, std::vector<LatticeSpan>& spans) {
    if (expectMember) {
      if (errorLineAllowed && IsSetErrorWord(t[0])) {
        errorLineAllowed = false;
        return false;
      }
      expectMember = false;
      ends.push_back(Number(t, 1) + starts.back());
      members.push_back(t);
      return false;
    }
    if (t[0] == "superpose") {
      starts.push_back(Number(t, 1));
      expectMember = errorLineAllowed = true;
      return false;
    }
    Close(spans);
    return true;
  }

  void Close(std::vector<LatticeSpan>& spans) const {
    int rf = -1;
    for (std::size_t i = 0; i < members.size() && rf < 0; ++i)
      if (members[i][0] == "field" && Number(members[i], 5) != 0.0) rf = static_cast<int>(i);
    const double bigE = *std::max_element(ends.begin(), ends.end());
    const double smallS = *std::min_element(starts.begin(), starts.end());
    if (rf < 0) {
      Place(spans, "field", Fixed(bigE - smallS));
      return;
    }
    const double s = starts[rf], e = ends[rf], cavity = Number(members[rf], 1);
    if (s == 0.0) {
      Place(spans, "field", cavity);
      Place(spans, "field", Fixed(bigE - e));
    } else {
      Place(spans, "field", Fixed(s - 0.0));
      Place(spans, "field", cavity);
      if (e != bigE) Place(spans, "field", Fixed(bigE - e));
    }
  }
};

std::vector<std::string> Lines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// The 40 numbers of a line of DataSet.txt; empty if it has another count.
std::vector<double> DataSetLine(const std::string& line) {
  const std::vector<std::string> t = Tokens(line);
  std::vector<double> v;
  if (t.size() != kDataSetFields) return v;
  for (std::size_t k = 0; k < t.size(); ++k) v.push_back(Number(t, k, NAN));
  return v;
}

struct RunNumbers {
  bool valid = false;
  int in = 0, out = 0;
  std::vector<double> first, last;
  std::vector<double> lostZ;
  bool timed = false;
  double trackingTime = 0.0;
  double TransmissionPercent() const { return 100.0 * out / in; }
};

RunNumbers ReadRun(const std::string& folder) {
  RunNumbers r;
  std::vector<std::string> stats;
  for (const std::string& line : Lines(Join(folder, "DataSet.txt")))
    if (!Tokens(line).empty()) stats.push_back(line);
  if (stats.empty()) return r;
  r.first = DataSetLine(stats.front());
  r.last = DataSetLine(stats.back());
  if (r.first.empty() || r.last.empty()) return r;
  r.out = static_cast<int>(r.last[kAlive]);
  r.in = static_cast<int>(r.first[kAlive]);
  std::ifstream dst(Join(folder, "inData.dst"), std::ios::binary);
  char head[6];
  if (dst.read(head, sizeof head)) {
    std::int32_t count;
    std::memcpy(&count, head + 2, sizeof count);
    r.in = count;
  }
  for (const std::string& line : Lines(Join(folder, "collisionData.txt"))) {
    const std::vector<std::string> t = Tokens(line);
    if (!t.empty()) r.lostZ.push_back(Number(t, 2, NAN));
  }
  for (const std::string& line : Lines(Join(folder, "SimulationTime.txt"))) {
    const std::vector<std::string> t = Tokens(line);
    if (t.empty()) continue;
    r.timed = true;
    r.trackingTime = Number(t, 0, NAN);
  }
  r.valid = true;
  return r;
}

// Where a loss on the pipes lies: the element in force at z, or outside.
const LatticeSpan* ElementAt(const std::vector<LatticeSpan>& lattice, double z) {
  if (lattice.empty() || z < 0.0 || z >= lattice.back().zEnd) return nullptr;
  for (const LatticeSpan& e : lattice)
    if (z < e.zEnd) return &e;
  return nullptr;
}

std::string ThreePlanes(const std::vector<double>& line, int column, double scale) {
  return G(line[column] * scale) + ", " + G(line[column + 1] * scale) + ", " + G(line[column + 2] * scale);
}

// Mean and rms spread (over n), summed in order.
void MeanSpread(const std::vector<double>& v, double& mean, double& spread) {
  double total = 0.0;
  for (double x : v) total += x;
  mean = total / static_cast<double>(v.size());
  double square = 0.0;
  for (double x : v) square += (x - mean) * (x - mean);
  spread = std::sqrt(square / static_cast<double>(v.size()));
}

}  // namespace

std::vector<LatticeSpan> ReadLatticeSpans(const std::string& latticePath) {
  std::vector<LatticeSpan> spans;
  bool waiting = true;
  bool inSet = false;
  SuperposedSet set;
  for (const std::string& line : Lines(latticePath)) {
    const std::vector<std::string> t = Tokens(line);
    if (t.empty()) continue;
    const std::string& key = t[0];
    if (waiting) {
      waiting = key != "start";
      continue;
    }
    if (inSet) {
      if (set.Read(t, spans)) inSet = false;
      continue;
    }
    if (key == "drift" || key == "quad" || key == "solenoid" || key == "steerer" || key == "bend" ||
        key == "field" || key == "rfq") {
      Place(spans, key, Number(t, 1));
    } else if (key == "superpose") {
      set = SuperposedSet();
      set.starts.push_back(Number(t, 1));
      inSet = true;
    } else if (key == "end") {
      break;
    }
  }
  return spans;
}

std::vector<std::string> RunSummaryLines(const std::string& folder, const std::vector<LatticeSpan>& lattice) {
  const RunNumbers r = ReadRun(folder);
  std::vector<std::string> lines;
  if (!r.valid) return lines;
  const int lost = r.in - r.out;
  const int onPipes = static_cast<int>(r.lostZ.size());
  lines.push_back("Run summary:");
  lines.push_back("  particles: " + std::to_string(r.in) + " in, " + std::to_string(r.out) + " out at z = " +
                  G(r.last[kReferenceZ]) + " m, transmission " + G(r.TransmissionPercent()) + " %");
  lines.push_back("  lost: " + std::to_string(lost) + ", of them " + std::to_string(onPipes) +
                  " on the pipes of boundary.txt (collisionData.txt)");
  std::map<std::size_t, int> counts;
  int before = 0, beyond = 0;
  for (double z : lattice.empty() ? std::vector<double>() : r.lostZ) {
    const LatticeSpan* e = ElementAt(lattice, z);
    if (e)
      ++counts[static_cast<std::size_t>(e - lattice.data())];
    else if (z < 0.0)
      ++before;
    else
      ++beyond;
  }
  for (const auto& [index, count] : counts) {
    const LatticeSpan& e = lattice[index];
    lines.push_back("    in element " + std::to_string(index + 1) + " (" + e.kind + ", z " + G(e.zStart) + " to " +
                    G(e.zEnd) + " m): " + std::to_string(count));
  }
  if (before) lines.push_back("    before z = 0: " + std::to_string(before));
  if (beyond) lines.push_back("    beyond the end of the lattice: " + std::to_string(beyond));
  if (lost > onPipes)
    lines.push_back("  lost at element apertures (no line in collisionData.txt): " + std::to_string(lost - onPipes));
  std::string growth;
  for (int p = 0; p < 3; ++p) {
    const double start = r.first[kEmittance + p];
    growth += (p ? ", " : "") + (start != 0.0 ? Growth((r.last[kEmittance + p] / start - 1.0) * 100.0) : "n/a");
  }
  lines.push_back("  mean kinetic energy: " + G(r.last[kEnergy]) + " MeV");
  lines.push_back("  rms size x, y, z: " + G(r.last[kRmsX] * 1e3) + ", " + G(r.last[kRmsY] * 1e3) + ", " +
                  G(r.last[kRmsZ] * 1e3) + " mm");
  lines.push_back("  normalised rms emittance x, y, z: " + ThreePlanes(r.last, kEmittance, 1e6) + " mm mrad");
  lines.push_back("  emittance growth x, y, z: " + growth + " %");
  if (r.timed) lines.push_back("  tracking time: " + G(r.trackingTime) + " s");
  return lines;
}

std::vector<std::string> StudySummaryLines(const std::string& folder, const std::vector<int>& samples) {
  std::vector<std::string> body;
  std::vector<double> transmission, emittance[3];
  for (int i : samples) {
    const RunNumbers r = ReadRun(Join(folder, "output_" + std::to_string(i)));
    if (!r.valid) continue;
    transmission.push_back(r.TransmissionPercent());
    for (int p = 0; p < 3; ++p) emittance[p].push_back(r.last[kEmittance + p]);
    body.push_back("  sample " + std::to_string(i + 1) + " (output_" + std::to_string(i) + "): " +
                   std::to_string(r.out) + " of " + std::to_string(r.in) + " out (" +
                   G(r.TransmissionPercent()) + " %), emittance x, y, z " +
                   ThreePlanes(r.last, kEmittance, 1e6) + " mm mrad");
  }
  std::vector<std::string> lines = {"Study summary: " + std::to_string(body.size()) + " samples"};
  lines.insert(lines.end(), body.begin(), body.end());
  if (body.empty()) return lines;
  double mean, spread;
  MeanSpread(transmission, mean, spread);
  lines.push_back("  transmission: mean " + G(mean) + " %, rms spread " + G(spread) + " %, from " +
                  G(*std::min_element(transmission.begin(), transmission.end())) + " to " +
                  G(*std::max_element(transmission.begin(), transmission.end())) + " %");
  const char* plane[3] = {"x", "y", "z"};
  for (int p = 0; p < 3; ++p) {
    MeanSpread(emittance[p], mean, spread);
    lines.push_back(std::string("  exit emittance ") + plane[p] + ": mean " + G(mean * 1e6) + " mm mrad, rms spread " +
                    G(spread * 1e6) + " mm mrad");
  }
  return lines;
}

std::vector<int> SampleFolders(const std::string& outputFolder) {
  std::vector<int> samples;
  if (DIR* d = opendir(outputFolder.c_str())) {
    while (dirent* entry = readdir(d)) {
      const std::string name = entry->d_name;
      if (name.compare(0, 7, "output_") == 0 && name.size() > 7 &&
          name.find_first_not_of("0123456789", 7) == std::string::npos)
        samples.push_back(std::atoi(name.c_str() + 7));
    }
    closedir(d);
  }
  std::sort(samples.begin(), samples.end());
  return samples;
}

void PrintRunSummary(const std::string& inputFolder, const std::string& outputFolder,
                     const std::vector<int>& samplesBefore, std::chrono::system_clock::time_point start) {
  std::vector<int> samples;
  for (int i : SampleFolders(outputFolder))
    if (!std::binary_search(samplesBefore.begin(), samplesBefore.end(), i)) samples.push_back(i);
  std::vector<std::string> lines;
  if (!samples.empty()) {
    lines = StudySummaryLines(outputFolder, samples);
  } else {
    lines = RunSummaryLines(outputFolder, ReadLatticeSpans(Join(inputFolder, "lattice.txt")));
    if (lines.empty())
      lines.push_back(std::ifstream(Join(outputFolder, "DataSet.txt")).good()
                          ? "Run summary: DataSet.txt holds no statistics (a secondary-beam run writes none)"
                          : "Run summary: the run wrote no DataSet.txt");
  }
  std::cout << std::endl;
  for (const std::string& line : lines) std::cout << line << "\n";
  const double wall = std::chrono::duration<double>(std::chrono::system_clock::now() - start).count();
  std::cout << "Wall time: " << G(wall) << " s" << std::endl;
}

}  // namespace host
