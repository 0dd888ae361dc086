#include "beamline/Solenoid.h"

void Solenoid::GetField(double, SynParticle& particle, FieldMatrix const&) { ZeroField(particle); }

void Solenoid::GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) {
  Solenoid::GetField(t, particle, fieldM);
}

void Solenoid::GetField(double, Particle& particle, FieldMatrix const&) {
  double* f = particle.externalField;
  f[0] = f[1] = f[2] = f[3] = f[4] = 0.0;
  f[5] = strength;
}

void Solenoid::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  if (!EnoughTokens(token, 5)) return;
  index = elementIndex;
  SetBasicParameter(start, token);
  strength = DeckReal(token.at(4));
}
