#!/usr/bin/env bash
# The main job: installs what is missing, builds the plug-in and decodes a PNG sequence with
# kalpng_dec in a real GStreamer pipeline into a WebM video (VP8) under out/ that any browser or
# media player plays.
#
#   scripts/run.sh          makes a numbered PNG sequence of its own and decodes it
#   scripts/run.sh PATH     decodes PATH instead: one PNG file, a folder of PNG files (taken
#                           in name order) or a printf-style pattern such as shots/img%03d.png
set -euo pipefail
# The user's path counts from where the script was started.
input=${1:+$(realpath -m -- "$1")}
cd "$(dirname "$0")/.."
root=$(pwd)

frames_default=250
width_default=640
height_default=360
rate=25/1

out=$root/out
staged=$out/input
video=$out/kalpng.webm

say() { printf '%s\n' "$*"; }
fail() {
  printf 'run.sh: %s\n' "$*" >&2
  exit 1
}

build() {
  bash scripts/install-deps.sh
  say "== building the plug-in (build/, Release)"
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build build --target gstkalpng -j "$(nproc)"
  export GST_PLUGIN_PATH=$root/build/plugin
  gst-inspect-1.0 kalpng_dec >/dev/null || fail "GStreamer does not find kalpng_dec in build/plugin"
}

# The default input: a moving test picture, PNG-encoded frame by frame.
make_default_frames() {
  local frames=$out/frames
  if [ -f "$frames/frame$(printf %04d $((frames_default - 1))).png" ] &&
    [ "$(find "$frames" -name 'frame*.png' | wc -l)" -eq "$frames_default" ]; then
    say "== using the $frames_default test frames in out/frames/"
  else
    say "== making $frames_default test frames (${width_default}x${height_default}) in out/frames/"
    rm -rf "$frames"
    mkdir -p "$frames"
    gst-launch-1.0 -q videotestsrc num-buffers=$frames_default pattern=smpte horizontal-speed=4 \
      ! "video/x-raw,width=$width_default,height=$height_default,framerate=$rate" \
      ! pngenc ! multifilesink location="$frames/frame%04d.png"
  fi
  use_pattern "$frames/frame%04d.png"
}

# A printf-style pattern: the run of numbered files from the first index that exists.
# Sets pattern, first (index), count and first_file.
use_pattern() {
  pattern=$1
  local index=0 file
  printf -v file "$pattern" $index
  while [ $index -lt 100000 ] && [ ! -f "$file" ]; do
    index=$((index + 1))
    printf -v file "$pattern" $index
  done
  [ -f "$file" ] || fail "no file matches $pattern"
  first=$index
  first_file=$file
  while [ -f "$file" ]; do
    index=$((index + 1))
    printf -v file "$pattern" $index
  done
  count=$((index - first))
}

# A folder: its PNG files in name order, linked as out/input/frame000000.png, ...
use_folder() {
  local files=() i link
  mapfile -t files < <(find "$1" -maxdepth 1 -type f -iname '*.png' | LC_ALL=C sort)
  [ ${#files[@]} -gt 0 ] || fail "no PNG file in $1"
  rm -rf "$staged"
  mkdir -p "$staged"
  for i in "${!files[@]}"; do
    printf -v link '%s/frame%06d.png' "$staged" "$i"
    ln -s "${files[$i]}" "$link"
  done
  use_pattern "$staged/frame%06d.png"
}

use_user_input() {
  local path=$1
  if [ -d "$path" ]; then
    use_folder "$path"
  elif [ -f "$path" ]; then
    pattern=${path//%/%%}
    first=0
    count=1
    first_file=$path
  elif [[ $path == *%* ]]; then
    use_pattern "$path"
  else
    fail "$1 is neither a PNG file, a folder nor a printf-style pattern"
  fi
}

# Width and height from the first frame's header; every frame is scaled to them, since a
# video file keeps one size.
read_size() {
  local b
  read -r -a b < <(od -An -tu1 -j16 -N8 "$first_file")
  [ ${#b[@]} -eq 8 ] || fail "$first_file is too short for a PNG"
  width=$(((b[0] << 24) | (b[1] << 16) | (b[2] << 8) | b[3]))
  height=$(((b[4] << 24) | (b[5] << 16) | (b[6] << 8) | b[7]))
}

# Frames decoded so far: identity reports each buffer that passes it.
frames_written() {
  local n
  n=$(grep -c 'progress: last-message = chain' "$out/decode.log" 2>/dev/null) || true
  echo "${n:-0}"
}

decode() {
  local log=$out/decode.log shown=0 done
  say "== decoding $count PNG frame(s) of ${width}x${height} with kalpng_dec into out/$(basename "$video")"
  rm -f "$video"
  local started=$EPOCHREALTIME
  {
    gst-launch-1.0 -v multifilesrc location="$pattern" start-index=$first \
      stop-index=$((first + count - 1)) caps="image/png,framerate=$rate" \
      ! kalpng_dec ! identity name=progress silent=false \
      ! videoconvert ! videoscale ! "video/x-raw,format=I420,width=$width,height=$height" \
      ! vp8enc deadline=1 target-bitrate=2000000 ! webmmux ! filesink location="$video" >"$log" 2>&1 || true
    echo "$EPOCHREALTIME" >"$out/decode.end"
  } &
  local pid=$!
  while kill -0 $pid 2>/dev/null; do
    sleep 0.25
    done=$(frames_written)
    if [ "$done" -ne "$shown" ] && [ "$done" -lt "$count" ]; then
      say "  progress: $done of $count frames"
      shown=$done
    fi
  done
  wait $pid
  elapsed=$(awk -v a="$started" -v b="$(cat "$out/decode.end")" 'BEGIN { printf "%.3f", b - a }')
  rm -f "$out/decode.end"
  grep -q '^Got EOS' "$log" || {
    cat "$log" >&2
    fail "the pipeline did not finish (log: out/decode.log)"
  }
}

summary() {
  local fps size
  fps=$(awk -v n="$count" -v s="$elapsed" 'BEGIN { printf "%.1f", (s > 0 ? n / s : 0) }')
  size=$(awk -v b="$(stat -c %s "$video")" 'BEGIN { printf (b < 1048576 ? "%.0f KiB" : "%.1f MiB"), (b < 1048576 ? b / 1024 : b / 1048576) }')
  say "== done"
  say "  frames:            $(frames_written) of $count"
  say "  size:              ${width}x${height}"
  say "  time:              ${elapsed} s (the whole gst-launch-1.0 run: decode, convert, encode, write)"
  say "  frames per second: $fps"
  say "  video:             out/$(basename "$video") ($size, WebM, VP8)"
}

build
mkdir -p "$out"
if [ -z "$input" ]; then
  make_default_frames
else
  use_user_input "$input"
fi
read_size
decode
summary
