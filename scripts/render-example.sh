#!/usr/bin/env bash
# Builds lumivane and renders the bundled example scene into examples/cornell.
set -euo pipefail
source "$(dirname "$0")/deps.sh"
lv_install_missing
mkdir -p "$lv_root/build"
lv_build "$lv_root/build" -DLV_TESTS=OFF -DLV_BENCH=OFF
"$lv_root/build/lumivane" "$lv_root/examples/cornell"
"$lv_root/build/lvimage" "$lv_root/examples/cornell/beauty.hdr" "$lv_root/examples/cornell/beauty.png"
echo "rendered examples/cornell/beauty.hdr, and examples/cornell/beauty.png for viewing"
