#!/usr/bin/env bash
# package.sh [OUTDIR]: builds the Debian package of the module, its tools and
# manual pages into OUTDIR (default build/package) and prints its path.
# Installs what it needs and builds build/plain first (ZOV_BUILD_DIR names
# another build folder).
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
out=$(mkdir -p "${1:-$top/build/package}" && cd "${1:-$top/build/package}" && pwd)
build=${ZOV_BUILD_DIR:-$top/build/plain}
"$top/scripts/deps.sh" >&2
"$top/scripts/build.sh" "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
rm -f "$out"/zovmerl_*.deb
cpack --config "$build/CPackConfig.cmake" -G DEB -B "$out" >"$out/cpack.log" 2>&1 || {
  cat "$out/cpack.log" >&2
  exit 1
}
# CPack's staging tree and log are of no further use.
rm -rf "$out/_CPack_Packages" "$out/cpack.log"
ls "$out"/zovmerl_*.deb
