// Reading of field-map sets: one file per component, all on one uniform
// mesh, in a text or a binary form.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <new>

#include "beamline/Lattice.h"
#include "run/DeckValue.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"

namespace {

// File extensions of each field type, in the order of the node components.
const char* const kRadioFrequency[] = {".edx", ".edy", ".edz", ".bdx", ".bdy", ".bdz"};
const char* const kStaticElectric[] = {".esx", ".esy", ".esz"};
const char* const kStaticMagnetic[] = {".bsx", ".bsy", ".bsz"};

// "场文件打开错误" in the GBK code page, as the console has always shown it.
const char kOpenErrorGbk[] = "\xb3\xa1\xce\xc4\xbc\xfe\xb4\xf2\xbf\xaa\xb4\xed\xce\xf3";

// Binary header: int32 sznum, double szmax, int32 sxnum, double sxmin,
// double sxmax, int32 synum, double symin, double symax, double mark; packed.
constexpr std::size_t kBinaryHeader = 60;

struct Mesh {
  int sz = 0, sx = 0, sy = 0;
  double szmax = 0.0, sxmin = 0.0, sxmax = 0.0, symin = 0.0, symax = 0.0;
  bool operator==(const Mesh& o) const {
    return sz == o.sz && sx == o.sx && sy == o.sy && szmax == o.szmax && sxmin == o.sxmin && sxmax == o.sxmax &&
           symin == o.symin && symax == o.symax;
  }
};

[[noreturn]] void Refuse(const std::string& file, const std::string& why) {
  Initial::errorOut("Field map file " + file + ": " + why);
}

// The whole file, or false when it does not open. A map that cannot be held
// in memory is refused as such rather than read short.
bool ReadWhole(const std::string& path, std::string& bytes) {
  if (IsFolder(path)) Refuse(path, "this is a folder, not a file");
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) return false;
  in.seekg(0, std::ios::end);
  const std::streamoff size = in.tellg();
  in.seekg(0, std::ios::beg);
  try {
    bytes.assign(static_cast<std::size_t>(size), '\0');
  } catch (const std::bad_alloc&) {
    Refuse(path, "its " + std::to_string(size) + " bytes do not fit in memory");
  }
  in.read(&bytes[0], size);
  if (in.gcount() != size) Refuse(path, "only " + std::to_string(in.gcount()) + " of its " + std::to_string(size) +
                                        " bytes could be read");
  return true;
}

template <class T>
T Take(const std::string& bytes, std::size_t& at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof(T));
  at += sizeof(T);
  return value;
}

// The next line of `text` from `at` on, without its end of line.
std::string NextLine(const std::string& text, std::size_t& at) {
  if (at >= text.size()) return std::string();
  std::size_t end = text.find('\n', at);
  if (end == std::string::npos) end = text.size();
  std::string line = text.substr(at, end - at);
  at = end + 1;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

// Line of the text `bytes` that holds byte `at`, from 1.
int LineOf(const std::string& bytes, std::size_t at) {
  return 1 + static_cast<int>(std::count(bytes.begin(), bytes.begin() + std::min(at, bytes.size()), '\n'));
}

// The mesh of the header must span a real volume: a length and ranges that
// are finite and not empty.
void CheckMesh(const Mesh& m, const std::string& file) {
  if (!(std::isfinite(m.szmax) && m.szmax > 0.0))
    Refuse(file, "szmax, the length of the map, must be above 0 m, the header gives " + FormatNumber(m.szmax));
  if (!(std::isfinite(m.sxmin) && std::isfinite(m.sxmax) && m.sxmax > m.sxmin))
    Refuse(file, "sxmax must lie above sxmin, both finite, the header gives " + FormatNumber(m.sxmin) + " to " +
                     FormatNumber(m.sxmax));
  if (!(std::isfinite(m.symin) && std::isfinite(m.symax) && m.symax > m.symin))
    Refuse(file, "symax must lie above symin, both finite, the header gives " + FormatNumber(m.symin) + " to " +
                     FormatNumber(m.symax));
}

// Node count that the header promises, refused when the mesh is degenerate
// or when the file is too short to hold that many values, before anything
// is allocated for them.
std::size_t PromisedNodes(const Mesh& m, const std::string& file, double valuesRoom) {
  if (m.sz < 1 || m.sx < 1 || m.sy < 1)
    Refuse(file, "sznum, sxnum and synum must be at least 1, the header gives " + std::to_string(m.sz) + " " +
                     std::to_string(m.sx) + " " + std::to_string(m.sy));
  const double nodes = (m.sx + 1.0) * (m.sy + 1.0) * (m.sz + 1.0);
  if (nodes > valuesRoom)
    Refuse(file, "the data hold fewer values than the header promises (" + FormatNumber(nodes) + ")");
  return static_cast<std::size_t>(nodes);
}

}  // namespace

int Lattice::SetMatrix(std::string name, int type, FieldMatrix& maps) {
  for (std::size_t i = 0; i < maps.fieldName.size(); ++i)
    if (maps.fieldName[i] == name) return static_cast<int>(i);

  const bool binary = !name.empty() && name.back() == 'b';
  const char* const* extensions = type == 1 ? kRadioFrequency : type == 2 ? kStaticElectric : kStaticMagnetic;
  const int count = type == 1 ? 6 : (type == 2 || type == 3) ? 3 : 0;

  std::vector<double> values;
  std::size_t nodes = 0;
  Mesh first;
  std::string bytes;
  for (int c = 0; c < count; ++c) {
    const std::string file = name + extensions[c];
    if (!ReadWhole(file, bytes)) {
      if (!binary)
        std::cout << "field type1 file error : " << file << std::endl;
      else if (type == 1)
        std::cout << "Field file cannot be opened: " << file << std::endl;
      else
        std::cout << kOpenErrorGbk << " : " << file << std::endl;
      std::exit(1);
    }

    Mesh mesh;
    std::size_t at = 0;
    std::string markText;
    double markValue = 0.0;
    if (binary) {
      if (type == 3 && c > 0)
        std::cout << name << "  fieldM.szmax: " << maps.szmax << " fieldM.sxmax: " << maps.sxmax
                  << " fieldM.sxmin: " << maps.sxmin << std::endl;
      if (bytes.size() < kBinaryHeader) Refuse(file, "the file is shorter than its 60-byte header");
      mesh.sz = Take<std::int32_t>(bytes, at);
      mesh.szmax = Take<double>(bytes, at);
      mesh.sx = Take<std::int32_t>(bytes, at);
      mesh.sxmin = Take<double>(bytes, at);
      mesh.sxmax = Take<double>(bytes, at);
      mesh.sy = Take<std::int32_t>(bytes, at);
      mesh.symin = Take<double>(bytes, at);
      mesh.symax = Take<double>(bytes, at);
      markValue = Take<double>(bytes, at);
    } else {
      // Lines 1 to 3: count and length along z, count and range along x, along y.
      int* counts[3] = {&mesh.sz, &mesh.sx, &mesh.sy};
      double* ranges[3][2] = {{nullptr, &mesh.szmax}, {&mesh.sxmin, &mesh.sxmax}, {&mesh.symin, &mesh.symax}};
      std::vector<std::string> token;
      for (int l = 0; l < 3; ++l) {
        const std::string line = NextLine(bytes, at);
        StringSplit(line, token);
        const std::size_t needed = l == 0 ? 2 : 3;
        if (token.size() < needed)
          Refuse(file, "line " + std::to_string(l + 1) + " must hold " + std::to_string(needed) + " values of the mesh");
        try {
          *counts[l] = DeckInteger(token[0]);
          for (std::size_t k = 1; k < needed; ++k) *ranges[l][k + 2 - needed] = DeckReal(token[k]);
        } catch (const DeckValueError& e) {
          Refuse(file, "line " + std::to_string(l + 1) + ": " + e.what());
        }
      }
      markText = NextLine(bytes, at);
    }

    if (c == 0) {
      first = mesh;
      CheckMesh(mesh, file);
      // Room for values: four bytes each, or a digit and a separator each.
      const double left = at < bytes.size() ? static_cast<double>(bytes.size() - at) : 0.0;
      const double room = binary ? (bytes.size() - kBinaryHeader) / 4.0 : (left + 1.0) / 2.0;
      nodes = PromisedNodes(mesh, file, room);
      maps.sznum = mesh.sz, maps.szmax = mesh.szmax;
      maps.sxnum = mesh.sx, maps.sxmin = mesh.sxmin, maps.sxmax = mesh.sxmax;
      maps.synum = mesh.sy, maps.symin = mesh.symin, maps.symax = mesh.symax;
      try {
        values.assign(nodes * count, 0.0);
      } catch (const std::bad_alloc&) {
        Refuse(file, "the " + std::to_string(nodes) + " nodes of the map do not fit in memory");
      }
      maps.sdx = (maps.sxmax - maps.sxmin) / maps.sxnum;
      maps.sdy = (maps.symax - maps.symin) / maps.synum;
      maps.sdz = maps.szmax / maps.sznum;
    } else if (!(mesh == first)) {
      // The nodes of all files of a set go into one array: a file on another
      // mesh would land in the wrong nodes or beyond them.
      Refuse(file, "its mesh differs from that of " + name + extensions[0]);
    }

    if (binary) {
      if (markValue != 1.0) std::cout << "mark error : " << file << "  " << markValue << std::endl;
      const std::size_t room = (bytes.size() - kBinaryHeader) / 4;
      if (room < nodes)
        Refuse(file, "the data hold fewer values than the header promises (" + std::to_string(nodes) + ")");
      if (room > nodes || (bytes.size() - kBinaryHeader) % 4 != 0)
        Refuse(file, "the data hold more bytes than the " + std::to_string(nodes) + " values the header promises");
      for (std::size_t n = 0; n < nodes; ++n) {
        const float v = Take<float>(bytes, at);
        if (!std::isfinite(v))
          Refuse(file, "value " + std::to_string(n + 1) + " (at byte " + std::to_string(at - 4) + ") is " +
                           FormatNumber(v) + ", not a finite number");
        values[n * count + c] = static_cast<double>(v);
      }
    } else {
      int mark = 0;
      try {
        mark = DeckInteger(markText);
      } catch (const DeckValueError& e) {
        Refuse(file, std::string("line 4, the mark: ") + e.what());
      }
      if (mark != 1) std::cout << "mark error : " << file << "  " << markText << std::endl;
      // Any white space separates the values; line breaks mean nothing.
      const char* begin = bytes.c_str();
      const char* p = begin + std::min(at, bytes.size());
      for (std::size_t n = 0; n < nodes; ++n) {
        while (std::isspace(static_cast<unsigned char>(*p))) ++p;
        if (*p == '\0')
          Refuse(file, "the data hold fewer values than the header promises (" + std::to_string(nodes) + ")");
        char* end = nullptr;
        const double v = std::strtod(p, &end);
        if (end == p || !std::isfinite(v))
          Refuse(file, "line " + std::to_string(LineOf(bytes, p - begin)) + ": \"" +
                           std::string(p, std::strcspn(p, " \t\r\n")) + "\" is not a " +
                           (end == p ? "number" : "finite number"));
        values[n * count + c] = v;
        p = end;
      }
      while (std::isspace(static_cast<unsigned char>(*p))) ++p;
      if (*p != '\0')
        Refuse(file, "line " + std::to_string(LineOf(bytes, p - begin)) + ": the data hold more values than the " +
                         std::to_string(nodes) + " the header promises");
    }
  }
  return maps.AddMap(name, count, std::move(values));
}
