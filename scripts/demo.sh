#!/usr/bin/env bash
# The project's main job: builds the library and runs its demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j2 >/dev/null

# Named objects need the machine's sync manager: run the daemon meanwhile.
daemon_log=$(mktemp)
trap 'rm -f "$daemon_log"' EXIT
source scripts/sync_manager.sh
start_sync_manager build-demo/tools/ostrelled-syncd "$daemon_log"
daemon=$sync_manager_pid
trap 'kill -TERM $daemon 2>/dev/null || true; wait $daemon 2>/dev/null || true; rm -f "$daemon_log"' EXIT
cat "$daemon_log"
echo "manager's names: $(ls /dev/shm | grep os_mutex_manage | tr '\n' ' ')"

for demo in build-demo/examples/*_demo; do
  [ -x "$demo" ] && "$demo"
done

kill -TERM $daemon
wait $daemon
tail -n 1 "$daemon_log"
left=$(ls /dev/shm | grep -E 'os_mutex_manage|named_mutex_demo' || true)
if [ -n "$left" ]; then echo "names left behind: $left"; exit 1; fi
echo "after SIGTERM: no manager or demo names are left in /dev/shm"
