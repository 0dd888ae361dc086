#pragma once
// Writes field-map sets in the two forms Keld reads: one file per component,
// a mesh header, then the node values with x varying fastest, then y, then z.
//
// Text form: line 1 "sznum szmax", line 2 "sxnum sxmin sxmax", line 3 "synum
// symin symax", line 4 the mark 1, then the values. Binary form (a base name
// ending in "b"): the same header packed little-endian as int32, double,
// int32, double, double, int32, double, double and the mark as a double (60
// bytes), then the values as 32-bit floats.
//
// Units: lengths in m, electric values in MV/m, magnetic values in T.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

namespace fieldmap {

// A uniform mesh: nx intervals from xmin to xmax, and so on; z from 0 to zmax.
struct MapMesh {
  int nx = 1, ny = 1, nz = 1;
  double xmin = -0.01, xmax = 0.01, ymin = -0.01, ymax = 0.01, zmax = 0.1;
};

// Extensions of a field type: 1 radio-frequency (Ex, Ey, Ez, Bx, By, Bz),
// 2 static electric (Ex, Ey, Ez), 3 static magnetic (Bx, By, Bz).
inline std::vector<std::string> Extensions(int type) {
  if (type == 1) return {".edx", ".edy", ".edz", ".bdx", ".bdy", ".bdz"};
  if (type == 2) return {".esx", ".esy", ".esz"};
  if (type == 3) return {".bsx", ".bsy", ".bsz"};
  return {};
}

// Bytes of one file of a set: the header, then 4 bytes a value in the binary
// form and at most 24 characters a value ("%.17g" and a separator) in the text
// form. Counted in doubles, so that no mesh overflows the count.
inline double MapFileBytes(const MapMesh& m, bool binary) {
  const double nodes = (m.nx + 1.0) * (m.ny + 1.0) * (m.nz + 1.0);
  return binary ? 60.0 + 4.0 * nodes : 128.0 + 24.0 * nodes;
}

// Writes the set `base` of field type `type`; `value(c, x, y, z)` gives
// component c at a node. The form follows the base name: binary when it ends
// in "b". Returns false, with `error` set, when a file cannot be written.
template <class Value>
bool WriteMapSet(const std::string& base, int type, const MapMesh& m, Value value, std::string& error) {
  const std::vector<std::string> ext = Extensions(type);
  if (ext.empty()) {
    error = "unknown field type " + std::to_string(type);
    return false;
  }
  const bool binary = !base.empty() && base.back() == 'b';
  const double dx = (m.xmax - m.xmin) / m.nx, dy = (m.ymax - m.ymin) / m.ny, dz = m.zmax / m.nz;
  for (std::size_t c = 0; c < ext.size(); ++c) {
    const std::string path = base + ext[c];
    std::ofstream out(path, binary ? std::ios::binary | std::ios::trunc : std::ios::trunc);
    if (!out.is_open()) {
      error = "cannot write " + path;
      return false;
    }
    if (binary) {
      char header[60];
      std::size_t at = 0;
      auto put = [&](const void* p, std::size_t n) {
        std::memcpy(header + at, p, n);
        at += n;
      };
      const std::int32_t nz = m.nz, nx = m.nx, ny = m.ny;
      const double mark = 1.0;
      put(&nz, 4), put(&m.zmax, 8), put(&nx, 4), put(&m.xmin, 8), put(&m.xmax, 8);
      put(&ny, 4), put(&m.ymin, 8), put(&m.ymax, 8), put(&mark, 8);
      out.write(header, sizeof header);
    } else {
      char line[256];
      std::snprintf(line, sizeof line, "%d %.17g\n%d %.17g %.17g\n%d %.17g %.17g\n1\n", m.nz, m.zmax, m.nx, m.xmin,
                    m.xmax, m.ny, m.ymin, m.ymax);
      out << line;
    }
    // A row of x is written in pieces, so that a long axis needs no long
    // buffer; a failed write stops at once and takes the cut file away.
    constexpr long long kPiece = 4096;
    std::vector<float> piece(kPiece);
    std::string text;
    char number[32];
    for (long long iz = 0; iz <= m.nz && out; ++iz) {
      for (long long iy = 0; iy <= m.ny && out; ++iy) {
        for (long long from = 0; from <= m.nx && out; from += kPiece) {
          const long long to = std::min<long long>(from + kPiece, m.nx + 1LL);
          text.clear();
          for (long long ix = from; ix < to; ++ix) {
            const double v = value(static_cast<int>(c), m.xmin + ix * dx, m.ymin + iy * dy, iz * dz);
            if (binary) {
              piece[ix - from] = static_cast<float>(v);
            } else {
              std::snprintf(number, sizeof number, ix == 0 ? "%.17g" : " %.17g", v);
              text += number;
            }
          }
          if (binary)
            out.write(reinterpret_cast<const char*>(piece.data()), static_cast<std::streamsize>((to - from) * 4));
          else
            out << text << (to == m.nx + 1LL ? "\n" : "");
        }
      }
    }
    out.close();
    if (!out) {
      std::remove(path.c_str());
      error = "cannot write " + path + " (the disk may be full or the file too large); the cut file was removed";
      return false;
    }
  }
  return true;
}

// Uniform-gradient quadrupole, static magnetic: Bx = G y, By = G x, Bz = 0,
// with G in T/m, over the whole length of the map.
inline auto Quadrupole(double gradient) {
  return [gradient](int c, double x, double y, double) { return c == 0 ? gradient * y : c == 1 ? gradient * x : 0.0; };
}

// Uniform solenoid, static magnetic: Bz = B0 in T.
inline auto Solenoid(double bz) {
  return [bz](int c, double, double, double) { return c == 2 ? bz : 0.0; };
}

// A radio-frequency cell of length L with the axial field Ez(z) = E0 sin(pi
// z / L) (MV/m), zero at both ends, and the paraxial terms that go with it
// to first order in r: from div E = 0, Ex = -(x / 2) dEz/dz and likewise Ey;
// from Ampere's law with E varying as cos(phi), B varies as sin(phi) with
// B_theta = -(omega r / (2 c^2)) Ez, that is Bx = omega y Ez / (2 c^2) and
// By = -omega x Ez / (2 c^2), in T with Ez in V/m. Keld multiplies the
// electric values by cos(phi) and the magnetic ones by cos(phi - pi / 2).
inline auto RadioFrequencyCell(double e0, double cellLength, double frequency) {
  const double pi = 3.141592653589793, c2 = 299792458.0 * 299792458.0;
  const double omega = 2.0 * pi * frequency, k = pi / cellLength;
  return [=](int c, double x, double y, double z) {
    const double ez = e0 * std::sin(k * z), dez = e0 * k * std::cos(k * z);
    switch (c) {
      case 0: return -0.5 * x * dez;
      case 1: return -0.5 * y * dez;
      case 2: return ez;
      case 3: return omega * y * ez * 1e6 / (2.0 * c2);
      case 4: return -omega * x * ez * 1e6 / (2.0 * c2);
      default: return 0.0;
    }
  };
}

}  // namespace fieldmap
