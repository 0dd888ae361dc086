#pragma once
#include "beamline/Element.h"

// Ideal solenoid: a uniform Bz over the element.
class Solenoid : public Element {
 public:

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;
};
