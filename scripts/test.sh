#!/usr/bin/env bash
# Installs what is missing, builds and runs every unit test with CTest.
#   scripts/test.sh              release build in build/
#   scripts/test.sh --sanitize   AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
options=(-DCMAKE_BUILD_TYPE=Release)
if [ "${1:-}" = "--sanitize" ]; then
  build=build-asan
  options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DKALPNG_SANITIZE=ON -DKALPNG_BENCH=OFF)
fi

# Under CI (CI set in the environment) a warning fails the build.
werror=OFF
[ -n "${CI:-}" ] && werror=ON

bash scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja "${options[@]}" -DKALPNG_WERROR=$werror >/dev/null
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"
