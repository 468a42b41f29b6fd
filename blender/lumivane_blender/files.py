"""A scene description (translate.py) written as a scene directory that the
lumivane command (and mpirun) renders: the five folders of blocks, an OBJ
file for each mesh, and copies of the images. Imports nothing of Blender."""

import os
import shutil

import numpy as np

from .build import compact_part, image_gamma, light_cone


def _v(values):
    return " ".join(f"{float(v):.9g}" for v in values)


def _quoted(text):
    return '"' + text.replace('"', "'") + '"'


def write_scene(scene, directory):
    """Writes the directory; returns the list of files written."""
    written = []
    for folder in ("shader", "render", "light", "camera", "geometry", "images"):
        os.makedirs(os.path.join(directory, folder), exist_ok=True)

    def put(name, text):
        with open(os.path.join(directory, name), "w", encoding="utf-8") as f:
            f.write(text)
        written.append(name)

    s = scene["settings"]
    gather = s["final_gathering"]
    put("render/render.lv", "render\n  final_gather\n" f"    sample {s['gather_rays']}\n    bounce {s['bounce']}\n"
        f"    distance {s['distance'] if gather else 0:.9g}\n    resolution {s['cell_size'] if gather else 0:.9g}\n"
        "  end\nend\n")
    put("shader/shaders.lv", "".join(_shader(shader, directory, written) for shader in scene["shaders"]))
    put("light/lights.lv", _lights(scene))
    put("camera/camera.lv", _camera(scene))
    put("geometry/scene.lv", _geometry(scene, directory, written))
    return written


def _shader(shader, directory, written):
    # Scene files cannot make a layer a refracting solid: clear glass is
    # written as frosted glass, a Fresnel mirror over diffuse transmission.
    if shader["solid"]:
        shader = dict(shader, transmissive=shader["specular"])
    lines = ["shader", f"  name {_quoted(shader['name'])}", "  surface_shader"]
    for element in ("lambertian", "glossy", "transmissive", "specular", "emissive", "shadow_transparency"):
        lines += [f"    {element}", f"      color {_v(shader[element])}"]
        if element == "lambertian" and shader["lambertian_image"]:
            source = shader["lambertian_image"]
            name = os.path.join("images", os.path.basename(source))
            if os.path.exists(source):
                shutil.copyfile(source, os.path.join(directory, name))
                written.append(name)
            lines += [f"      image {_quoted(name)}", "      sampler", f"        gamma {image_gamma(source):.9g}",
                      "      end"]
        lines.append("    end")
    for element, value in (("roughness", shader["roughness"]), ("ior", shader["ior"])):
        lines += [f"    {element}", f"      color {_v([value] * 3)}", "    end"]
    if shader["virtual_light"]:
        lines.append("    virtual_light 1")
    if shader["one_sided"]:
        lines.append('    sideness "face"')
    lines.append("  end")
    if not shader["camera_sees"]:
        lines += ["  geometry_shader", "    camera_primary 0", "  end"]
    lines += ["end", ""]
    return "\n".join(lines) + "\n"


def _lights(scene):
    s = scene["settings"]
    gather = s["final_gathering"]
    text = [f"geometry_light\n  photon {s['photons']}\n  sample {s['light_samples']}\nend\n"]
    sky = scene["sky"]
    text.append("sky_light\n" f"  color {_v(sky['color'])}\n  north 0 -1 0\n  zenith 0 0 1\n"
                f"  sample {s['light_samples']}\n  photon {s['photons'] if gather else 0}\n"
                + (f"  image {_quoted(sky['image'])}\n" if sky["image"] else "") + "end\n")
    for light in scene["point_lights"]:
        inner, outer = light_cone(light)
        text.append("point_light\n" f"  position {_v(light['position'])}\n  direction {_v(light['direction'])}\n"
                    f"  color {_v(light['color'])}\n  blur {light['blur']:.9g}\n  sample {s['light_samples']}\n"
                    f"  inner_angle {inner:.9g}\n  outer_angle {outer:.9g}\n  offset 0\nend\n")
    for light in scene["parallel_lights"]:
        text.append("parallel_light\n" f"  direction {_v(light['direction'])}\n  color {_v(light['color'])}\n"
                    f"  blur {light['blur']:.9g}\n  sample {s['light_samples']}\n  offset 0\nend\n")
    return "".join(text)


def _camera(scene):
    c = scene["camera"]
    pose = (f"  pose\n    position {_v(c['position'])}\n    target {_v(c['target'])}\n"
            f"    up_vector {_v(c['up'])}\n    field_of_view {c['fov']:.9g}\n  end\n")
    lines = ["camera", '  name "blender"', f"  resolution {c['width']} {c['height']}",
             f"  sample {scene['settings']['frames']}"]
    if c["region"]:
        lines.append("  region " + " ".join(str(int(v)) for v in c["region"]))
    text = "\n".join(lines) + "\n" + pose + pose
    for name in scene["passes"]:
        # The pass names are the AOV types of a camera block.
        text += f"  aov\n    image \"{name}.hdr\"\n    type \"{name}\"\n  end\n"
    return text + "end\n"


def _obj(mesh, shaders, path):
    """One OBJ file of a mesh: a group of faces per part, each named by its
    shader; corners carry their normals and UVs."""
    lines = [f"# {mesh['name']}"]
    base = 1
    for part in mesh["parts"]:
        positions, normals, uvs, triangles = compact_part(mesh, part)
        lines += [f"v {_v(p)}" for p in positions] + [f"vn {_v(n)}" for n in normals]
        if uvs is not None:
            lines += [f"vt {_v(t)}" for t in uvs]
        lines.append(f"usemtl {shaders[part['shader']]['name']}")
        for t in np.asarray(triangles) + base:
            lines.append("f " + " ".join(f"{i}/{i if uvs is not None else ''}/{i}" for i in t))
        base += len(positions)
    with open(path, "w", encoding="utf-8") as f:
        f.write("\n".join(lines) + "\n")


def _geometry(scene, directory, written):
    def obj(mesh, name):
        """Writes the mesh as geometry/NAME.obj; its `obj` line."""
        path = f"geometry/{name}.obj"
        _obj(mesh, scene["shaders"], os.path.join(directory, path))
        written.append(path)
        return f"  obj {_quoted(path)}\n"

    text = [f"object\n  name mesh{k}\n{obj(mesh, f'mesh{k}')}end\n" for k, mesh in enumerate(scene["meshes"])]
    body = [obj(mesh, f"root{k}") for k, mesh in enumerate(scene["root"])]
    for instance in scene["instances"]:
        rows = [list(r) for r in instance["matrix"]] + [[0, 0, 0, 1]]
        body.append(f"  instance\n    object mesh{instance['mesh']}\n    matrix {_v(sum(rows, []))}\n  end\n")
    text.append("object\n  name scene\n" + "".join(body) + "end\n")
    return "".join(text)
