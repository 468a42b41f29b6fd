#!/usr/bin/env python3
"""Writes the hair file of the hair example: a ball of curling strands that
grow out of a small core and droop a little under their weight, as a binary
hair file with the signature "HAIR".

The file is little-endian: a 128-byte header (signature, number of strands,
number of points, the bits of the arrays present, default segments, default
thickness, default transparency, default colour, 88 bytes of free text),
then the arrays that the bits name, in this order: segments per strand
(unsigned 16-bit, bit 1), points (3 floats, bit 2), thickness per point
(float, bit 4). Each strand tapers from its root to its tip.

    python3 scripts/make-hair.py [output file] [strands] [segments]

The default file is examples/hair/geometry/ball.hair, with 4000 strands of
12 segments each. A fixed seed makes the same ball every time.
"""
import math
import os
import random
import struct
import sys

# Lengths are in units of about a centimetre, so that a segment is about one
# unit long: the curve of a segment takes the unit tangents of its ends as
# they are, which makes strands of much shorter segments loop and kink.
CENTRE = (0.0, 23.0, 0.0)
CORE = 6.5           # radius at which the strands start
LENGTH = 12.5        # length of a strand
ROOT_WIDTH = 0.14    # thickness at the root, tapering to a third at the tip
DROOP = 0.2          # how far a strand bends down along its length


def normalise(v):
    n = math.sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2])
    return (v[0] / n, v[1] / n, v[2] / n)


def cross(a, b):
    return (a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0])


def random_direction(rng):
    while True:
        v = (rng.uniform(-1, 1), rng.uniform(-1, 1), rng.uniform(-1, 1))
        s = v[0] * v[0] + v[1] * v[1] + v[2] * v[2]
        if 0.01 < s <= 1.0:
            return normalise(v)


def strand(rng, segments):
    """The points of one strand: out from the core, turning on a slow helix
    about its own direction and bending down towards its tip."""
    d = random_direction(rng)
    side = normalise(cross(d, (0.3, 0.9, 0.1) if abs(d[1]) < 0.9 else (1.0, 0.0, 0.0)))
    other = cross(d, side)
    turns = rng.uniform(0.8, 1.8)
    curl = rng.uniform(1.0, 2.5)
    phase = rng.uniform(0, 2 * math.pi)
    length = LENGTH * rng.uniform(0.8, 1.1)
    points = []
    for k in range(segments + 1):
        t = k / segments
        a = phase + 2 * math.pi * turns * t
        r = CORE + length * t
        c, s = curl * t * math.cos(a), curl * t * math.sin(a)
        droop = DROOP * length * t * t
        points.append(tuple(CENTRE[i] + d[i] * r + side[i] * c + other[i] * s - (droop if i == 1 else 0.0)
                            for i in range(3)))
    return points


def write_hair(path, strands, segments):
    rng = random.Random(1717)
    points, thickness = [], []
    for _ in range(strands):
        for k, p in enumerate(strand(rng, segments)):
            points.append(p)
            thickness.append(ROOT_WIDTH * (1.0 - 0.67 * k / segments))
    bits = 1 | 2 | 4
    header = struct.pack("<4sIIIIff3f88s", b"HAIR", strands, len(points), bits, segments, ROOT_WIDTH, 0.0,
                         0.5, 0.5, 0.5, b"hair ball of the lumivane hair example".ljust(88, b"\0"))
    assert len(header) == 128
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    with open(path, "wb") as f:
        f.write(header)
        f.write(struct.pack("<%dH" % strands, *([segments] * strands)))
        f.write(struct.pack("<%df" % (3 * len(points)), *[c for p in points for c in p]))
        f.write(struct.pack("<%df" % len(thickness), *thickness))


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "examples", "hair", "geometry", "ball.hair")
    strands = int(sys.argv[2]) if len(sys.argv) > 2 else 4000
    segments = int(sys.argv[3]) if len(sys.argv) > 3 else 12
    write_hair(path, strands, segments)
    print("wrote %s: %d strands of %d segments" % (path, strands, segments))


if __name__ == "__main__":
    main()
