# The body of the cross toolchain files: Debian's cross compiler for a multiarch triplet, the
# project's sysroot of that architecture's GoogleTest, zlib and libpng (static archives that
# scripts/install-deps.sh unpacks) and QEMU user emulation to run the test programs, which
# CTest and GoogleTest's discovery use through CMAKE_CROSSCOMPILING_EMULATOR.
# The including file sets kalpng_cross_processor, kalpng_cross_triplet, kalpng_cross_sysroot
# and kalpng_cross_qemu.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${kalpng_cross_processor})
set(CMAKE_LIBRARY_ARCHITECTURE ${kalpng_cross_triplet})

set(CMAKE_C_COMPILER ${kalpng_cross_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${kalpng_cross_triplet}-g++)

set(KALPNG_ARM_SYSROOT ${kalpng_cross_sysroot} CACHE PATH "GoogleTest, zlib and libpng")
set(KALPNG_ARM_LIBC /usr/${kalpng_cross_triplet} CACHE PATH "C library of the cross toolchain")

set(CMAKE_FIND_ROOT_PATH ${KALPNG_ARM_LIBC} ${KALPNG_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the target's .pc files only, with their paths moved into the sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${KALPNG_ARM_SYSROOT}/usr/lib/${kalpng_cross_triplet}/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KALPNG_ARM_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})
# Only static archives are there, so their private dependencies (libpng's zlib) must be named.
set(PKG_CONFIG_ARGN --static)

set(CMAKE_CROSSCOMPILING_EMULATOR "${kalpng_cross_qemu};-L;${KALPNG_ARM_LIBC}")
