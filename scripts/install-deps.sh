#!/usr/bin/env bash
# Installs what Keld needs from Debian packages, when it is missing:
# a C++17 compiler with OpenMP, CMake, FFTW3, Eigen, GoogleTest, Google Benchmark,
# Open MPI for spreading error studies over ranks, and NumPy, Matplotlib, h5py
# and pytest for the Python companion package.
set -euo pipefail

packages=(g++ make cmake libfftw3-dev libeigen3-dev libgtest-dev libbenchmark-dev libopenmpi-dev openmpi-bin
          python3 python3-numpy python3-matplotlib python3-h5py python3-pytest)
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
