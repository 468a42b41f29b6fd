"""The render engine and the exporter inside Blender, on scenes made here:
values that physics fixes, Cycles' render of the same lights, the lumivane
command on the exported directory, and a render that is cancelled or whose
process dies."""

import math
import os
import subprocess
import threading

import bpy
import numpy as np
import pytest

import lumivane
from lumivane_blender import engine, register, unregister
from lumivane_blender.translate import Translation

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
LUMIVANE = os.environ.get("LUMIVANE_EXE", os.path.join(ROOT, "build", "lumivane"))


@pytest.fixture(autouse=True)
def empty_scene(tmp_path):
    bpy.ops.wm.read_factory_settings(use_empty=True)
    register()
    scene = bpy.context.scene
    scene.render.engine = "LUMIVANE"
    scene.render.resolution_x = scene.render.resolution_y = 32
    scene.render.resolution_percentage = 100
    scene.lumivane.frames = 4
    scene.lumivane.gather_rays = 16
    yield scene
    unregister()


def floor(size=40.0, albedo=0.5):
    """A plane of a Diffuse BSDF, which is Lambert's law in Cycles (the
    Principled BSDF's diffuse is not)."""
    bpy.ops.mesh.primitive_plane_add(size=size)
    m = bpy.data.materials.new("floor")
    m.use_nodes = True
    nodes = m.node_tree.nodes
    nodes.remove(nodes["Principled BSDF"])
    diffuse = nodes.new("ShaderNodeBsdfDiffuse")
    diffuse.inputs["Color"].default_value = (albedo, albedo, albedo, 1.0)
    diffuse.inputs["Roughness"].default_value = 0.0
    m.node_tree.links.new(diffuse.outputs["BSDF"], nodes["Material Output"].inputs["Surface"])
    bpy.context.object.data.materials.append(m)
    return bpy.context.object


def camera_above(height=5.0, lens=50.0):
    data = bpy.data.cameras.new("camera")
    data.lens = lens
    obj = bpy.data.objects.new("camera", data)
    obj.location = (0.0, 0.0, height)
    bpy.context.scene.collection.objects.link(obj)
    bpy.context.scene.camera = obj
    return obj


def light(kind, energy, location=(0.0, 0.0, 3.0), **settings):
    data = bpy.data.lights.new(kind.lower(), kind)
    data.energy = energy
    for key, value in settings.items():
        setattr(data, key, value)
    obj = bpy.data.objects.new(kind.lower(), data)
    obj.location = location
    bpy.context.scene.collection.objects.link(obj)
    return obj


def sunlit_floor(frames=4):
    """The plane lit straight down by a sun of 3 W/m^2, 5 below the camera."""
    floor()
    camera_above(5.0)
    light("SUN", 3.0)
    bpy.context.scene.lumivane.frames = frames


def world(colour):
    w = bpy.data.worlds.new("world")
    w.use_nodes = True
    w.node_tree.nodes["Background"].inputs["Color"].default_value = (*colour, 1.0)
    bpy.context.scene.world = w


def load(path, shape):
    image = bpy.data.images.load(str(path))
    pixels = np.array(image.pixels[:], dtype=np.float32).reshape(shape)[..., :3]
    bpy.data.images.remove(image)
    return pixels


def render(tmp_path, passes=()):
    """Renders the scene; the combined pass as a height x width x 3 array
    (rows from the bottom), and with `passes` ("Depth", "Normal") a dict of
    them too, written by the compositor."""
    scene = bpy.context.scene
    layer = scene.view_layers[0]
    layer.use_pass_z, layer.use_pass_normal = "Depth" in passes, "Normal" in passes
    scene.use_nodes = True
    tree = scene.node_tree
    tree.nodes.clear()
    layers = tree.nodes.new("CompositorNodeRLayers")
    tree.links.new(layers.outputs["Image"], tree.nodes.new("CompositorNodeComposite").inputs["Image"])
    formats = [scene.render.image_settings]
    for name in passes:
        output = tree.nodes.new("CompositorNodeOutputFile")
        output.base_path = str(tmp_path / name)
        formats.append(output.format)
        tree.links.new(layers.outputs[name], output.inputs[0])
    for settings in formats:
        settings.file_format, settings.color_depth = "OPEN_EXR", "32"
    scene.render.filepath = str(tmp_path / "combined.exr")
    bpy.ops.render.render(write_still=True)
    shape = (scene.render.resolution_y, scene.render.resolution_x, 4)
    combined = load(scene.render.filepath, shape)
    if not passes:
        return combined
    return combined, {name: load(next((tmp_path / name).iterdir()), shape) for name in passes}


def test_sun_on_a_lambertian_plane_its_passes_and_a_border(tmp_path):
    # Straight down, 3 W/m^2 on albedo 0.5: radiance 0.5 x 3 / pi; the plane
    # lies 5 below the camera and faces up. A border renders its part alone.
    sunlit_floor()
    combined, passes = render(tmp_path, passes=("Depth", "Normal"))
    assert combined.mean() == pytest.approx(0.5 * 3.0 / math.pi, rel=0.02)
    assert passes["Depth"][16, 16, 0] == pytest.approx(5.0, rel=0.01)
    assert passes["Normal"][16, 16] == pytest.approx([0.0, 0.0, 1.0], abs=0.02)
    render_settings = bpy.context.scene.render
    render_settings.use_border, render_settings.use_crop_to_border = True, False
    render_settings.border_min_x, render_settings.border_max_x = 0.25, 0.75
    render_settings.border_min_y, render_settings.border_max_y = 0.5, 1.0
    bordered = render(tmp_path)
    assert bordered[16:32, 8:24].mean() == pytest.approx(combined.mean(), rel=0.03)
    assert bordered[:16].max() == 0.0 and bordered[:, :8].max() == 0.0


@pytest.mark.parametrize("kind, energy, settings", [
    ("POINT", 200.0, {}),
    ("SPOT", 200.0, {"spot_size": math.radians(120.0), "spot_blend": 0.0, "shadow_soft_size": 0.0}),
    ("SUN", 3.0, {}),
    ("AREA", 200.0, {"size": 1.0}),
    ("WORLD", 0.0, {}),
])
def test_each_light_gives_what_cycles_gives(tmp_path, kind, energy, settings):
    # A wide view; the spot's only under it, where Cycles' spot (which also
    # dims by the cosine to its axis) is at full strength. A world of
    # radiance L all round lights the floor of albedo 0.5 to 0.5 L.
    floor(size=400.0 if kind == "WORLD" else 40.0)
    # Below the area light, whose back is a black panel to lumivane's camera.
    camera_above(2.5 if kind == "AREA" else 5.0, lens=80.0 if kind == "SPOT" else 20.0)
    if kind == "WORLD":
        world((0.2, 0.4, 0.6))
    else:
        light(kind, energy, **settings)
    scene = bpy.context.scene
    scene.lumivane.frames = 16
    block = (slice(12, 20), slice(12, 20)) if kind == "SPOT" else (slice(None), slice(None))
    ours = render(tmp_path)[block].mean(axis=(0, 1))
    if kind == "WORLD":
        assert ours == pytest.approx([0.1, 0.2, 0.3], rel=0.03)
    scene.render.engine = "CYCLES"
    scene.cycles.samples = 64
    scene.cycles.device = "CPU"
    scene.cycles.use_denoising = False
    assert ours == pytest.approx(render(tmp_path)[block].mean(axis=(0, 1)), rel=0.03)


def features():
    """A cube with a bevel, a sphere instanced twice through a collection, a
    textured material and a node the engine cannot map, every light kind, a
    world and an empty curve."""
    floor()
    bpy.ops.mesh.primitive_cube_add(location=(0.0, 0.0, 1.0))
    bpy.context.object.modifiers.new("bevel", "BEVEL")
    textured = bpy.data.materials.new("textured")
    textured.use_nodes = True
    principled = textured.node_tree.nodes["Principled BSDF"]
    principled.inputs["Specular"].default_value = 0.0
    principled.inputs["Roughness"].default_value = 1.0
    principled.inputs["Sheen"].default_value = 0.5
    image = bpy.data.images.new("checker", 8, 8)
    image.generated_type = "COLOR_GRID"
    image.filepath_raw = os.path.join(bpy.app.tempdir or "/tmp", "lumivane-checker.png")
    image.file_format = "PNG"
    image.save()
    texture = textured.node_tree.nodes.new("ShaderNodeTexImage")
    texture.image = image
    textured.node_tree.links.new(texture.outputs["Color"], principled.inputs["Base Color"])
    bpy.context.object.data.materials.append(textured)
    collection = bpy.data.collections.new("ball")
    bpy.ops.mesh.primitive_uv_sphere_add(radius=0.3)
    ball = bpy.context.object
    for owner in ball.users_collection:
        owner.objects.unlink(ball)
    collection.objects.link(ball)
    for x in (-2.0, 2.0):
        empty = bpy.data.objects.new(f"ball{x}", None)
        empty.instance_type = "COLLECTION"
        empty.instance_collection = collection
        empty.location = (x, 0.0, 0.3)
        bpy.context.scene.collection.objects.link(empty)
    camera = camera_above()
    camera.location = (0.0, -8.0, 6.0)
    camera.rotation_euler = (math.radians(50.0), 0.0, 0.0)
    light("POINT", 300.0, location=(2.0, -2.0, 4.0))
    light("SPOT", 300.0, location=(-2.0, -2.0, 4.0), spot_size=math.radians(60.0))
    light("SUN", 1.0)
    light("AREA", 100.0, location=(0.0, 0.0, 4.0))
    world((0.05, 0.05, 0.08))
    # A curve with no points gives no mesh at all.
    curve = bpy.data.objects.new("nothing", bpy.data.curves.new("nothing", "CURVE"))
    bpy.context.scene.collection.objects.link(curve)


def test_features_translate_render_and_export(tmp_path):
    # The exported directory, rendered by the lumivane command, gives the
    # engine's image.
    features()
    translation = Translation(bpy.context.evaluated_depsgraph_get())
    scene = translation.describe()
    assert len(scene["meshes"]) == 1 and len(scene["instances"]) == 2
    assert len(scene["point_lights"]) == 2 and len(scene["parallel_lights"]) == 1
    assert any(s["lambertian_image"] for s in scene["shaders"])
    assert any("Sheen" in warning for warning in translation.warnings)
    bpy.context.scene.lumivane.frames = 16
    engine_image = render(tmp_path)
    assert np.isfinite(engine_image).all() and engine_image.mean() > 0.01
    directory = tmp_path / "exported"
    assert bpy.ops.export_scene.lumivane(directory=str(directory)) == {"FINISHED"}
    subprocess.run([LUMIVANE, str(directory)], check=True, stdout=subprocess.DEVNULL)
    command_image = lumivane.read_image(str(directory / "beauty.hdr"))
    assert command_image.shape == engine_image.shape
    assert command_image.mean() == pytest.approx(engine_image.mean(), rel=0.03)


def test_cancelled_render_ends_without_error(tmp_path, monkeypatch):
    sunlit_floor(frames=1000)
    monkeypatch.setattr(engine.LumivaneRenderEngine, "test_break", lambda self: True, raising=False)
    render(tmp_path)


def test_a_child_that_dies_is_an_error_and_blender_goes_on(tmp_path, monkeypatch):
    sunlit_floor(frames=100000)
    start = engine.start_child

    def dying(description):
        child, log = start(description)
        threading.Timer(0.5, child.kill).start()
        return child, log

    monkeypatch.setattr(engine, "start_child", dying)
    with pytest.raises(RuntimeError, match="lumivane: the render process ended"):
        render(tmp_path)
    monkeypatch.undo()
    bpy.context.scene.lumivane.frames = 2
    assert render(tmp_path).mean() > 0.0
