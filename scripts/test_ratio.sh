#!/usr/bin/env bash
# The size of the test suite against the code it tests: non-blank lines of
# everything under tests/ against those of src/, include/ and tools/.
#   scripts/test_ratio.sh [MAX]    exits 1 when the ratio is above MAX
set -euo pipefail
cd "$(dirname "$0")/.."
count() { find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.in' -o -name '*.sh' -o -name '*.txt' \) \
  -exec grep -hv '^[[:space:]]*$' {} + | wc -l; }
tests=$(count tests)
code=$(count src include tools)
ratio=$(awk -v t="$tests" -v c="$code" 'BEGIN { printf "%.3f", t / c }')
echo "tests: $tests non-blank lines, code: $code, ratio $ratio"
if [ $# -gt 0 ]; then
  awk -v r="$ratio" -v m="$1" 'BEGIN { exit !(r <= m) }' || { echo "the tests are above $1 of the code"; exit 1; }
fi
