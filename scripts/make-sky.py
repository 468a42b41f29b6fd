#!/usr/bin/env python3
"""Writes the images of the outdoor example: a sky in longitude and latitude
(a gradient from a deep zenith to a pale horizon, a darker ground below, and
a bright sun disc with a soft glow) and a backdrop plate for the camera.

Both are Radiance RGBE files with run-length encoded scan lines, written top
row first, so that the zenith is the top of the sky picture.

    python3 scripts/make-sky.py [output directory] [width height]

The default directory is examples/outdoor/image, the default size 512 256.
"""
import math
import os
import struct
import sys


def rgbe(r, g, b):
    m = max(r, g, b)
    if m < 1e-32:
        return (0, 0, 0, 0)
    f, e = math.frexp(m)
    s = f * 256.0 / m
    return (int(r * s), int(g * s), int(b * s), e + 128)


def encode_channel(values):
    """Run-length encodes one channel of a scan line: runs of 3 to 127 equal
    bytes as (128 + n, value), the rest as literal groups of up to 128."""
    out = bytearray()
    i, n = 0, len(values)
    while i < n:
        run = 1
        while i + run < n and run < 127 and values[i + run] == values[i]:
            run += 1
        if run >= 3:
            out += bytes((128 + run, values[i]))
            i += run
            continue
        start = i
        while i < n and i - start < 128:
            if i + 2 < n and values[i] == values[i + 1] == values[i + 2]:
                break
            i += 1
        out += bytes((i - start,)) + bytes(values[start:i])
    return bytes(out)


def write_hdr(path, width, height, pixel):
    """pixel(x, y) gives the colour of column x of row y, row 0 on top."""
    with open(path, "wb") as f:
        f.write(b"#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n")
        f.write(b"-Y %d +X %d\n" % (height, width))
        for y in range(height):
            line = [rgbe(*pixel(x, y)) for x in range(width)]
            f.write(struct.pack("BBBB", 2, 2, width >> 8, width & 255))
            for c in range(4):
                f.write(encode_channel([p[c] for p in line]))


def sky(width, height):
    # The sun: 35 degrees up, a quarter turn round from the image's left edge.
    sun_theta = math.radians(90.0 - 35.0)
    sun_phi = 0.3 * 2.0 * math.pi
    sun = (math.sin(sun_theta) * math.cos(sun_phi), math.sin(sun_theta) * math.sin(sun_phi), math.cos(sun_theta))
    sun_radius = math.radians(1.5)

    def pixel(x, y):
        theta = (y + 0.5) / height * math.pi          # 0 at the zenith
        phi = (x + 0.5) / width * 2.0 * math.pi
        d = (math.sin(theta) * math.cos(phi), math.sin(theta) * math.sin(phi), math.cos(theta))
        up = d[2]
        if up > 0.0:
            t = up ** 0.4
            c = [(1 - t) * h + t * z for h, z in zip((1.1, 1.2, 1.35), (0.25, 0.45, 1.1))]
        else:
            t = min(1.0, -up * 4.0)
            c = [(1 - t) * h + t * g for h, g in zip((0.6, 0.6, 0.6), (0.22, 0.19, 0.15))]
        cosine = sum(a * b for a, b in zip(d, sun))
        angle = math.acos(max(-1.0, min(1.0, cosine)))
        glow = 2.0 * math.exp(-angle / 0.15)
        c = [v + glow * w for v, w in zip(c, (1.0, 0.85, 0.6))]
        if angle < sun_radius:
            c = [v + 800.0 * w for v, w in zip(c, (1.0, 0.93, 0.8))]
        return c

    return pixel


def backdrop(width, height):
    def pixel(x, y):
        t = (y + 0.5) / height                        # 0 on top
        return [(1 - t) * z + t * h for z, h in zip((0.3, 0.5, 1.0), (1.0, 1.05, 1.1))]

    return pixel


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..", "examples", "outdoor", "image")
    width = int(sys.argv[2]) if len(sys.argv) > 2 else 512
    height = int(sys.argv[3]) if len(sys.argv) > 3 else 256
    os.makedirs(out, exist_ok=True)
    write_hdr(os.path.join(out, "sky.hdr"), width, height, sky(width, height))
    write_hdr(os.path.join(out, "backdrop.hdr"), 320, 180, backdrop(320, 180))
    print("wrote", os.path.join(out, "sky.hdr"), "and backdrop.hdr")


if __name__ == "__main__":
    main()
