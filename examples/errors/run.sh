#!/usr/bin/env bash
# Runs the error-study example: the doublet of the field-map example with
# static and dynamic errors, four samples. Then runs samples 2-3 again as a
# slice (and, when keld-mpi and mpirun are there, the study on two MPI
# ranks), and checks that they give the same error data.
# Usage: examples/errors/run.sh [build folder, default "build"] [output folder, default "out/errors"]
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
. "$here/../setup.sh" out/errors "$@"

rm -rf "$out" && mkdir -p "$out/in" "$out/study" "$out/slice"
cp "$here"/input.txt "$here"/beam.txt "$here"/lattice.txt "$here"/boundary.txt "$out/in/"
"$build/keld-fieldmap" quad "$out/in/quad" gradient=10 length=0.1 half=0.02 nx=8 ny=8 nz=10 form=text
"$build/keld" "$out/in/" "$out/study/" > "$out/study.log"
echo "The study in $out/study/ (its console is in $out/study.log):"
sed -n '/^Study summary/,$p' "$out/study.log"
"$build/keld" "$out/in/" "$out/slice/" --samples 2-3 > "$out/slice.log"

echo
for i in 2 3; do
  cmp -s "$out/study/output_$i/StaticErrorData.txt" "$out/slice/output_$i/StaticErrorData.txt" &&
    cmp -s "$out/study/output_$i/DynamicErrorData.txt" "$out/slice/output_$i/DynamicErrorData.txt" &&
    echo "output_$i run as a slice: the same error data"
done
if [ -x "$build/keld-mpi" ] && command -v mpirun >/dev/null; then
  mkdir -p "$out/ranks"
  ranks="-n 2"
  [ "$(id -u)" -eq 0 ] && export OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1
  mpirun --oversubscribe $ranks "$build/keld-mpi" "$out/in/" "$out/ranks/" > "$out/ranks.log" 2>&1
  same=0
  for i in 0 1 2 3; do
    cmp -s "$out/study/output_$i/DynamicErrorData.txt" "$out/ranks/output_$i/DynamicErrorData.txt" && same=$((same + 1))
  done
  echo "the study on 2 MPI ranks: $same of 4 samples with the same error data"
fi
echo
"$build/keld-plot" study "$out/study"
