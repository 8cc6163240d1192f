#!/usr/bin/env bash
# Builds the plug-in and kalpng-soak in build-soak/ and pushes FRAMES (default 10000) PNG
# frames through appsrc ! kalpng_dec ! appsink under valgrind's memory checker, twice: as
# the element runs by default (a corrupt frame stops the stream) and tolerating bad input
# (max-errors=-1: corrupt and cut frames are skipped with warnings). Fails on a definite
# leak, a memory error or a frame that did not come out as expected; prints the frame counts
# and resident memory every 1000 frames, then valgrind's leak summary (the whole output is
# kept in build-soak/soak-valgrind.log and build-soak/soak-valgrind-tolerant.log).
#   scripts/soak.sh [FRAMES]
set -euo pipefail
cd "$(dirname "$0")/.."

frames=${1:-10000}
build=build-soak

bash scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKALPNG_BENCH=OFF >/dev/null
cmake --build "$build" --target gstkalpng kalpng-soak

export GST_PLUGIN_PATH="$PWD/$build/plugin"
export GST_REGISTRY="$PWD/$build/soak-registry.bin"
# Scan the plug-ins once outside valgrind, so that the run itself only reads the registry.
gst-inspect-1.0 kalpng_dec >/dev/null

# The element prints a report for each corrupt frame; the full output stays in the log and
# only the soak's own lines and valgrind's summary are shown.
# run MODE LOG: one soak under valgrind; MODE is empty or "tolerant".
run() {
  local status=0
  echo "soak${1:+ ($1)}:"
  valgrind --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
    --error-exitcode=1 --suppressions=/usr/share/glib-2.0/valgrind/glib.supp \
    "$build/tests/soak/kalpng-soak" "$frames" $1 >"$2" 2>&1 || status=$?
  grep -E '^(frames|[0-9]+ frames|frame [0-9]+)|==[0-9]+== +(ERROR SUMMARY|[a-z ]+(lost|reachable|suppressed):)' "$2"
  [ "$status" -eq 0 ] || echo "soak failed (exit $status); full output in $2"
  return "$status"
}

status=0
run "" "$build/soak-valgrind.log" || status=$?
run tolerant "$build/soak-valgrind-tolerant.log" || status=$?
exit "$status"
