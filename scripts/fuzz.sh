#!/usr/bin/env bash
# Builds the libFuzzer targets in build-fuzz/, writes their seed corpora to build-fuzz/corpus/
# and runs each target for SECONDS (default 60) on its corpus, two at a time. Inputs kept
# under fuzz/regressions/<target>/ are replayed first. Fails on any finding; a finding's input
# is saved under build-fuzz/findings/<target>/.
#   scripts/fuzz.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
build=build-fuzz
jobs=${FUZZ_JOBS:-2}

bash scripts/install-deps.sh
werror=OFF
[ -n "${CI:-}" ] && werror=ON
CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKALPNG_FUZZ=ON -DKALPNG_TESTS=OFF -DKALPNG_BENCH=OFF -DKALPNG_PLUGIN=OFF \
  -DKALPNG_WERROR=$werror >/dev/null
cmake --build "$build" --target fuzzers
mapfile -t targets < <(grep . "$build/fuzz/fuzzers.txt" || true)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz.sh: the build listed no fuzz target in $build/fuzz/fuzzers.txt" >&2
  exit 1
fi

rm -rf "$build/corpus/seeds"
"$build/fuzz/fuzz_corpus" ../shared/testdata "$build/corpus/seeds"

# Runs one target; its log goes to build-fuzz/logs/<target>.log.
run_target() {
  local target=$1 binary="$build/fuzz/$1"
  local work="$build/corpus/work/$1" seeds="$build/corpus/seeds/$1" findings="$build/findings/$1/"
  mkdir -p "$work" "$seeds" "$findings"
  local options=(-max_total_time="$seconds" -max_len=65536 -timeout=30 -rss_limit_mb=2048
    -close_fd_mask=1 -print_final_stats=1 -artifact_prefix="$findings")
  case $target in fuzz_png_*) options+=(-dict=fuzz/png.dict) ;; esac
  if [ -d "fuzz/regressions/$target" ]; then
    "$binary" -close_fd_mask=1 "fuzz/regressions/$target"/* || return 1
  fi
  "$binary" "${options[@]}" "$work" "$seeds"
}

logs="$build/logs"
rm -rf "$logs"
mkdir -p "$logs"
running=0
for target in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n || true
    running=$((running - 1))
  fi
  {
    if run_target "$target" >"$logs/$target.log" 2>&1; then status=0; else status=1; fi
    echo "$status" >"$logs/$target.status"
  } &
  running=$((running + 1))
done
wait

failed=()
for target in "${targets[@]}"; do
  log="$logs/$target.log"
  if [ "$(cat "$logs/$target.status")" = 0 ]; then
    runs=$(grep -o 'stat::number_of_executed_units: [0-9]*' "$log" | grep -o '[0-9]*$' || true)
    coverage=$(grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | grep -oE 'cov: [0-9]+ ft: [0-9]+' || true)
    echo "$target: ${runs:-?} runs, ${coverage:-no coverage line}, no finding"
  else
    echo "$target: FINDING (log $log, input under $build/findings/$target/)"
    tail -n 40 "$log"
    failed+=("$target")
  fi
done

[ ${#failed[@]} -eq 0 ] || { echo "fuzzing found problems in: ${failed[*]}"; exit 1; }
