#include "spacecharge/PIC.h"

PIC::PIC(Mesh&, Beam&, std::vector<double>& parameters, int lpBoundaryIn)
    : lpBoundary(lpBoundaryIn), scMethod(parameters[0]) {}
