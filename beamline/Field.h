#pragma once
#include <string>
#include <vector>

#include "beamline/Element.h"
#include "run/HelperFunc.h"

// An element whose field comes from maps in FieldMatrix: a radio-frequency
// cavity (type 1), a static electric (2) or magnetic (3) element, several of
// them laid over one another (4), or nothing (0). The only element with
// misalignment and amplitude errors. Tokens: 4 field type, 5 frequency (Hz),
// 6 phase (deg), 7 electric factor, 8 magnetic factor, 9 map index, 14 cavity
// index; a superposition adds one group of twenty tokens per sub-field.
class Field : public Element {
 public:
  int mapIndex = 0;
  int fieldType = 1;
  double eScale = 0.0;  // on electric map values (MV/m)
  double bScale = 0.0;  // on magnetic map values (T)
  double zExit = 0.0;   // m
  double frequency = 0.0;  // Hz
  double errDx = 0.0, errDy = 0.0, errDz = 0.0;                 // m
  double errAngleX = 0.0, errAngleY = 0.0, errAngleZ = 0.0;     // rad
  double errEScale = 0.0, errBScale = 0.0;  // factors with the amplitude error in them
  double errPhase = 0.0;                    // deg
  std::vector<double> zeroField = std::vector<double>(3, 0.0);  // field outside the map
  double phaseRad = 0.0;  // rad, read by the phase scan
  int cavityIndex = 0;    // place in the phase tables
  // Sub-fields of a superposition.
  std::vector<double> subStart;  // m, global entrance
  std::vector<int> subType;      // 0 nothing, 1 static magnetic, 2 radio-frequency, 3 static electric
  std::vector<int> subMapIndex;
  std::vector<double> subEScale, subBScale;
  std::vector<std::vector<double>> subPlacement;  // unused, dx, dy (m), three angles (rad)
  std::vector<double> subRadius, subLength;       // m
  // Per sub-field: flag, dx, dy, dz (m), angles about x, y, z (rad), magnetic
  // factor, electric factor, phase error (deg), two free places.
  std::vector<std::vector<double>> subError;

  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  void GetErrField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  void GetParameter(std::vector<double>& values) override;
  void SetErrPara(ErrorSample const& sample) override;
  void SetParameter(int elementIndex, double start, std::vector<std::string> const& token) override;

 private:
  // Worked out once at configuration, or when an error sample is loaded.
  double deckPhase = 0.0;     // deg, the phase the deck gave, until the phase scan fills the tables
  double omega = 0.0;         // rad/s
  double eFactor = 0.0;       // 1e6 eScale: MV/m to V/m
  double errEFactor = 0.0;    // 1e6 errEScale
  FrameRotation errFrame = FrameRotation(0.0, 0.0, 0.0);
  std::vector<FrameRotation> subFrame;     // nominal placement of each sub-field
  std::vector<FrameRotation> subErrFrame;  // error placement of each sub-field

  // cos(phi) for electric and cos(phi - pi/2) for magnetic values.
  void RfFactors(double t, double arrival, double phaseDeg, double& eCos, double& bCos) const;
  // Arrival time and entrance phase of this cavity from tables that may not
  // hold it yet.
  void CavityTable(const std::vector<double>& times, const std::vector<double>& phases, double& arrival,
                   double& phaseDeg) const;
  // Field of the map of a type 1, 2 or 3 element at a point of its frame,
  // `errors` selecting the factors and the phase error. False outside.
  bool MapField(double t, double x, double y, double z, FieldMatrix const& fieldM, const std::vector<double>& times,
                const std::vector<double>& phases, bool errors, double* e, double* b) const;
  // Adds the sum of the sub-fields at the laboratory point.
  void SumSubFields(double t, const double* c, FieldMatrix const& fieldM, const std::vector<double>& times,
                    const std::vector<double>& phases, bool errors, double* e, double* b, int* lost) const;
};
