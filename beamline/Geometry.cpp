#include "beamline/Geometry.h"

int Geometry::Boundary(double, double, Particle&, const std::array<double, 6>&, const std::string&) { return 0; }
