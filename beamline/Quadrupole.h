#pragma once
#include "beamline/Element.h"

// Ideal quadrupole field, Bx = g y, By = g x, in the laboratory frame.
class Quadrupole : public Element {
 public:
  double quadParameter3 = 0.0;          // stored only
  double fringeCoefficient1 = -4e-05;   // stored only
  double fringeCoefficient2 = 4.518219; // stored only
  double boreDiameter = 0.0;            // m, twice the radius
  double quadReserved1 = 0.0, quadReserved2 = 0.0, quadReserved3 = 0.0;

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;
};
