#pragma once
#include "beamline/Element.h"

// Field-free stretch; the only simple element that tests its own aperture.
class Drift : public Element {
 public:

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;
};
