#!/usr/bin/env bash
# Runs the space-charge example four times, without the self-field and with
# each solver, and prints the rms sizes and emittances at the end of the line.
# Usage: examples/spacecharge/run.sh [build folder, default "build"] [output folder, default "out/spacecharge"]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/../setup.sh" out/spacecharge "$@"

for case in off fft spicnic igf; do
  rm -rf "$out/$case" && mkdir -p "$out/$case/in" "$out/$case/out"
  cp "$here/beam.txt" "$here/lattice.txt" "$out/$case/in/"
  cp "$here/input-$case.txt" "$out/$case/in/input.txt"
  echo "== $case"
  "$build/keld" "$out/$case/in" "$out/$case/out" | grep -E "Simulated total time|Total number of cycles"
done
echo
echo "At the end of the line (DataSet.txt, last step):"
printf "%-8s %12s %12s %12s %12s %12s %12s\n" case "rms x (mm)" "rms y (mm)" "rms z (mm)" "emit x" "emit y" "emit z"
for case in off fft spicnic igf; do
  tail -n 1 "$out/$case/out/DataSet.txt" | awk -v c="$case" \
    '{printf "%-8s %12.4f %12.4f %12.4f %12.4e %12.4e %12.4e\n", c, $17*1e3, $19*1e3, $21*1e3, $14, $15, $16}'
done
