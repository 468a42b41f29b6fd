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


def material(name, base, specular=0.0):
    m = bpy.data.materials.new(name)
    m.use_nodes = True
    principled = m.node_tree.nodes["Principled BSDF"]
    principled.inputs["Base Color"].default_value = (*base, 1.0)
    principled.inputs["Specular"].default_value = specular
    principled.inputs["Roughness"].default_value = 1.0
    return m


def floor(size=40.0, albedo=0.5):
    bpy.ops.mesh.primitive_plane_add(size=size)
    bpy.context.object.data.materials.append(material("floor", (albedo,) * 3))
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


def render(tmp_path, depth=False):
    """Renders the scene; the combined pass as a height x width x 3 array
    (rows from the bottom), and the depth pass when asked."""
    scene = bpy.context.scene
    scene.use_nodes = True
    tree = scene.node_tree
    tree.nodes.clear()
    layers = tree.nodes.new("CompositorNodeRLayers")
    tree.links.new(layers.outputs["Image"], tree.nodes.new("CompositorNodeComposite").inputs["Image"])
    scene.view_layers[0].use_pass_z = depth
    if depth:
        # The depth pass through a file output, as EXR.
        output = tree.nodes.new("CompositorNodeOutputFile")
        output.base_path = str(tmp_path / "depth")
        output.format.file_format = "OPEN_EXR"
        output.format.color_depth = "32"
        tree.links.new(layers.outputs["Depth"], output.inputs[0])
    scene.render.image_settings.file_format = "OPEN_EXR"
    scene.render.image_settings.color_depth = "32"
    scene.render.filepath = str(tmp_path / "combined.exr")
    bpy.ops.render.render(write_still=True)
    shape = (scene.render.resolution_y, scene.render.resolution_x, 4)
    image = bpy.data.images.load(scene.render.filepath)
    combined = np.array(image.pixels[:], dtype=np.float32).reshape(shape)[..., :3]
    bpy.data.images.remove(image)
    if not depth:
        return combined
    written = bpy.data.images.load(str(next((tmp_path / "depth").iterdir())))
    depth = np.array(written.pixels[:], dtype=np.float32).reshape(shape)[..., 0]
    bpy.data.images.remove(written)
    return combined, depth


def test_sun_on_a_lambertian_plane_and_its_depth(tmp_path):
    # Straight down, 3 W/m^2 on albedo 0.5: radiance 0.5 x 3 / pi; the plane
    # lies 5 below the camera.
    floor()
    camera_above(5.0)
    light("SUN", 3.0)
    combined, depth = render(tmp_path, depth=True)
    assert combined.mean() == pytest.approx(0.5 * 3.0 / math.pi, rel=0.02)
    assert depth[16, 16] == pytest.approx(5.0, rel=0.01)


@pytest.mark.parametrize("kind, energy, settings", [
    ("POINT", 200.0, {}),
    ("SPOT", 200.0, {"spot_size": math.radians(120.0), "spot_blend": 0.0, "shadow_soft_size": 0.0}),
    ("SUN", 3.0, {}),
    ("AREA", 200.0, {"size": 1.0}),
])
def test_each_light_gives_what_cycles_gives(tmp_path, kind, energy, settings):
    # Compared under the light, where Cycles' spot (which also dims by the
    # cosine to its axis) is at full strength.
    floor()
    camera_above(5.0, lens=80.0)
    light(kind, energy, **settings)
    scene = bpy.context.scene
    scene.lumivane.frames = 16
    ours = render(tmp_path)[12:20, 12:20].mean()
    scene.render.engine = "CYCLES"
    scene.cycles.samples = 64
    scene.cycles.device = "CPU"
    scene.cycles.use_denoising = False
    theirs = render(tmp_path)[12:20, 12:20].mean()
    assert ours == pytest.approx(theirs, rel=0.03)


def test_world_colour_lights_like_cycles(tmp_path):
    floor(size=400.0)
    camera_above(5.0)
    world = bpy.data.worlds.new("world")
    world.use_nodes = True
    world.node_tree.nodes["Background"].inputs["Color"].default_value = (0.2, 0.4, 0.6, 1.0)
    bpy.context.scene.world = world
    bpy.context.scene.lumivane.frames = 16
    ours = render(tmp_path).mean(axis=(0, 1))
    # A white sky of radiance L on albedo 0.5 gives 0.5 L.
    assert ours == pytest.approx([0.1, 0.2, 0.3], rel=0.03)


def features():
    """A cube with a bevel, a sphere instanced twice through a collection, a
    textured material and a node the engine cannot map, every light kind."""
    floor()
    bpy.ops.mesh.primitive_cube_add(location=(0.0, 0.0, 1.0))
    bpy.context.object.modifiers.new("bevel", "BEVEL")
    textured = material("textured", (1.0, 1.0, 1.0))
    image = bpy.data.images.new("checker", 8, 8)
    image.generated_type = "COLOR_GRID"
    image.filepath_raw = os.path.join(bpy.app.tempdir or "/tmp", "lumivane-checker.png")
    image.file_format = "PNG"
    image.save()
    texture = textured.node_tree.nodes.new("ShaderNodeTexImage")
    texture.image = image
    textured.node_tree.links.new(texture.outputs["Color"],
                                 textured.node_tree.nodes["Principled BSDF"].inputs["Base Color"])
    textured.node_tree.nodes["Principled BSDF"].inputs["Sheen"].default_value = 0.5
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
    camera = camera_above(8.0)
    camera.location = (0.0, -8.0, 6.0)
    camera.rotation_euler = (math.radians(50.0), 0.0, 0.0)
    light("POINT", 300.0, location=(2.0, -2.0, 4.0))
    light("SPOT", 300.0, location=(-2.0, -2.0, 4.0), spot_size=math.radians(60.0))
    light("SUN", 1.0)
    light("AREA", 100.0, location=(0.0, 0.0, 4.0))


def test_features_translate_and_render(tmp_path):
    features()
    translation = Translation(bpy.context.evaluated_depsgraph_get())
    scene = translation.describe()
    assert len(scene["meshes"]) == 1 and len(scene["instances"]) == 2
    assert len(scene["point_lights"]) == 2 and len(scene["parallel_lights"]) == 1
    assert any(s["lambertian_image"] for s in scene["shaders"])
    assert any("Sheen" in warning for warning in translation.warnings)
    combined = render(tmp_path)
    assert np.isfinite(combined).all() and combined.mean() > 0.01


def test_exported_directory_renders_the_same_image(tmp_path):
    features()
    bpy.context.scene.lumivane.frames = 16
    engine_image = render(tmp_path)
    directory = tmp_path / "exported"
    assert bpy.ops.export_scene.lumivane(directory=str(directory)) == {"FINISHED"}
    subprocess.run([LUMIVANE, str(directory)], check=True, stdout=subprocess.DEVNULL)
    command_image = lumivane.read_image(str(directory / "beauty.hdr"))
    assert command_image.shape == engine_image.shape
    assert command_image.mean() == pytest.approx(engine_image.mean(), rel=0.03)


def test_cancelled_render_ends_without_error(tmp_path, monkeypatch):
    floor()
    camera_above()
    light("SUN", 3.0)
    bpy.context.scene.lumivane.frames = 1000
    monkeypatch.setattr(engine.LumivaneRenderEngine, "test_break", lambda self: True, raising=False)
    render(tmp_path)


def test_a_child_that_dies_is_an_error_and_blender_goes_on(tmp_path, monkeypatch):
    floor()
    camera_above()
    light("SUN", 3.0)
    bpy.context.scene.lumivane.frames = 100000
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
