#pragma once
#include <vector>

#include "beam/Particle.h"

// The ensemble. `particle` holds particleNumber macro particles followed by
// the reference slot particle[particleNumber], which is never counted in the
// statistics. The array is owned by whoever built the bunch: the record does
// not release it.
struct Beam {
  std::vector<double> average = std::vector<double>(6, 0.0);  // relative positions, plain momenta
  std::vector<double> rms = std::vector<double>(3, 0.0);      // m; rms[2] is rest-frame length
  Particle* particle = nullptr;
  double frequency = 0.0;  // Hz
  int particleNumber = -1;  // -1 until a bunch is made
  double current = 0.0;  // A
  int aliveNumber = 0;
  int solverRecord = 0;
  double bunchScale = 0.0;  // m, beta gamma lambda of the mean
  double gamma = 0.0;
  double phaseStart = 0.0;  // s, time span of release
  double phaseHead = 0.0;   // s
  double zMin = 0.0;
  double zMax = 0.0;
  double bendAngle = 0.0;  // rad, frame of the statistics
  int bendPlane = 0;       // 0 none, 1 y-z, 2 x-z
  double releaseDistance = 0.01;  // m
};
