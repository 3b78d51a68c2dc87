#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, runs the installed
# vepra-image with a clean environment (from there and after moving the
# prefix), and builds and runs the examples against it twice: through
# pkg-config and through find_package.
# Usage: check_install.sh BUILD_DIR EXAMPLES_DIR [EXTRA_FLAGS]
set -euo pipefail
build=$1 examples=$2 extra=${3:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" > "$work/install.log"
libdir=$(dirname "$(find "$prefix" -name 'libvepra.so.1.0.0' | head -1)")
for link in libvepra.so libvepra.so.1; do
  [ -L "$libdir/$link" ] || { echo "missing SONAME link $link"; exit 1; }
done
soname=$(objdump -p "$libdir/libvepra.so.1.0.0" | awk '/SONAME/ {print $2}')
[ "$soname" = libvepra.so.1 ] || { echo "SONAME is '$soname'"; exit 1; }

# The installed program finds the library through its relative run path:
# it runs with a clean environment, and still does after the whole
# installation has moved.
if [ -x "$build/tools/vepra-image" ]; then
  for root in "$prefix" "$work/moved"; do
    [ "$root" = "$prefix" ] || cp -a "$prefix" "$root"
    (cd "$work" && env -i "$root/bin/vepra-image" synth -o "$work/run.tif" --width 8 --height 4 &&
      env -i "$root/bin/vepra-image" info "$work/run.tif") > "$work/tool.out"
    grep -q '^size: 8 x 4 pixels$' "$work/tool.out" || { cat "$work/tool.out"; exit 1; }
  done
  readelf -d "$prefix/bin/vepra-image" | grep -q 'R.*PATH.*\$ORIGIN/\.\./' ||
    { echo "vepra-image has no relative run path"; exit 1; }
fi

export LD_LIBRARY_PATH=$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

# pkg-config
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion vepra)" = 1.0.0 ]
# shellcheck disable=SC2046,SC2086
cc -std=c99 -Wall -Wextra -Werror $extra -o "$work/error_chain_pc" "$examples/error_chain.c" \
  $(pkg-config --cflags --libs vepra)
(cd "$work" && ./error_chain_pc pc.log) | tee "$work/pc.out"
grep -q 'Error(120030): Settings file' "$work/pc.out"
grep -q 'Cannot start session' "$work/pc.log"

# find_package(vepra)
cmake -S "$examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_FLAGS="$extra" -DCMAKE_EXE_LINKER_FLAGS="$extra" > "$work/cmake.log"
cmake --build "$work/cmake-build" > "$work/build.log"
(cd "$work" && ./cmake-build/error_chain cmake.log) > "$work/cmake.out"
cmp "$work/pc.out" <(sed 's/cmake\.log/pc.log/' "$work/cmake.out")
echo "install and examples OK"
