#!/usr/bin/env python3
"""Fails when a library file reaches up into a higher layer.

The layers and their order are the line "Layers, bottom to top:" of
docs/architecture.md. A file may include headers of its own folder and of the
folders below it; include/lv.h is open to every layer. With --objects BUILD,
the compiled objects of the library in that build are checked as well: no
object may call a function (or use any symbol but the registry) that an
object of a higher layer defines, which also catches a function declared low
and defined high. Prints one line per fault and exits 1 when there is any.

    check-layers.py [--root DIR] [--objects BUILD]
    check-layers.py --self-test    plants an upward include and expects a failure
"""
import argparse
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/[^"]+"')
# The registry is declared in core and defined where every record it holds
# is complete: the one symbol that every layer shares.
SHARED = {"registry"}


def layers(root):
    text = (root / "docs" / "architecture.md").read_text()
    match = re.search(r"^Layers, bottom to top: (.+)$", text, re.M)
    if not match:
        sys.exit('check-layers: docs/architecture.md has no line "Layers, bottom to top: ..."')
    return [name.strip(" `.") for name in match.group(1).split(",")]


def upward_includes(root, order):
    rank = {name: i for i, name in enumerate(order)}
    for folder in order:
        for path in sorted((root / folder).glob("*.[ch]*")):
            for number, line in enumerate(path.read_text().splitlines(), 1):
                m = INCLUDE.match(line)
                if m and (m.group(1) not in rank or rank[m.group(1)] > rank[folder]):
                    yield f"{path.relative_to(root)}:{number}: {folder} includes {m.group(1)}"


def symbols(obj, *flags):
    out = subprocess.run(["nm", "-C", *flags, str(obj)], capture_output=True, text=True, check=True).stdout
    return [line.split(" ", 2)[-1] if "--defined-only" in flags else line.strip()[2:].strip()
            for line in out.splitlines() if line.strip()]


def upward_calls(root, order, build):
    rank = {name: i for i, name in enumerate(order)}
    objects = pathlib.Path(build) / "CMakeFiles" / "lv_objects.dir"
    owned = {}
    for folder in order:
        for obj in sorted((objects / folder).glob("*.o")):
            if (root / folder / obj.name[:-2]).exists():   # left over from a removed source
                owned[obj] = folder
    if not owned:
        sys.exit(f"check-layers: no library objects under {objects}")
    defined = {}
    for obj, folder in owned.items():
        for name in symbols(obj, "--defined-only", "--extern-only"):
            defined.setdefault(name, set()).add(folder)
    for obj, folder in owned.items():
        for name in symbols(obj, "--undefined-only"):
            for owner in defined.get(name, ()):
                if rank[owner] > rank[folder] and name not in SHARED:
                    yield f"{folder}/{obj.name[:-2]}: {folder} calls {name} of {owner}"


def self_test():
    with tempfile.TemporaryDirectory() as tmp:
        root = pathlib.Path(tmp)
        (root / "docs").mkdir()
        (root / "docs" / "architecture.md").write_text("Layers, bottom to top: core, render\n")
        for folder in ("core", "render"):
            (root / folder).mkdir()
        (root / "render" / "frame.h").write_text('#include "core/vector.h"\n')
        (root / "core" / "vector.h").write_text("// nothing above\n")
        clean = list(upward_includes(root, layers(root)))
        (root / "core" / "vector.h").write_text('#include "render/frame.h"\n')
        planted = list(upward_includes(root, layers(root)))
    if clean or len(planted) != 1:
        print(f"check-layers self-test failed: clean tree {clean}, planted include {planted}")
        return 1
    print("check-layers self-test: a planted upward include is found")
    return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", default=pathlib.Path(__file__).resolve().parent.parent, type=pathlib.Path)
    parser.add_argument("--objects", metavar="BUILD")
    parser.add_argument("--self-test", action="store_true")
    args = parser.parse_args()
    if args.self_test:
        return self_test()
    order = layers(args.root)
    faults = list(upward_includes(args.root, order))
    if args.objects:
        faults += list(upward_calls(args.root, order, args.objects))
    for fault in faults:
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
