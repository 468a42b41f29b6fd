"""The render engine: F12 renders the evaluated scene with lumivane in a
child process (child.py) and shows the running mean, pass after pass."""

import json
import os
import pickle
import struct
import subprocess
import sys
import tempfile
import time

import bpy
import numpy as np

from .translate import PASSES, Translation

HERE = os.path.dirname(os.path.realpath(__file__))
# The lumivane package of the checkout the add-on lives in.
PACKAGE = os.path.join(os.path.dirname(os.path.dirname(HERE)), "python")
BLENDER_PASSES = {"depth": ("Depth", 1, "Z", "VALUE"), "normal": ("Normal", 3, "XYZ", "VECTOR"),
                  "lambertian_color": ("DiffCol", 3, "RGB", "COLOR")}


def child_python():
    """The interpreter of the child: LUMIVANE_PYTHON, or the system's, which
    has numpy on Debian, or Blender's own."""
    chosen = os.environ.get("LUMIVANE_PYTHON")
    if chosen:
        return chosen
    return "/usr/bin/python3" if os.path.exists("/usr/bin/python3") else sys.executable


class ChildEnded(Exception):
    """The render process ended before it said it was done."""


def read_message(stream):
    head = stream.read(9)
    if len(head) < 9:
        raise ChildEnded()
    kind, size = head[:1], struct.unpack("<Q", head[1:])[0]
    payload = stream.read(size)
    if len(payload) < size:
        raise ChildEnded()
    return kind, payload


def start_child(description):
    env = dict(os.environ)
    env["PYTHONPATH"] = os.pathsep.join(p for p in (PACKAGE, env.get("PYTHONPATH")) if p)
    log = tempfile.TemporaryFile()
    child = subprocess.Popen([child_python(), os.path.join(HERE, "child.py")], stdin=subprocess.PIPE,
                             stdout=subprocess.PIPE, stderr=log, env=env)
    try:
        pickle.dump(description, child.stdin, protocol=pickle.HIGHEST_PROTOCOL)
        child.stdin.close()
    except BrokenPipeError:
        pass
    return child, log


def last_lines(log, count=3):
    log.seek(0)
    lines = [line for line in log.read().decode(errors="replace").splitlines() if line.strip()]
    return " | ".join(lines[-count:])


class LumivaneRenderEngine(bpy.types.RenderEngine):
    bl_idname = "LUMIVANE"
    bl_label = "lumivane"
    bl_use_preview = False
    bl_use_postprocess = True

    def update_render_passes(self, scene=None, renderlayer=None):
        self.register_pass(scene, renderlayer, "Combined", 4, "RGBA", "COLOR")
        for name, flag in PASSES.items():
            if getattr(renderlayer, flag, False):
                self.register_pass(scene, renderlayer, *BLENDER_PASSES[name])

    def render(self, depsgraph):
        translation = Translation(depsgraph)
        description = translation.describe()
        for warning in translation.warnings:
            self.report({"WARNING"}, "lumivane: " + warning)
        child, log = start_child(description)
        result = None
        try:
            result = self.stream(child, description)
        except ChildEnded:
            if not self.test_break():
                child.wait()
                self.report({"ERROR"}, f"lumivane: the render process ended with status {child.returncode}: "
                                       f"{last_lines(log)}")
        finally:
            if child.poll() is None:
                child.kill()
            child.wait()
            log.close()
            if result is not None:
                self.end_result(result)

    def stream(self, child, description):
        """Reads the child's passes into a result; returns it to be ended."""
        kind, payload = read_message(child.stdout)
        info = json.loads(payload)
        c = description["camera"]
        left, top = (c["region"] or (0, 0))[:2]
        width, height, frames = info["width"], info["height"], info["frames"]
        # With a border, Blender's result is the border's rectangle.
        result = self.begin_result(0, 0, width, height)
        mean = np.zeros((height * width, 3), dtype=np.float64)
        rgba = np.ones((height * width, 4), dtype=np.float32)
        start, done = time.time(), 0
        while True:
            kind, payload = read_message(child.stdout)
            if kind == b"P":
                done += 1
                sample = np.frombuffer(payload, dtype=np.float32).reshape(height, width, 3)[::-1]
                mean += (sample.reshape(-1, 3) - mean) / done
                rgba[:, :3] = mean
                result.layers[0].passes["Combined"].rect.foreach_set(rgba)
                self.update_result(result)
                self.update_progress(done / max(1, frames))
                rate = width * height * done / max(1e-6, time.time() - start) / 1e6
                self.update_stats("", f"lumivane: frame {done} of {frames}, {rate:.2f} M camera rays/s")
                if self.test_break():
                    child.kill()
                    return result
            elif kind == b"A":
                name, data = payload.split(b"\0", 1)
                self.fill_pass(result, name.decode(), data, c, left, top, width, height)
            elif kind == b"D":
                return result

    def fill_pass(self, result, name, data, camera, left, top, width, height):
        image = np.frombuffer(data, dtype="<f4").reshape(camera["height"], camera["width"], 3)
        region = image[top:top + height, left:left + width][::-1].reshape(-1, 3)
        label, channels = BLENDER_PASSES[name][:2]
        if name == "normal":
            region = region * 2.0 - 1.0  # stored mapped to 0..1
        target = result.layers[0].passes.get(label)
        if target is not None:
            target.rect.foreach_set(np.ascontiguousarray(region[:, :channels], dtype=np.float32))
            self.update_result(result)
