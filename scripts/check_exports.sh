#!/usr/bin/env bash
# Compares the unmangled names exported by the built library with the list
# in exports/libOstrelled.txt. Usage: check_exports.sh path/to/libOstrelled.so [list]
set -euo pipefail
lib=${1:?library path}
list=${2:-$(dirname "$0")/../exports/libOstrelled.txt}
expected=$(cat "$list" | sed 's/#.*//; s/[[:space:]]//g; /^$/d' | sort -u)
# Defined dynamic symbols, less the mangled C++ ones and the linker's own.
actual=$(nm -D --defined-only "$lib" | awk '{print $NF}' | grep -v '^_Z' |
  grep -v -x -E '_init|_fini|_edata|_end|__bss_start' | sort -u)
missing=$(comm -23 <(echo "$expected") <(echo "$actual"))
extra=$(comm -13 <(echo "$expected") <(echo "$actual"))
status=0
if [ -n "$missing" ]; then echo "listed but not exported:"; echo "$missing"; status=1; fi
if [ -n "$extra" ]; then echo "exported but not listed:"; echo "$extra"; status=1; fi
[ $status -eq 0 ] && echo "exports match: $(echo "$expected" | wc -l) names"
exit $status
