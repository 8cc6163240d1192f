# Cross build for the product's 32-bit ARM (hard-float) Linux target with Debian's
# arm-linux-gnueabihf toolchain. The libraries, the command-line tools and the unit tests
# build; the GStreamer plug-in does not (configure with -DKALPNG_PLUGIN=OFF).
#
#   cmake -S . -B build-arm -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
#         -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF
#
# Test programs run under qemu-arm.

set(kalpng_cross_processor arm)
set(kalpng_cross_triplet arm-linux-gnueabihf)
set(kalpng_cross_sysroot /opt/kalpng-armhf)
set(kalpng_cross_qemu qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/DebianCross.cmake)
