#!/usr/bin/env bash
# Builds the fuzz targets (clang, libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer) in build-fuzz and runs each one for the given
# number of seconds, from its committed seeds and the inputs that earlier runs
# kept in build-fuzz/corpus. Fails on any crash, leak, sanitizer report or
# mismatch; the input that caused it is kept in build-fuzz/artifacts.
#
# Usage: scripts/fuzz.sh [seconds per target, default 30] [target...]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift $(( $# > 0 ? 1 : 0 ))

cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTRELLED_FUZZ=ON \
  -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ > /dev/null
cmake --build build-fuzz -j2

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in tests/fuzz/*_fuzz.cpp; do targets+=("$(basename "$source" .cpp)"); done
fi
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
mkdir -p build-fuzz/artifacts
for target in "${targets[@]}"; do
  corpus=build-fuzz/corpus/$target
  log=build-fuzz/$target.log
  mkdir -p "$corpus"
  if build-fuzz/tests/fuzz/"$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix=build-fuzz/artifacts/"$target"- \
       "$corpus" tests/fuzz/corpus/"$target" > "$log" 2>&1; then
    echo "$target: $(grep -m1 '^Done' "$log")"
  else
    tail -n 40 "$log"
    echo "$target: FAILED (log $log, input in build-fuzz/artifacts)"
    exit 1
  fi
done
