#!/usr/bin/env bash
# Checks every C++ file of the repository against .clang-format and names the
# files that differ; `--fix` rewrites them instead (scripts/setup.sh installs
# clang-format).
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [[ ${1:-} == --fix ]]; then
  clang-format -i "${files[@]}"
  exit 0
fi
off=()
for file in "${files[@]}"; do
  clang-format --dry-run -Werror "$file" >/dev/null 2>&1 || off+=("$file")
done
if ((${#off[@]} > 0)); then
  printf 'not formatted as .clang-format says (scripts/check_format.sh --fix rewrites them):\n' >&2
  printf '  %s\n' "${off[@]}" >&2
  exit 1
fi
echo "format: ${#files[@]} files as .clang-format says"
