#!/usr/bin/env bash
# The project's main job: builds the library, starts the machine's sync
# manager as a service would (waiting for its readiness report), and runs the
# named objects across several processes, with `ostrelled-ctl list` showing the
# objects between the steps. Ends by stopping the manager: no name is left.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j2 >/dev/null
bin=build-demo/examples
ctl=$PWD/build-demo/tools/ostrelled-ctl

step() { printf '\n== %s\n' "$1"; }
proves() { printf -- '-> %s\n' "$1"; }

step "the sync manager starts and reports that it is ready"
daemon_log=$(mktemp)
trap 'rm -f "$daemon_log"' EXIT
source scripts/sync_manager.sh
start_sync_manager build-demo/tools/ostrelled-syncd "$daemon_log"
daemon=$sync_manager_pid
trap 'kill -TERM $daemon 2>/dev/null || true; wait $daemon 2>/dev/null || true; rm -f "$daemon_log"' EXIT
cat "$daemon_log"
"$ctl" status
proves "one process serves every named object of the machine, and answers within a fraction of a millisecond"

step "self-describing values: a variant converted between types"
"$bin/variant_demo"
proves "values carry their type and convert as the C library would"

step "a named mutex: 4 processes add to one counter"
"$bin/named_mutex_demo" "$ctl list"
proves "processes that share nothing but a name exclude each other: no increment is lost"

step "named events: an auto-reset ping-pong, then a manual-reset broadcast"
"$bin/named_event" "$ctl list"
proves "an auto-reset set releases exactly one waiter, a manual-reset set releases them all"

step "a counting semaphore bounds how many processes work at once"
"$bin/semaphore_workers" "$ctl list"
proves "a semaphore of 2 units never lets a third process in"

step "a reader/writer mutex: readers share it, a writer waits for them"
"$bin/rw_readers" "$ctl list"
proves "readers hold the lock together; a timed writer gives up at its deadline"

step "a process is killed with SIGKILL while it holds a named mutex"
"$bin/crash_recovery" "$ctl list"
proves "the next process takes the mutex over and carries on: a death never blocks the machine"
echo "the killed process never gave back its attachment: its block is left, stale"
"$ctl" list
"$ctl" remove example_crash
"$ctl" list
proves "a stale block is seen and removed without touching anything in use"

step "the manager stops on SIGTERM"
kill -TERM "$daemon"
wait "$daemon"
tail -n 1 "$daemon_log"
"$ctl" status || true
left=$(ls /dev/shm | grep -E 'os_mutex_manage|named_mutex_demo|example_' || true)
if [ -n "$left" ]; then echo "names left behind: $left"; exit 1; fi
proves "after the manager stops, no name of it or of any object is left in /dev/shm"
