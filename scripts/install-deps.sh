#!/usr/bin/env bash
# Installs every Debian package that building, testing, benchmarking, fuzzing and the
# 32-bit ARM cross build need. Does nothing when they are all present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config ninja-build
  libgtest-dev libgmock-dev libbenchmark-dev
  zlib1g-dev libpng-dev libspng-dev libstb-dev libdeflate-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  clang-14 libfuzzer-14-dev libclang-rt-14-dev
  g++-arm-linux-gnueabihf qemu-user
  valgrind
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
