"""The Cornell example (examples/cornell) described in code through the
lumivane package, object by object, shader by shader, light by light.

    python3 examples/hosts/cornell.py

renders into the working directory (beauty.hdr), the same picture as
`lumivane examples/cornell`.
"""

import lumivane as lv

# The room's faces, each a quadrangle of four corners, grouped by shader.
ROOM = {
    "white": [
        [(-1, 0, 3.5), (1, 0, 3.5), (1, 0, -1), (-1, 0, -1)],  # floor
        [(-1, 2, -1), (1, 2, -1), (1, 2, 3.5), (-1, 2, 3.5)],  # ceiling
        [(-1, 0, -1), (1, 0, -1), (1, 2, -1), (-1, 2, -1)],  # back wall
        [(-1, 0, 3.5), (-1, 2, 3.5), (1, 2, 3.5), (1, 0, 3.5)],  # front wall
    ],
    "red": [[(-1, 0, 3.5), (-1, 0, -1), (-1, 2, -1), (-1, 2, 3.5)]],
    "green": [[(1, 0, -1), (1, 0, 3.5), (1, 2, 3.5), (1, 2, -1)]],
    "lamp": [[(-0.4, 1.98, -0.3), (0.4, 1.98, -0.3), (0.4, 1.98, 0.5), (-0.4, 1.98, 0.5)]],
}

# The glossy block: four sides and a top around a square turned on the floor.
_BLOCK_BASE = [(-0.574722, -0.814501), (-0.055499, -0.604722), (-0.265278, -0.085499), (-0.784501, -0.295278)]
ROOM["glossy"] = [
    [(a[0], 0, a[1]), (b[0], 0, b[1]), (b[0], 1.2, b[1]), (a[0], 1.2, a[1])]
    for a, b in zip(_BLOCK_BASE, _BLOCK_BASE[1:] + _BLOCK_BASE[:1])
] + [[(x, 1.2, z) for x, z in _BLOCK_BASE]]

# Each ball: a particle's centre and radius, with its shader.
BALLS = {"mirror_ball": ("mirror", (0.42, 0.36, -0.35), 0.36), "glass_ball": ("glass", (-0.15, 0.28, 0.55), 0.28)}


def add_shader(name, layer_colors, sideness=None, virtual_light=False):
    shader = lv.lvAddShader()
    lv.lvSetShaderName(shader, name)
    layer = lv.lvAddSurfaceShader(shader)
    for element, color in layer_colors.items():
        lv.lvSetSurfaceColor(shader, layer, element, *color)
    if sideness is not None:
        lv.lvSetSurfaceSideness(shader, layer, sideness)
    lv.lvSetSurfaceVirtualLight(shader, layer, virtual_light)
    return shader


def add_ball(name, shader, centre, radius):
    ball = lv.lvAddObject()
    lv.lvSetObjectName(ball, name)
    part = lv.lvAddPart(ball)
    lv.lvSetShaderID(ball, part, shader)
    lv.lvAddPositions(ball, part, 1, centre)
    lv.lvAddRadii(ball, part, 1, [radius])
    lv.lvAddParticles(ball, part, 1, [0])
    return ball


def describe():
    """Describes the scene after lvStartup; returns the camera's index."""
    E = lv.Element
    lv.lvSetRendererClamp(16, 16, 16)
    lv.lvSetRendererRayDepth(8)
    lv.lvSetRendererSample(256)
    lv.lvSetRendererBounce(2)
    lv.lvSetRendererDistance(0)
    lv.lvSetRendererResolution(0)

    shaders = {
        "white": add_shader("white", {E.LAMBERTIAN: (0.73, 0.73, 0.73)}),
        "red": add_shader("red", {E.LAMBERTIAN: (0.63, 0.065, 0.05)}),
        "green": add_shader("green", {E.LAMBERTIAN: (0.14, 0.45, 0.091)}),
        "lamp": add_shader("lamp", {E.LAMBERTIAN: (0.78, 0.78, 0.78), E.EMISSIVE: (11, 9, 6.3)},
                           sideness=lv.Sideness.FACE, virtual_light=True),
        "mirror": add_shader("mirror", {E.SPECULAR: (0.95, 0.95, 0.95), E.IOR: (1000, 1000, 1000)}),
        "glass": add_shader("glass", {E.SPECULAR: (1, 1, 1), E.TRANSMISSIVE: (0.9, 0.9, 0.9), E.IOR: (1.5, 1.5, 1.5)}),
        "glossy": add_shader("glossy", {E.LAMBERTIAN: (0.1, 0.15, 0.4), E.GLOSSY: (0.6, 0.6, 0.6),
                                        E.ROUGHNESS: (0.08, 0.08, 0.08), E.IOR: (1.5, 1.5, 1.5)}),
    }

    balls = [add_ball(name, shaders[shader], centre, radius) for name, (shader, centre, radius) in BALLS.items()]

    # The room is the root object: its own faces, the lamp among them, make
    # the geometry light, and it places both balls where they stand.
    room = lv.lvAddObject()
    lv.lvSetObjectName(room, "room")
    part = lv.lvAddPart(room)
    corners = 0
    for name, faces in ROOM.items():
        lv.lvSetShaderID(room, part, shaders[name])
        lv.lvAddPositions(room, part, 4 * len(faces), [c for face in faces for c in face])
        lv.lvAddTetragons(room, part, len(faces), range(corners, corners + 4 * len(faces)))
        corners += 4 * len(faces)
    for ball in balls:
        lv.lvSetInstance(room, lv.lvAddInstance(room), ball, None)

    lv.lvSetGeometryLightPhoton(200000)
    lv.lvSetGeometryLightSample(16)

    camera = lv.lvAddCamera()
    lv.lvSetCameraName(camera, "front")
    lv.lvSetCameraResolution(camera, 256, 256)
    lv.lvSetCameraSample(camera, 16)
    lv.lvSetCameraProjection(camera, lv.Projection.PERSPECTIVE)
    lv.still_pose(camera, (0, 1, 3.4), (0, 1, 0), (0, 1, 0), 38)
    return camera


if __name__ == "__main__":
    lv.render(describe)
