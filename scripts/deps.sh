#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when missing.
set -euo pipefail
pkgs=(cmake ninja-build g++ make pkg-config googletest libgtest-dev libbenchmark-dev
      libtirpc-dev libssl-dev rpcsvc-proto amanda-server)
# The fuzz targets: clang with its libFuzzer and sanitizer runtimes.
pkgs+=(clang libclang-rt-14-dev)
missing=()
# The package (scripts/package.sh): dpkg-shlibdeps, and file, which CPack runs with it.
pkgs+=(dpkg-dev file)
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q "${missing[@]}"
fi
