#pragma once
#include <cmath>
#include <string>
#include <vector>

#include "beamline/Element.h"

// Own tokens of a bend or an edge: 4 angle (deg), 5 curvature radius (m),
// 6 field index, 7 plane; token 7 is read first, so a list of five to seven
// tokens fails there. An angle of 0 leaves the curvature not-a-number, and a
// field index above 1 makes kx not-a-number: neither is guarded.
template <class BendLike>
void ParseBendTokens(BendLike& e, std::vector<std::string> const& token) {
  e.bendPlane = static_cast<int>(DeckReal(token.at(7)));
  e.angle = DeckReal(token.at(4)) / 180.0 * 3.141592653589793;
  e.curvatureRadius = DeckReal(token.at(5));
  e.fieldIndex = DeckReal(token.at(6));
  e.curvature = e.angle / std::fabs(e.angle) / e.curvatureRadius;
  e.arcLength = e.curvatureRadius * std::fabs(e.angle);
  e.kx = std::sqrt((1.0 - e.fieldIndex) * e.curvature * e.curvature);
  e.ky = std::sqrt(e.fieldIndex * e.curvature * e.curvature);
}

// Sector bend: its optics live in the hard-edge transfer maps, so the
// element itself has no field.
class Bend : public Element {
 public:
  int bendPlane = 0;             // 0 bends in x, else in y
  double arcLength = 0.0;        // m
  double angle = 0.0;            // rad
  double kx = 0.0;
  double ky = 0.0;
  double curvatureRadius = 0.0;  // m
  double fieldIndex = 0.0;
  double curvature = 0.0;        // 1/m, signed like the angle
  double lastInput = 0.0;        // value handed in through GetParameter

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetParameter(std::vector<double>& values) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;
};
