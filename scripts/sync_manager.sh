# Sourced by the scripts that run programs beside a sync manager: the one
# place that knows how to start the daemon and tell that it serves.
#
# start_sync_manager DAEMON LOG: starts the daemon with its output in LOG, sets
# sync_manager_pid, and returns once it serves; fails (daemon stopped, LOG
# shown) when it dies or does not serve within 10 s.
start_sync_manager() {
  "$1" >"$2" 2>&1 &
  sync_manager_pid=$!
  for _ in $(seq 200); do
    grep -q serving "$2" && return 0
    kill -0 "$sync_manager_pid" 2>/dev/null || break
    sleep 0.05
  done
  kill -TERM "$sync_manager_pid" 2>/dev/null || true
  cat "$2"
  echo "the sync manager did not start"
  return 1
}
