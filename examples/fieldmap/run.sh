#!/usr/bin/env bash
# Runs the field-map example: writes the quadrupole map with keld-fieldmap,
# tracks the bunch with keld and prints what to look at.
# Usage: examples/fieldmap/run.sh [build folder, default "build"] [output folder, default "out/fieldmap"]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/../setup.sh" out/fieldmap "$@"

# The decks and the map go to a work folder, so the example folder stays clean.
rm -rf "$out" && mkdir -p "$out/in" "$out/out"
cp "$here"/input.txt "$here"/beam.txt "$here"/lattice.txt "$here"/boundary.txt "$out/in/"
"$build/keld-fieldmap" quad "$out/in/quad" gradient=10 length=0.1 half=0.02 nx=8 ny=8 nz=10 form=text
"$build/keld" "$out/in/" "$out/out/"

echo
first=$(head -n 1 "$out/out/DataSet.txt" | awk '{print $29}')
last=$(tail -n 1 "$out/out/DataSet.txt" | awk '{print $29}')
lost=$(wc -l < "$out/out/collisionData.txt")
echo "Alive particles (column 29 of DataSet.txt): $first at the start, $last at the exit."
echo "Lost on the pipe wall (lines of collisionData.txt): $lost"
echo "Outputs are in $out/out/"
"$build/keld-plot" all "$out/out"
