#include "beamline/Drift.h"

#include <cmath>
#include <cstdlib>
#include <iostream>

void Drift::GetField(double, SynParticle& particle, FieldMatrix const&) {
  const std::vector<double>& c = particle.coordinate;
  if (std::sqrt(c[0] * c[0] + c[2] * c[2]) >= radius) {
    std::cout << "Synchronised particles can't reach the exit plane, problems with the beamline" << std::endl;
    std::exit(1);
  }
  ZeroField(particle);
}

void Drift::GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) {
  Drift::GetField(t, particle, fieldM);
}

void Drift::GetField(double, Particle& particle, FieldMatrix const&) {
  const double* c = particle.coordinate;
  // The aperture test is "at least": a particle on the wall is lost.
  if (std::sqrt(c[0] * c[0] + c[2] * c[2]) >= radius && particle.boundaryMode == 0) particle.lost = 1;
  ZeroField(particle);
}

void Drift::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  if (!EnoughTokens(token, 4)) return;
  index = elementIndex;
  SetBasicParameter(start, token);
}
