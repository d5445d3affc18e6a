#!/usr/bin/env bash
# check_manpages.sh MERLSNAP PAGE...: the manual pages render without roff
# warnings (when groff is here), and merlsnap(1) names every command and
# option that `merlsnap --help` offers, so the page cannot fall behind.
set -euo pipefail
merlsnap=$1; shift
status=0
if command -v groff >/dev/null; then
  for page in "$@"; do
    warnings=$(groff -man -Tutf8 -ww -z "$page" 2>&1 || true)
    if [ -n "$warnings" ]; then
      echo "$page: $warnings"
      status=1
    fi
  done
fi
page=
for p in "$@"; do case $p in */merlsnap.1) page=$p ;; esac; done
[ -n "$page" ] || { echo "no merlsnap.1 among $*"; exit 1; }
usage=$("$merlsnap" --help)
# Commands: the indented words of the usage's "commands:" block.
commands=$(sed -n '/^commands:/,/^$/p' <<<"$usage" | awk 'NF && $1 != "commands:" {print $1}')
options=$(grep -o -- '--[a-z][a-z-]*' <<<"$usage" | sort -u)
for c in $commands; do
  grep -q "^\.B[IR]* $c\b" "$page" || { echo "merlsnap.1 lacks the command $c"; status=1; }
done
for o in $options; do
  roff=${o//-/\\-}
  grep -qF -- "$roff" "$page" || { echo "merlsnap.1 lacks the option $o"; status=1; }
done
exit $status
