#!/usr/bin/env bash
# Runs the whole test suite twice: a plain build, then one under
# AddressSanitizer and UndefinedBehaviorSanitizer; then the tests that run
# threads under ThreadSanitizer; then the fuzz targets for a short run; then
# builds the Debian package and runs it unpacked.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
"$top/scripts/deps.sh"
jobs=$(nproc 2>/dev/null || echo 2)

"$top/scripts/build.sh" "$top/build/plain" -DCMAKE_BUILD_TYPE=RelWithDebInfo
"$top/scripts/build.sh" "$top/build/asan" -DCMAKE_BUILD_TYPE=Debug -DZOV_SANITIZE=ON -DZOV_BENCH=OFF
"$top/scripts/build.sh" "$top/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOV_TSAN=ON -DZOV_BENCH=OFF

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for cfg in plain asan; do
  echo "== tests ($cfg)"
  (cd "$top/build/$cfg" && ctest -j "$jobs" --output-on-failure) || status=1
done

# The thread checker's round: the tests that run threads.
echo "== tests (tsan)"
(cd "$top/build/tsan" &&
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  GTEST_FILTER="$("$top/scripts/thread_tests.sh")" \
  ctest -j "$jobs" --output-on-failure -R '^(unit_liblocal|unit_merlode|unit_ndmp|integration_[0-9]+)$') ||
  status=1

# Every fuzz target for a fixed number of inputs from its seeds (a clang build
# of its own, build/fuzz); `scripts/fuzz.sh SECONDS` runs them longer.
echo "== fuzz"
"$top/scripts/fuzz.sh" --runs 1500 || status=1

# The package as a backup host gets it, made from the plain build: unpacked
# into a scratch root, its own merlsnap runs the demo from there.
echo "== package"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
if deb=$(ZOV_BUILD_DIR="$top/build/plain" "$top/scripts/package.sh" "$scratch"); then
  "$top/tests/check_package.sh" "$deb" "$top/build/plain" || status=1
else
  status=1
fi
exit $status
