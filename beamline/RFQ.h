#pragma once
#include <string>
#include <vector>

#include "beamline/Element.h"

// Modified Bessel functions of the first kind by their power series, twenty
// terms, no convergence test.
double Bessi0(double x);
double Bessi1(double x);
double Bessin(int n, double x);
// I0(x) and I1(x) from the same twenty terms, each term from the one before:
// the values of the series above to a few units of the last place.
void BesselPair(double x, double& i0, double& i1);

// A radio-frequency quadrupole as a chain of cells whose field follows from
// eight multipole coefficients per cell (A0 to A7), read from the cell table
// that ReadRFQ writes. Its own SetParameter lacks the element index, so the
// deck reader's SetElement never reaches it: an RFQ from the deck keeps the
// type "drift" and no cells, and only a caller that configures it by hand
// gets the field.
class RFQ : public Element {
 public:
  std::vector<std::vector<double>> coefficient;  // per cell, A0 to A7
  std::vector<double> cellLength;                // m
  std::vector<double> cellStart;                 // m, global
  std::vector<double> cellEnd;                   // m, global
  std::vector<double> cellRadius;                // m, mean aperture
  std::vector<double> cellVoltage;               // V, vane voltage
  std::vector<double> cellColumn4;               // stored only
  std::vector<double> reservedList;
  int cavityIndex = 0;
  double frequency = 0.0;  // Hz
  std::vector<double> zeroField = std::vector<double>(3, 0.0);
  double axisLimit = 1e-16;  // m: closer to the axis the on-axis form holds

  RFQ();

  // Tokens: 5 frequency (Hz), 7 the cell table in the input folder, 14 the
  // cavity index.
  void SetParameter(double start, std::vector<std::string> const& token);
  // Cell of z: the first whose end is not below z; -1 past the last.
  int getEleNum(double z);
  double getRadius(double z) override;
  void GetField(double t, Particle& particle, FieldMatrix const& fieldM) override;
  // The synchronous particle's whole pass through the cells, for the phase
  // scan: failure is marked by gamma beta x = 1, the exit time is left in x.
  void GetField(double t, SynParticle& particle, FieldMatrix const& fieldM) override;
  // The on-axis field at the synchronous particle.
  void GetSynField(double t, SynParticle& particle);

 private:
  // Whether the cell ends that SetParameter read ascend, and how many there
  // were: the lookup halves only over such a table.
  bool endsAscend = false;
  std::size_t endsChecked = 0;

  // The cell's field in cylindrical components, without the time factor,
  // and the direction of the point.
  void CellField(int cell, double x, double y, double z, double& er, double& etheta, double& ez, double& cosTheta,
                 double& sinTheta) const;
  // Amplitude of the on-axis Ez of a cell at z.
  double AxialAmplitude(int cell, double z) const;
};
