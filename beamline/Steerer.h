#pragma once
#include "beamline/Element.h"

// Thin dipole kick applied by the transports at the middle of the element
// behind the steerer; the steerer itself has no field.
class Steerer : public Element {
 public:
  int kind = 0;                   // 0 magnetic, else electric
  double strengthX = 0.0;         // Bx in T, or the x strength
  double strengthY = 0.0;         // By in T, or the y strength
  double steererParameter4 = 0.0;

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetParameter(std::vector<double>& values) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;
};
