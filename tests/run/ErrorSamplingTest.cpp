// Drawing the samples of an error study: amplitude ramps, distribution types, which elements a row reaches, and
// whole studies run at once, by sample range and over MPI ranks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "run/ErrorParameter.h"
#include "run/HelperFunc.h"
#include "run/Initial.h"
#include "run/Keld.h"
#include "tests/support/TestSupport.h"

using namespace keldtest;

namespace {
using Doubles = std::vector<double>;

// A static magnetic map set "q" in text form (uniform By) for `field` lines of type 3, and the cavity set "c".
void WriteMaps(const std::string& folder) {
  for (const char* ext : {".bsx", ".bsy", ".bsz", ".edx", ".edy", ".edz", ".bdx", ".bdy", ".bdz"}) {
    std::ostringstream s;
    s << "2 0.1\n2 -0.05 0.05\n2 -0.05 0.05\n1\n";
    for (int node = 0; node < 27; ++node) s << (std::string(ext) == ".bsy" || std::string(ext) == ".edz" ? 1 : 0) << "\n";
    WriteFile(folder + (ext[1] == 'b' && ext[2] == 's' ? "/q" : "/c") + ext, s.str());
  }
}

// lattice.txt text through InitLattice, then the drawing.
struct Study {
  TempDir dir;
  Initial initial;
  ErrorParameter error;
  Lattice lattice;
  Boundary boundary;
  explicit Study(const std::string& deck) {
    WriteMaps(dir.path());
    WriteFile(dir.file("lattice.txt"), "start\n" + deck + "end\n");
    const std::string saved = inputFilePath;
    inputFilePath = dir.path() + "/";
    testing::internal::CaptureStdout();
    initial.InitLattice(lattice, error, boundary);
    GenerateErrorSet(error, lattice);
    testing::internal::GetCapturedStdout();
    inputFilePath = saved;
  }
};

const std::string kQuad = "field 0.1 0.05 0 3 0 0 0 1 q\n";
const std::string kCavity = "field 0.1 0.05 0 1 352.2e6 -30 1 0 c\n";

}  // namespace

// err_step 3 2: six samples; a dynamic value of type 0 ramps (v/2 for the first three, v for the last three) while a
// static one of type 0 is the full value in every sample; beam type 2 yields 0.0.
TEST(ErrorSampling, AmplitudeStepsRampDynamicValuesOnly) {
  const Study s("err_step 3 2\nerr_beam_dyn 0 0.5 0 4\nerr_beam_dyn_on 1 0 1\nerr_quad_ncpl_stat 1 0 0.002\n"
                "err_quad_stat_on 1\nerr_quad_ncpl_dyn 1 0 0.004\nerr_quad_dyn_on 1\n" + kQuad +
                "drift 0.1 0.05 0\n");
  ASSERT_EQ(s.error.dynamicSets.size(), 6u);
  ASSERT_EQ(s.error.staticSets.size(), 6u);
  for (int n = 0; n < 6; ++n) {
    const double ramp = n < 3 ? 0.5 : 1.0;
    const ErrorSet& dyn = s.error.dynamicSets[n];
    ASSERT_EQ(dyn.size(), 3u);  // beam row, one row per element
    EXPECT_EQ(dyn[0].size(), 26u);
    EXPECT_EQ(Doubles(dyn[0].begin(), dyn[0].begin() + 4), Doubles({1.0, 0.5 * ramp, 0.0, 4.0 * ramp})) << n;
    EXPECT_EQ(dyn[1], Doubles({1.0, 0.004 * ramp, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})) << n;
    EXPECT_EQ(s.error.staticSets[n][1], Doubles({1.0, 0.002, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})) << n;
    EXPECT_EQ(dyn[2], Doubles(12, 0.0)) << "a drift gets no error";
  }
  const Study type2("err_step 2 1\nerr_beam_dyn 2 0.5\nerr_beam_dyn_on 1\n" + kQuad);
  EXPECT_EQ(type2.error.dynamicSets[1][0][0], 1.0);
  EXPECT_EQ(type2.error.dynamicSets[1][0][1], 0.0);
}

// Type 1: uniform in steps of 1e-4 of the amplitude, [0, A) for static values and [-A, A) for dynamic ones; a row
// reaches only maps of its kind in its range (a cavity row before a quadrupole map reaches nothing).
TEST(ErrorSampling, UniformDrawsAndTheElementsARowReaches) {
  const Study s("err_step 200 1\nerr_cav_ncpl_stat 2 1 0.01\nerr_cav_stat_on 1\n" + kQuad + kCavity + kCavity +
                "err_quad_ncpl_dyn 1 1 0.1\nerr_quad_dyn_on 1\n" + kQuad);
  bool negative = false;
  for (int n = 0; n < 200; ++n) {
    const ErrorSet& st = s.error.staticSets[n];
    // The cavity row covers elements 0 and 1: the quadrupole map is not its kind, the second cavity lies beyond.
    EXPECT_EQ(st[1], Doubles(12, 0.0));
    EXPECT_EQ(st[3], Doubles(12, 0.0));
    const double v = st[2][1];
    ASSERT_TRUE(v >= 0.0 && v < 0.01 && st[2][0] == 1.0) << n << " " << v;
    EXPECT_NEAR(v / 0.01 * 10000.0, std::round(v / 0.01 * 10000.0), 1e-6);
    const double d = s.error.dynamicSets[n][4][1];
    ASSERT_TRUE(d >= -0.1 && d < 0.1) << d;
    negative = negative || d < 0.0;
  }
  EXPECT_TRUE(negative);
}

// A static element error of type 2 has no meaning: the drawing stops the process with status 1.
TEST(ErrorSamplingDeathTest, StaticGaussianElementErrorStops) {
  EXPECT_EXIT(Study("err_quad_ncpl_stat 1 2 0.1\nerr_quad_stat_on 1\n" + kQuad), testing::ExitedWithCode(1), "");
}

// Whole studies through keld: the sets do not depend on which process draws them, so a range of samples, or the
// slices of two MPI ranks, write the same error data into the same output_<i> folders as the whole study.
TEST(ErrorSampling, StudyByRangeAndByRanksWritesTheSameSamples) {
  TempDir dir;
  const std::string in = dir.subdir("in");
  WriteMaps(in);
  WriteFile(in + "/input.txt", "spacecharge 0\nsteppercycle 30\nscanphase 0\n");
  WriteFile(in + "/beam.txt", "numofcharge 1\nkneticenergy 3.0\nfrequency 352.2e6\ncurrent 0\nparticlenumber 100\n"
                              "twissx -0.5 0.3 0.2\ntwissy 0.5 0.3 0.2\ntwissz 0.0 3.2 0.1\n");
  WriteFile(in + "/lattice.txt", "start\nerr_step 2 2\nerr_beam_dyn 1 0.1 0.1\nerr_beam_dyn_on 1 1\n"
                                 "drift 0.05 0.05 0\nerr_quad_ncpl_dyn 1 1 0.001 0.002\nerr_quad_dyn_on 1 1\n" + kQuad +
                                 "drift 0.05 0.05 0\nend\n");
  const std::string whole = dir.subdir("whole"), part = dir.subdir("part");
  const RunResult all = RunKeld(in, whole);
  ASSERT_EQ(all.status, 0) << all.output;
  const RunResult some = RunKeld(in, part + "' --samples '2-3");
  ASSERT_EQ(some.status, 0) << some.output;
  EXPECT_FALSE(FileExists(part + "/output_1/DataSet.txt"));
  for (int i = 0; i < 4; ++i) {
    const std::string data = ReadFile(whole + "/output_" + std::to_string(i) + "/DynamicErrorData.txt");
    ASSERT_FALSE(data.empty()) << i;
    if (i >= 2) {
      EXPECT_EQ(ReadFile(part + "/output_" + std::to_string(i) + "/DynamicErrorData.txt"), data) << i;
    }
  }
  EXPECT_NE(ReadFile(whole + "/output_0/DynamicErrorData.txt"), ReadFile(whole + "/output_3/DynamicErrorData.txt"));
  // Each sample says when it starts; the closing summary has one line per sample that this process ran.
  for (const char* piece : {"\nSample 1 of 4 (output_0)\n", "\nSample 4 of 4 (output_3)\n", "\nStudy summary: 4 samples\n",
                            "\n  sample 1 (output_0): 100 of 100 out (100 %), emittance x, y, z ",
                            "\n  transmission: mean 100 %, rms spread 0 %, from 100 to 100 %\n  exit emittance x: mean "})
    EXPECT_NE(all.output.find(piece), std::string::npos) << piece << all.output;
  EXPECT_EQ(some.output.find("Sample 2 of 4"), std::string::npos) << some.output;
  EXPECT_EQ(some.output.find("(output_1)"), std::string::npos) << some.output;
  for (const char* piece : {"\nSample 3 of 4 (output_2)\n", "\nStudy summary: 2 samples\n  sample 3 (output_2): "})
    EXPECT_NE(some.output.find(piece), std::string::npos) << piece << some.output;
  // The next slice into the same folder sums up its own samples, not those the earlier slice left there.
  const RunResult rest = RunKeld(in, part + "' --samples '0-1");
  ASSERT_EQ(rest.status, 0) << rest.output;
  EXPECT_NE(rest.output.find("\nStudy summary: 2 samples\n  sample 1 (output_0): "), std::string::npos) << rest.output;
  const RunResult beyond = RunKeld(in, part + "' --samples '3-4");
  EXPECT_EQ(beyond.status, 1);
  EXPECT_NE(beyond.output.find("\nSamples 3-4 were asked for, but the study has 4 samples (0-3)\n"),
            std::string::npos)
      << beyond.output;
#ifdef KELD_MPI_LAUNCHER
  const std::string ranks = dir.subdir("ranks");
  const std::string command = "OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 mpirun --oversubscribe -n 2 " +
                              std::string(KELD_MPI_LAUNCHER) + " '" + in + "' '" + ranks + "' > /dev/null 2>&1";
  ASSERT_EQ(std::system(command.c_str()), 0);
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(ReadFile(ranks + "/output_" + std::to_string(i) + "/DynamicErrorData.txt"),
              ReadFile(whole + "/output_" + std::to_string(i) + "/DynamicErrorData.txt"))
        << i;
#endif
}

// The Box-Muller pair: the first call draws two numbers and returns the cosine member, the second the sine member
// of the same pair; rand_gen lies in (0, 1].
TEST(ErrorSampling, GaussianPairFromTwoDraws) {
  std::srand(7);
  const double u1 = std::rand() / 2147483647.0, u2 = std::rand() / 2147483647.0;
  const double r = std::sqrt(-2.0 * std::log(u1)), w = 6.283185307179586 * u2;
  std::srand(7);
  // Another test may have left the second member of a pair waiting: then the new pair starts one call later.
  const double a = GenerateGaussian(1.0, 2.0), b = GenerateGaussian(1.0, 2.0), c = GenerateGaussian(1.0, 2.0);
  const double first = r * std::cos(w) * 2.0 + 1.0, second = r * std::sin(w) * 2.0 + 1.0;
  EXPECT_TRUE((a == first && b == second) || (b == first && c == second)) << a << " " << b << " " << c;
  if (a == first) GenerateGaussian(0.0, 1.0);  // leave no member waiting
  double sum = 0.0, square = 0.0;
  for (int k = 0; k < 20000; ++k) {
    const double g = GenerateGaussian(0.0, 1.0);
    sum += g, square += g * g;
    const double u = rand_gen();
    ASSERT_TRUE(u > 0.0 && u <= 1.0);
  }
  EXPECT_NEAR(sum / 20000, 0.0, 0.03);
  EXPECT_NEAR(square / 20000, 1.0, 0.03);
}
