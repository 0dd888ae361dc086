// Aperture sections: placement end to end, the pipe's loss test with the crossing on the wall, open sections.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "beamline/Boundary.h"
#include "tests/support/TestSupport.h"

namespace {
using V = std::vector<double>;
using Row = std::array<double, 6>;

// A particle at (x, y, z) with momenta 0.01, 0.02, 0.08 and the records collisionData.txt prints.
Particle At(double x, double y, double z) {
  Particle p{};
  p.coordinate[0] = x, p.coordinate[1] = 0.01, p.coordinate[2] = y, p.coordinate[3] = 0.02, p.coordinate[4] = z;
  p.coordinate[5] = 0.08;
  p.charge = 2 * 1.60217653e-19, p.restEnergy = 938.272029, p.multiplicity = 1e5, p.name = "proton";
  return p;
}
Row From(double x, double y, double z) { return {x, 0.01, y, 0.02, z, 0.08}; }
}  // namespace

// Sections stand end to end from 0; tokens up to RLP are the shape values, the six behind it the placement with
// its angles in rad.
TEST(BoundaryList, SectionsEndToEndAndPlacement) {
  Boundary list;
  list.SetElement({"2", "open", "1.0"}, new Geometry());
  list.SetElement({"1", "pipe", "0.5", "0.01", "7", "RLP", "0.1", "0.002", "-0.003", "90", "0", "45"}, new Geometry());
  EXPECT_EQ(list.zStart, V({0.0, 1.0}));
  EXPECT_EQ(list.zEnd, V({1.0, 1.5}));
  EXPECT_EQ(list.length, V({1.0, 0.5}));
  const Geometry& g = *list.geometry[1];
  EXPECT_EQ(std::vector<int>({g.index, g.shape}), std::vector<int>({1, 1}));
  EXPECT_EQ(g.name, "pipe");
  EXPECT_EQ(g.shapeParameter, V({0.5, 0.01, 7}));
  EXPECT_EQ(g.placement, V({0.1, 0.002, -0.003, 90 * 3.141592653589793 / 180.0, 0, 45 * 3.141592653589793 / 180.0}));
  EXPECT_EQ(list.geometry[0]->placement, V(6, 0.0));
}

// A pipe of radius 1 cm from z = 1 to 1.5: a particle that reaches the wall is lost, at r equal to the radius too,
// and its crossing is interpolated onto the wall; a path that came in through the entrance face crosses on the
// face. Not in the section (z at its entrance) or inside the radius: nothing. An open section never loses.
TEST(BoundaryPipe, LosesExactlyTheParticlesOutsideAndRecordsTheCrossing) {
  keldtest::TempDir dir;
  const std::string folder = dir.path() + "/";
  Boundary list;
  list.SetElement({"2", "open", "1.0"}, new Geometry());
  list.SetElement({"1", "pipe", "0.5", "0.01"}, new Geometry());
  Geometry& open = *list.geometry[0];
  Geometry& pipe = *list.geometry[1];

  Particle out = At(0.015, 0.0, 1.3);
  pipe.Boundary(2e-9, 1e-10, out, From(0.005, 0.0, 1.2), folder);
  Particle wall = At(0.006, -0.008, 1.3), inside = At(0.006, -0.0079, 1.3), entrance = At(0.05, 0.0, 1.0);
  for (Particle* p : {&wall, &inside, &entrance}) pipe.Boundary(2e-9, 1e-10, *p, From(0.0, 0.0, 1.2), folder);
  Particle face = At(0.02, 0.0, 1.1);
  pipe.Boundary(2e-9, 1e-10, face, From(0.02, 0.0, 0.9), folder);
  Particle far = At(5.0, 0.0, 0.5);
  open.Boundary(2e-9, 1e-10, far, From(0.0, 0.0, 0.4), folder);
  EXPECT_EQ(std::vector<int>({out.lost, wall.lost, inside.lost, entrance.lost, face.lost, far.lost}),
            std::vector<int>({1, 1, 0, 0, 1, 0}));

  const std::vector<std::string> lines = keldtest::ReadLines(folder + "collisionData.txt");
  ASSERT_EQ(lines.size(), 3u);
  // Halfway from r = 5 mm to r = 15 mm: x = 1 cm, z = 1.25, half a step before the end; default stream format.
  EXPECT_EQ(lines[0], "0.01 0  1.25  2.99792e+06  5.99585e+06  2.39834e+07  2  938.272  100000  1.95e-09  proton");
  EXPECT_EQ(lines[1], "0.006 -0.008  1.3  2.99792e+06  5.99585e+06  2.39834e+07  2  938.272  100000  2e-09  proton");
  const V onFace = keldtest::Numbers(lines[2]);
  EXPECT_EQ(V({onFace[0], onFace[1], onFace[2]}), V({0.02, 0, 1}));
  EXPECT_NEAR(onFace[9], 2e-9 - 0.5e-10, 1e-22);
}

TEST(BoundaryPipeDeathTest, UnknownShapeEndsProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Boundary list;
  list.SetElement({"3", "odd", "1.0"}, new Geometry());
  Particle p = At(0, 0, 0.5);
  SynParticle sp;
  EXPECT_EXIT({ dup2(STDERR_FILENO, STDOUT_FILENO); list.geometry[0]->Boundary(0, 1e-10, p, From(0, 0, 0.4), "/tmp/"); },
              testing::ExitedWithCode(1), "Unknown geometric shapes have been set\n");
  EXPECT_EXIT({ dup2(STDERR_FILENO, STDOUT_FILENO); list.geometry[0]->Boundary(0, 1e-10, sp, V(6, 0.0)); },
              testing::ExitedWithCode(1), "Unknown geometric shapes have been set\n");
}
