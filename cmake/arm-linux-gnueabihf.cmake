# Cross build for the product's 32-bit ARM (hard-float) Linux target with Debian's
# arm-linux-gnueabihf toolchain. The libraries, the command-line tools and the unit tests
# build; the GStreamer plug-in does not (configure with -DKALPNG_PLUGIN=OFF).
#
#   cmake -S . -B build-arm -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake \
#         -DKALPNG_PLUGIN=OFF -DKALPNG_BENCH=OFF
#
# GoogleTest, zlib and libpng for armhf come from the sysroot that scripts/install-deps.sh
# unpacks (static archives only). Test programs run under qemu-arm, which CTest and
# GoogleTest's discovery use through CMAKE_CROSSCOMPILING_EMULATOR.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(KALPNG_ARM_SYSROOT /opt/kalpng-armhf CACHE PATH "armhf GoogleTest, zlib and libpng")
set(KALPNG_ARM_LIBC /usr/arm-linux-gnueabihf CACHE PATH "armhf C library of the cross toolchain")

set(CMAKE_FIND_ROOT_PATH ${KALPNG_ARM_LIBC} ${KALPNG_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the armhf .pc files only, with their paths moved into the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${KALPNG_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KALPNG_ARM_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})
# Only static archives are there, so their private dependencies (libpng's zlib) must be named.
set(PKG_CONFIG_ARGN --static)

set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-arm;-L;${KALPNG_ARM_LIBC}")
