#!/usr/bin/env bash
# Builds the library and runs every test: the layout of every C++ file, the
# plain build, the exported-name check, a downstream build against an
# installed copy, the public ABI against its baseline, the Debian packages,
# every example, the API reference without a Doxygen warning, the whole suite
# again under AddressSanitizer and UndefinedBehaviorSanitizer, the tests that
# use threads under ThreadSanitizer, every fuzz target for a bounded time, and
# the size of the suite against the code.
# Prints how long each step took.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=2
timings=()
step() {
  local name=$1 start=$SECONDS
  shift
  "$@"
  timings+=("$name: $((SECONDS - start)) s")
}

plain() {
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOSTRELLED_WERROR=ON
  cmake --build build -j"$jobs"
  (cd build && ctest --output-on-failure -j"$jobs")
}

address() {
  cmake -S . -B build-sanitize -DCMAKE_BUILD_TYPE=Debug -DOSTRELLED_SANITIZE=ON -DOSTRELLED_BUILD_BENCH=OFF -DOSTRELLED_WERROR=ON \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
  cmake --build build-sanitize -j"$jobs"
  (cd build-sanitize && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j"$jobs")
}

thread() {
  cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DOSTRELLED_TSAN=ON -DOSTRELLED_BUILD_BENCH=OFF -DOSTRELLED_WERROR=ON \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++
  cmake --build build-tsan -j"$jobs"
  (cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --output-on-failure -j"$jobs")
}

# Every C++ file as .clang-format lays it out.
step "format" scripts/check_format.sh
step "build and tests" plain
step "install check" scripts/check_install.sh build
# The public ABI against the committed baseline: any change must be recorded.
step "ABI" scripts/check_abi.sh build
# The Debian packages: lintian, unpacked and built against, the unit checked.
step "packages" scripts/check_packages.sh build-packages
# Every example program; the named-object ones beside a manager, in private namespaces.
step "examples" scripts/run_examples.sh build
# The API reference: every public declaration documented, no Doxygen warning.
step "API reference" scripts/check_docs.sh build-docs
step "AddressSanitizer and UndefinedBehaviorSanitizer" address
step "ThreadSanitizer" thread
step "fuzzing, 30 s per target" scripts/fuzz.sh 30

printf '%s\n' "${timings[@]}"
# The size of the suite against the code: above 0.36 the suite is out of
# shape. Checked last, so that it never hides what the steps above found.
scripts/test_ratio.sh 0.36
