#!/usr/bin/env bash
# Runs the accelerating-section example: writes the cell and quadrupole maps
# with keld-fieldmap, phases the cells with the scan, tracks the bunch with
# keld and prints the energy gain.
# Usage: examples/cavity/run.sh [build folder, default "build"] [output folder, default "out/cavity"]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/../setup.sh" out/cavity "$@"

# The decks and the maps go to a work folder, so the example folder stays clean.
rm -rf "$out" && mkdir -p "$out/in" "$out/out"
cp "$here"/input.txt "$here"/beam.txt "$here"/lattice.txt "$out/in/"
"$build/keld-fieldmap" rfcell "$out/in/rfcell" e0=5 frequency=352.2e6 length=0.04 half=0.02 nx=10 ny=10 nz=40 \
  form=text
"$build/keld-fieldmap" quad "$out/in/quad" gradient=20 length=0.05 half=0.02 nx=8 ny=8 nz=10 form=text
time "$build/keld" "$out/in/" "$out/out/"

echo
echo "Design particle at the entry and exit of each cell (Phase.txt: cell, time, z, energy):"
cat "$out/out/Phase.txt"
first=$(head -n 1 "$out/out/DataSet.txt" | awk '{print $1}')
last=$(tail -n 1 "$out/out/DataSet.txt" | awk '{print $1}')
alive=$(tail -n 1 "$out/out/DataSet.txt" | awk '{print $29}')
echo "Mean kinetic energy of the bunch (column 1 of DataSet.txt): $first MeV at the start, $last MeV at the exit;"
echo "$alive particles alive at the exit. Outputs are in $out/out/"
"$build/keld-plot" energy "$out/out"
