#!/usr/bin/env bash
# Runs the FODO example without and with the self-field and prints the Twiss
# parameters of the bunch at every output plane, from the outData_<z>.dst files.
# Usage: examples/fodo/run.sh [build folder, default "build"] [output folder, default "out/fodo"]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/../setup.sh" out/fodo "$@"

for case in off fft; do
  rm -rf "$out/$case" && mkdir -p "$out/$case/in" "$out/$case/out"
  cp "$here/beam.txt" "$here/lattice.txt" "$out/$case/in/"
  cp "$here/input-$case.txt" "$out/$case/in/input.txt"
  echo "== $case"
  "$build/keld" "$out/$case/in" "$out/$case/out" | grep -E "Simulated total time"
  "$build/keld-plot" envelope "$out/$case/out"
  python3 - "$out/$case/out" <<'PY'
import glob, math, struct, sys
print("%-24s %9s %9s %9s %9s" % ("plane", "beta x", "alpha x", "beta y", "alpha y"))
for path in sorted(glob.glob(sys.argv[1] + "/*.dst")):
    b = open(path, "rb").read()
    n = struct.unpack_from("<i", b, 2)[0]
    rows = [struct.unpack_from("<6d", b, 23 + 48 * i) for i in range(n)]
    line = []
    for u in (0, 2):
        x = [r[u] * 0.01 for r in rows]; p = [r[u + 1] for r in rows]
        mx, mp = sum(x) / n, sum(p) / n
        xx = sum((a - mx) ** 2 for a in x) / n
        pp = sum((a - mp) ** 2 for a in p) / n
        xp = sum((a - mx) * (c - mp) for a, c in zip(x, p)) / n
        e = math.sqrt(xx * pp - xp * xp)
        line += [xx / e, -xp / e]
    print("%-24s %9.4f %9.4f %9.4f %9.4f" % ((path.split("/")[-1],) + tuple(line)))
PY
done
