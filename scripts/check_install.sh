#!/usr/bin/env bash
# Installs a built tree into a scratch prefix and builds a small downstream
# program against it twice: through find_package and through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*/ | head -n 1)

cmake -S tests/downstream -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/downstream"

PKG_CONFIG_PATH="$libdir/pkgconfig" g++ -std=c++17 tests/downstream/main.cpp -o "$work/downstream-pc" \
  $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs ostrelled)
LD_LIBRARY_PATH="$libdir" "$work/downstream-pc"
echo "downstream builds (CMake package and pkg-config): ok"
