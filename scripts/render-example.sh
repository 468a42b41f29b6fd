#!/usr/bin/env bash
# Builds lumivane and renders one bundled example scene into its directory:
#   render-example.sh [NAME [VARIANT]]
# NAME is a directory under examples/ (default cornell); the images are
# beauty.hdr, and beauty.png for viewing. A directory with a C host of its
# own, NAME.c, is rendered by that host (built as example-NAME). An example
# whose files are made by a script, scripts/make-NAME.py, has them written
# first.
#
# VARIANT names a folder inside the example (such as examples/cornell/gather)
# that holds some of the scene's subfolders (shader, render, light, camera,
# geometry) with files to lay over the scene's own: a file replaces the one of
# the same name, and a new name is added. The example is copied to a scratch
# directory, the variant laid over the copy and the copy rendered; its images
# come back as beauty-VARIANT.hdr and beauty-VARIANT.png, and so do the other
# AOVs that the variant asks for (NAME-VARIANT.hdr). The plain render
# never sees a variant, as only those five subfolders are read.
set -euo pipefail
source "$(dirname "$0")/deps.sh"
name="${1:-cornell}"
variant="${2:-}"
scene="$lv_root/examples/$name"
if [[ ! -d "$scene" ]]; then
    echo "no example named $name under examples/" >&2
    exit 2
fi
subfolders=(shader render light camera geometry)
if [[ -n "$variant" ]]; then
    found=0
    for sub in "${subfolders[@]}"; do
        [[ -d "$scene/$variant/$sub" ]] && found=1
    done
    if [[ "$variant" == */* || "$found" -eq 0 ]]; then
        echo "no variant named $variant in examples/$name (a folder there with scene subfolders)" >&2
        exit 2
    fi
fi
generator="$lv_root/scripts/make-$name.py"
if [[ -f "$generator" ]]; then lv_install_missing python3; else lv_install_missing; fi
mkdir -p "$lv_root/build"
lv_build "$lv_root/build" -DLV_TESTS=OFF -DLV_BENCH=OFF
if [[ -f "$generator" ]]; then python3 "$generator"; fi

if [[ -z "$variant" ]]; then
    # An example with a host of its own (examples/NAME/NAME.c) describes its
    # scene in code; it renders into the working directory.
    if [[ -f "$scene/$name.c" ]]; then
        (cd "$scene" && "$lv_root/build/example-$name")
    else
        "$lv_root/build/lumivane" "$scene"
    fi
    "$lv_root/build/lvimage" "$scene/beauty.hdr" "$scene/beauty.png"
    echo "rendered examples/$name/beauty.hdr, and examples/$name/beauty.png for viewing"
    exit 0
fi

work="$(mktemp -d "${TMPDIR:-/tmp}/lumivane-$name-$variant.XXXXXX")"
trap 'rm -rf "$work"' EXIT
cp -R "$scene/." "$work/"
rm -f "$work"/*.hdr "$work"/*.png
for sub in "${subfolders[@]}"; do
    if [[ -d "$scene/$variant/$sub" ]]; then
        mkdir -p "$work/$sub"
        cp -R "$scene/$variant/$sub/." "$work/$sub/"
    fi
done
"$lv_root/build/lumivane" "$work"
# Every image of the run comes back (the beauty and any other AOVs).
for image in "$work"/*.hdr; do
    stem="$(basename "$image" .hdr)"
    cp "$image" "$scene/$stem-$variant.hdr"
    "$lv_root/build/lvimage" "$scene/$stem-$variant.hdr" "$scene/$stem-$variant.png"
done
echo "rendered examples/$name with its $variant variant into beauty-$variant.hdr (and its other images), with a .png of each for viewing"
