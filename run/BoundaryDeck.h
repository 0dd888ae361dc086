#pragma once
#include "beamline/Boundary.h"
#include "beamline/Lattice.h"

// Reads boundary.txt from the input folder into the aperture list: after a
// "start" line, one section per line "1 <name> <length> <radius> [RLP dz dx
// dy a0 a1 a2]" (circular pipe) or "2 <name> <length> ..." (open section);
// "end" reports the total length and reading goes on to the end of the file.
void ReadBoundaryDeck(const Lattice& lattice, Boundary& boundaryList);
