// Loading a bunch from a distribution file: the binary layout of inData.dst and outData_<z>.dst for a plain or a
// secondary run, and the text list of a secondary beam; with the failures of bad files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "run/ErrorSample.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {
const double kC = 299792458.0, kE = 1.60217653e-19, kMp = 1.67262171e-27, kTwoPi = 6.283185307179586;
const double kRest = 938.272029;

struct Row {
  double x, xp, y, yp, phase, energy;  // cm, rad, cm, rad, rad, MeV
};

// The binary layout: bytes 125 100, count, current (mA), frequency (MHz), byte 125, rows, rest energy.
std::string Dst(int count, double currentmA, double frequencyMHz, const std::vector<Row>& rows, double rest,
                char mark = 125) {
  std::string s;
  auto put = [&s](const void* p, std::size_t n) { s.append(static_cast<const char*>(p), n); };
  s.push_back(125);
  s.push_back(100);
  put(&count, 4);
  put(&currentmA, 8);
  put(&frequencyMHz, 8);
  s.push_back(mark);
  for (const Row& r : rows) put(&r, 48);
  put(&rest, 8);
  return s;
}

const std::vector<Row> kRows = {{0.1, 0.002, -0.05, 0.001, -0.3, 3.01},
                                {-0.2, -0.001, 0.15, -0.002, 0.2, 2.98},
                                {0.0, 0.0, 0.0, 0.0, 0.5, 3.0}};

// Loads in this process with the settings of input.txt given directly.
struct Load {
  TempDir dir;
  Initial init;
  Beam beam;
  ErrorSample sample;
  Load() { inputFilePath = outputFilePath = dir.path() + "/"; }
  ~Load() { delete[] beam.particle; }
  std::string Run(const std::string& beamDeck) {
    WriteFile(dir.file("beam.txt"), beamDeck);
    testing::internal::CaptureStdout();
    init.InitParticle(beam, sample);
    return testing::internal::GetCapturedStdout();
  }
};

bool Has(const std::string& text, const std::string& line) { return text.find(line + "\n") != std::string::npos; }
}  // namespace

// A plain run: the file's particles, moved to the time of the bunch's head along their own directions, with the
// macro charge from the file's current; inData.dst repeats the file byte for byte, marker bytes included.
TEST(DistributionLoading, BinaryFileGivesTheCommonTimeBunch) {
  Load s;
  const std::string file = Dst(3, 5.0, 100.0, kRows, kRest, 7);
  WriteFile(s.dir.file("bunch.dst"), file);
  const std::string out = s.Run("numofcharge 1\nreadparticledistribution bunch.dst\n");
  for (const char* line : {"Start reading initial beam distribution...", "total number of particles 3",
                           "current intensity 5(mA)", "beam frequency 100(MHz)", "Particle rest mass 938.272(MeV)",
                           "Average beam energy2.99667(MeV)",
                           "The number of macroparticle representative particles is 1.04025e+08",
                           "Synchronised particles have been added", "Beam initialisation complete"})
    EXPECT_TRUE(Has(out, line)) << line << "\n" << out;
  EXPECT_EQ(ReadFile(s.dir.file("inData.dst")), file);

  ASSERT_EQ(s.beam.particleNumber, 3);
  EXPECT_DOUBLE_EQ(s.beam.frequency, 1e8);
  EXPECT_DOUBLE_EQ(s.beam.current, 0.005);
  const double macro = 0.005 / 1e8 / 3 / kE;
  const double head = -0.3 / (kTwoPi * 1e8);  // the smallest phase, in s
  double gammaSum = 0.0;
  for (int i = 0; i < 3; ++i) {
    const Row& r = kRows[i];
    const Particle& p = s.beam.particle[i];
    const double g = 1.0 + r.energy / kRest, v = kC * std::sqrt(1.0 - 1.0 / (g * g));
    const double vz = v / std::sqrt(1.0 + r.xp * r.xp + r.yp * r.yp);
    const double late = r.phase / (kTwoPi * 1e8) - head;
    gammaSum += g;
    EXPECT_NEAR(p.coordinate[4], -late * vz, 1e-15) << i;
    EXPECT_NEAR(p.coordinate[0], r.x / 100 - r.xp * late * vz, 1e-15) << i;
    EXPECT_NEAR(p.coordinate[2], r.y / 100 - r.yp * late * vz, 1e-15) << i;
    // Same speed, same direction as the file's row.
    const double* q = p.coordinate;
    EXPECT_NEAR(std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]), g, 1e-12) << i;
    EXPECT_NEAR(q[1] / q[5], r.xp, 1e-15) << i;
    EXPECT_NEAR(q[3] / q[5], r.yp, 1e-15) << i;
    EXPECT_NEAR(p.charge, macro * kE, 1e-12 * macro * kE);
    EXPECT_NEAR(p.mass, macro * kRest / 938.27187 * kMp, 1e-12 * p.mass);
    EXPECT_EQ(p.restEnergy, kRest);
  }
  const Particle& ref = s.beam.particle[3];
  EXPECT_DOUBLE_EQ(ref.charge, kE);
  const double g = gammaSum / 3, b = std::sqrt(1.0 - 1.0 / (g * g));
  EXPECT_NEAR(ref.coordinate[5], g * b, 1e-14);
  EXPECT_NEAR(ref.coordinate[4], head * b * kC, 1e-15);
}

// A loaded file without current turns the self-field off.
TEST(DistributionLoading, ZeroCurrentFileIgnoresSpaceCharge) {
  Load s;
  WriteFile(s.dir.file("bunch"), Dst(3, 0.0, 100.0, kRows, kRest));  // no point in the name: fine for a plain run
  const std::string out = s.Run("numofcharge 1\nreadparticledistribution bunch\n");
  EXPECT_TRUE(Has(out, "0 current, ignoring space charge effects")) << out;
  EXPECT_EQ(out.find("macroparticle representative"), std::string::npos);
  EXPECT_EQ(s.init.spaceCharge, 0);
  EXPECT_DOUBLE_EQ(s.beam.particle[0].charge, kE);
}

// A secondary beam from a binary file: every particle at z 0, released at its phase's time around the mean phase,
// stepping the release distance at its own speed.
TEST(DistributionLoading, SecondaryBinaryFileReleasesParticlesAroundTheMeanPhase) {
  Load s;
  s.init.secondaryBeam = 1;
  s.init.releaseDistance = 0.002;
  WriteFile(s.dir.file("bunch.dst"), Dst(3, 0.0, 100.0, kRows, kRest));
  const std::string out = s.Run("numofcharge 1\nkneticenergy 3\nreadparticledistribution bunch.dst\n");
  EXPECT_TRUE(Has(out, "Synchronous particle energy 3(MeV)")) << out;
  const double mean = (-0.3 + 0.2 + 0.5) / 3 / (kTwoPi * 1e8);
  EXPECT_NEAR(s.beam.phaseHead, mean, 1e-22);
  EXPECT_NEAR(s.beam.phaseStart, 0.8 / (kTwoPi * 1e8), 1e-22);
  for (int i = 0; i < 3; ++i) {
    const Row& r = kRows[i];
    const Particle& p = s.beam.particle[i];
    const double g = 1.0 + r.energy / kRest, v = kC * std::sqrt(1.0 - 1.0 / (g * g));
    const double vz = v / std::sqrt(1.0 + r.xp * r.xp + r.yp * r.yp);
    EXPECT_NEAR(p.startTime, r.phase / (kTwoPi * 1e8) - mean, 1e-22) << i;
    EXPECT_NEAR(p.delayTime, 0.002 / vz, 1e-22) << i;
    EXPECT_EQ(p.index, i);
    EXPECT_EQ(p.coordinate[4], 0.0);
    EXPECT_DOUBLE_EQ(p.coordinate[0], r.x / 100);
    EXPECT_NEAR(p.coordinate[1] / p.coordinate[5], r.xp, 1e-15);
  }
  const Particle& ref = s.beam.particle[3];
  const double g = 1.0 + 3.0 / kRest, b = std::sqrt(1.0 - 1.0 / (g * g));
  EXPECT_NEAR(ref.coordinate[5], b * g, 1e-14);
  EXPECT_NEAR(ref.delayTime, 0.002 / (b * kC), 1e-22);
  EXPECT_EQ(ref.index, 3);
}

// A secondary beam from a text list: SI units, one species per line, weights by the number of real particles.
TEST(DistributionLoading, SecondaryTextListGivesEachParticleItsSpecies) {
  Load s;
  s.init.secondaryBeam = 1;
  s.init.releaseDistance = 0.001;
  WriteFile(s.dir.file("sec.txt"), "0.001 -0.002 0.3  1e5 2e5 2e7  2 1875.6 10 1e-9 deuteron ! a comment\n"
                                   "0 0 0.5  0 0 1e7  1 938.272029 1 0 proton\n");
  const std::string out = s.Run("numofcharge 1\nkneticenergy 3\nfrequency 1e8\nreadparticledistribution sec.txt\n");
  EXPECT_TRUE(Has(out, "Start reading secondary particle distribution...")) << out;
  ASSERT_EQ(s.beam.particleNumber, 2);
  EXPECT_EQ(s.beam.frequency, 0.0);
  const Particle& d = s.beam.particle[0];
  const double v = std::sqrt(1e10 + 4e10 + 4e14), g = 1.0 / std::sqrt(1.0 - v * v / (kC * kC));
  EXPECT_DOUBLE_EQ(d.coordinate[0], 0.001);
  EXPECT_DOUBLE_EQ(d.coordinate[2], -0.002);
  EXPECT_DOUBLE_EQ(d.coordinate[4], 0.3);
  EXPECT_NEAR(d.coordinate[5], 2e7 * g / kC, 1e-15);
  EXPECT_NEAR(d.coordinate[3], 2e5 * g / kC, 1e-17);
  EXPECT_DOUBLE_EQ(d.startTime, 1e-9);
  EXPECT_DOUBLE_EQ(d.delayTime, 0.001 / 2e7);
  EXPECT_DOUBLE_EQ(d.charge, 10 * 2 * kE);
  EXPECT_NEAR(d.chargeMassRatio, 2 * kE / (1875.6 / 938.27187 * kMp), 1e-6);
  EXPECT_EQ(d.name, "deuteron");
  EXPECT_EQ(d.multiplicity, 10.0);
  EXPECT_EQ(s.beam.particle[1].name, "proton");
  EXPECT_EQ(s.beam.particle[2].name, "proton");  // the reference: kindofparticle
  EXPECT_EQ(s.beam.particle[2].index, 2);
}

// Every failure stops before anything is tracked, with status 1 and the file named.
TEST(DistributionLoading, BadFilesStopTheRun) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  WriteFile(in + "/lattice.txt", "start\ndrift 0.1 0.02 0\nend\n");
  struct Case {
    std::string input, beam, file, content, message;
  };
  std::string shortFile = Dst(3, 0.0, 100.0, kRows, kRest);
  shortFile.resize(shortFile.size() - 20);
  std::vector<Row> notFinite = kRows;
  notFinite[1].yp = std::nan("");
  const std::string open = "The initial bunch distribution file cannot be opened, check particleDistributionPath";
  const std::vector<Case> cases = {
      {"", "readparticledistribution none.dst\n", "", "", open},
      {"secondarybeam 1\n", "readparticledistribution bunch\n", "bunch", Dst(3, 0.0, 100.0, kRows, kRest), open},
      {"", "readparticledistribution b.dst\n", "b.dst", shortFile,
       "b.dst: the distribution file holds 155 bytes, but its 3 particles and rest energy need 175"},
      {"", "readparticledistribution b.dst\n", "b.dst", Dst(0, 0.0, 100.0, {}, kRest),
       "b.dst: the distribution file gives a particle count of 0; at least 1 is needed"},
      {"", "readparticledistribution b.dst\n", "b.dst", Dst(3, 0.0, 100.0, kRows, 1875.6),
       "b.dst: the distribution file gives a rest energy of 1875.6 MeV, but beam.txt gives particlerestmass "
       "938.272029 MeV"},
      {"", "readparticledistribution b.dst\n", "b.dst", Dst(3, 0.0, 100.0, notFinite, kRest),
       "b.dst: particle 1 of the distribution file has a coordinate that is not finite"},
      {"", "readparticledistribution b.dst\n", "b.dst", Dst(3, 0.0, 0.0, kRows, kRest),
       "b.dst: the distribution file gives a current of 0 mA and a frequency of 0 MHz; both must be finite and the "
       "frequency above 0"},
      {"secondarybeam 1\n", "readparticledistribution s.txt\n", "s.txt",
       "0 0 0 0 0 1e7 1 938.272029 1 0 proton\n0 0 0 0 0 1e7 1 938.272029 1 0\n",
       "s.txt line 2: the line holds 10 tokens; a particle line needs 11: x y z vx vy vz charge restenergy count "
       "time species"},
      {"secondarybeam 1\n", "readparticledistribution s.txt\n", "s.txt", "0 0 0 0 0 1e7 1 938.272029 1 0 p\n\n",
       "s.txt line 2: the line holds 0 tokens; a particle line needs 11: x y z vx vy vz charge restenergy count "
       "time species"},
      {"secondarybeam 1\n", "readparticledistribution s.txt\n", "s.txt", "0 0 0 0 0 -1e7 1 938.272029 1 0 p\n",
       "s.txt line 1: the velocity is not forward in z or not below the speed of light"},
      {"secondarybeam 1\n", "readparticledistribution s.txt\n", "s.txt", "0 0 0 0 0 1e7 1 938.272029 1 inf p\n",
       "s.txt line 1: \"inf\" is not a finite number in \"0 0 0 0 0 1e7 1 938.272029 1 inf p\""},
      {"secondarybeam 1\n", "kneticenergy 0\nreadparticledistribution s.txt\n", "s.txt",
       "0 0 0 0 0 1e7 1 938.272029 1 0 p\n",
       "beam.txt lacks the keyword kneticenergy (or gives 0 or below), which the reference particle of a "
       "secondary beam needs"},
      {"secondarybeam 1\n", "frequency -1\nreadparticledistribution s.txt\n", "s.txt",
       "0 0 0 0 0 1e7 1 938.272029 1 0 p\n",
       "beam.txt lacks the keyword frequency (or gives 0 or below), which the phase scan of a secondary beam needs"},
  };
  for (const Case& c : cases) {
    WriteFile(in + "/input.txt", "spacecharge 0\n" + c.input);
    WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3\nfrequency 1e8\n" + c.beam);
    if (!c.file.empty()) WriteFile(in + "/" + c.file, c.content);
    std::remove((out + "/ErrorLog.txt").c_str());
    const RunResult r = RunKeld(in, out);
    EXPECT_EQ(r.status, 1) << c.message << "\n" << r.output;
    EXPECT_TRUE(Has(r.output, c.message)) << r.output;
    const std::string log = ReadFile(out + "/ErrorLog.txt");
    EXPECT_NE(log.find("   Initialisation stage error: " + c.message + "\n"), std::string::npos) << log;
    EXPECT_EQ(r.output.find("Start simulation"), std::string::npos);
  }
}
