# Cross build for 64-bit ARM Linux with Debian's
# aarch64-linux-gnu toolchain. The libraries, the command-line tools and the unit tests
# build; the GStreamer plug-in does not (configure with -DKALPNG_PLUGIN=OFF).
#
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
#         -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF
#
# GoogleTest, zlib and libpng for arm64 come from the sysroot that scripts/install-deps.sh
# unpacks (static archives only). Test programs run under qemu-aarch64, which CTest and
# GoogleTest's discovery use through CMAKE_CROSSCOMPILING_EMULATOR.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(KALPNG_ARM_SYSROOT /opt/kalpng-arm64 CACHE PATH "arm64 GoogleTest, zlib and libpng")
set(KALPNG_ARM_LIBC /usr/aarch64-linux-gnu CACHE PATH "arm64 C library of the cross toolchain")

set(CMAKE_FIND_ROOT_PATH ${KALPNG_ARM_LIBC} ${KALPNG_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the arm64 .pc files only, with their paths moved into the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${KALPNG_ARM_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KALPNG_ARM_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})
# Only static archives are there, so their private dependencies (libpng's zlib) must be named.
set(PKG_CONFIG_ARGN --static)

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-aarch64;-L;${KALPNG_ARM_LIBC}")
