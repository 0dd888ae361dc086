// The RFQ: merged cell tables, the Bessel series, the cell field against its closed forms, the cell lookup, the
// synchronous pass through a table matched to the design particle, and a deck with an rfq line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "beam/SynParticle.h"
#include "beamline/Lattice.h"
#include "beamline/RFQ.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/RfqTables.h"
#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {

constexpr double kPi = 3.141592653589793;

// Runs ReadRFQ and configures an RFQ by hand at z = 0 from the merged table, as a caller outside the deck would.
struct HandRfq {
  TempDir dir;
  Lattice lattice;
  RFQ* rfq = new RFQ();
  std::string console;
  explicit HandRfq(RfqDesign* design = nullptr, const std::string& v = "", const std::string& ann = "") {
    if (design) {
      WriteRfqTables(dir.path(), *design);
    } else {
      WriteFile(dir.file("rfqinputV.txt"), v);
      WriteFile(dir.file("rfqinputAnn.txt"), ann);
    }
    const std::string savedIn = inputFilePath, savedOut = outputFilePath;
    inputFilePath = outputFilePath = dir.path() + "/";
    testing::internal::CaptureStdout();
    std::string in = inputFilePath, out = outputFilePath;
    ReadRFQ(in, out);
    std::vector<std::string> token = {"rfq", "0.1", "0.01", "0", "0", "352.2e6", "0", "rfqinput.txt"};
    token.resize(14, "invalid");
    token.push_back("0");
    rfq->SetParameter(0.0, token);
    // Placed as long as its cells, so that the scan leaves the element with the last cell.
    if (design) {
      char length[64];
      std::snprintf(length, sizeof length, "%.17g", rfq->cellEnd.back());
      token[1] = length;
    }
    lattice.SetElement(token, rfq);
    rfq->length = lattice.elementLength.back();
    console = testing::internal::GetCapturedStdout();
    inputFilePath = savedIn, outputFilePath = savedOut;
    lattice.fieldM.time = {0.0};
    lattice.fieldM.phase = {0.0};
  }
};

void Field(RFQ& rfq, const Lattice& lattice, double x, double y, double z, double* out) {
  Particle p{};
  p.coordinate[0] = x, p.coordinate[2] = y, p.coordinate[4] = z;
  rfq.GetField(0.0, p, lattice.fieldM);
  for (int k = 0; k < 6; ++k) out[k] = p.externalField[k];
}

}  // namespace

// The merged table: cell number, length, voltage, aperture, columns 4 and 5 in the default six digits, then
// A0 ... A7 picked from their Ann columns with six decimals; E0-z.txt: position in m and the profile value.
TEST(RfqTables, MergeKeepsColumnsAndTheirRounding) {
  const HandRfq r(nullptr,
                  "7 81.23456 0 0 0.55 0 12 0.3 4.5 0 0 0 1.2345678 2.5\n"
                  "8 82 0 0 0.65 0 13 0.31 4.6 0 0 0 1.5 4.0\n",
                  "0 0 0 0 0 0.1 0.2 0.3 0.4 0.5 0.6 0.7 0.8\n"
                  "0 0 0 0 0 1.1 1.2 1.3 1.4 1.5 1.6 1.7 0.0000001\n");
  EXPECT_EQ(ReadFile(r.dir.file("rfqinput.txt")),
            "7 1.23457 81.2346 0.3 4.5 12 0.200000 0.100000 0.400000 0.300000 0.600000 0.800000 0.500000 0.700000\n"
            "8 1.5 82 0.31 4.6 13 1.200000 1.100000 1.400000 1.300000 1.600000 0.000000 1.500000 1.700000\n");
  EXPECT_EQ(ReadFile(r.dir.file("E0-z.txt")), "0.025 0.55\n0.04 0.65\n");
  EXPECT_EQ(r.console.substr(0, 38), "RFQ cell number : 2\nRFQ length      : ");
  ASSERT_EQ(r.rfq->cellStart.size(), 2u);
  EXPECT_NEAR(r.rfq->cellStart[1], 0.0123457, 1e-12);
  EXPECT_NEAR(r.rfq->cellVoltage[0], 81234.6, 1e-6);
  EXPECT_EQ(r.rfq->coefficient[1], std::vector<double>({1.2, 1.1, 1.4, 1.3, 1.6, 0.0, 1.5, 1.7}));
  EXPECT_EQ(r.rfq->type, "rfq");
}

// Tables of different lengths would pair cells with another cell's coefficients.
TEST(RfqTablesDeathTest, TablesOfDifferentLengthsStop) {
  EXPECT_EXIT(HandRfq(nullptr, "0 80 0 0 0 0 0 0.3 0 0 0 0 1 1\n0 80 0 0 0 0 0 0.3 0 0 0 0 1 2\n",
                      "0 0 0 0 0 0.1 0 0 0 0 0 0 0\n"),
              testing::ExitedWithCode(1), "");
}

TEST(RfqBessel, SeriesMatchesKnownValues) {
  EXPECT_EQ(Bessin(0, 0.0), 1.0);
  EXPECT_EQ(Bessin(1, 0.0), 0.0);
  EXPECT_NEAR(Bessi0(1.0), 1.2660658777520082, 1e-15);
  EXPECT_NEAR(Bessi1(1.0), 0.5651591039924851, 1e-15);
  EXPECT_NEAR(Bessin(2, 2.0), 0.6889484476987382, 1e-14);
  EXPECT_NEAR(Bessi0(3.0), 4.880792585865024, 1e-12);
}

// A0 alone: the two-term quadrupole Ex = V A0 x / a^2, Ey = -V A0 y / a^2. A1 alone: on the axis
// Ez = -(V/2) s k A1 cos(k zc) with s alternating from cell to cell, and just off the axis the general form, which
// has the opposite sign. Lookup: a z on a cell end belongs to the lower cell; past the last end the cell is -1,
// the field zero and the radius 1e99, with the console line.
TEST(RfqField, CellFieldsFollowTheirClosedForms) {
  HandRfq r(nullptr, "0 80 0 0 0 0 0 0.5 0 0 0 0 2 2\n1 80 0 0 0 0 0 0.5 0 0 0 0 2 4\n",
            "0 0 0 0 0 0.04 0.7 0 0 0 0 0 0\n0 0 0 0 0 0.04 0.7 0 0 0 0 0 0\n");
  RFQ& q = *r.rfq;
  const double V = 80000.0, a = 0.005, k = kPi / 0.02, x = 0.001, y = 0.0005;
  double f[6];
  // A quadrupole cell: with A1 zeroed, only the A0 term remains.
  q.coefficient[0][1] = 0.0;
  Field(q, r.lattice, x, y, 0.005, f);
  EXPECT_NEAR(f[0], V * 0.7 * x / (a * a), 1e-9 * V * 0.7 * x / (a * a));
  EXPECT_NEAR(f[1], -V * 0.7 * y / (a * a), 1e-9 * V * 0.7 * x / (a * a));
  EXPECT_NEAR(f[2], 0.0, 1e-6);
  for (int c : {0, 1}) q.coefficient[c][0] = 0.0;
  q.coefficient[0][1] = 0.04;
  for (int cell : {0, 1}) {
    const double zc = 0.004, s = cell == 0 ? 1.0 : -1.0, z = q.cellStart[cell] + zc;
    Field(q, r.lattice, 0.0, 0.0, z, f);
    EXPECT_NEAR(f[2], -(V / 2.0) * s * k * 0.04 * std::cos(k * zc), 1e-6) << cell;
    Field(q, r.lattice, 1e-9, 0.0, z, f);
    EXPECT_NEAR(f[2], (V / 2.0) * s * k * 0.04 * std::cos(k * zc), 1e-3) << cell;
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(std::vector<int>({q.getEleNum(-0.01), q.getEleNum(0.02), q.getEleNum(0.0200001), q.getEleNum(0.05)}),
            std::vector<int>({0, 0, 1, -1}));
  EXPECT_EQ(q.getRadius(0.05), 1e99);
  Field(q, r.lattice, x, y, 0.05, f);
  EXPECT_EQ(std::vector<double>(f, f + 6), std::vector<double>(6, 0.0));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Particle in RFQ error: exceed the RFQ length but still in RFQ\n"
                "Particle in RFQ error: exceed the RFQ length but still in RFQ\n"
                "Particle in RFQ error: exceed the RFQ length but still in RFQ\n");
}

// The cell field as its formula is written, with the library's pow, atan2 and the Bessel series term by term;
// the element takes the powers, the multiple angles and the Bessel terms by recurrences instead. Returns the sum
// of the terms' sizes, the scale of their roundings.
static double WrittenCellField(const RFQ& q, int i, double x, double y, double z, double* f) {
  const std::vector<double>& A = q.coefficient[i];
  const double V = std::fabs(q.cellVoltage[i]), a = q.cellRadius[i], zc = z - q.cellStart[i];
  const double k = kPi / q.cellLength[i], s = i % 2 == 0 ? 1.0 : -1.0;
  const double r = std::sqrt(x * x + y * y), th = std::atan2(y, x), kz = k * zc;
  const double er = (V / 2.0) * (2.0 * A[0] * r / (a * a) * std::cos(2 * th) +
                                 6.0 * A[2] * std::pow(r, 5) / std::pow(a, 6) * std::cos(6 * th) +
                                 s * k * (A[1] * Bessin(1, k * r) * std::sin(kz) + 3.0 * A[6] * std::sin(3 * kz) +
                                          A[3] * std::sin(kz) * std::cos(4 * th) +
                                          3.0 * A[7] * std::sin(3 * kz) * std::cos(4 * th) +
                                          2.0 * A[4] * std::sin(2 * kz) * std::cos(2 * th) +
                                          2.0 * A[5] * std::sin(2 * kz) * std::cos(6 * th)));
  const double et =
      -(V / (2.0 * r)) * (2.0 * A[0] * std::pow(r / a, 2) * std::sin(2 * th) +
                          6.0 * A[2] * std::pow(r / a, 6) * std::sin(6 * th) +
                          s * (4.0 * A[3] * std::sin(kz) * std::sin(4 * th) +
                               4.0 * A[7] * std::sin(3 * kz) * std::sin(4 * th) +
                               2.0 * A[4] * std::sin(2 * kz) * std::sin(2 * th) +
                               6.0 * A[5] * std::sin(2 * kz) * std::sin(6 * th)));
  const double ez = s * (V / 2.0) * k *
                    (A[1] * Bessin(0, k * r) * std::cos(kz) + 3.0 * A[6] * std::cos(3 * kz) +
                     A[3] * std::cos(kz) * std::cos(4 * th) + 3.0 * A[7] * std::cos(3 * kz) * std::cos(4 * th) +
                     2.0 * A[4] * std::cos(2 * kz) * std::cos(2 * th) + 2.0 * A[5] * std::cos(2 * kz) * std::cos(6 * th));
  f[0] = er * std::cos(th) - et * std::sin(th);
  f[1] = er * std::sin(th) + et * std::cos(th);
  f[2] = ez;
  const double axial = std::fabs(A[3]) + 3.0 * std::fabs(A[7]) + 2.0 * std::fabs(A[4]) + 2.0 * std::fabs(A[5]);
  return (V / 2.0) * (2.0 * std::fabs(A[0]) * r / (a * a) + 6.0 * std::fabs(A[2]) * std::pow(r, 5) / std::pow(a, 6) +
                      k * (std::fabs(A[1]) * (Bessin(0, k * r) + Bessin(1, k * r)) + 6.0 * std::fabs(A[6]) +
                           2.0 * axial)) +
         (V / (2.0 * r)) * (2.0 * std::fabs(A[0]) * std::pow(r / a, 2) + 6.0 * std::fabs(A[2]) * std::pow(r / a, 6) +
                            2.0 * axial);
}

// Against the formula as written, over all eight terms, every cell, the whole cross-section up to beyond the
// aperture, and from just off the axis: the recurrences change the order of a few roundings, which stays within
// 1e-12 of the size of the terms summed (where the terms cancel, the field itself is smaller than that). The lookup halves over the cell ends and finds the cell a walk would.
TEST(RfqField, RecurrencesMatchTheWrittenSeries) {
  RfqDesign design;
  HandRfq r(&design);
  RFQ& q = *r.rfq;
  for (std::size_t i = 0; i < q.coefficient.size(); ++i)
    q.coefficient[i] = {0.7, 0.05 + 0.01 * i, 0.02, -0.03, 0.04, -0.05, 0.06, 0.07};
  const double end = q.cellEnd.back();
  double worst = 0.0;
  for (int n = 0; n < 2000; ++n) {
    const double radius = n % 7 == 0 ? 2e-16 * (1 + n % 5) : 6e-3 * std::fabs(std::sin(1.3 * n));
    const double theta = 0.37 * n, z = end * (n + 0.5) / 2000.0;
    const double x = radius * std::cos(theta), y = radius * std::sin(theta);
    int walked = 0;
    while (z > q.cellEnd[walked]) ++walked;
    ASSERT_EQ(q.getEleNum(z), walked) << z;
    double f[6], w[3];
    Field(q, r.lattice, x, y, z, f);
    const double size = WrittenCellField(q, walked, x, y, z, w);
    for (int c = 0; c < 3; ++c) worst = std::max(worst, std::fabs(f[c] - w[c]) / size);
  }
  EXPECT_LT(worst, 1e-12);
  double i0, i1;
  for (double x : {0.0, 1e-8, 0.3, 1.0, 2.5, 6.0}) {
    BesselPair(x, i0, i1);
    EXPECT_NEAR(i0, Bessin(0, x), 1e-14 * Bessin(0, x)) << x;
    EXPECT_NEAR(i1, Bessin(1, x), 1e-14 * Bessin(0, x)) << x;
  }
  BesselPair(0.0, i0, i1);
  EXPECT_EQ(i0, 1.0);
  EXPECT_EQ(i1, 0.0);
}

// The design particle through cells matched to it: each cell gains (pi/4) q A1 V cos(phi) with phi the phase of
// that cell, and RFQsynPhaseEG.txt lists the phases and energies; the exit time is left in x.
TEST(RfqSynchronousPass, MatchedCellsGainTheirDesignEnergy) {
  RfqDesign design;
  HandRfq r(&design);
  SynParticle syn;
  const double g = 1.0 + design.energy / 938.272029;
  syn.coordinate = {0.0, 0.0, 0.0, 0.0, 1e-15, std::sqrt(g * g - 1.0)};
  syn.chargeMassRatio = 1.60217653e-19 / 1.67262171e-27 * 938.27187 / 938.272029;
  syn.restEnergy = 938.272029;
  syn.timeList = {0.0};
  // In the first cell the particle sees -cos(k z) cos(k z + P): the gain goes with -cos P, so the entrance phase
  // is the synchronous phase plus half a turn.
  syn.phaseList = {design.phaseFirst + 180.0};
  const std::string savedOut = outputFilePath;
  outputFilePath = r.dir.path() + "/";
  testing::internal::CaptureStdout();
  r.rfq->GetField(0.0, syn, r.lattice.fieldM);
  testing::internal::GetCapturedStdout();
  outputFilePath = savedOut;
  ASSERT_NE(syn.coordinate[1], 1.0) << "the particle lost energy in a cell";
  EXPECT_GT(syn.coordinate[0], 0.0);
  const std::vector<std::string> lines = ReadLines(r.dir.file("RFQsynPhaseEG.txt"));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(design.cells));
  double before = design.energy;
  for (int i = 0; i < design.cells; ++i) {
    ASSERT_EQ(lines[i].find("   "), lines[i].find('.') + 11) << lines[i];
    const std::vector<double> v = Numbers(lines[i]);
    const double expected = std::fabs(RfqCellGain(design.a1[i], design.voltage, v[0]));
    EXPECT_NEAR(v[1] - before, expected, 0.05 * expected) << "cell " << i << ": " << lines[i];
    EXPECT_NEAR(v[0], design.phase[i], 6.0) << "cell " << i;  // the cells hold the particle near its design phase
    before = v[1];
  }
}

// A deck's rfq line merges the tables and places an element that its SetParameter never reaches: it stays a
// "drift" without cells, so every particle inside it prints the past-the-end line at every step and feels no field.
TEST(RfqDeck, RfqLineMergesTablesAndLeavesAnUnconfiguredElement) {
  TempDir dir;
  const std::string in = dir.subdir("in"), out = dir.subdir("out");
  RfqDesign design;
  WriteRfqTables(in, design);
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 20\n");
  WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\nparticlenumber 10\n"
                              "twissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 0.5 0.1\n");
  WriteFile(in + "/lattice.txt", "start\ndrift 0.05 0.02 0\nrfq 0.02 0.01 0 0 352.2e6 0 rfqinput.txt\n"
                                 "drift 0.05 0.02 0\nend\n");
  const RunResult r = RunKeld(in, out);
  ASSERT_EQ(r.status, 0) << r.output.substr(0, 3000);
  EXPECT_TRUE(FileExists(in + "/rfqinput.txt") && FileExists(in + "/E0-z.txt"));
  EXPECT_EQ(r.output.find("RFQ cell number"), std::string::npos);
  std::size_t lines = 0;
  for (std::size_t at = r.output.find("Particle in RFQ error"); at != std::string::npos;
       at = r.output.find("Particle in RFQ error", at + 1))
    ++lines;
  EXPECT_GE(lines, 10u * 5u);  // ten particles over the 2 cm, six steps of 1/20 period each at 3 MeV
  const std::vector<std::string> data = ReadLines(out + "/DataSet.txt");
  EXPECT_NEAR(Numbers(data.back())[0], Numbers(data.front())[0], 1e-9);
  EXPECT_EQ(Numbers(data.back())[28], 10);
}

// The phase scan meets a configured RFQ: it enters at the phase that puts the first cell at -90 degrees, the
// shaper's phase, and the design particle leaves the RFQ with the table's energy; the scan table holds that
// entrance phase.
TEST(RfqSynchronousPass, PhaseScanEntersAtTheCrestOffset) {
  RfqDesign design;
  design.phaseFirst = -90.0;
  design.phaseLast = -60.0;
  HandRfq r(&design);
  r.lattice.outputPlane.push_back({0, 0, 0, 0, 0, 0, r.lattice.zEnd.back()});
  r.lattice.fieldM.time.clear();
  r.lattice.fieldM.phase.clear();
  WriteFile(r.dir.file("beam.txt"), "kneticenergy 0.05\nfrequency 352.2e6\n");
  Initial init;
  init.numOfCharge = 1.0;
  const std::string savedIn = inputFilePath, savedOut = outputFilePath;
  inputFilePath = outputFilePath = r.dir.path() + "/";
  testing::internal::CaptureStdout();
  init.SetSynPhase(r.lattice);
  const std::string console = testing::internal::GetCapturedStdout();
  inputFilePath = savedIn, outputFilePath = savedOut;
  EXPECT_NE(console.find("RFQ Complete phase scanning, phi_0:90  frequency is 3.522e+08\n"), std::string::npos)
      << console;
  EXPECT_EQ(console.find("RFQ Rescan"), std::string::npos);
  EXPECT_EQ(ReadFile(r.dir.file("scanData.txt")), "90.0000000000   0.00000000000000000000\n");
  const std::vector<std::string> lines = ReadLines(r.dir.file("RFQsynPhaseEG.txt"));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(design.cells));
  const double last = design.entryEnergy.back() + design.gain.back();
  EXPECT_NEAR(Numbers(lines.back())[1], last, 0.1 * (last - design.energy));  // phase slips add up over cells
}
