#pragma once

// The physical constants of the system, with exactly these values. The two
// rest energies differ in the sixth digit on purpose.
namespace constants {
inline constexpr double kLightSpeed = 299792458.0;          // m/s
inline constexpr double kElementaryCharge = 1.60217653e-19;  // C
inline constexpr double kProtonMass = 1.67262171e-27;      // kg, reference mass
inline constexpr double kMassUnit = 938.27187;              // MeV, rest energy per mass number
inline constexpr double kDefaultRestEnergy = 938.272029;    // MeV
inline constexpr double kPi = 3.141592653589793;
inline constexpr double kTwoPi = 6.283185307179586;
}  // namespace constants
