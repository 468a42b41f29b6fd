# lumivane's render engine against Cycles in Blender, on one scene and at
# equal noise:
#
#   blender -b --factory-startup --python bench/blender_cycles.py -- OUT_DIR [SIZE]
#
# A box of lambertian materials (Diffuse BSDF) with two blocks,
# lit by an area light under its ceiling, SIZE x 3/4 SIZE pixels (200 by
# default), four bounces in both (Cycles counts three: lumivane counts the
# first hit's direct light as one), no denoising, box filter. Each engine
# renders a long reference of its own, then two short renders; their noise
# (RMSE against the own reference, over values clipped to 0..1 as a display
# shows them) falls as the square root of the time, so
# that each short render gives the time that engine needs for the noise of
# lumivane's longer short render. Prints the times and the noise; writes
# OUT_DIR/blender-cycles.png, the two images at that equal noise side by
# side (lumivane left), with Blender's default view transform.
import math
import os
import sys
import time

import bpy
import numpy as np

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.join(os.path.dirname(HERE), "blender"))
import lumivane_blender  # noqa: E402

args = sys.argv[sys.argv.index("--") + 1:]
out = os.path.abspath(args[0])
width = int(args[1]) if len(args) > 1 else 200
height = width * 3 // 4
os.makedirs(out, exist_ok=True)

bpy.ops.wm.read_factory_settings(use_empty=True)
lumivane_blender.register()
scene = bpy.context.scene
scene.render.resolution_x, scene.render.resolution_y, scene.render.resolution_percentage = width, height, 100
scene.render.image_settings.file_format = "OPEN_EXR"
scene.render.image_settings.color_depth = "32"
scene.cycles.device = "CPU"
scene.cycles.use_denoising = False
scene.cycles.use_adaptive_sampling = False
scene.cycles.max_bounces = scene.cycles.diffuse_bounces = 3
scene.cycles.filter_width = 0.01
scene.render.threads_mode = "FIXED"
scene.render.threads = os.cpu_count()
scene.lumivane.bounce = 4
scene.lumivane.light_samples = 16


def lambertian(name, colour):
    # A Diffuse BSDF of roughness 0, which is Lambert's law in Cycles; the
    # Principled BSDF's diffuse is not.
    m = bpy.data.materials.new(name)
    m.use_nodes = True
    nodes = m.node_tree.nodes
    nodes.remove(nodes["Principled BSDF"])
    node = nodes.new("ShaderNodeBsdfDiffuse")
    node.inputs["Color"].default_value = (*colour, 1.0)
    node.inputs["Roughness"].default_value = 0.0
    m.node_tree.links.new(node.outputs["BSDF"], nodes["Material Output"].inputs["Surface"])
    return m


def plane(location, rotation, size, m):
    bpy.ops.mesh.primitive_plane_add(size=size, location=location, rotation=rotation)
    bpy.context.object.data.materials.append(m)


white, red, green = lambertian("white", (0.73,) * 3), lambertian("red", (0.63, 0.065, 0.05)), \
    lambertian("green", (0.14, 0.45, 0.091))
half = math.pi / 2
plane((0, 0, 0), (0, 0, 0), 2, white)                 # floor, facing up
plane((0, 0, 2), (math.pi, 0, 0), 2, white)           # ceiling, facing down
plane((0, 1, 1), (half, 0, 0), 2, white)              # back wall, facing the camera
plane((-1, 0, 1), (0, half, 0), 2, red)               # left wall, facing right
plane((1, 0, 1), (0, -half, 0), 2, green)             # right wall, facing left
for location, scale in (((-0.35, 0.3, 0.6), (0.3, 0.3, 0.6)), ((0.35, -0.3, 0.3), (0.3, 0.3, 0.3))):
    bpy.ops.mesh.primitive_cube_add(location=location)
    bpy.context.object.scale = scale
    bpy.context.object.data.materials.append(white)
lamp = bpy.data.lights.new("lamp", "AREA")
lamp.energy, lamp.size = 60.0, 0.5
lamp_object = bpy.data.objects.new("lamp", lamp)
lamp_object.location = (0, 0, 1.98)
scene.collection.objects.link(lamp_object)
camera = bpy.data.objects.new("camera", bpy.data.cameras.new("camera"))
camera.location, camera.rotation_euler = (0, -3.6, 1), (half, 0, 0)
camera.data.lens = 35
scene.collection.objects.link(camera)
scene.camera = camera


def render(engine, count):
    """The image (rows from the bottom, rgb) and the wall seconds."""
    scene.render.engine = engine
    scene.lumivane.frames = scene.lumivane.gather_rays = count
    scene.cycles.samples = count
    scene.render.filepath = os.path.join(out, f"{engine.lower()}-{count}.exr")
    start = time.time()
    bpy.ops.render.render(write_still=True)
    seconds = time.time() - start
    image = bpy.data.images.load(scene.render.filepath)
    pixels = np.array(image.pixels[:], dtype=np.float32).reshape(height, width, 4)[..., :3]
    bpy.data.images.remove(image)
    os.remove(scene.render.filepath)
    return pixels, seconds


def rmse(a, b):
    """Over the values a display shows, clipped to 0..1: the lamp, a lit panel
    to lumivane's camera and hidden from Cycles', would otherwise weigh in by
    its radiance."""
    return float(np.sqrt(np.mean((np.clip(a, 0, 1) - np.clip(b, 0, 1)) ** 2)))


runs = {}
for engine, reference, short in (("LUMIVANE", 1024, (16, 64)), ("CYCLES", 2048, (16, 64))):
    truth, _ = render(engine, reference)
    runs[engine] = [(n, *render(engine, n)) for n in short]
    runs[engine] = [(n, image, seconds, rmse(image, truth)) for n, image, seconds in runs[engine]]
    runs[engine + " mean"] = float(np.clip(truth, 0, 1).mean())
target = runs["LUMIVANE"][-1][3]
print(f"image means (clipped to 1): lumivane {runs['LUMIVANE mean']:.4f}, Cycles {runs['CYCLES mean']:.4f} "
      f"({100 * (runs['LUMIVANE mean'] / runs['CYCLES mean'] - 1):+.1f} %)")
times = {}
for engine in ("LUMIVANE", "CYCLES"):
    for n, _, seconds, error in runs[engine]:
        print(f"{engine.lower():8} {n:5} samples {seconds:7.2f} s, RMSE {error:.5f}: "
              f"{seconds * (error / target) ** 2:7.2f} s to RMSE {target:.5f}")
    n, _, seconds, error = runs[engine][-1]
    times[engine] = seconds * (error / target) ** 2
print(f"at equal noise lumivane takes {times['LUMIVANE'] / times['CYCLES']:.2f} x Cycles' time")

# The pair at equal noise: lumivane's longer short render, and Cycles at the
# sample count that reaches the same noise.
n, error = runs["CYCLES"][-1][0], runs["CYCLES"][-1][3]
cycles, seconds = render("CYCLES", max(1, round(n * (error / target) ** 2)))
pair = np.concatenate([runs["LUMIVANE"][-1][1], cycles], axis=1)
image = bpy.data.images.new("pair", 2 * width, height, float_buffer=True)
image.pixels[:] = np.concatenate([pair, np.ones((height, 2 * width, 1), np.float32)], axis=2).ravel()
scene.render.image_settings.file_format = "PNG"
scene.render.image_settings.color_depth = "8"
image.save_render(os.path.join(out, "blender-cycles.png"), scene=scene)
print(f"Cycles at {max(1, round(n * (error / target) ** 2))} samples took {seconds:.2f} s; "
      f"wrote {os.path.join(out, 'blender-cycles.png')}")
