#!/usr/bin/env bash
# Builds lumivane and renders one bundled example scene into its directory:
#   render-example.sh [NAME]   (NAME is a directory under examples/, default cornell)
set -euo pipefail
source "$(dirname "$0")/deps.sh"
name="${1:-cornell}"
scene="$lv_root/examples/$name"
if [[ ! -d "$scene" ]]; then
    echo "no example named $name under examples/" >&2
    exit 2
fi
lv_install_missing
mkdir -p "$lv_root/build"
lv_build "$lv_root/build" -DLV_TESTS=OFF -DLV_BENCH=OFF
"$lv_root/build/lumivane" "$scene"
"$lv_root/build/lvimage" "$scene/beauty.hdr" "$scene/beauty.png"
echo "rendered examples/$name/beauty.hdr, and examples/$name/beauty.png for viewing"
