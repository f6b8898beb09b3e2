# Sourced by the scripts that run programs beside a sync manager: the one
# place that knows how to start the daemon and tell that it serves.
#
# start_sync_manager DAEMON LOG: starts the daemon with its output in LOG, sets
# sync_manager_pid, and returns once the daemon reports that it answers
# requests, as it reports it to systemd (READY=1 on $NOTIFY_SOCKET); fails
# (daemon stopped, LOG shown) when it dies or is not ready within 10 s.
start_sync_manager() {
  local work line="" fd
  work=$(mktemp -d)
  mkfifo "$work/said"
  python3 "$(dirname "${BASH_SOURCE[0]}")/notify_listen.py" "$work/notify" 10 >"$work/said" &
  exec {fd}<"$work/said"
  read -r -t 5 line <&"$fd" || true
  if [ "$line" = bound ]; then
    NOTIFY_SOCKET="$work/notify" "$1" >"$2" 2>&1 &
    sync_manager_pid=$!
    read -r -t 11 line <&"$fd" || true
  fi
  exec {fd}<&-
  rm -rf "$work"
  [ "$line" = ready ] && return 0
  [ -n "${sync_manager_pid:-}" ] && kill -TERM "$sync_manager_pid" 2>/dev/null || true
  cat "$2"
  echo "the sync manager did not report that it is ready"
  return 1
}
