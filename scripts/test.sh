#!/usr/bin/env bash
# Builds the library and runs every test: the plain build, the exported-name
# check, a downstream build against an installed copy, and the whole suite
# again under AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=2
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")

scripts/check_install.sh build

# Every example program; the named-object ones beside a manager, in private namespaces.
scripts/run_examples.sh build

# The API reference: every public declaration documented, no Doxygen warning.
scripts/check_docs.sh build-docs

cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DOSTRELLED_SANITIZE=ON -DOSTRELLED_BUILD_BENCH=OFF \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
cmake --build build-sanitize -j"$jobs"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
(cd build-sanitize && ctest --output-on-failure -j"$jobs")
