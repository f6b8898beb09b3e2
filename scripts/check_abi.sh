#!/usr/bin/env bash
# Compares the public ABI of a built library (RelWithDebInfo, for its debug
# information) with the baseline committed in abi/libOstrelled.abi, and fails
# on any difference, additions included. A change that is meant is recorded by
# regenerating the baseline in the same commit:
#   bash scripts/check_abi.sh --update build
# Only types declared in the public headers count, less the insides of the
# opaque handles (abi/opaque-handles.abignore); no path enters the files.
set -euo pipefail
cd "$(dirname "$0")/.."
update=no
if [ "${1:-}" = --update ]; then
  update=yes
  shift
fi
build=${1:-build}
baseline=abi/libOstrelled.abi
current=$(mktemp)
trap 'rm -f "$current"' EXIT
timeout 300 abidw --headers-dir include/ostrelled --headers-dir "$build/include/ostrelled" --drop-private-types \
  --exported-interfaces-only --no-corpus-path --no-comp-dir-path --no-show-locs --short-locs \
  "$build/libOstrelled.so" >"$current"
if [ $update = yes ]; then
  mkdir -p abi
  install -m 644 "$current" "$baseline"
  echo "ABI baseline recorded in $baseline"
  exit 0
fi
# --harmless: a change abidiff deems harmless (a new enumerator, say) is a change too.
if timeout 300 abidiff --harmless --suppressions abi/opaque-handles.abignore "$baseline" "$current"; then
  echo "ABI: unchanged from $baseline"
else
  echo "the public ABI differs from $baseline; if that is meant, record it: bash scripts/check_abi.sh --update $build"
  exit 1
fi
