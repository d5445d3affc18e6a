#!/usr/bin/env bash
# build.sh DIR [cmake options...]: configure (once) and build into DIR.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=$1; shift
jobs=${ZOV_JOBS:-$(nproc 2>/dev/null || echo 2)}  # ZOV_JOBS: on a shared machine
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
fi
cmake --build "$dir" -j "$jobs"
