#!/usr/bin/env bash
# Runs the secondary-beam example: 300 particles released along the first
# 0.3 m of the field-map line, each tracked alone through the doublet and the
# pipe; prints where they end.
# Usage: examples/secondary/run.sh [build folder, default "build"] [output folder, default "out/secondary"]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/../setup.sh" out/secondary "$@"

rm -rf "$out" && mkdir -p "$out/in" "$out/out"
cp "$here"/input.txt "$here"/beam.txt "$here"/lattice.txt "$here"/boundary.txt "$here"/secondary.txt "$out/in/"
"$build/keld-fieldmap" quad "$out/in/quad" gradient=10 length=0.1 half=0.02 nx=8 ny=8 nz=10 form=text
"$build/keld" "$out/in/" "$out/out/" > "$out/keld.log"
tail -n 2 "$out/keld.log" | tr "\r" "\n" | tail -n 2

echo
released=$(wc -l < "$out/in/secondary.txt")
lost=$(wc -l < "$out/out/collisionData.txt")
arrived=$(cat "$out/out"/outData_*.txt | wc -l)
echo "Released: $released particles."
echo "Lost on the pipe wall (lines of collisionData.txt): $lost"
echo "Reached the exit plane (lines of $(cd "$out/out" && ls outData_*.txt)): $arrived"
echo "Outputs are in $out/out/"
