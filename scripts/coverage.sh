#!/usr/bin/env bash
# Line and branch coverage of src/ and tools/ by the plain test suite: builds
# with gcov instrumentation in build-coverage/, runs the suite, and prints the
# totals and the ten least covered files.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
command -v gcovr >/dev/null || { apt-get update -qq && apt-get install -y -qq --no-install-recommends gcovr; }
build=build-coverage
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DOSTRELLED_COVERAGE=ON -DOSTRELLED_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 >/dev/null
find "$build" -name '*.gcda' -delete
(cd "$build" && ctest -j2 --output-on-failure >/dev/null) || echo "coverage: some tests failed; figures are of what ran"
# The report goes to a file of the build: gcovr replaces its output file, /dev/null too.
gcovr --root . --object-directory "$build" --filter 'src/' --filter 'tools/' --exclude-unreachable-branches \
  --exclude-throw-branches --print-summary --txt "$build/coverage.txt" >"$build/summary.txt"
grep -E '^(lines|branches):' "$build/summary.txt"
echo "least covered files (lines):"
grep -E '^(src|tools)/' "$build/coverage.txt" | awk '{ printf "%s %s of %s lines\n", $4, $1, $2 }' | sort -n | head -10
