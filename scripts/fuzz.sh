#!/usr/bin/env bash
# fuzz.sh [SECONDS | --runs N]: builds the fuzz targets (clang, libFuzzer,
# build/fuzz) and runs each one from its seed corpus: SECONDS each (default
# 60), or N inputs each (what the test command does). Inputs longer than the
# buffers' growth steps are tried (-max_len). A finding stops with the
# target's report; its input is kept in build/fuzz/findings/ and becomes a
# regression test beside the parser's own tests.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
limit=(-max_total_time="${1:-60}")
if [ "${1:-}" = "--runs" ]; then limit=(-runs="$2"); fi
"$top/scripts/deps.sh"
dir="$top/build/fuzz"
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DZOV_FUZZ=ON -DZOV_TESTS=OFF -DZOV_BENCH=OFF >/dev/null
fi
cmake --build "$dir" --target fuzz_targets -j "${ZOV_JOBS:-$(nproc 2>/dev/null || echo 2)}"

seeds="$top/tests/fuzz/seeds"
mkdir -p "$dir/findings"
export ASAN_OPTIONS="detect_leaks=1:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"
status=0
for exe in "$dir"/tests/fuzz/fuzz_*; do
  name=$(basename "$exe"); name=${name#fuzz_}
  corpus="$dir/corpus/$name"
  mkdir -p "$corpus"
  [ -d "$seeds/$name" ] && cp -n "$seeds/$name"/* "$corpus"/ 2>/dev/null || true
  if [ "$name" = tool_output ]; then
    # Every captured output of the array's tools seeds every parser.
    find "$top/tests/fixtures" -type f | while read -r f; do
      cp -n "$f" "$corpus/$(echo "${f#"$top"/tests/fixtures/}" | tr / _)"
    done
  fi
  pairs=0
  # The attribute lexer is built to report pointers compared across buffers.
  [ "$name" = attr_text ] && pairs=2
  start=$(date +%s)
  if ASAN_OPTIONS="detect_invalid_pointer_pairs=$pairs:$ASAN_OPTIONS" "$exe" "${limit[@]}" -max_len=8192 -timeout=60 -rss_limit_mb=2048 \
      -artifact_prefix="$dir/findings/$name-" -print_final_stats=1 "$corpus" \
      >"$dir/$name.log" 2>&1; then
    runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$dir/$name.log" | grep -o '[0-9]*$' || echo "?")
    printf '%-16s ok   %8s inputs  %4ss\n' "$name" "$runs" "$(( $(date +%s) - start ))"
  else
    printf '%-16s FAILED (see %s)\n' "$name" "$dir/$name.log"
    grep -E 'ERROR|SUMMARY|runtime error|Test unit written' "$dir/$name.log" | head -8 || true
    status=1
  fi
done
exit $status
