"""Reading rendered images back: PFM and Radiance HDR (RGBE), the two float
formats that need no image library. Both give rows from the top of the
picture down."""

import numpy as np


def read_image(path):
    """The image at path as a float32 array of height x width x 3."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:2] in (b"PF", b"Pf"):
        return _read_pfm(data)
    if data.startswith(b"#?"):
        return _read_hdr(data)
    raise ValueError(f"{path}: neither a PFM nor a Radiance HDR image")


def _read_pfm(data):
    # Three lines of header: the kind, the size, and a scale whose sign gives
    # the byte order. Rows run from the bottom.
    fields = data.split(maxsplit=4)
    channels = 3 if fields[0] == b"PF" else 1
    width, height, scale = int(fields[1]), int(fields[2]), float(fields[3])
    start = 0
    for _ in range(3):
        start = data.index(b"\n", start) + 1
    order = "<" if scale < 0 else ">"
    pixels = np.frombuffer(data, dtype=order + "f4", count=width * height * channels, offset=start)
    pixels = pixels.reshape(height, width, channels)[::-1].astype(np.float32)
    return pixels if channels == 3 else np.repeat(pixels, 3, axis=2)


def _read_hdr(data):
    # A header of lines up to an empty one, then the resolution line.
    end = data.index(b"\n\n") + 2
    line_end = data.index(b"\n", end)
    words = data[end:line_end].split()
    if words[0] != b"-Y" or words[2] != b"+X":
        raise ValueError("only the standard orientation -Y h +X w is read")
    height, width = int(words[1]), int(words[3])
    stream = np.frombuffer(data, dtype=np.uint8, offset=line_end + 1)
    rgbe = np.empty((height, width, 4), dtype=np.uint8)
    at = 0
    for y in range(height):
        new_rle = 8 <= width < 32768 and stream[at] == 2 and stream[at + 1] == 2 and not stream[at + 2] & 0x80
        if not new_rle:
            # Flat pixels (old run-length records are not written by anything
            # that this reads).
            rgbe[y:] = stream[at:at + 4 * width * (height - y)].reshape(height - y, width, 4)
            break
        at += 4
        for component in range(4):
            x = 0
            while x < width:
                count = int(stream[at])
                at += 1
                if count > 128:
                    count -= 128
                    rgbe[y, x:x + count, component] = stream[at]
                    at += 1
                else:
                    rgbe[y, x:x + count, component] = stream[at:at + count]
                    at += count
                x += count
    exponent = rgbe[..., 3].astype(np.int32)
    scale = np.where(exponent > 0, np.ldexp(1.0, exponent - 136), 0.0)
    return (rgbe[..., :3] * scale[..., None]).astype(np.float32)
