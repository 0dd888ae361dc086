# The common start of the example scripts, sourced by them with `here` set to
# the example's folder: ". "$here/../setup.sh" DEFAULT_OUT "$@"". It sets
# `root`, `build` (first argument, default "build") and `out` (second
# argument, default DEFAULT_OUT), moves to the repository's top, builds keld
# and keld-fieldmap when the build folder lacks them, and links keld-plot
# there.
root="$(cd "$here/../.." && pwd)"
default_out="$1"
shift
build="${1:-${BUILD:-build}}"
out="${2:-$default_out}"
cd "$root"
if [ ! -x "$build/keld" ] || [ ! -x "$build/keld-fieldmap" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target keld keld-fieldmap
fi
[ -e "$build/keld-plot" ] || ln -sf "$root/python/keld-tool" "$build/keld-plot"
