# Cross build for 64-bit ARM Linux with Debian's aarch64-linux-gnu toolchain. The libraries,
# the command-line tools and the unit tests build; the GStreamer plug-in does not (configure
# with -DKALPNG_PLUGIN=OFF).
#
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
#         -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF
#
# Test programs run under qemu-aarch64.

set(kalpng_cross_processor aarch64)
set(kalpng_cross_triplet aarch64-linux-gnu)
set(kalpng_cross_sysroot /opt/kalpng-arm64)
set(kalpng_cross_qemu qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
