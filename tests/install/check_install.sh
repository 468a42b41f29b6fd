#!/usr/bin/env bash
# Installs the library into a scratch prefix, then builds a C host against it
# twice, through the CMake package and through pkg-config, and runs both.
set -euo pipefail
build="$1"; here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"; trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
libdir="$(dirname "$(find "$work/prefix" -name 'liblv.so' | head -n 1)")"

cmake -S "$here" -B "$work/cmake-host" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/configure.log"
cmake --build "$work/cmake-host" > "$work/build.log"
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/cmake-host/host") | tail -n 1 | grep -qx "host ok"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc "$here/host.c" -o "$work/pc-host" $(pkg-config --cflags --libs lv)
(cd "$work" && LD_LIBRARY_PATH="$libdir" "$work/pc-host") | tail -n 1 | grep -qx "host ok"

# Only the lv... functions leave the library.
if nm -D --defined-only "$libdir/liblv.so" | awk '{print $3}' | grep -v '^lv'; then
    echo "symbols other than lv... are exported"; exit 1
fi
echo "install ok"
