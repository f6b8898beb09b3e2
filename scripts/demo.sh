#!/usr/bin/env bash
# The project's main job: builds the library and runs its demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j2 >/dev/null

# Named objects need the machine's sync manager: run the daemon meanwhile.
daemon_log=$(mktemp)
build-demo/tools/ostrelled-syncd >"$daemon_log" 2>&1 &
daemon=$!
trap 'kill -TERM $daemon 2>/dev/null || true; wait $daemon 2>/dev/null || true; rm -f "$daemon_log"' EXIT
for _ in $(seq 100); do
  grep -q serving "$daemon_log" && break
  kill -0 $daemon 2>/dev/null || { cat "$daemon_log"; echo "the sync manager did not start"; exit 1; }
  sleep 0.05
done
cat "$daemon_log"
echo "manager's names: $(ls /dev/shm | grep os_mutex_manage | tr '\n' ' ')"

for demo in build-demo/examples/*_demo; do
  [ -x "$demo" ] && "$demo"
done

kill -TERM $daemon
wait $daemon
cat "$daemon_log"
left=$(ls /dev/shm | grep -E 'os_mutex_manage|named_mutex_demo' || true)
if [ -n "$left" ]; then echo "names left behind: $left"; exit 1; fi
echo "after SIGTERM: no manager or demo names are left in /dev/shm"
