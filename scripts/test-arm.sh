#!/usr/bin/env bash
# Cross-builds the libraries, the tools and the unit tests for the 32-bit ARM target in
# build-arm/, checks that the libraries carry NEON code, and runs the tests under qemu-arm with
# CTest twice: on a processor with NEON and the ARMv8 CRC-32 instructions, and on one without
# NEON, where the same binaries must take their portable code. The plug-in is not built there.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
cmake -S . -B build-arm -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
  -DCMAKE_BUILD_TYPE=Release -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF -DKALPNG_WERROR=${CI:+ON} >/dev/null
cmake --build build-arm -j "$(nproc)"

# The toolchain builds for the baseline without NEON: the vector routines must be there anyway.
for library in build-arm/gstreamer/gst-plugins-extension/Codec/SW/PNG/kpng/libkpng.a \
  build-arm/inflate/libzin.a; do
  count=$(arm-linux-gnueabihf-objdump -d "$library" | grep -cE $'\t(vld1|vld3|vst4|vtbl|vpadal)\\.' || true)
  if [ "$count" -eq 0 ]; then
    echo "no NEON code in $library" >&2
    exit 1
  fi
  echo "$library: $count NEON loads, stores, lookups and sums"
done

QEMU_CPU=max ctest --test-dir build-arm --output-on-failure -j "$(nproc)"
QEMU_CPU=cortex-a15,neon=off ctest --test-dir build-arm --output-on-failure -j "$(nproc)"

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
