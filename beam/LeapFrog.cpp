#include "beam/LeapFrog.h"

void LeapFrog::Update(double dt, Particle& particle) { BorisPush(dt, particle); }

void LeapFrog::Update(double dt, Beam& beam) {
  for (int i = 0; i < beam.particleNumber; ++i) BorisPush(dt, beam.particle[i]);
  // The reference slot is pushed whatever its loss state.
  BorisStep(dt, beam.particle[beam.particleNumber]);
}
