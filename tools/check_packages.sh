#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks them:
# the three packages and their dependencies, the library's shlibs entry and
# ldconfig trigger, that together they hold exactly the files that
# `cmake --install` installs (plus each package's copyright and changelog),
# and that lintian reports no errors.
# Usage: check_packages.sh BUILD_DIR
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

(cd "$build" && cpack -G DEB -B "$work/pkg" > "$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack -G DEB"; }
declare -A deb
for name in libvepra1 libvepra-dev vepra-tools; do
  deb[$name]=$(ls "$work"/pkg/"$name"_*.deb 2>/dev/null) || fail "no package $name"
  [ "$(dpkg-deb -f "${deb[$name]}" Package)" = "$name" ] || fail "$name: Package field"
done
[ "$(ls "$work"/pkg/*.deb | wc -l)" -eq 3 ] || fail "more than three packages"

# Dependencies: the library's come from dpkg-shlibdeps (the C and C++
# runtimes and APR), the others depend on the library at the same version.
lib_depends=$(dpkg-deb -f "${deb[libvepra1]}" Depends)
version=$(dpkg-deb -f "${deb[libvepra1]}" Version)
for dep in libc6 libstdc++6 libapr1; do
  sed 's/ ([^)]*)//g; s/, /\n/g' <<< "$lib_depends" | grep -qxF "$dep" || fail "libvepra1 lacks $dep: $lib_depends"
done
for name in libvepra-dev vepra-tools; do
  dpkg-deb -f "${deb[$name]}" Depends | grep -qF "libvepra1 (= $version)" ||
    fail "$name does not depend on libvepra1 $version"
done
dpkg-deb -f "${deb[libvepra-dev]}" Depends | grep -q libapr1-dev || fail "libvepra-dev lacks libapr1-dev"
dpkg-deb -f "${deb[libvepra-dev]}" Depends | grep -q uthash-dev || fail "libvepra-dev lacks uthash-dev (vepra_obj.h includes utarray.h)"
dpkg-deb -f "${deb[vepra-tools]}" Depends | grep -q 'libc6' || fail "vepra-tools has no shlibdeps"

# The shlibs entry names the SONAME that the library file really carries.
mkdir -p "$work/ctrl" "$work/x"
dpkg-deb -e "${deb[libvepra1]}" "$work/ctrl"
dpkg-deb -x "${deb[libvepra1]}" "$work/x"
soname=$(objdump -p "$(find "$work/x" -name 'libvepra.so.*.*.*')" | awk '/SONAME/ {print $2}')
[ "$soname" = libvepra.so.1 ] || fail "SONAME is '$soname'"
grep -qxF "libvepra 1 libvepra1 (>= $version)" "$work/ctrl/shlibs" || fail "shlibs: $(cat "$work/ctrl/shlibs")"
grep -qx 'activate-noawait ldconfig' "$work/ctrl/triggers" || fail "no ldconfig trigger"
[ -L "$work/x/usr/lib/$(gcc -print-multiarch)/libvepra.so.1" ] || fail "library not in the multiarch directory"

# Contents: files and links of the three packages, each in one package only,
# against a plain install under the same prefix.
for name in "${!deb[@]}"; do
  dpkg-deb -c "${deb[$name]}" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./||' |
    grep -vxE "usr/share/doc/$name/(copyright|changelog\.Debian\.gz)" || true
done | sort > "$work/packaged"
[ -z "$(uniq -d "$work/packaged")" ] || fail "files in two packages: $(uniq -d "$work/packaged")"
cmake --install "$build" --prefix "$work/root/usr" > /dev/null
(cd "$work/root" && find . ! -type d | sed 's|^\./||' | sort) > "$work/installed"
diff -u "$work/installed" "$work/packaged" || fail "packages differ from cmake --install"
[ -s "$work/installed" ] || fail "nothing installed"

if ! lintian --fail-on error "$work"/pkg/*.deb > "$work/lintian.log" 2>&1; then
  cat "$work/lintian.log"
  fail "lintian reports errors"
fi
grep -E '^E:' "$work/lintian.log" && fail "lintian reports errors"
echo "packages OK: $(cd "$work/pkg" && ls *.deb | tr '\n' ' ')"
