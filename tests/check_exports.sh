#!/usr/bin/env bash
# check_exports.sh LIB: the module exports exactly the loader's four entry points.
set -euo pipefail
lib=$1
got=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TtDdBbRrVvWwi]$/ {print $3}' | sed 's/@.*//' | sort -u)
want=$(printf '%s\n' freeSSAttrlist freeSSObject getSSAPIVersion instantiateSS)
if [ "$got" != "$want" ]; then
  echo "exported symbols differ:"; diff <(echo "$want") <(echo "$got") || true
  exit 1
fi
echo "exports: 1 passed, 0 failed"
