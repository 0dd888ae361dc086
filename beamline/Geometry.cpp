#include "beamline/Geometry.h"

int Geometry::Boundary(double, double, Particle&, std::vector<double>, std::string) { return 0; }
