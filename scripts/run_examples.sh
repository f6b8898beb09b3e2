#!/usr/bin/env bash
# Runs every example program of a build; each must exit 0. The ones that use
# named objects run in private namespaces (scripts/isolated.sh) beside a sync
# manager started the way the README says, so that they never meet another
# manager on the machine. Usage: run_examples.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(realpath "${1:-build}")

# One line per example: "plain" runs it as it is, "named" beside the manager.
# An example whose source is not there (yet) is skipped.
examples="
plain variant_demo
plain directory_walk
plain serial_frame
plain socket_echo
named named_mutex_demo
named named_event
named semaphore_workers
named rw_readers
named crash_recovery
"

run() {  # run NAME: the program, bounded in time
  echo "== $1"
  timeout 120 "$build/examples/$1"
}

# Inside the private namespaces: start the manager, wait until it serves,
# run the named examples, stop it.
if [ "${2:-}" = "--named-inside" ]; then
  log=$(mktemp)
  trap 'rm -f "$log"' EXIT
  source scripts/sync_manager.sh
  start_sync_manager "$build/tools/ostrelled-syncd" "$log"
  trap 'kill -TERM $sync_manager_pid 2>/dev/null || true; wait $sync_manager_pid 2>/dev/null || true; rm -f "$log"' EXIT
  shift 2
  for name in "$@"; do run "$name"; done
  exit 0
fi

# Every example source must have its line above.
for src in examples/*.cpp; do
  name=$(basename "$src" .cpp)
  grep -q -x "\(plain\|named\) $name" <<<"$examples" || { echo "examples/$name.cpp is not listed in $0"; exit 1; }
done

named=()
while read -r kind name; do
  [ -n "$name" ] && [ -f "examples/$name.cpp" ] || continue
  if [ "$kind" = plain ]; then run "$name"; else named+=("$name"); fi
done <<<"$examples"

if [ ${#named[@]} -gt 0 ]; then
  scripts/isolated.sh true 2>/dev/null || { echo "private namespaces refused: the named examples need them"; exit 1; }
  scripts/isolated.sh "$PWD/scripts/run_examples.sh" "$build" --named-inside "${named[@]}"
fi
echo "examples: all ran and succeeded"
