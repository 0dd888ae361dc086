#pragma once
#include <string>
#include <vector>

#include "beam/Particle.h"
#include "beam/SynParticle.h"
#include "beamline/FieldMatrix.h"
#include "run/DeckValue.h"
#include "run/ErrorSample.h"

// Root of the beamline classes. Token list of every element: 0 type word,
// 1 length (m), 2 aperture radius (m), 3 second aperture ("0": same as the
// radius, "-1": none given, else a value); own parameters from token 4.
// Elements are made once by the deck reader and never deleted, so the
// destructor is deliberately not virtual.
class Element {
 public:
  std::vector<std::string> parameter;  // the whole token list
  int index = 0;                       // position in the lattice
  double radius = 0.0;                 // m
  double radiusY = 0.0;                // m
  int apertureMode = 0;                // 0 round, 1 second value given, 2 none
  std::string type = "drift";
  double zStart = 0.0;     // m
  double length = 0.0;     // m
  double strength = 0.0;   // T/m for a quadrupole, T for a solenoid
  double strength2 = 0.0;  // stored only
  int outputMark = 0;      // curve flag on the element that ends a curved set
  int reservedMark = 0;
  std::vector<double> reservedList;

  Element() = default;
  ~Element() = default;

  virtual void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM);
  virtual void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM);
  virtual void GetField(double t, Particle& particle, FieldMatrix const& fieldM);
  virtual void GetParameter(std::vector<double>& values);
  virtual void SetErrPara(ErrorSample const& sample);
  virtual void SetParameter(int elementIndex, double start, std::vector<std::string> const& token);
  virtual double getRadius(double z);

  void SetBasicParameter(double start, std::vector<std::string> const& token);

 protected:
  // Reports a token list shorter than `minimum` on the console; the element
  // then stays unconfigured and the run goes on.
  static bool EnoughTokens(std::vector<std::string> const& token, std::size_t minimum);
  // The field of the element-free stretches: zero for a synchronous particle.
  static void ZeroField(SynParticle& particle);
  static void ZeroField(Particle& particle);
};
