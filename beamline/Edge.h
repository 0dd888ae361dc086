#pragma once
#include "beamline/Element.h"

// Pole-face edge of a bend, parsed like a bend. No deck keyword makes one.
class Edge : public Element {
 public:
  int bendPlane = 0;
  double arcLength = 0.0;
  double angle = 0.0;
  double kx = 0.0;
  double ky = 0.0;
  double curvatureRadius = 0.0;
  double fieldIndex = 0.0;
  double curvature = 0.0;

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetParameter(std::vector<double>& values) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;
};
