#!/usr/bin/env bash
# The main job: builds the module and its driver, then runs the driver's demo
# against a freshly made simulated array.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
"$top/scripts/build.sh" "$top/build/plain" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
exec "$top/build/plain/tools/merlsnap/merlsnap" demo "$@" </dev/null
