#!/usr/bin/env bash
# Installs every Debian package that building, testing, benchmarking, fuzzing and the
# 32-bit and 64-bit ARM cross builds need. Does nothing when they are all present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ninja-build
  libgtest-dev libgmock-dev libbenchmark-dev
  zlib1g-dev libpng-dev libspng-dev libstb-dev libdeflate-dev libisal-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  clang-14 libfuzzer-14-dev libclang-rt-14-dev
  g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user
  valgrind
  optipng zopfli
)

# The ARM unit tests link the armhf or arm64 builds of their oracles and of GoogleTest. They
# are unpacked into a private sysroot per architecture rather than installed through
# multiarch: a foreign package must then match the host's version exactly, which breaks
# whenever the archives are not in step, and a foreign architecture makes every later
# `apt-get update` depend on its indexes. Only the static archives are kept, so the test
# binaries need no foreign shared library at run time.
sysroot_packages=(zlib1g-dev libpng-dev libgtest-dev libgmock-dev)

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

install_host_packages() {
  local missing=() p
  for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# install_sysroot ARCH DIR
install_sysroot() {
  local arch=$1 sysroot=$2
  local stamp="$sysroot/packages"
  [ "$(cat "$stamp" 2>/dev/null)" = "${sysroot_packages[*]}" ] && return 0
  echo "unpacking $arch: ${sysroot_packages[*]} into $sysroot"
  local work
  work=$(mktemp -d)
  mkdir -p "$work/lists/partial" "$work/cache/archives/partial" "$work/debs"
  touch "$work/status"
  local apt=(apt-get -qq -o Dir::State::Lists="$work/lists" -o Dir::Cache="$work/cache"
    -o Dir::State::status="$work/status" -o APT::Architecture="$arch"
    -o APT::Architectures::="$arch" -o APT::Sandbox::User=root)
  # An index that fails to download (a mirror being synced) is not fatal: the packages
  # come from whichever suites answered, and the download below fails if none did.
  $sudo "${apt[@]}" update || true
  (cd "$work/debs" && $sudo "${apt[@]}" download "${sysroot_packages[@]/%/:$arch}")
  $sudo rm -rf "$sysroot"
  local deb
  for deb in "$work"/debs/*.deb; do
    $sudo dpkg-deb -x "$deb" "$sysroot"
  done
  $sudo find "$sysroot" -name '*.so*' -delete
  $sudo rm -rf "$sysroot/usr/share" "$sysroot/usr/src" "$sysroot/usr/bin"
  echo "${sysroot_packages[*]}" | $sudo tee "$stamp" >/dev/null
  $sudo rm -rf "$work"
}

install_host_packages
install_sysroot armhf /opt/kalpng-armhf
install_sysroot arm64 /opt/kalpng-arm64
