"""A scene description (translate.py) made through the library's exported
functions. Runs in the render engine's child process, where the lumivane
package is loaded; imports nothing of Blender.

Shared with files.py: how shaders, lights and meshes are cut into the
library's records (parts per shader, corners in use, an omnidirectional
light's cone).
"""

import numpy as np

# Pass names and the camera channels that fill them.
PASS_CHANNELS = {"depth": 16384, "normal": 2048, "lambertian_color": 8}
# A point light's spot ramp runs from the inner to the outer angle; past
# 180 degrees on the outer side no direction is dimmed.
OMNI_CONE = (180.0, 181.0)


def image_gamma(path):
    """8-bit images hold sRGB-like values; float images are linear."""
    return 1.0 if path.lower().endswith((".hdr", ".exr", ".pfm")) else 2.2


def light_cone(light):
    return (light["inner"], light["outer"]) if light["outer"] < 180.0 else OMNI_CONE


def compact_part(mesh, part):
    """The corners a part uses, renumbered from 0: positions, normals, uvs
    (or None) and triangles."""
    used, triangles = np.unique(np.asarray(part["triangles"], dtype=np.int64), return_inverse=True)
    uvs = mesh["uvs"][used] if mesh["uvs"] is not None else None
    return mesh["positions"][used], mesh["normals"][used], uvs, triangles.reshape(-1, 3).astype(np.int32)


def build(scene, lv, pass_files):
    """Makes the scene; `pass_files` maps each pass of the description to
    the file its AOV is written to."""
    s = scene["settings"]
    lv.lvSetRendererSample(s["gather_rays"])
    lv.lvSetRendererBounce(s["bounce"])
    lv.lvSetRendererDistance(s["distance"] if s["final_gathering"] else 0.0)
    lv.lvSetRendererResolution(s["cell_size"] if s["final_gathering"] else 0.0)
    lv.lvSetGeometryLightSample(s["light_samples"])
    lv.lvSetGeometryLightPhoton(s["photons"])
    lv.lvSetSkyLightSample(s["light_samples"])
    lv.lvSetSkyLightPhoton(s["photons"] if s["final_gathering"] else 0)

    shaders = [_shader(lv, shader) for shader in scene["shaders"]]
    objects = []
    for mesh in scene["meshes"]:
        objects.append(lv.lvAddObject())
        lv.lvSetObjectName(objects[-1], mesh["name"])
        _mesh(lv, objects[-1], mesh, shaders)
    root = lv.lvAddObject()
    lv.lvSetObjectName(root, "scene")
    # The root needs a part for its instances to reach the light and photon
    # tables, even when every mesh is instanced.
    made = [_mesh(lv, root, mesh, shaders) for mesh in scene["root"]]
    if not any(made):
        lv.lvAddPart(root)
    for instance in scene["instances"]:
        lv.lvSetInstance(root, lv.lvAddInstance(root), objects[instance["mesh"]],
                         np.asarray(instance["matrix"], dtype=np.float32))

    for light in scene["point_lights"]:
        i = lv.lvAddPointLight()
        lv.lvSetPointLightPosition(i, *light["position"])
        lv.lvSetPointLightDirection(i, *light["direction"])
        lv.lvSetPointLightColor(i, *light["color"])
        lv.lvSetPointLightBlur(i, light["blur"])
        lv.lvSetPointLightSample(i, s["light_samples"])
        lv.lvSetPointLightOffset(i, 0.0)
        inner, outer = light_cone(light)
        lv.lvSetPointLightInnerAngle(i, inner)
        lv.lvSetPointLightOuterAngle(i, outer)
    for light in scene["parallel_lights"]:
        i = lv.lvAddParallelLight()
        lv.lvSetParallelLightDirection(i, *light["direction"])
        lv.lvSetParallelLightColor(i, *light["color"])
        lv.lvSetParallelLightBlur(i, light["blur"])
        lv.lvSetParallelLightSample(i, s["light_samples"])
        lv.lvSetParallelLightOffset(i, 0.0)
    sky = scene["sky"]
    lv.lvSetSkyLightColor(*sky["color"])
    lv.lvSetSkyLightNorth(0.0, -1.0, 0.0)
    lv.lvSetSkyLightZenith(0.0, 0.0, 1.0)
    if sky["image"]:
        lv.lvSetSkyLightImage(sky["image"])

    c = scene["camera"]
    camera = lv.lvAddCamera()
    lv.lvSetCameraResolution(camera, c["width"], c["height"])
    if c["region"]:
        lv.lvSetCameraRegion(camera, *c["region"])
    lv.lvSetCameraSample(camera, s["frames"])
    lv.still_pose(camera, c["position"], c["target"], c["up"], c["fov"])
    for name in scene["passes"]:
        aov = lv.lvAddCameraAOV(camera)
        lv.lvSetCameraAOVChannel(camera, aov, PASS_CHANNELS[name])
        lv.lvSetCameraAOVName(camera, aov, pass_files[name])
    return camera


def _shader(lv, shader):
    i = lv.lvAddShader()
    lv.lvSetShaderName(i, shader["name"])
    layer = lv.lvAddSurfaceShader(i)
    roughness, ior = shader["roughness"], shader["ior"]
    for element, value in ((lv.Element.LAMBERTIAN, shader["lambertian"]), (lv.Element.GLOSSY, shader["glossy"]),
                           (lv.Element.ROUGHNESS, [roughness] * 3), (lv.Element.IOR, [ior] * 3),
                           (lv.Element.TRANSMISSIVE, shader["transmissive"]),
                           (lv.Element.SPECULAR, shader["specular"]),
                           (lv.Element.EMISSIVE, shader["emissive"]),
                           (lv.Element.SHADOW_TRANSPARENCY, shader["shadow_transparency"])):
        lv.lvSetSurfaceColor(i, layer, element, *value)
    if shader["lambertian_image"]:
        path = shader["lambertian_image"]
        lv.lvSetSurfaceImage(i, layer, lv.Element.LAMBERTIAN, path, image_gamma(path), None, None)
    if shader["virtual_light"]:
        lv.lvSetSurfaceVirtualLight(i, layer, True)
    if shader["solid"]:
        lv.lvSetSurfaceMaterial(i, layer, lv.Material.SOLID)
    if shader["one_sided"]:
        lv.lvSetSurfaceSideness(i, layer, lv.Sideness.FACE)
    if not shader["camera_sees"]:
        lv.lvSetShaderVisibility(i, lv.Visibility.NOT_CAMERA_PRIMARY)
    return i


def _mesh(lv, obj, mesh, shaders):
    """One part of `obj` per shader of the mesh; false when it has none."""
    for part in mesh["parts"]:
        positions, normals, uvs, triangles = compact_part(mesh, part)
        p = lv.lvAddPart(obj)
        lv.lvAddPositions(obj, p, len(positions), positions)
        lv.lvAddNormals(obj, p, len(normals), normals)
        if uvs is not None:
            lv.lvAddUVs(obj, p, len(uvs), uvs)
        lv.lvSetShaderID(obj, p, shaders[part["shader"]])
        lv.lvAddTriangles(obj, p, len(triangles), triangles)
    return bool(mesh["parts"])
