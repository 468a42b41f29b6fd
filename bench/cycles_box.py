# Renders the convergence benchmark's lambertian box with Cycles, as a peer:
#
#   blender -b --factory-startup --python cycles_box.py -- BOX_DIR OUT_DIR BOUNCE SAMPLES...
#
# BOX_DIR holds the box that bench/convergence wrote (geometry/*.obj with a
# usemtl line each, and cycles.txt with the materials). Each sample count is
# rendered at 128 x 128 with a box filter of width 1, no denoising, no
# adaptive sampling, no clamping and BOUNCE - 1 bounces (lumivane counts the
# first hit's direct light as its first bounce), on two threads. The images
# go to OUT_DIR as cycles-SAMPLES.raw (float32 r, g, b, top row first, as
# lumivane's images lie in memory), and the wall times of the renders, the
# scene's set-up taken out, to times.txt.
import array
import math
import os
import sys
import time

import bpy

args = sys.argv[sys.argv.index("--") + 1:]
box, out, bounce = args[0], args[1], int(args[2])
samples = [int(s) for s in args[3:]]
size = 128

bpy.ops.wm.read_factory_settings(use_empty=True)
scene = bpy.context.scene

# Materials: "name diffuse r g b" or "name emission r g b", linear colours.
materials = {}
with open(os.path.join(box, "cycles.txt")) as f:
    for line in f:
        name, kind, r, g, b = line.split()
        colour = (float(r), float(g), float(b))
        material = bpy.data.materials.new(name)
        material.use_nodes = True
        nodes, links = material.node_tree.nodes, material.node_tree.links
        nodes.clear()
        output = nodes.new("ShaderNodeOutputMaterial")
        if kind == "diffuse":
            shader = nodes.new("ShaderNodeBsdfDiffuse")
            shader.inputs["Color"].default_value = (*colour, 1.0)
            shader.inputs["Roughness"].default_value = 0.0
            links.new(shader.outputs["BSDF"], output.inputs["Surface"])
        else:
            # Radiance `colour` from the front face only, as lumivane's
            # one-sided emitter: the back mixes in black emission.
            strength = max(colour)
            front = nodes.new("ShaderNodeEmission")
            front.inputs["Color"].default_value = (*[c / strength for c in colour], 1.0)
            front.inputs["Strength"].default_value = strength
            back = nodes.new("ShaderNodeEmission")
            back.inputs["Strength"].default_value = 0.0
            geometry = nodes.new("ShaderNodeNewGeometry")
            mix = nodes.new("ShaderNodeMixShader")
            links.new(geometry.outputs["Backfacing"], mix.inputs["Fac"])
            links.new(front.outputs["Emission"], mix.inputs[1])
            links.new(back.outputs["Emission"], mix.inputs[2])
            links.new(mix.outputs["Shader"], output.inputs["Surface"])
        materials[name] = material


# lumivane's y-up coordinates in Blender's z-up world.
def to_blender(x, y, z):
    return (x, -z, y)


geometry = os.path.join(box, "geometry")
for file in sorted(os.listdir(geometry)):
    if not file.endswith(".obj"):
        continue
    vertices, faces, material = [], [], None
    with open(os.path.join(geometry, file)) as f:
        for line in f:
            words = line.split()
            if not words:
                continue
            if words[0] == "usemtl":
                material = words[1]
            elif words[0] == "v":
                vertices.append(to_blender(*map(float, words[1:4])))
            elif words[0] == "f":
                corners = [int(w.split("/")[0]) for w in words[1:]]
                faces.append([c - 1 if c > 0 else len(vertices) + c for c in corners])
    mesh = bpy.data.meshes.new(file[:-4])
    mesh.from_pydata(vertices, [], faces)
    mesh.materials.append(materials[material])
    scene.collection.objects.link(bpy.data.objects.new(file[:-4], mesh))

camera_data = bpy.data.cameras.new("camera")
camera_data.lens_unit = "FOV"
camera_data.sensor_fit = "HORIZONTAL"
camera_data.angle = math.radians(38.0)
camera = bpy.data.objects.new("camera", camera_data)
camera.location = to_blender(0.0, 1.0, 3.9)
camera.rotation_euler = (math.pi / 2.0, 0.0, 0.0)
scene.collection.objects.link(camera)
scene.camera = camera

world = bpy.data.worlds.new("black")
world.use_nodes = True
world.node_tree.nodes["Background"].inputs["Color"].default_value = (0.0, 0.0, 0.0, 1.0)
scene.world = world

render = scene.render
render.engine = "CYCLES"
render.resolution_x = render.resolution_y = size
render.resolution_percentage = 100
render.threads_mode = "FIXED"
render.threads = 2
render.image_settings.file_format = "OPEN_EXR"
render.image_settings.color_depth = "32"
render.use_persistent_data = True
cycles = scene.cycles
cycles.device = "CPU"
cycles.use_adaptive_sampling = False
cycles.use_denoising = False
cycles.sample_clamp_direct = 0.0
cycles.sample_clamp_indirect = 0.0
cycles.pixel_filter_type = "BOX"
cycles.filter_width = 1.0
cycles.max_bounces = bounce - 1
cycles.diffuse_bounces = bounce - 1
cycles.glossy_bounces = 0
cycles.transmission_bounces = 0
cycles.volume_bounces = 0
cycles.transparent_max_bounces = 0
cycles.caustics_reflective = False
cycles.caustics_refractive = False
scene.view_settings.view_transform = "Standard"


def render_image(count, path):
    cycles.samples = count
    render.filepath = path
    start = time.perf_counter()
    bpy.ops.render.render(write_still=True)
    return time.perf_counter() - start


# A render of one sample measures the set-up that each render repeats.
setup = render_image(1, os.path.join(out, "setup.exr"))
with open(os.path.join(out, "times.txt"), "w") as times:
    for count in samples:
        cycles.seed = count
        exr = os.path.join(out, "cycles-%d.exr" % count)
        seconds = render_image(count, exr)
        times.write("%.4f\n" % max(seconds - setup, 1e-6))
        image = bpy.data.images.load(exr)
        pixels = list(image.pixels)
        rows = []
        for y in range(size - 1, -1, -1):
            row = pixels[y * size * 4:(y + 1) * size * 4]
            for x in range(size):
                rows.extend(row[x * 4:x * 4 + 3])
        array.array("f", rows).tofile(open(os.path.join(out, "cycles-%d.raw" % count), "wb"))
        bpy.data.images.remove(image)
