#!/usr/bin/env bash
# check_package.sh DEB [BUILD_DIR]: the package as a backup host would get it.
# Its paths all lie under /usr (none from a build folder), it states its
# dependencies and brings its manual pages, and, unpacked into a scratch
# root, its own merlsnap loads its own module and runs the whole demo with
# its own simulator: a file missing from the package fails here.
set -euo pipefail
deb=$1
build=${2:-}
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() { echo "check_package: $*" >&2; exit 1; }

paths=$(dpkg-deb -c "$deb" | awk '{print $6}')
outside=$(grep -v '^\./usr/' <<<"$paths" | grep -vx '\./' || true)
[ -z "$outside" ] || fail "paths outside /usr: $outside"
if [ -n "$build" ]; then
  from_build=$(grep -F -- "${build#/}" <<<"$paths" || true)
  [ -z "$from_build" ] || fail "paths from the build folder: $from_build"
fi
for f in usr/share/man/man1/merlsnap.1.gz usr/share/man/man1/arraysim.1.gz \
         usr/share/man/man7/zovmerl.7.gz usr/share/doc/zovmerl/README.md; do
  grep -qx "\./$f" <<<"$paths" || fail "$f is missing"
done

depends=$(dpkg-deb -f "$deb" Depends)
grep -q 'libc6' <<<"$depends" || fail "Depends does not name libc6: '$depends'"
dpkg-deb -I "$deb" postinst >/dev/null || fail "no postinst to make the module's folders"

dpkg-deb -x "$deb" "$root"
merlsnap=$root/usr/bin/merlsnap
version=$(dpkg-deb -f "$deb" Version)
[ "$("$merlsnap" --version)" = "merlsnap $version" ] ||
  fail "merlsnap --version says '$("$merlsnap" --version)', the package is $version"
module=$("$merlsnap" info | awk '$1 == "module" {print $2}') ||
  fail "the unpacked merlsnap cannot load its module"
[ "$module" = "$root/usr/lib/zovmerl/libzovmerl.so" ] ||
  fail "the unpacked merlsnap loads $module"
if ! "$merlsnap" demo >"$root/demo.log" 2>&1 </dev/null; then
  cat "$root/demo.log" >&2
  fail "merlsnap demo failed from the unpacked package"
fi
echo "check_package: $(basename "$deb") unpacks and runs its demo"
