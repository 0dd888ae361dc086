#include "beamline/Edge.h"

#include "beamline/Bend.h"

void Edge::GetField(double, SynParticle& particle, FieldMatrix const&) { ZeroField(particle); }

void Edge::GetErrField(double, Particle& particle, FieldMatrix const&) { ZeroField(particle); }

void Edge::GetField(double, Particle& particle, FieldMatrix const&) { ZeroField(particle); }

void Edge::GetParameter(std::vector<double>& values) {
  values.push_back(static_cast<double>(bendPlane));
  values.push_back(arcLength);
  values.push_back(curvature);
  values.push_back(kx);
  values.push_back(ky);
}

void Edge::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  if (!EnoughTokens(token, 5)) return;
  index = elementIndex;
  SetBasicParameter(start, token);
  ParseBendTokens(*this, token);
}
