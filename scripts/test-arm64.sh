#!/usr/bin/env bash
# Cross-builds the libraries, the tools and the unit tests for 64-bit ARM in build-arm64/ and
# runs the tests under qemu-aarch64 with CTest. The plug-in is not built there.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
  -DCMAKE_BUILD_TYPE=Release -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF >/dev/null
cmake --build build-arm64 -j "$(nproc)"
ctest --test-dir build-arm64 --output-on-failure -j "$(nproc)"
