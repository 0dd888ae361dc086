#pragma once
#include <string>

// One macro particle. Plain data, read and written in place by the transports.
// Coordinates: x, gamma beta x, y, gamma beta y, z, gamma beta z (m and
// dimensionless); fields: Ex, Ey, Ez (V/m), Bx, By, Bz (T).
struct Particle {
  double coordinate[6];
  double externalField[6];     // from the lattice element the particle stands in
  double spaceChargeField[6];  // from the self-field solver, laboratory frame
  double totalField[6];        // what the pusher reads
  double relativeCoordinate[6];  // position relative to the reference slot, momenta
  int indexElem;      // lattice element the particle stands in
  int indexBoundary;  // aperture section the particle stands in
  int outsideMesh;    // 1 when outside the space-charge mesh
  int lost;           // 0 alive, 1 lost, 2 passed the exit of the last element
  int indexPlane;     // next stop not yet crossed
  double charge;           // C, whole macro particle
  double mass;             // kg, whole macro particle
  double chargeMassRatio;  // C/kg of one ion: the only factor the pusher reads
  double restEnergy;       // MeV
  double startTime;        // s, release time of a secondary particle
  double delayTime;        // s
  int index;
  int nextBend;
  int boundaryMode;  // 0: elements test their own radius
  double multiplicity;
  std::string name;
};
