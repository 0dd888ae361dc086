#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "beam/Beam.h"
#include "run/ErrorSample.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

namespace {

const double kC = 299792458.0;
const double kE = 1.60217653e-19;
const double kMp = 1.67262171e-27;
const double kMassUnit = 938.27187;
const double kTwoPi = 6.283185307179586;
const double kPi = 3.141592653589793;

const char kFolderVariable[] = "KELD_BEAM_SETUP_TEST_FOLDER";

// The folder of the decks and of the outputs. A death test runs the test body
// again in a child process; the child takes the parent's folder from the
// environment, so that the parent can read what the child wrote and the
// child, which ends without unwinding, leaves no folder behind.
class DeckFolder {
 public:
  DeckFolder() {
    if (const char* inherited = std::getenv(kFolderVariable)) {
      path_ = inherited;
    } else {
      owned_ = std::make_unique<keldtest::TempDir>();
      path_ = owned_->path();
      setenv(kFolderVariable, path_.c_str(), 1);
    }
    inputFilePath = path_ + "/";
    outputFilePath = path_ + "/";
  }
  ~DeckFolder() {
    if (owned_) unsetenv(kFolderVariable);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  void WriteBeam(const std::string& text) const { keldtest::WriteFile(file("beam.txt"), text); }

 private:
  std::unique_ptr<keldtest::TempDir> owned_;
  std::string path_;
};

// A proton bunch of 3 MeV at 162.5 MHz. Twiss lines read alpha, beta,
// emittance (normalised, mm mrad).
std::string Deck(int particles, const std::string& extra = "") {
  return "kindofparticle H+\n"
         "numofcharge 1\n"
         "particlerestmass 938.272029\n"
         "kneticenergy 3.0\n"
         "frequency 162.5e6\n"
         "current 10\n"
         "distribution GS GS\n"
         "twissx 0.5 2.0 0.25\n"
         "twissy -0.3 1.5 0.2\n"
         "twissz 0.1 0.8 0.3\n"
         "particlenumber " +
         std::to_string(particles) + "\n" + extra;
}

double BetaGamma(double W, double m) {
  const double gamma = 1.0 + W / m;
  const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  return beta * gamma;
}

// Owns the particle array that InitParticle makes.
struct Bunch {
  Beam beam;
  ~Bunch() { delete[] beam.particle; }
};

// Runs InitParticle and returns what it printed.
std::string Build(Initial& init, Beam& beam, ErrorSample& sample) {
  testing::internal::CaptureStdout();
  init.InitParticle(beam, sample);
  return testing::internal::GetCapturedStdout();
}

std::string Build(Initial& init, Beam& beam) {
  ErrorSample none;
  return Build(init, beam, none);
}

// The distribution file: header, rows in file units, rest energy.
struct DstFile {
  std::string bytes;
  int count = 0;
  double current = 0, frequency = 0, restEnergy = 0;
  const double* row(int i) const { return reinterpret_cast<const double*>(bytes.data() + 23 + 48 * i); }
};

DstFile ReadDst(const std::string& path) {
  DstFile f;
  f.bytes = keldtest::ReadFile(path);
  if (f.bytes.size() < 31) return f;
  f.count = keldtest::At<int>(f.bytes, 2);
  f.current = keldtest::At<double>(f.bytes, 6);
  f.frequency = keldtest::At<double>(f.bytes, 14);
  f.restEnergy = keldtest::At<double>(f.bytes, f.bytes.size() - 8);
  return f;
}

struct PlaneStatistics {
  double emittance, beta, alpha;
  double meanX, meanP, sdX, sdP;
};

PlaneStatistics Statistics(const std::vector<double>& x, const std::vector<double>& p) {
  const double n = static_cast<double>(x.size());
  double mx = 0, mp = 0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    mx += x[i];
    mp += p[i];
  }
  mx /= n;
  mp /= n;
  double xx = 0, xp = 0, pp = 0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    xx += (x[i] - mx) * (x[i] - mx);
    xp += (x[i] - mx) * (p[i] - mp);
    pp += (p[i] - mp) * (p[i] - mp);
  }
  xx /= n;
  xp /= n;
  pp /= n;
  PlaneStatistics s;
  s.emittance = std::sqrt(xx * pp - xp * xp);
  s.beta = xx / s.emittance;
  s.alpha = -xp / s.emittance;
  s.meanX = mx;
  s.meanP = mp;
  s.sdX = std::sqrt(xx);
  s.sdP = std::sqrt(pp);
  return s;
}

// Offsets that beam errors add to the file form; zero without errors.
struct FileOffsets {
  double xp = 0, yp = 0, phase = 0, energy = 0;
};

// The three phase planes of the file in generator units: x (m), x'; y (m),
// y'; z (m), relative momentum deviation, undoing the file conversion.
void Planes(const DstFile& f, double m, double frequency, double bg, const FileOffsets& off,
            std::vector<std::vector<double>>& planes) {
  planes.assign(6, std::vector<double>(f.count));
  for (int i = 0; i < f.count; ++i) {
    const double* r = f.row(i);
    const double xp = r[1] - off.xp, yp = r[3] - off.yp;
    const double g = (r[5] - off.energy) / m + 1.0;
    const double b = std::sqrt(1.0 - 1.0 / (g * g));
    const double vz = b * kC / std::sqrt(xp * xp + yp * yp + 1.0);
    const double pz = std::sqrt((g * g - 1.0) / (1.0 + xp * xp + yp * yp));
    planes[0][i] = r[0] / 100.0;
    planes[1][i] = r[1];
    planes[2][i] = r[2] / 100.0;
    planes[3][i] = r[3];
    planes[4][i] = -(r[4] - off.phase) * vz / (kTwoPi * frequency);
    planes[5][i] = pz / bg - 1.0;
  }
}

// Checks the rms Twiss parameters of one plane against the deck (normalised
// emittance in mm mrad); tol is a multiple of the standard error 1/sqrt(N).
void ExpectTwiss(const std::vector<double>& x, const std::vector<double>& p, double bg, double emittance,
                 double beta, double alpha, const std::string& what) {
  const double tol = 6.0 / std::sqrt(static_cast<double>(x.size()));
  const PlaneStatistics s = Statistics(x, p);
  EXPECT_NEAR(s.emittance * bg * 1e6 / emittance, 1.0, tol) << what;
  EXPECT_NEAR(s.beta / beta, 1.0, tol) << what;
  EXPECT_NEAR(s.alpha, alpha, tol * std::sqrt(1.0 + alpha * alpha)) << what;
}

// A regular expression that matches the text literally.
std::string Literal(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

// True when ErrorLog.txt has a stamped line that ends in the message.
bool LoggedAsInitialisationError(const DeckFolder& folder, const std::string& message) {
  const std::string tail = "   Initialisation stage error: " + message;
  for (const std::string& line : keldtest::ReadLines(folder.file("ErrorLog.txt"))) {
    if (line.size() < tail.size() + 21) continue;
    const bool stamped = line[4] == '/' && line[7] == '/' && line[13] == ':' && line[16] == ':';
    if (stamped && line.compare(line.size() - tail.size(), tail.size(), tail) == 0) return true;
  }
  return false;
}

bool ContainsInOrder(const std::string& text, const std::vector<std::string>& parts) {
  std::size_t at = 0;
  for (const std::string& part : parts) {
    at = text.find(part, at);
    if (at == std::string::npos) return false;
    at += part.size();
  }
  return true;
}

}  // namespace

TEST(BeamDeck, ReadsEveryKeyword) {
  DeckFolder folder;
  folder.WriteBeam(
      "! a comment line\n"
      "ReadParticleDistribution  Dist.DST\n"
      "NumOfCharge -1\n"
      "particlerestmass 939.5\n"
      "kindofparticle H-\n"
      "\tdistribution KV PB\n"
      "twissx 0.5 2.0 0.25\n"
      "twissy -0.3 1.5 0.2 ! alpha beta emittance\n"
      "TWISSZ 0.1 0.8 0.3\n"
      "particlenumber 5000\n"
      "displacepos 1.5 -2 3\n"
      "displacedpos 0.5 -0.25 0.75\n"
      "frequency 162.5e6\n"
      "kneticenergy 3.0\n"
      "beamlength 7 0.25\n"
      "current 12.5\n"
      "bunchnumber 4\n");
  Initial init;
  EXPECT_EQ(init.ReadBeam(), 0);
  EXPECT_EQ(init.particleDistributionPath, "Dist.DST");
  EXPECT_EQ(init.numOfCharge, -1.0);
  EXPECT_EQ(init.particleRestMass, 939.5);
  EXPECT_EQ(init.kindOfParticle, "H-");
  EXPECT_EQ(init.distributionType, (std::vector<std::string>{"KV", "PB"}));
  // Each line reads alpha, beta, emittance; each triple holds emittance, beta, alpha.
  EXPECT_EQ(init.twiss, (std::vector<double>{0.25, 2.0, 0.5, 0.2, 1.5, -0.3, 0.3, 0.8, 0.1}));
  EXPECT_EQ(init.particleNumber, 5000);
  EXPECT_EQ(init.displacePos, (std::vector<double>{1.5 * 0.001, -2 * 0.001, 3 * 0.001}));
  EXPECT_EQ(init.displacedPos, (std::vector<double>{0.5 * 0.001, -0.25 * 0.001, 0.75 * 0.001}));
  EXPECT_EQ(init.frequency, 162.5e6);
  EXPECT_EQ(init.kineticEnergy, 3.0);
  EXPECT_EQ(init.beamLength, (std::vector<double>{7.0, 0.25}));
  EXPECT_EQ(init.current, 12.5);
  EXPECT_EQ(init.bunchNumber, 4);

  // Keywords left out keep their start values.
  folder.WriteBeam("particlenumber 10\n");
  Initial fresh;
  fresh.ReadBeam();
  EXPECT_EQ(fresh.particleDistributionPath, "unknown");
  EXPECT_EQ(fresh.numOfCharge, -1.0);
  EXPECT_EQ(fresh.particleRestMass, 938.272029);
  EXPECT_EQ(fresh.kindOfParticle, "proton");
  EXPECT_EQ(fresh.distributionType, (std::vector<std::string>{"GS", "GS"}));
  EXPECT_EQ(fresh.twiss, std::vector<double>(9, -1.0));
  EXPECT_EQ(fresh.displacePos, std::vector<double>(3, 0.0));
  EXPECT_EQ(fresh.frequency, -1.0);
  EXPECT_EQ(fresh.kineticEnergy, -1.0);
  EXPECT_EQ(fresh.current, -1.0);
}

TEST(BeamDeck, FailuresStopWithTheirMessage) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  DeckFolder folder;
  const std::string arity =
      "The initial bunch distribution contains two parameters, separately in transvers and longitudinal";
  const std::string unknownLaw = "Distribution Type Error, The Format is: distribution  KV/WB/PB/GS  KV/WB/PB/GS";
  const struct {
    std::string deck, message;
  } cases[] = {
      {"distribution GS\n", arity},
      {"distribution GS GS KV\n", arity},
      {"distribution KV XX\n", unknownLaw},
      {"distribution gs GS\n", unknownLaw},
      {"twissx 0.5 2.0\n", "twissx have 3 parameters, emittance, beta, alpha"},
      {"twissy 0.1 0.5 2.0 0.25\n", "twissy have 3 parameters, emittance, beta, alpha"},
      {"twissz 1\n", "twissz have 3 parameters, emittance, beta, alpha"},
      {"particlenumber 10\nemittance 1\n", "beam.txt Contains unknown keywords, check input.txt"},
  };
  for (const auto& c : cases) {
    // The console of the child goes to stderr, where the death test looks.
    EXPECT_EXIT(
        {
          folder.WriteBeam(c.deck);
          dup2(STDERR_FILENO, STDOUT_FILENO);
          Initial init;
          init.ReadBeam();
        },
        ::testing::ExitedWithCode(1), Literal(c.message))
        << c.deck;
    EXPECT_TRUE(LoggedAsInitialisationError(folder, c.message)) << c.deck;
  }

  const std::string noFile = "File \"beam.txt\" cannot be opened, Check the inputFile routing and beam.txt.";
  EXPECT_EXIT(
      {
        std::remove(folder.file("beam.txt").c_str());
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Initial init;
        init.ReadBeam();
      },
      ::testing::ExitedWithCode(1), Literal(noFile));
  EXPECT_TRUE(LoggedAsInitialisationError(folder, noFile));
}

TEST(BeamSetup, SolverAndThreadSettingsFollowBunchSize) {
  DeckFolder folder;
  const double threadRows[4][10] = {{64, 54, 20, 24, 1, 48, 96, 12, 48, 12},
                                    {72, 68, 24, 56, 22, 48, 96, 20, 48, 24},
                                    {72, 68, 24, 56, 22, 48, 96, 20, 48, 24},
                                    {96, 96, 32, 96, 26, 48, 96, 24, 48, 36}};
  const struct {
    int n;
    double mesh;
    int grid;
    double cutoff;
  } cases[] = {{30000, 3.5, 14, 5.0}, {30001, 3.5, 18, 6.0}, {80000, 3.5, 18, 6.0}, {80001, 4.0, 20, 7.0}};
  for (int c = 0; c < 4; ++c) {
    folder.WriteBeam(Deck(cases[c].n, "distribution KV KV\n"));
    Initial init;
    init.scParameters[0] = 1.0;  // S-PICNIC
    init.hardwareThreads = 1000;
    Bunch bunch;
    Build(init, bunch.beam);
    const std::vector<double>& p = init.scParameters;
    const std::string at = "N = " + std::to_string(cases[c].n);
    EXPECT_EQ(p[1], cases[c].mesh) << at;
    EXPECT_EQ(p[2], cases[c].mesh) << at;
    EXPECT_EQ(p[3], cases[c].mesh) << at;
    EXPECT_EQ(p[4], 8.0) << at;
    EXPECT_EQ(p[5], 8.0) << at;
    EXPECT_EQ(p[6], 8.0) << at;
    EXPECT_EQ(init.numOfGrid, std::vector<int>(3, cases[c].grid)) << at;
    EXPECT_EQ(p[7], cases[c].cutoff) << at;
    EXPECT_EQ(p[8], 0.07) << at;
    EXPECT_EQ(p[9], 1.0) << at;
    for (int k = 0; k < 10; ++k) {
      EXPECT_EQ(init.cores[k], threadRows[c][k]) << at << " entry " << k;
      EXPECT_EQ(p[10 + k], threadRows[c][k]) << at << " entry " << k;
    }
  }

  // Values that the run deck gave are kept; the cut-off follows the grid.
  folder.WriteBeam(Deck(2000, "distribution KV KV\n"));
  {
    Initial init;
    init.scParameters[0] = 1.0;
    init.scParameters[1] = 2.0;
    init.scParameters[4] = 6.0;
    init.numOfGrid = {10, 12, 14};
    init.multithreading = 2;
    Bunch bunch;
    Build(init, bunch.beam);
    EXPECT_EQ(init.scParameters[1], 2.0);
    EXPECT_EQ(init.scParameters[2], -1.0);
    EXPECT_EQ(init.scParameters[4], 6.0);
    EXPECT_EQ(init.scParameters[5], -1.0);
    EXPECT_EQ(init.numOfGrid, (std::vector<int>{10, 12, 14}));
    EXPECT_EQ(init.scParameters[7], 4.0);
    EXPECT_EQ(init.scParameters[9], 2.0);
  }
  // FFT: 6.5 rms and 64 nodes unless given; the S-PICNIC slots stay open.
  {
    Initial init;
    init.scParameters[0] = 0.0;
    Bunch bunch;
    Build(init, bunch.beam);
    EXPECT_EQ(init.scParameters[1], 6.5);
    EXPECT_EQ(init.scParameters[2], 6.5);
    EXPECT_EQ(init.scParameters[3], 6.5);
    EXPECT_EQ(init.scParameters[4], -1.0);
    EXPECT_EQ(init.scParameters[7], -1.0);
    EXPECT_EQ(init.numOfGrid, std::vector<int>(3, 64));
    EXPECT_EQ(init.scParameters[9], 1.0);
  }
  {
    Initial init;
    init.scParameters[0] = 0.0;
    init.scParameters[1] = 5.0;
    init.numOfGrid = {32, 16, 8};
    Bunch bunch;
    Build(init, bunch.beam);
    EXPECT_EQ(init.scParameters[1], 5.0);
    EXPECT_EQ(init.scParameters[2], -1.0);
    EXPECT_EQ(init.numOfGrid, (std::vector<int>{32, 16, 8}));
  }
  // Without space charge only the grid is set, to 3 nodes a side.
  {
    Initial init;
    init.spaceCharge = 0;
    init.scParameters[9] = 42.0;
    Bunch bunch;
    Build(init, bunch.beam);
    EXPECT_EQ(init.numOfGrid, std::vector<int>(3, 3));
    EXPECT_EQ(init.scParameters[1], -1.0);
    EXPECT_EQ(init.scParameters[9], 42.0);
  }
}

TEST(BeamSetup, ThreadCountsAreCapped) {
  DeckFolder folder;
  folder.WriteBeam(Deck(2000, "distribution KV KV\n"));
  const int table[10] = {64, 54, 20, 24, 1, 48, 96, 12, 48, 12};
  auto run = [](Initial& init) {
    Bunch bunch;
    Build(init, bunch.beam);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(init.scParameters[10 + k], init.cores[k]) << "entry " << k;
  };
  {
    Initial init;
    init.hardwareThreads = 50;
    run(init);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(init.cores[k], std::min(table[k], 50)) << "entry " << k;
  }
  {
    Initial init;
    init.hardwareThreads = 1000;
    init.maxThreads = 16;
    run(init);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(init.cores[k], std::min(table[k], 16)) << "entry " << k;
  }
  for (int ignored : {0, -5}) {
    Initial init;
    init.hardwareThreads = 1000;
    init.maxThreads = ignored;
    run(init);
    for (int k = 0; k < 10; ++k) EXPECT_EQ(init.cores[k], table[k]) << "maxThreads " << ignored << " entry " << k;
  }
  // Cores that the run deck set are kept, only capped.
  {
    Initial init;
    init.hardwareThreads = 8;
    init.cores = {4, 200, 3, 3, 3, 3, 3, 3, 3, 1};
    run(init);
    EXPECT_EQ(init.cores, (std::vector<int>{4, 8, 3, 3, 3, 3, 3, 3, 3, 1}));
  }
  // Without multithreading the table is not used.
  {
    Initial init;
    init.hardwareThreads = 1000;
    init.multithreading = 0;
    run(init);
    EXPECT_EQ(init.cores, (std::vector<int>{-1, 1, 1, 1, 1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(init.scParameters[9], 0.0);
  }
}

TEST(BeamSetup, InDataFileHoldsTheDeckBunch) {
  DeckFolder folder;
  const int N = 100000;
  folder.WriteBeam(Deck(N));
  Initial init;
  Bunch bunch;
  const std::string console = Build(init, bunch.beam);

  const DstFile f = ReadDst(folder.file("inData.dst"));
  ASSERT_EQ(f.bytes.size(), 23u + 48u * N + 8u);
  EXPECT_EQ(static_cast<unsigned char>(f.bytes[0]), 125);
  EXPECT_EQ(static_cast<unsigned char>(f.bytes[1]), 100);
  EXPECT_EQ(f.count, N);
  EXPECT_DOUBLE_EQ(f.current, 10.0);
  EXPECT_EQ(f.frequency, 162.5);
  EXPECT_EQ(static_cast<unsigned char>(f.bytes[22]), 125);
  EXPECT_EQ(f.restEnergy, 938.272029);

  // Every plane carries the deck's Twiss parameters; the file is in cm and
  // rad, the deck's emittance normalised in mm mrad.
  const double bg = BetaGamma(3.0, 938.272029);
  std::vector<std::vector<double>> planes;
  Planes(f, 938.272029, 162.5e6, bg, FileOffsets(), planes);
  ExpectTwiss(planes[0], planes[1], bg, 0.25, 2.0, 0.5, "x");
  ExpectTwiss(planes[2], planes[3], bg, 0.2, 1.5, -0.3, "y");
  ExpectTwiss(planes[4], planes[5], bg, 0.3, 0.8, 0.1, "z");

  // The head is ahead of the centre: phases of both signs, energies near 3 MeV.
  double lowest = 0.0, highest = 0.0;
  for (int i = 0; i < N; ++i) {
    lowest = std::min(lowest, f.row(i)[4]);
    highest = std::max(highest, f.row(i)[4]);
  }
  EXPECT_LT(lowest, 0.0);
  EXPECT_GT(highest, 0.0);

  EXPECT_EQ(bunch.beam.frequency, 162.5e6);
  EXPECT_DOUBLE_EQ(bunch.beam.current, 0.01);
  EXPECT_DOUBLE_EQ(init.current, 0.01);
  EXPECT_TRUE(ContainsInOrder(console, {"Starting to generate initial bunch\n",
                                        "The number of particles represented by a single macro particle: ",
                                        "Synchron particle addition completed\n", "Bunch initialisation complete\n",
                                        "  \n"}))
      << console;
}

TEST(BeamSetup, SecondDistributionWordSetsTheLongitudinalLaw) {
  // KV in z: every particle on or inside the ellipse of 4 times the
  // geometric emittance, whatever the transverse law.
  DeckFolder folder;
  const int N = 20000;
  folder.WriteBeam(Deck(N, "distribution GS KV\n"));
  Initial init;
  Bunch bunch;
  Build(init, bunch.beam);
  const double bg = BetaGamma(3.0, 938.272029);
  std::vector<std::vector<double>> planes;
  Planes(ReadDst(folder.file("inData.dst")), 938.272029, 162.5e6, bg, FileOffsets(), planes);
  auto invariant = [](double x, double p, double beta, double alpha) {
    const double u = beta * p + alpha * x;
    return x * x / beta + u * u / beta;
  };
  double largestZ = 0.0, largestX = 0.0;
  for (int i = 0; i < N; ++i) {
    largestZ = std::max(largestZ, invariant(planes[4][i], planes[5][i], 0.8, 0.1));
    largestX = std::max(largestX, invariant(planes[0][i], planes[1][i], 2.0, 0.5));
  }
  const double ez = 0.3 / 1e6 / bg, ex = 0.25 / 1e6 / bg;
  EXPECT_LE(largestZ, 4.0 * ez * (1.0 + 1e-9));
  EXPECT_GT(largestZ, 0.99 * 4.0 * ez);
  EXPECT_GT(largestX, 8.0 * ex);  // the Gaussian transverse planes are not bounded
}

TEST(BeamSetup, ParticlesStartAtTheHeadTime) {
  DeckFolder folder;
  const int N = 20000;
  folder.WriteBeam(Deck(N, "numofcharge 2\nparticlerestmass 1875.6\n"));
  Initial init;
  init.boundary = 3;
  init.scSolverRecord = 5;
  Bunch bunch;
  Build(init, bunch.beam);
  const Beam& beam = bunch.beam;
  ASSERT_EQ(beam.particleNumber, N);
  EXPECT_EQ(beam.solverRecord, 5);
  const DstFile f = ReadDst(folder.file("inData.dst"));
  ASSERT_EQ(f.count, N);

  const double m = 1875.6, f0 = 162.5e6;
  double lowest = 0.0, highest = 0.0;
  int head = 0;
  for (int i = 0; i < N; ++i) {
    if (f.row(i)[4] < f.row(head)[4]) head = i;
    lowest = std::min(lowest, f.row(i)[4]);
    highest = std::max(highest, f.row(i)[4]);
  }
  EXPECT_NEAR(beam.phaseHead, lowest / (kTwoPi * f0), 1e-12 * std::fabs(beam.phaseHead));
  EXPECT_NEAR(beam.phaseStart, (highest - lowest) / (kTwoPi * f0), 1e-12 * beam.phaseStart);
  EXPECT_LT(beam.phaseHead, 0.0);

  // Each particle is drifted back along its own direction to the head's time.
  double gammaSum = 0.0;
  for (int i = 0; i < N; ++i) {
    const double* r = f.row(i);
    const Particle& p = beam.particle[i];
    const double g = r[5] / m + 1.0;
    gammaSum += g;
    const double b = std::sqrt(1.0 - 1.0 / (g * g));
    const double vz = b * kC / std::sqrt(r[1] * r[1] + r[3] * r[3] + 1.0);
    const double dt = r[4] / (kTwoPi * f0) - beam.phaseHead;
    const double pz = vz / kC * g;
    const double expected[6] = {r[0] / 100.0 - r[1] * dt * vz, r[1] * pz, r[2] / 100.0 - r[3] * dt * vz,
                                r[3] * pz,                     -dt * vz,  pz};
    for (int k = 0; k < 6; ++k)
      ASSERT_NEAR(p.coordinate[k], expected[k], 1e-12 * std::fabs(expected[k]) + 1e-18)
          << "particle " << i << " place " << k;
    ASSERT_LE(p.coordinate[4], 0.0) << "particle " << i;
    for (int k = 0; k < 6; ++k) {
      ASSERT_EQ(p.externalField[k], 0.0) << "particle " << i;
      ASSERT_EQ(p.spaceChargeField[k], 0.0) << "particle " << i;
      ASSERT_EQ(p.totalField[k], 0.0) << "particle " << i;
    }
    for (int k = 0; k < 3; ++k) ASSERT_EQ(p.relativeCoordinate[k], 0.0) << "particle " << i;
  }
  EXPECT_EQ(beam.particle[head].coordinate[4], 0.0);

  // Macro particles of charge number 2 and mass number m / 938.27187.
  const double A = m / kMassUnit;
  const double macro = 0.01 / f0 / N / kE / 2.0;
  for (int i = 0; i <= N; i += N / 4) {
    const Particle& p = beam.particle[i];
    EXPECT_NEAR(p.charge, macro * 2.0 * kE, 1e-12 * macro * 2.0 * kE) << i;
    EXPECT_NEAR(p.mass, macro * A * kMp, 1e-12 * macro * A * kMp) << i;
    EXPECT_NEAR(p.chargeMassRatio, 2.0 / A * kE / kMp, 1e-12 * 2.0 / A * kE / kMp) << i;
    EXPECT_EQ(p.restEnergy, m) << i;
    EXPECT_EQ(p.name, "H+") << i;
    EXPECT_EQ(p.boundaryMode, 3) << i;
    EXPECT_EQ(p.indexElem, 0) << i;
    EXPECT_EQ(p.indexBoundary, 0) << i;
    EXPECT_EQ(p.lost, 0) << i;
    EXPECT_EQ(p.indexPlane, 0) << i;
  }

  // The reference slot stands on axis at the centre, with the mean gamma.
  const Particle& reference = beam.particle[N];
  const double g = gammaSum / N;
  const double b = std::sqrt(1.0 - 1.0 / (g * g));
  for (int k = 0; k < 4; ++k) EXPECT_EQ(reference.coordinate[k], 0.0) << k;
  EXPECT_NEAR(reference.coordinate[4], beam.phaseHead * b * kC, 1e-10 * std::fabs(beam.phaseHead * b * kC));
  EXPECT_NEAR(reference.coordinate[5], g * b, 1e-12 * g * b);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(reference.spaceChargeField[k], 0.0);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(reference.relativeCoordinate[k], 0.0);
}

TEST(BeamSetup, BeamErrorsActOnTheFileForm) {
  DeckFolder folder;
  const int N = 100000;
  folder.WriteBeam(Deck(N));
  // Dynamic mark; offsets x 50 mm, y -30 mm, phase 10 deg, x' 0.5 mrad,
  // y' -0.3 mrad, energy 0.02 MeV; emittances +10, +20, -10 %; mismatch
  // +5, -5, 0 %; current +2 mA.
  std::vector<double> row(26, 0.0);
  const double values[14] = {1.0, 50.0, -30.0, 10.0, 0.5, -0.3, 0.02, 10.0, 20.0, -10.0, 5.0, -5.0, 0.0, 2.0};
  std::copy(values, values + 14, row.begin());
  ErrorSample sample;
  sample.onFlag = {0, 1, 0, 0};
  sample.dynamicSet = {row};
  Initial init;
  Bunch bunch;
  Build(init, bunch.beam, sample);

  const DstFile f = ReadDst(folder.file("inData.dst"));
  ASSERT_EQ(f.count, N);
  EXPECT_DOUBLE_EQ(f.current, 12.0);
  EXPECT_DOUBLE_EQ(bunch.beam.current, 0.012);

  // The offsets, in file units: x and y get the millimetre factor although
  // the file is in centimetres.
  FileOffsets off;
  off.xp = 0.5 * 0.001;
  off.yp = -0.3 * 0.001;
  off.phase = 10.0 / 180.0 * kPi;
  off.energy = 0.02;
  std::vector<double> column[6];
  for (int k = 0; k < 6; ++k) column[k].resize(N);
  for (int i = 0; i < N; ++i)
    for (int k = 0; k < 6; ++k) column[k][i] = f.row(i)[k];
  const double expectedMean[6] = {50.0 * 0.001, off.xp, -30.0 * 0.001, off.yp, off.phase, 3.0 + off.energy};
  for (int k = 0; k < 6; k += 2) {
    const PlaneStatistics s = Statistics(column[k], column[k + 1]);
    const double tolX = 8.0 * s.sdX / std::sqrt(static_cast<double>(N));
    const double tolP = 8.0 * s.sdP / std::sqrt(static_cast<double>(N));
    EXPECT_NEAR(s.meanX, expectedMean[k], tolX) << "place " << k;
    EXPECT_NEAR(s.meanP, expectedMean[k + 1], tolP) << "place " << k + 1;
  }

  // Emittance changes and mismatch, the latter on beta and alpha alike.
  const double bg = BetaGamma(3.0, 938.272029);
  std::vector<std::vector<double>> planes;
  Planes(f, 938.272029, 162.5e6, bg, off, planes);
  ExpectTwiss(planes[0], planes[1], bg, 0.25 * 1.1, 2.0 * 1.05 * 1.05, 0.5 * 1.05 * 1.05, "x");
  ExpectTwiss(planes[2], planes[3], bg, 0.2 * 1.2, 1.5 * 0.95 * 0.95, -0.3 * 0.95 * 0.95, "y");
  ExpectTwiss(planes[4], planes[5], bg, 0.3 * 0.9, 0.8, 0.1, "z");

  // A static mark: the offsets act, the current stays.
  row[0] = 0.0;
  ErrorSample staticSample;
  staticSample.onFlag = {1, 0, 0, 0};
  staticSample.dynamicSet = {row};
  const int n = 20000;
  folder.WriteBeam(Deck(n));
  Initial second;
  Bunch other;
  Build(second, other.beam, staticSample);
  const DstFile g = ReadDst(folder.file("inData.dst"));
  ASSERT_EQ(g.count, n);
  EXPECT_DOUBLE_EQ(g.current, 10.0);
  std::vector<double> x(n), xp(n);
  for (int i = 0; i < n; ++i) {
    x[i] = g.row(i)[0];
    xp[i] = g.row(i)[1];
  }
  const PlaneStatistics s = Statistics(x, xp);
  EXPECT_NEAR(s.meanX, 0.05, 8.0 * s.sdX / std::sqrt(static_cast<double>(n)));
}

TEST(BeamSetup, ZeroCurrentGivesUnitMacroParticles) {
  DeckFolder folder;
  const int N = 2000;
  folder.WriteBeam(Deck(N, "current 0\n"));
  Initial init;
  init.scParameters[0] = 1.0;
  Bunch bunch;
  const std::string console = Build(init, bunch.beam);
  EXPECT_TRUE(ContainsInOrder(console, {"0 intensity, stop SCfield calculations\n", "The intensity is set to 0\n"}))
      << console;
  EXPECT_EQ(console.find("represented by a single macro particle"), std::string::npos);
  EXPECT_EQ(init.spaceCharge, 0);
  EXPECT_EQ(init.numOfGrid, std::vector<int>(3, 3));
  EXPECT_EQ(bunch.beam.current, 0.0);
  EXPECT_EQ(bunch.beam.particleNumber, N);
  const double A = 938.272029 / kMassUnit;
  EXPECT_NEAR(bunch.beam.particle[0].charge, kE, 1e-12 * kE);
  EXPECT_NEAR(bunch.beam.particle[N].mass, A * kMp, 1e-12 * kMp);
  const DstFile f = ReadDst(folder.file("inData.dst"));
  EXPECT_EQ(f.count, N);
  EXPECT_EQ(f.current, 0.0);
}

TEST(BeamSetup, SingleParticleStartsAtTheDeckDisplacement) {
  DeckFolder folder;
  folder.WriteBeam(
      Deck(1, "numofcharge 2\nparticlerestmass 3727.379\ndisplacepos 1.5 -2 3\ndisplacedpos 0.5 -0.25\n"));
  Initial init;
  init.scParameters[0] = 1.0;
  Bunch bunch;
  std::srand(99);
  const int next = std::rand();
  std::srand(99);
  const std::string console = Build(init, bunch.beam);
  EXPECT_EQ(std::rand(), next);  // no random number was drawn

  EXPECT_TRUE(ContainsInOrder(console, {"0 intensity, stop SCfield calculations\n", "The intensity is set to 0\n",
                                        "Synchron particle addition completed\n", "Bunch initialisation complete\n"}))
      << console;
  EXPECT_EQ(init.spaceCharge, 0);
  EXPECT_EQ(bunch.beam.current, 0.0);
  EXPECT_FALSE(keldtest::FileExists(folder.file("inData.dst")));
  EXPECT_EQ(keldtest::ReadFile(folder.file("SingleParticle.txt")),
            "dx:1.5mm  dy:-2mm  dz:3mm\n"
            "dpx:0.5mrad  dpy:-0.25mrad  dpz:--\n"
            "Energy:3MeV\n");

  const Beam& beam = bunch.beam;
  ASSERT_EQ(beam.particleNumber, 1);
  const double m = 3727.379;
  const double bg = BetaGamma(3.0, m);
  const double expected[6] = {1.5 * 0.001, 0.5 * 0.001 * bg, -2 * 0.001, -0.25 * 0.001 * bg, 3 * 0.001, bg};
  for (int k = 0; k < 6; ++k) {
    EXPECT_DOUBLE_EQ(beam.particle[0].coordinate[k], expected[k]) << k;
    EXPECT_EQ(beam.particle[1].coordinate[k], k == 5 ? bg : 0.0) << k;
  }
  EXPECT_EQ(beam.phaseStart, 0.0);
  EXPECT_EQ(beam.phaseHead, 0.0);
  EXPECT_DOUBLE_EQ(beam.zMin, 0.003);
  EXPECT_DOUBLE_EQ(beam.zMax, 0.003);
  const double A = m / kMassUnit;
  for (int i = 0; i < 2; ++i) {
    const Particle& p = beam.particle[i];
    EXPECT_NEAR(p.charge, 2.0 * kE, 1e-12 * kE) << i;
    EXPECT_NEAR(p.mass, A * kMp, 1e-12 * A * kMp) << i;
    EXPECT_NEAR(p.chargeMassRatio, 2.0 / A * kE / kMp, 1e-12 * kE / kMp) << i;
    EXPECT_EQ(p.restEnergy, m) << i;
    EXPECT_EQ(p.lost, 0) << i;
  }
}

TEST(BeamSetup, GenerationFailuresStopTheRun) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  DeckFolder folder;
  for (const std::string keyword : {"kneticenergy", "frequency", "current", "numofcharge"}) {
    // The full deck less the one line.
    std::string deck;
    for (const std::string& line : std::vector<std::string>{
             "numofcharge 1", "kneticenergy 3.0", "frequency 162.5e6", "current 10", "twissx 0.5 2.0 0.25",
             "twissy -0.3 1.5 0.2", "twissz 0.1 0.8 0.3", "particlenumber 10"})
      if (line.compare(0, keyword.size() + 1, keyword + " ") != 0) deck += line + "\n";
    EXPECT_EXIT(
        {
          folder.WriteBeam(deck);
          dup2(STDERR_FILENO, STDOUT_FILENO);
          Initial init;
          Bunch bunch;
          ErrorSample sample;
          init.InitParticle(bunch.beam, sample);
        },
        ::testing::ExitedWithCode(1), keyword)
        << keyword;
    bool logged = false;
    for (const std::string& line : keldtest::ReadLines(folder.file("ErrorLog.txt")))
      if (line.find("   Initialisation stage error: ") != std::string::npos && line.find(keyword) != std::string::npos)
        logged = true;
    EXPECT_TRUE(logged) << keyword;
  }

  // An output folder that does not exist: inData.dst cannot be written.
  EXPECT_EXIT(
      {
        folder.WriteBeam(Deck(10));
        outputFilePath = folder.file("absent") + "/";
        dup2(STDERR_FILENO, STDOUT_FILENO);
        Initial init;
        Bunch bunch;
        ErrorSample sample;
        init.InitParticle(bunch.beam, sample);
      },
      ::testing::ExitedWithCode(1), Literal("Insufficient permissions to write file: inData.dst"));
}
