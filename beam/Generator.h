#pragma once
#include <vector>

// Distribution generators: fill rows (x, x', y, y', 0, 0) of two phase planes
// from Twiss triples (geometric emittance in m rad, beta in m/rad, alpha),
// twiss = {e1, b1, a1, e2, b2, a2, ...}. All draws come from the C library's
// rand, in a fixed order, so a seeded run is reproducible.

// Axial ellipse parameters of both planes: {sqrt(beta1), -alpha1/sqrt(beta1),
// sqrt(beta2), -alpha2/sqrt(beta2), e1/e2, 0}. A zero emittance ends the
// process with status 1.
std::vector<double> PreTreatment(const std::vector<double>& twiss);

// One row from P, whose last place holds the invariant A of this particle.
void GenerateCoordinates(const std::vector<double>& P, std::vector<double>& row);

void KV2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows);  // hyper-ellipsoid surface
void WB2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows);  // waterbag
void PB2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows);  // parabolic
void GS2D(const std::vector<double>& twiss, std::vector<std::vector<double>>& rows);  // Gaussian

// Four normal numbers from eight distinct uniforms by the polar method;
// returns 1 when a pair falls outside the unit circle.
int Gaussu(const std::vector<double>& uniform, std::vector<double>& gauss);
