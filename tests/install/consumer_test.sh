#!/usr/bin/env bash
# consumer_test.sh BUILD EXAMPLES LIBDIR PNG: installs BUILD into a temporary prefix, checks what
# the shared objects export, builds examples/decode.cpp with pkg-config and
# examples/CMakeLists.txt with find_package against it, and runs every program on PNG. Then
# installs again with DESTDIR under GStreamer's prefix.
set -euo pipefail
build=$1 examples=$2 libdir=$3 png=$4
expected="32 x 32, first pixel 255 0 8 0"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }
check_output() {  # NAME COMMAND...: the program prints the expected line
  local name=$1 got
  shift
  got=$("$@") || fail "$name exited with $?"
  [ "$got" = "$expected" ] || fail "$name printed '$got'"
}

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
if [ -f "$build/plugin/libgstkalpng.so" ]; then
  [ -f "$prefix/$libdir/gstreamer-1.0/libgstkalpng.so" ] || fail "plug-in not under the prefix"
fi

# The public interface is exported; the decoder's private steps and the processor probe are not.
exports() { nm -DC --defined-only "$1"; }
expect_exports() {  # LIBRARY EXPORTED|HIDDEN SYMBOL...
  local library=$1 want=$2 listing symbol
  shift 2
  listing=$(exports "$library")
  for symbol in "$@"; do
    if grep -qF "$symbol" <<<"$listing"; then
      [ "$want" = EXPORTED ] || fail "$(basename "$library") exports $symbol"
    else
      [ "$want" = HIDDEN ] || fail "$(basename "$library") does not export $symbol"
    fi
  done
}
public=('DecodePNG(MMStream*' 'kpng::Input::Push(' 'kpng::DescribeFailure(' 'MMStreamNew('
  'mmIdFileName' 'zin::Decompress(' 'zio::crc32(' 'kiu::Image::Rotate(' 'kau::mem::Delete('
  'typeinfo for kau::Error')
private=('kpng::Decoder::ReadAndCheckIHDR(' 'kpng::Decoder::Unfilter(' 'kau::cpu::'
  'kau::FirstReport::Record(')
expect_exports "$prefix/$libdir/libkalpng.so" EXPORTED "${public[@]}"
expect_exports "$prefix/$libdir/libkalpng.so" HIDDEN "${private[@]}"
if [ -f "$build/plugin/libgstkalpng.so" ]; then
  plugin=$prefix/$libdir/gstreamer-1.0/libgstkalpng.so
  expect_exports "$plugin" EXPORTED gst_plugin_kalpng_get_desc "${public[@]}"
  expect_exports "$plugin" HIDDEN "${private[@]}"
fi

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
make -s -C "$work" -f "$examples/Makefile" VPATH="$examples"
check_output pkg-config env LD_LIBRARY_PATH="$prefix/$libdir" "$work/decode" "$png"

cmake -S "$examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
check_output find_package "$work/cmake/decode-stream" "$png"
check_output find_package-static "$work/cmake/decode-stream-static" "$png"

gst_prefix=$(pkg-config --variable=prefix gstreamer-1.0)
gst_plugins=$(pkg-config --variable=pluginsdir gstreamer-1.0)
if [ -f "$build/plugin/libgstkalpng.so" ]; then
  DESTDIR=$work/root cmake --install "$build" --prefix "$gst_prefix" >/dev/null
  [ -f "$work/root$gst_plugins/libgstkalpng.so" ] || fail "plug-in not in GStreamer's folder"
fi
echo "ok"
