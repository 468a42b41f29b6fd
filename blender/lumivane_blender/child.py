"""The render process that the render engine starts, so that no fault of the
library or of a scene can take Blender down.

Reads a pickled scene description on standard input, makes it through the
lumivane package, and renders it pass after pass. Standard output carries
messages only, each a kind byte, a payload length (8 bytes, little endian)
and the payload:

- b"I": JSON, the region's width and height and the frames to come;
- b"P": one pass over the region, float32 rgb, rows from the top;
- b"A": a pass of the camera's AOVs over the whole image: its name, a zero
  byte, then float32 rgb rows from the top;
- b"D": the end.

The library's report, and any error, goes to standard error.
"""

import json
import os
import pickle
import shutil
import struct
import sys
import tempfile


def send(channel, kind, payload=b""):
    channel.write(kind + struct.pack("<Q", len(payload)) + payload)
    channel.flush()


def main():
    channel = os.fdopen(os.dup(1), "wb")
    os.dup2(2, 1)  # the library prints its report on the process's stdout
    sys.stdout = sys.stderr
    scene = pickle.load(sys.stdin.buffer)

    import lumivane as lv  # noqa: E402 (found through PYTHONPATH)
    from build import build  # noqa: E402 (beside this file)

    work = tempfile.mkdtemp(prefix="lumivane-render.")
    try:
        render(channel, scene, lv, build, work)
    finally:
        shutil.rmtree(work, ignore_errors=True)


def render(channel, scene, lv, build, work):
    files = {name: os.path.join(work, name + ".pfm") for name in scene["passes"]}
    lv.lvStartup()
    camera = build(scene, lv, files)
    lv.lvSetCameraAOVName(camera, 0, os.path.join(work, "beauty.pfm"))
    lv.lvInitialize()
    c = scene["camera"]
    left, top, right, bottom = c["region"] or (0, 0, c["width"], c["height"])
    right, bottom = min(right, c["width"]), min(bottom, c["height"])
    width, height, frames = max(0, right - left), max(0, bottom - top), scene["settings"]["frames"]
    send(channel, b"I", json.dumps({"width": width, "height": height, "frames": frames}).encode())
    for k in range(frames):
        send(channel, b"P", lv.render_pixels(width * height, k).tobytes())
    lv.lvFinalize()  # writes the AOVs
    for name, path in files.items():
        if os.path.exists(path):
            send(channel, b"A", name.encode() + b"\0" + lv.read_image(path).astype("<f4").tobytes())
    lv.lvShutdown()
    send(channel, b"D")


if __name__ == "__main__":
    main()
