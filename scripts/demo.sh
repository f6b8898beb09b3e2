#!/usr/bin/env bash
# The project's main job: builds the library and runs its demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=Release -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j2 >/dev/null
for demo in build-demo/examples/*_demo; do
  [ -x "$demo" ] && "$demo"
done
