#!/usr/bin/env bash
# Builds the benchmarks (Release), runs every one of them, and prints each library
# figure beside its reference from the same run with the ratio and the target.
# Writes build-bench/results/results.txt, results.json and ratios.svg.
#   bash scripts/bench.sh [REPETITIONS]     (default 3; medians are reported)
# Exits 1 when a measured figure misses its target.
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-3}
scripts/setup.sh
command -v python3 >/dev/null || { apt-get update -qq && apt-get install -y -qq python3-minimal; }

build=build-bench
results=$build/results
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j2 >/dev/null
rm -rf "$results"
mkdir -p "$results/raw"

# Programs that host a sync manager or use named objects run in private namespaces
# with their own /dev/shm, so they never meet another manager on the machine.
named='^(OS_Mutex|OS_RWMutex|OS_Semaphore|OS_Event|OS_Sync|OS_ShareMemory|Named)'
isolate=yes
scripts/isolated.sh true 2>/dev/null || isolate=no

for program in "$build"/bench/*_bench; do
  name=$(basename "$program")
  runner=()
  if [[ $name =~ $named ]]; then
    if [ "$isolate" = no ]; then
      echo "$name: skipped (private namespaces refused; it would meet the machine's manager)"
      continue
    fi
    runner=(scripts/isolated.sh)
  fi
  echo "running $name"
  # Repetitions interleaved at random, so a change of machine load hits both sides.
  "${runner[@]}" "$program" --benchmark_repetitions="$runs" --benchmark_enable_random_interleaving=true \
    --benchmark_out="$results/raw/$name.json" --benchmark_out_format=json >"$results/raw/$name.log" 2>&1 ||
    echo "$name: failed (see $results/raw/$name.log)"
done

# The named-object lives again with the daemon as manager, as a service runs them.
if [ "$isolate" = yes ]; then
  echo "running OS_Mutex_bench beside ostrelled-syncd"
  scripts/isolated.sh sh -c '"$1" >/dev/null 2>&1 & daemon=$!; sleep 0.5
    "$2" --benchmark_filter="Life|Lives" --benchmark_repetitions="$3" --benchmark_enable_random_interleaving=true \
      --benchmark_out="$4" --benchmark_out_format=json >"$5" 2>&1; status=$?; kill $daemon; exit $status' daemon \
    "$build/tools/ostrelled-syncd" "$build/bench/OS_Mutex_bench" "$runs" "$results/raw/OS_Mutex_bench_daemon.json" \
    "$results/raw/OS_Mutex_bench_daemon.log" || echo "OS_Mutex_bench beside the daemon: failed"
fi

echo
python3 scripts/bench_report.py "$results/raw" "$results" "$runs"
