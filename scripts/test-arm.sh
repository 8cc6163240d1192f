#!/usr/bin/env bash
# Cross-builds the libraries, the tools and the unit tests for the 32-bit ARM target in
# build-arm/ and runs the tests under qemu-arm with CTest. The plug-in is not built there.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-arm -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
  -DCMAKE_BUILD_TYPE=Release -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF -DKALPNG_WERROR=${CI:+ON} >/dev/null
cmake --build build-arm -j "$(nproc)"
ctest --test-dir build-arm --output-on-failure -j "$(nproc)"

# The ARM build installs into a prefix too, and the example programs link there and run.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install build-arm --prefix "$work/prefix" >/dev/null
cmake -S examples -B "$work/examples" -G Ninja \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm-linux-gnueabihf.cmake" \
  -Dkalpng_DIR="$work/prefix/lib/arm-linux-gnueabihf/cmake/kalpng" >/dev/null
cmake --build "$work/examples" >/dev/null
for program in decode-stream decode-stream-static; do
  qemu-arm -L /usr/arm-linux-gnueabihf "$work/examples/$program" ../shared/testdata/pngsuite/basn6a08.png
done
