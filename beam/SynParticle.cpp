#include "beam/SynParticle.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>

#include "beam/LeapFrog.h"
#include "beam/PhysicalConstants.h"
#include "beamline/Lattice.h"
#include "run/DeckValue.h"
#include "run/HelperFunc.h"

SynParticle::SynParticle() : coordinate(6, 0.0), electricField(3, 0.0), magneticField(3, 0.0) {}

void SynParticle::Update(double dt) {
  const double c = 299792458.0;
  const double k = chargeMassRatio;
  std::vector<double>& q = coordinate;
  const std::vector<double>& E = electricField;
  const std::vector<double>& B = magneticField;

  if (dimension == 0) {
    // Longitudinal motion only.
    q[0] = q[1] = q[2] = q[3] = 0.0;
    q[5] += k * E[2] / c * dt;
    const double g = std::sqrt(1.0 + q[5] * q[5]);
    q[4] += c / g * q[5] * dt;
    return;
  }

  if (B[0] == 0.0 && B[1] == 0.0) {
    // No transverse magnetic field: a full electric kick; Bz is not applied.
    q[1] += k * E[0] / c * dt;
    q[3] += k * E[1] / c * dt;
    q[5] += k * E[2] / c * dt;
  } else {
    const double h = k / c * dt * 0.5;
    q[1] += h * E[0];
    q[3] += h * E[1];
    q[5] += h * E[2];
    const double g = std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]);
    const double s = k * dt / g;
    BorisRotate(s * B[0], s * B[1], s * B[2], q[1], q[3], q[5]);
    q[1] += h * E[0];
    q[3] += h * E[1];
    q[5] += h * E[2];
  }
  const double g = std::sqrt(1.0 + q[1] * q[1] + q[3] * q[3] + q[5] * q[5]);
  q[0] += c / g * q[1] * dt;
  q[2] += c / g * q[3] * dt;
  q[4] += c / g * q[5] * dt;
}

void SynParticle::SetUpSynParticle(std::string kind, double chargeNumber, double, std::string path, int mode) {
  using namespace constants;
  std::cout << "Start initialising synchronised particles" << std::endl;
  double kinetic = 0.0;
  restEnergy = kDefaultRestEnergy;
  if (kind != "unknown" && mode == 0) {
    // The binary distribution: marks, count, current, frequency (MHz), mark,
    // six values per particle (the sixth the kinetic energy), rest energy.
    std::ifstream in(path + kind, std::ios::binary);
    char mark[2];
    int count = 0;
    double current = 0.0, megahertz = 0.0;
    in.read(mark, 2);
    in.read(reinterpret_cast<char*>(&count), sizeof count);
    in.read(reinterpret_cast<char*>(&current), sizeof current);
    in.read(reinterpret_cast<char*>(&megahertz), sizeof megahertz);
    in.read(mark, 1);
    double sum = 0.0, row[6];
    for (int i = 0; i < count; ++i) {
      in.read(reinterpret_cast<char*>(row), sizeof row);
      sum += row[5];
    }
    in.read(reinterpret_cast<char*>(&restEnergy), sizeof restEnergy);
    kinetic = sum / count;
    frequency = megahertz * 1000000.0;
  } else {
    std::ifstream in(path + "beam.txt");
    if (!in.is_open()) {
      std::cout << "File \"beam.txt\" not opened!" << std::endl;
      std::exit(1);
    }
    std::string line;
    std::vector<std::string> word;
    while (GetDeckLine(in, line)) {
      StringSplit(line, word);
      if (word.size() < 2) continue;
      for (char& ch : word[0]) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
      if (word[0] == "kneticenergy")
        kinetic = DeckReal(word[1]);
      else if (word[0] == "particlerestmass")
        restEnergy = DeckReal(word[1]);
      else if (word[0] == "frequency")
        frequency = DeckReal(word[1]);
    }
  }
  const double gamma = kinetic / restEnergy + 1.0;
  const double beta = std::sqrt(1.0 - 1.0 / (gamma * gamma));
  coordinate.assign(6, 0.0);
  coordinate[5] = beta * gamma;
  const double massNumber = restEnergy / kMassUnit;
  charge = chargeNumber * kElementaryCharge;
  mass = massNumber * kProtonMass;
  chargeMassRatio = chargeNumber / massNumber * kElementaryCharge / kProtonMass;
  axialField = 0.0;
  indexElem = 0;
  electricField.assign(3, 0.0);
  magneticField.assign(3, 0.0);
}

void SynParticle::GetField(double t, Lattice& lattice) {
  const double z = coordinate[4];
  const int last = static_cast<int>(lattice.zEnd.size()) - 1;
  if (last < 0 || z < 0.0 || z > lattice.CurrentPlaneZ() || z >= lattice.zEnd[last]) {
    electricField.assign(3, 0.0);
    magneticField.assign(3, 0.0);
    return;
  }
  while (z >= lattice.zEnd[indexElem]) ++indexElem;
  while (z < lattice.zStart[indexElem]) --indexElem;
  lattice.element[indexElem]->GetField(t, *this, lattice.fieldM);
}
