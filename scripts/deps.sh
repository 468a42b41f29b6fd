#!/usr/bin/env bash
# Installs the Debian packages that building and testing lumivane needs,
# only those that are missing. Sourced by the other scripts.
set -euo pipefail

lv_packages=(cmake g++ make pkg-config libfreeimage-dev freeglut3-dev libgtest-dev xvfb libopenmpi-dev openmpi-bin)

lv_install_missing() {
    local missing=()
    for p in "${lv_packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
}

# Configures and builds into $1 with the remaining arguments passed to CMake.
lv_build() {
    local dir="$1"; shift
    mkdir -p "$dir"
    cmake -S "$lv_root" -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" > "$dir/configure.log" 2>&1 || { cat "$dir/configure.log"; return 1; }
    cmake --build "$dir" -j "$(nproc)"
}

lv_root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
