#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds a small downstream
# program against it twice: through find_package and through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
source scripts/downstream.sh
run_downstream "$work/prefix" "$work"
echo "downstream builds (CMake package and pkg-config): ok"
