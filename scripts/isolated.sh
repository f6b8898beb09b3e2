#!/usr/bin/env bash
# Runs a command in its own mount and IPC namespaces with a private tmpfs on
# /dev/shm, so that named objects and the sync manager it uses never meet
# those of any other program on the machine (nor of a test running beside it).
set -euo pipefail
exec unshare --mount --ipc --propagation private -- \
  sh -c 'mount -t tmpfs -o size=64m tmpfs /dev/shm && exec "$@"' isolated "$@"
