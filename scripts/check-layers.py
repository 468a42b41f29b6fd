#!/usr/bin/env python3
"""Fails when a library file includes a header of a higher layer.

The order of the layers is the line "Layers, bottom to top:" of
docs/architecture.md. A file may include headers of its own folder and of
the folders below it; `include/lv.h` is open to every layer. Prints one line
per upward include and exits 1 when there is any.

    check-layers.py [ROOT]
"""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).resolve().parent.parent)
text = (root / "docs" / "architecture.md").read_text()
match = re.search(r"^Layers, bottom to top: (.+)$", text, re.M)
if not match:
    sys.exit("check-layers: docs/architecture.md has no line \"Layers, bottom to top: ...\"")
order = [name.strip(" `.") for name in match.group(1).split(",")]
rank = {name: i for i, name in enumerate(order)}

include = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/[^"]+"', re.M)
upward = []
for folder in order:
    for path in sorted((root / folder).glob("*.[ch]*")):
        for line_number, line in enumerate(path.read_text().splitlines(), 1):
            m = include.match(line)
            if not m:
                continue
            target = m.group(1)
            if target not in rank or rank[target] > rank[folder]:
                upward.append(f"{path.relative_to(root)}:{line_number}: {folder} includes {target}, "
                              f"which is {'not a layer' if target not in rank else 'above it'}")
for line in upward:
    print(line)
sys.exit(1 if upward else 0)
