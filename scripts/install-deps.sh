#!/usr/bin/env bash
# Installs what Keld needs from Debian packages, when it is missing:
# a C++17 compiler with OpenMP, CMake, FFTW3, Eigen, GoogleTest, Google Benchmark.
set -euo pipefail

packages=(g++ make cmake libfftw3-dev libeigen3-dev libgtest-dev libbenchmark-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
if ! $sudo apt-get install -y --no-install-recommends "${missing[@]}"; then
  $sudo apt-get update
  $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
