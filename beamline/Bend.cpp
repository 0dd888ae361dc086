#include "beamline/Bend.h"

#include <cmath>

void Bend::GetField(double, SynParticle& particle, FieldMatrix const&) { ZeroField(particle); }

void Bend::GetErrField(double, Particle& particle, FieldMatrix const&) { ZeroField(particle); }

void Bend::GetField(double, Particle& particle, FieldMatrix const&) { ZeroField(particle); }

void Bend::GetParameter(std::vector<double>& values) {
  if (values.empty()) {
    values.push_back(static_cast<double>(bendPlane));
  } else {
    // A value handed in is kept, and its place then carries the plane.
    lastInput = values[0];
    values[0] = static_cast<double>(bendPlane);
  }
  values.push_back(arcLength);
  values.push_back(curvature);
  values.push_back(kx);
  values.push_back(ky);
  values.push_back(lastInput);
}

void Bend::SetParameter(int elementIndex, double start, std::vector<std::string> const& token) {
  if (!EnoughTokens(token, 5)) return;
  index = elementIndex;
  SetBasicParameter(start, token);
  ParseBendTokens(*this, token);
}
