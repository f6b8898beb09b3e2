#!/usr/bin/env bash
# Installs what building and testing need, on a Debian machine, as root.
# Only missing packages are installed; a machine that has them all is left alone.
set -euo pipefail
# libclang-rt-dev holds the sanitizer and libFuzzer runtimes, llvm the
# symbolizer that turns their reports' addresses into source lines.
packages=(cmake make g++ clang libclang-rt-dev llvm binutils pkg-config libgtest-dev libgmock-dev
  libbenchmark-dev libboost-dev procps psmisc gawk coreutils zlib1g python3)
# The API reference check, and the ABI check against its baseline.
packages+=(doxygen abigail-tools)
# The layout check of every C++ file.
packages+=(clang-format)
# The Debian packages and their checks.
packages+=(dpkg-dev file lintian systemd man-db)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
