#!/usr/bin/env bash
# bench.sh: builds the plain configuration, runs every benchmark, prints the
# table of figures against their goals and exits non-zero when a goal is
# missed. Each program's whole output is kept in build/plain/bench-results.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh" >&2
"$top/scripts/build.sh" "$top/build/plain" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
bin=$top/build/plain/bench
out=$top/build/plain/bench-results
mkdir -p "$out"
status=0

# Each of these judges its own goals from figures of one run and prints a
# "GOAL" line per row; it exits non-zero when one is missed.
for prog in bench_parsers bench_snapshot bench_spawn; do
  echo "running $prog" >&2
  "$bin/$prog" --benchmark_color=false >"$out/$prog.txt" 2>&1 || status=1
done
echo "running bench_msg" >&2
"$bin/bench_msg" >"$out/bench_msg.txt" 2>&1 || status=1

# The simulator's benchmark reports each command's CPU time as "cpu_ms";
# its goal, under 3 ms for every command on a 5,000-LUN array, is judged here.
echo "running bench_arraysim" >&2
ZOV_BUILD_DIR=$top/build/plain "$bin/bench_arraysim" --benchmark_filter=BM_Child \
  --benchmark_format=csv >"$out/bench_arraysim.csv" 2>"$out/bench_arraysim.err" || status=1
awk -F, '
  NR == 1 { for (i = 1; i <= NF; i++) { h = $i; gsub(/"/, "", h); if (h == "cpu_ms") col = i }; next }
  /^"?BM_/ {
    name = $1; gsub(/"/, "", name); sub(/\/real_time$/, "", name)
    if (!col || $col == "") { printf "GOAL\tsimulator %s\tdid not run\t< 3 ms CPU\tMISSED\n", name; next }
    printf "GOAL\tsimulator %s (5,000 LUNs)\t%.2f ms CPU\t< 3 ms CPU\t%s\n", name, $col, ($col < 3 ? "met" : "MISSED")
  }' "$out/bench_arraysim.csv" >"$out/bench_arraysim.goals"
grep -q MISSED "$out/bench_arraysim.goals" && status=1

echo
echo "machine: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'), $(nproc) CPUs"
cat "$out"/bench_parsers.txt "$out"/bench_snapshot.txt "$out"/bench_spawn.txt \
  "$out/bench_arraysim.goals" | grep '^GOAL' |
  awk -F'\t' '{ printf "%-7s %-58s %s\n        goal: %s\n", $5, $2, $3, $4 }'
if grep -h '^GOAL' "$out"/*.txt "$out/bench_arraysim.goals" | grep -q 'MISSED'; then status=1; fi
echo
[ $status -eq 0 ] && echo "every goal met" || echo "a goal was missed (full output in $out)"
exit $status
