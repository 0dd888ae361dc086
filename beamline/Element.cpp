#include "beamline/Element.h"

#include <iostream>

void Element::GetField(double, SynParticle&, FieldMatrix const&) {}
void Element::GetErrField(double, Particle&, FieldMatrix const&) {}
void Element::GetField(double, Particle&, FieldMatrix const&) {}
void Element::GetParameter(std::vector<double>&) {}
void Element::SetErrPara(ErrorSample const&) {}
void Element::SetParameter(int, double, std::vector<std::string> const&) {}
double Element::getRadius(double) { return radius; }

void Element::SetBasicParameter(double start, std::vector<std::string> const& token) {
  parameter = token;
  zStart = start;
  type = token.at(0);
  length = DeckReal(token.at(1));
  radius = DeckReal(token.at(2));
  const std::string& second = token.at(3);
  if (second == "0") {
    apertureMode = 0;
    radiusY = radius;
  } else if (second == "-1") {
    apertureMode = 2;
  } else {
    apertureMode = 1;
    radiusY = DeckReal(second);
  }
}

bool Element::EnoughTokens(std::vector<std::string> const& token, std::size_t minimum) {
  if (token.size() >= minimum) return true;
  std::cout << "Error! parameter not enough in element : \n" << std::endl;
  for (const std::string& t : token) std::cout << t << "\t";
  std::cout << std::endl;
  return false;
}

void Element::ZeroField(SynParticle& particle) {
  particle.electricField.assign(3, 0.0);
  particle.magneticField.assign(3, 0.0);
}

void Element::ZeroField(Particle& particle) {
  for (double& f : particle.externalField) f = 0.0;
}
