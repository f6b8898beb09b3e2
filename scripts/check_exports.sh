#!/usr/bin/env bash
# Compares every name exported by the built library with the two lists in
# exports/: the C names (libOstrelled.txt) and the demangled C++ names
# (libOstrelled-cxx.txt). Each exported name must carry version OSTRELLED_1.
# Usage: check_exports.sh path/to/libOstrelled.so [exports-dir]
set -euo pipefail
lib=${1:?library path}
dir=${2:-$(dirname "$0")/../exports}
listed() { sed 's/^#.*//; s/^[[:space:]]*//; s/[[:space:]]*$//; /^$/d' "$1" | sort -u; }

symbols=$(nm -D --defined-only "$lib" | awk '{print $NF}' | grep -v -x 'OSTRELLED_1')
status=0
unversioned=$(grep -v '@@OSTRELLED_1$' <<<"$symbols" || true)
if [ -n "$unversioned" ]; then echo "exported without version OSTRELLED_1:"; echo "$unversioned"; status=1; fi
names=$(sed 's/@@OSTRELLED_1$//' <<<"$symbols")

compare() {  # compare WHAT EXPECTED ACTUAL
  local missing extra
  missing=$(comm -23 <(echo "$2") <(echo "$3"))
  extra=$(comm -13 <(echo "$2") <(echo "$3"))
  if [ -n "$missing" ]; then echo "$1 listed but not exported:"; echo "$missing"; status=1; fi
  if [ -n "$extra" ]; then echo "$1 exported but not listed:"; echo "$extra"; status=1; fi
}
compare "C names" "$(listed "$dir/libOstrelled.txt")" "$(grep -v '^_Z' <<<"$names" | sort -u)"
compare "C++ names" "$(listed "$dir/libOstrelled-cxx.txt")" "$(grep '^_Z' <<<"$names" | c++filt | sort -u)"
[ $status -eq 0 ] && echo "exports match: $(wc -l <<<"$names") symbols, all at OSTRELLED_1"
exit $status
