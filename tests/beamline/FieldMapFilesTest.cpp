// Lattice::SetMatrix: the text and binary forms of a map set, sharing by name, the console lines and the failures.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "beamline/Lattice.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"
#include "tools/fieldmap/FieldMapWriter.h"

namespace {
using keldtest::TempDir;
using keldtest::WriteFile;

// Nodes 1 m apart from x = -1, y = 0, z = 0, so that a node's value tells its indices: 1000 c + ix + 10 iy + 100 iz.
const fieldmap::MapMesh kMesh = [] {
  fieldmap::MapMesh m;
  m.nx = 2, m.ny = 3, m.nz = 4, m.xmin = -1, m.xmax = 1, m.ymin = 0, m.ymax = 3, m.zmax = 4;
  return m;
}();
double Indexed(int c, double x, double y, double z) { return 1000.0 * c + (x + 1.0) + 10.0 * y + 100.0 * z; }

void Write(const std::string& base, int type, const fieldmap::MapMesh& m = kMesh) {
  std::string error;
  ASSERT_TRUE(fieldmap::WriteMapSet(base, type, m, Indexed, error)) << error;
}

std::string Escaped(const std::string& text) {
  std::string out;
  for (char ch : text) {
    if (std::string("\\^$.|?*+()[]{}").find(ch) != std::string::npos) out += '\\';
    out += ch;
  }
  return out;
}

// Runs SetMatrix in a death test and expects status 1 and exactly `message` as the whole console output.
// Forked in place, so that the child sees the same temporary folder.
void ExpectRefusal(const std::string& name, int type, const std::string& message) {
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Lattice lattice;
        lattice.SetMatrix(name, type, lattice.fieldM);
      },
      testing::ExitedWithCode(1), "^" + Escaped(message) + "\n$");
}
}  // namespace

// Both forms give the same nodes, x fastest; a name is loaded once whatever type asks again; the last character
// of the name chooses the form; a static magnetic binary set reports the mesh before each further header.
TEST(FieldMapFiles, TextAndBinaryFormsGiveTheSameNodes) {
  TempDir dir;
  const std::string text = dir.file("cav"), binary = dir.file("cavb"), magnet = dir.file("magb");
  Write(text, 1);
  Write(binary, 1);
  Write(magnet, 3);
  Lattice lattice;
  FieldMatrix& f = lattice.fieldM;
  testing::internal::CaptureStdout();
  EXPECT_EQ(lattice.SetMatrix(text, 1, f), 0);
  EXPECT_EQ(lattice.SetMatrix(binary, 1, f), 1);
  EXPECT_EQ(lattice.SetMatrix(text, 3, f), 0) << "shared by name, the type is not compared";
  EXPECT_EQ(lattice.SetMatrix(magnet, 3, f), 2);
  const std::string shown = "  fieldM.szmax: 4 fieldM.sxmax: 1 fieldM.sxmin: -1\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), magnet + shown + magnet + shown);
  ASSERT_EQ(f.fieldCount, 3);
  ASSERT_EQ(f.field[0].size(), 3u * 4 * 5 * 6);
  EXPECT_EQ(f.field[0], f.field[1]);
  for (int iz = 0; iz <= 4; ++iz)
    for (int iy = 0; iy <= 3; ++iy)
      for (int ix = 0; ix <= 2; ++ix)
        for (int c = 0; c < 6; ++c)
          ASSERT_EQ(f.field[0][((iz * 4 + iy) * 3 + ix) * 6 + c], 1000.0 * c + ix + 10 * iy + 100 * iz)
              << ix << " " << iy << " " << iz << " " << c;
  EXPECT_EQ(f.field[2][3 + 1], 1001.0) << "second value of .bsy is node (1, 0, 0)";
  EXPECT_EQ(std::vector<int>({f.nx[1], f.ny[1], f.nz[1], f.components[0], f.components[2]}),
            std::vector<int>({2, 3, 4, 6, 3}));
  EXPECT_EQ(std::vector<double>({f.xmin[0], f.xmax[0], f.ymin[0], f.ymax[0], f.zmax[0], f.dx[0], f.dy[0], f.dz[0]}),
            std::vector<double>({-1, 1, 0, 3, 4, 1, 1, 1}));
  EXPECT_EQ(f.fieldName, std::vector<std::string>({text, binary, magnet}));
}

// Line breaks in the data mean nothing; a mark other than 1 is reported per file and the map still loads.
TEST(FieldMapFiles, TextLayoutAndMarkError) {
  TempDir dir;
  const std::string header = "1 2.0\n1 0 1\n1 0 1\n";
  std::string perLine, oneRow;
  for (int n = 0; n < 8; ++n) perLine += std::to_string(n) + ".5\n", oneRow += " " + std::to_string(n) + ".5";
  const char* ext[] = {".esx", ".esy", ".esz"};
  for (const char* e : ext) {
    WriteFile(dir.file("lines") + e, header + "1\n" + perLine);
    WriteFile(dir.file("rows") + e, header + "2\n" + oneRow);
  }
  Lattice lattice;
  testing::internal::CaptureStdout();
  lattice.SetMatrix(dir.file("lines"), 2, lattice.fieldM);
  lattice.SetMatrix(dir.file("rows"), 2, lattice.fieldM);
  std::string marks;
  for (const char* e : ext) marks += "mark error : " + dir.file("rows") + e + "  2\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), marks);
  ASSERT_EQ(lattice.fieldM.fieldCount, 2);
  EXPECT_EQ(lattice.fieldM.field[0], lattice.fieldM.field[1]);
  EXPECT_EQ(lattice.fieldM.field[0][3 * 7 + 2], 7.5);
}

// A missing file in each form ends the process with its own text (GBK bytes for static binary sets). A set whose
// files disagree on the mesh, data shorter than the header, a mesh without intervals, a cut binary header, a word
// in the header and a value that is not finite stop cleanly with the file named.
TEST(FieldMapFilesDeathTest, MissingFilesAndBadSets) {
  TempDir dir;
  const std::string saved = outputFilePath;
  outputFilePath = dir.path() + "/";
  ExpectRefusal(dir.file("none"), 3, "field type1 file error : " + dir.file("none") + ".bsx");
  ExpectRefusal(dir.file("noneb"), 1, "Field file cannot be opened: " + dir.file("noneb") + ".edx");
  ExpectRefusal(dir.file("noneb"), 2, "\xb3\xa1\xce\xc4\xbc\xfe\xb4\xf2\xbf\xaa\xb4\xed\xce\xf3 : " +
                                          dir.file("noneb") + ".esx");

  fieldmap::MapMesh other = kMesh;
  other.ny = 2;
  for (const std::string& base : {dir.file("mixed"), dir.file("mixedb")}) {
    Write(base, 2);
    std::string error;
    ASSERT_TRUE(fieldmap::WriteMapSet(base + "_", 2, other, Indexed, error));
    std::rename((base + "_.esz").c_str(), (base + ".esz").c_str());
    ExpectRefusal(base, 2, "Field map file " + base + ".esz: its mesh differs from that of " + base + ".esx");
  }

  Write(dir.file("short"), 2);
  const std::string full = keldtest::ReadFile(dir.file("short.esy"));
  WriteFile(dir.file("short.esy"), full.substr(0, full.size() - 12));
  ExpectRefusal(dir.file("short"), 2,
                "Field map file " + dir.file("short.esy") + ": the data hold fewer values than the header promises (60)");
  Write(dir.file("shortb"), 2);
  const std::string bytes = keldtest::ReadFile(dir.file("shortb.esx"));
  WriteFile(dir.file("shortb.esx"), bytes.substr(0, bytes.size() - 4));
  ExpectRefusal(dir.file("shortb"), 2,
                "Field map file " + dir.file("shortb.esx") + ": the data hold fewer values than the header promises (60)");
  WriteFile(dir.file("cutb.esx"), bytes.substr(0, 59));
  ExpectRefusal(dir.file("cutb"), 2, "Field map file " + dir.file("cutb.esx") + ": the file is shorter than its 60-byte header");

  WriteFile(dir.file("flat.bsx"), "0 2.0\n3 0 1\n1 0 1\n1\n");
  ExpectRefusal(dir.file("flat"), 3,
                "Field map file " + dir.file("flat.bsx") + ": sznum, sxnum and synum must be at least 1, the header "
                "gives 0 3 1");
  WriteFile(dir.file("words.bsx"), "one 2.0\n3 0 1\n1 0 1\n1\n");
  ExpectRefusal(dir.file("words"), 3, "Field map file " + dir.file("words.bsx") + ": line 1: \"one\" is not a whole number");
  std::string notFinite = bytes;
  const float nan = std::nanf("");
  std::memcpy(&notFinite[60 + 4 * 7], &nan, 4);
  WriteFile(dir.file("nanb.esx"), notFinite);
  ExpectRefusal(dir.file("nanb"), 2,
                "Field map file " + dir.file("nanb.esx") + ": value 8 (at byte 88) is nan, not a finite number");
  outputFilePath = saved;
}
