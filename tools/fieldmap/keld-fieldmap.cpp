// keld-fieldmap: writes field-map sets that Keld can read, so that the code
// can be tried without a map of one's own.
//
//   keld-fieldmap quad     <base> [gradient=T/m] [options]
//   keld-fieldmap solenoid <base> [bz=T] [options]
//   keld-fieldmap rfcell   <base> [e0=MV/m] [frequency=Hz] [options]
//
// Options: length=m (map length, default 0.1), half=m (half width of the
// square cross-section, default 0.02), nx= ny= nz= (mesh intervals, whole
// numbers from 1 to 2147483646, default 20, 20, 50), form=text|binary|both
// (default both). A set larger than the free space of its folder, or a map
// larger than the memory of the machine, is refused before anything is
// written; a write that fails removes its cut file. Status 0 on success, 1
// for a refused or failed set, 2 for a wrong command line. The text form is written
// to <base>, the binary form to <base>b, and the deck names the set by that
// base name in token 9 of a field line.
#include <sys/statvfs.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "tools/fieldmap/FieldMapWriter.h"

namespace {

int Usage(const std::string& why) {
  std::fprintf(stderr,
               "keld-fieldmap: %s\n"
               "usage: keld-fieldmap quad|solenoid|rfcell <base> [name=value ...]\n"
               "  quad:     gradient=T/m (10)          Bx = G y, By = G x\n"
               "  solenoid: bz=T (0.5)                 Bz = B0\n"
               "  rfcell:   e0=MV/m (5) frequency=Hz (352.2e6)\n"
               "            Ez = E0 sin(pi z / length) on axis with its first-order transverse terms\n"
               "  options:  length=m (0.1) half=m (0.02) nx= ny= nz= (20 20 50) form=text|binary|both (both)\n",
               why.c_str());
  return 2;
}

constexpr double kMaxIntervals = 2147483646.0;

int Refuse(const std::string& why) {
  std::fprintf(stderr, "keld-fieldmap: %s\n", why.c_str());
  return 1;
}

std::string Text(double v) {
  char text[64];
  std::snprintf(text, sizeof text, "%.10g", v);
  return text;
}

// Bytes in decimal units with three significant digits.
std::string Bytes(double bytes) {
  static const char* const kUnits[] = {"bytes", "kB", "MB", "GB", "TB", "PB", "EB", "ZB", "YB"};
  int u = 0;
  while (bytes >= 1000.0 && u < 8) bytes /= 1000.0, ++u;
  char text[64];
  std::snprintf(text, sizeof text, u == 0 ? "%.0f %s" : "%.3g %s", bytes, kUnits[u]);
  return text;
}

bool Number(const std::string& text, double& value) {
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0';
}

}  // namespace

int main(int argc, char** argv) {
  // Past the file-size limit a write fails and is reported, instead of the
  // signal ending the program with a cut file.
  std::signal(SIGXFSZ, SIG_IGN);
  if (argc < 3) return Usage("a kind and a base name are needed");
  const std::string kind = argv[1], base = argv[2];
  std::map<std::string, double> value = {{"gradient", 10.0}, {"bz", 0.5},   {"e0", 5.0},  {"frequency", 352.2e6},
                                         {"length", 0.1},    {"half", 0.02}, {"nx", 20.0}, {"ny", 20.0},
                                         {"nz", 50.0}};
  std::string form = "both";
  for (int i = 3; i < argc; ++i) {
    const std::string arg = argv[i];
    const std::size_t eq = arg.find('=');
    if (eq == std::string::npos) return Usage("expected name=value, got " + arg);
    const std::string name = arg.substr(0, eq), text = arg.substr(eq + 1);
    if (name == "form") {
      if (text != "text" && text != "binary" && text != "both") return Usage("form is text, binary or both");
      form = text;
      continue;
    }
    if (value.count(name) == 0) return Usage("unknown setting " + name);
    if (!Number(text, value[name])) return Usage("not a number: " + arg);
  }
  if (kind != "quad" && kind != "solenoid" && kind != "rfcell") return Usage("unknown kind " + kind);
  for (const auto& [name, v] : value)
    if (!std::isfinite(v)) return Usage(name + " must be a finite number");
  // The header keeps each count as a 32-bit integer, and the reader counts
  // nodes as count + 1.
  for (const char* axis : {"nx", "ny", "nz"}) {
    const double n = value[axis];
    if (!(n >= 1.0 && n <= kMaxIntervals && n == std::floor(n)))
      return Usage(std::string(axis) + " must be a whole number from 1 to 2147483646, got " + Text(n));
  }
  fieldmap::MapMesh mesh;
  mesh.nx = static_cast<int>(value["nx"]), mesh.ny = static_cast<int>(value["ny"]);
  mesh.nz = static_cast<int>(value["nz"]);
  mesh.xmin = mesh.ymin = -value["half"];
  mesh.xmax = mesh.ymax = value["half"];
  mesh.zmax = value["length"];
  if (!(value["half"] > 0.0) || !(value["length"] > 0.0)) return Usage("half and length must be positive");
  if (form != "binary" && !base.empty() && base.back() == 'b')
    return Usage("a text set must not have a base name ending in b: Keld would read it as binary");

  // The whole set must fit on the disk, and Keld must be able to hold the
  // map: it keeps every value as a double.
  const int components = kind == "rfcell" ? 6 : 3;
  double bytes = 0.0;
  if (form != "binary") bytes += components * fieldmap::MapFileBytes(mesh, false);
  if (form != "text") bytes += components * fieldmap::MapFileBytes(mesh, true);
  const std::size_t slash = base.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : base.substr(0, slash + 1);
  struct statvfs disk;
  if (statvfs(folder.c_str(), &disk) == 0) {
    const double free = static_cast<double>(disk.f_bavail) * disk.f_frsize;
    if (bytes > free)
      return Refuse((form == "both" ? std::string("the text and binary sets") : "the " + form + " set") +
                    " would take about " + Bytes(bytes) + " (" + Text(mesh.nx + 1.0) + " x " +
                    Text(mesh.ny + 1.0) + " x " + Text(mesh.nz + 1.0) + " nodes), but only " + Bytes(free) +
                    " are free in " + folder);
  }
  const double memory = static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
  const double held = components * 8.0 * (mesh.nx + 1.0) * (mesh.ny + 1.0) * (mesh.nz + 1.0);
  if (memory > 0.0 && held > memory)
    return Refuse("Keld would need " + Bytes(held) + " of memory to hold this map, more than the " + Bytes(memory) +
                  " of this machine; use fewer intervals");

  std::string error;
  bool ok = true;
  for (const std::string& name : {std::string("text"), std::string("binary")}) {
    if (form != "both" && form != name) continue;
    const std::string target = name == "binary" && (base.empty() || base.back() != 'b') ? base + "b" : base;
    if (kind == "quad")
      ok = fieldmap::WriteMapSet(target, 3, mesh, fieldmap::Quadrupole(value["gradient"]), error);
    else if (kind == "solenoid")
      ok = fieldmap::WriteMapSet(target, 3, mesh, fieldmap::Solenoid(value["bz"]), error);
    else
      ok = fieldmap::WriteMapSet(target, 1, mesh,
                                 fieldmap::RadioFrequencyCell(value["e0"], value["length"], value["frequency"]), error);
    if (!ok) {
      std::fprintf(stderr, "keld-fieldmap: %s\n", error.c_str());
      return 1;
    }
    std::printf("wrote the %s set %s (%d x %d x %d intervals, %g m long)\n", name.c_str(), target.c_str(), mesh.nx,
                mesh.ny, mesh.nz, mesh.zmax);
  }
  return 0;
}
