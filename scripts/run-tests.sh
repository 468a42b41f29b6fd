#!/usr/bin/env bash
# Builds lumivane with its tests and runs the whole suite under CTest.
# With --sanitize the build uses AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
source "$(dirname "$0")/deps.sh"
lv_install_missing
dir="$lv_root/build-test"
flags=()
if [ "${1:-}" = "--sanitize" ]; then
    dir="$lv_root/build-sanitize"
    flags+=(-DLV_SANITIZE=ON)
fi
mkdir -p "$dir"
lv_build "$dir" "${flags[@]}"
cd "$dir"
ctest --output-on-failure -j "$(nproc)"
