#!/usr/bin/env bash
# Builds the three Debian packages (Release, for /usr) and checks them:
# lintian reports no error; unpacked into a scratch root with dpkg-deb -x, the
# downstream consumer builds against that root (CMake package and pkg-config)
# and runs; the tools run; the installed unit passes systemd-analyze verify
# and its exposure in systemd-analyze security is at most 2.0.
# Usage: check_packages.sh [build-dir]   (default build-packages)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build-packages}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DOSTRELLED_BUILD_TESTS=OFF -DOSTRELLED_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 >/dev/null
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
debs=("$build"/*.deb)
[ ${#debs[@]} -eq 3 ] || { echo "expected three packages, found: ${debs[*]}"; exit 1; }

report=$(lintian --tag-display-limit 0 "${debs[@]}" 2>&1 | grep -v 'root privileges' || true)
[ -n "$report" ] && echo "$report"
if grep -q '^E:' <<<"$report"; then echo "lintian reports errors"; exit 1; fi

# The three must install together (dependencies between them and on the system).
mapfile -t paths < <(realpath "${debs[@]}")
timeout 120 apt-get install --simulate "${paths[@]}" >"$build/apt-simulate.log" 2>&1 \
  || { cat "$build/apt-simulate.log"; echo "the packages do not install together"; exit 1; }

root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
for deb in "${debs[@]}"; do dpkg-deb -x "$deb" "$root"; done
source scripts/downstream.sh
run_downstream "$root/usr" "$root/consumer"
"$root/usr/bin/ostrelled-syncd" --version
"$root/usr/bin/ostrelled-ctl" --version

# The unit as installed, its ExecStart pointed into the scratch root.
unit=$root/check/ostrelled-syncd.service
mkdir -p "$(dirname "$unit")"
sed "s|^ExecStart=/usr/|ExecStart=$root/usr/|" "$root/usr/lib/systemd/system/ostrelled-syncd.service" >"$unit"
MANPATH="$root/usr/share/man" systemd-analyze verify "$unit"
exposure=$(systemd-analyze security --offline=true "$unit" | sed -n 's/.*Overall exposure level for .*: \([0-9.]*\).*/\1/p')
echo "unit exposure: $exposure"
awk -v e="$exposure" 'BEGIN { exit !(e != "" && e <= 2.0) }' || { echo "the unit's exposure is above 2.0"; exit 1; }
echo "packages: $(basename -a "${debs[@]}" | tr '\n' ' ')built, unpacked and used: ok"
