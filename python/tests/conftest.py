"""What the tests of the Python package share: the source tree, the build
folder beside the library they load, and renders of example scenes."""

import importlib
import sys
import os
import re
import shutil
from pathlib import Path

import numpy as np
import pytest

try:
    import lumivane as lv
except ModuleNotFoundError:
    # Not installed: the package of this source tree.
    sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
    import lumivane as lv

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(lv.library_path).resolve().parent


def example_host(name):
    """The module examples/hosts/NAME.py, which describes an example in code."""
    hosts = str(ROOT / "examples" / "hosts")
    if hosts not in sys.path:
        sys.path.insert(0, hosts)
    return importlib.import_module(name)


def render_directory(example, into, width, height, frames):
    """Renders a copy of examples/EXAMPLE through lumivane.go, its camera at
    WIDTH x HEIGHT pixels and FRAMES frames; returns the beauty image."""
    shutil.copytree(ROOT / "examples" / example, into,
                    ignore=shutil.ignore_patterns("*.hdr", "*.png", "gather"))
    camera = into / "camera" / "camera.lv"
    text = re.sub(r"resolution \d+ \d+", f"resolution {width} {height}", camera.read_text())
    camera.write_text(re.sub(r"\n  sample \d+", f"\n  sample {frames}", text))
    home = Path.cwd()
    lv.go(into)
    assert Path.cwd() == home
    return lv.read_image(into / "beauty.hdr")


def render_in_code(describe, into, width, height, frames):
    """Renders the scene that DESCRIBE makes, its camera at WIDTH x HEIGHT
    pixels and FRAMES frames, into the folder INTO."""
    def smaller():
        camera = describe()
        lv.lvSetCameraResolution(camera, width, height)
        lv.lvSetCameraSample(camera, frames)

    into.mkdir()
    home = Path.cwd()
    os.chdir(into)
    try:
        lv.render(smaller)
    finally:
        os.chdir(home)
    return lv.read_image(into / "beauty.hdr")


def assert_same_within_noise(a, b, block=8):
    """Two renders of one scene agree: the means of each channel within 2 %,
    and the means of blocks of pixels within 4 % on average, so that a wrong
    colour or a missing object on a few blocks shows."""
    assert a.shape == b.shape
    mean_a, mean_b = a.mean(axis=(0, 1)), b.mean(axis=(0, 1))
    np.testing.assert_allclose(mean_a, mean_b, rtol=0.02)
    h, w = a.shape[0] // block, a.shape[1] // block
    blocks_a, blocks_b = (x[:h * block, :w * block].reshape(h, block, w, block, 3).mean(axis=(1, 3)) for x in (a, b))
    difference = np.abs(blocks_a - blocks_b) / (0.5 * (blocks_a + blocks_b) + 0.02)
    assert difference.mean() < 0.04, f"blocks differ by {difference.mean():.3f} on average"


@pytest.fixture
def scratch(tmp_path, monkeypatch):
    """A scratch folder that is the working directory."""
    monkeypatch.chdir(tmp_path)
    return tmp_path
