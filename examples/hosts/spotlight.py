"""The spot-light example (examples/spotlight) described in code through the
lumivane package: a small stage under a warm spot light and a cool blurred
point light.

    python3 examples/hosts/spotlight.py

renders into the working directory (beauty.hdr), the same picture as
`lumivane examples/spotlight`.
"""

import numpy as np

import lumivane as lv

E = lv.Element

# Shaders: name, the colours of the layer's elements.
SHADERS = {
    "floor": {E.LAMBERTIAN: (0.7, 0.68, 0.64)},
    "wall": {E.LAMBERTIAN: (0.6, 0.62, 0.66)},
    "glossy": {E.LAMBERTIAN: (0.45, 0.06, 0.04), E.GLOSSY: (0.7, 0.7, 0.7), E.ROUGHNESS: (0.12, 0.12, 0.12),
               E.IOR: (1.5, 1.5, 1.5)},
    "glass": {E.SPECULAR: (1, 1, 1), E.TRANSMISSIVE: (0.9, 0.9, 0.9), E.IOR: (1.5, 1.5, 1.5),
              E.SHADOW_TRANSPARENCY: (0.7, 0.7, 0.7)},
    "pane": {E.SPECULAR: (1, 1, 1), E.TRANSMISSIVE: (0.1, 0.55, 0.6), E.IOR: (1.5, 1.5, 1.5),
             E.SHADOW_TRANSPARENCY: (0.15, 0.7, 0.8)},
}

# The stage's quadrangles by shader: a floor, a back wall and a glass pane.
STAGE = {
    "floor": [(-2.5, 0, 3), (2.5, 0, 3), (2.5, 0, -1.5), (-2.5, 0, -1.5)],
    "wall": [(-2.5, 0, -1.5), (2.5, 0, -1.5), (2.5, 3, -1.5), (-2.5, 3, -1.5)],
    "pane": [(0, 0, 0.7), (0.45, 0, -0.35), (0.45, 1.1, -0.35), (0, 1.1, 0.7)],
}

# The balls: shader, centre and radius of one particle each.
BALLS = {"glossy_ball": ("glossy", (-0.95, 0.4, 0.2), 0.4), "glass_ball": ("glass", (1.05, 0.3, 1.05), 0.3)}


def describe():
    """Describes the scene after lvStartup; returns the camera's index."""
    lv.lvSetRendererClamp(2, 2, 2)
    lv.lvSetRendererRayDepth(8)
    lv.lvSetRendererSample(512)
    lv.lvSetRendererBounce(2)
    lv.lvSetRendererDistance(0)
    lv.lvSetRendererResolution(0)

    shaders = {}
    for name, colors in SHADERS.items():
        shader = shaders[name] = lv.lvAddShader()
        lv.lvSetShaderName(shader, name)
        layer = lv.lvAddSurfaceShader(shader)
        for element, color in colors.items():
            lv.lvSetSurfaceColor(shader, layer, element, *color)

    # Three objects under an unnamed root that places each once.
    objects = []
    stage = lv.lvAddObject()
    lv.lvSetObjectName(stage, "stage")
    part = lv.lvAddPart(stage)
    for i, (name, corners) in enumerate(STAGE.items()):
        lv.lvSetShaderID(stage, part, shaders[name])
        lv.lvAddPositions(stage, part, 4, np.array(corners, dtype=np.float32))
        lv.lvAddTetragons(stage, part, 1, np.arange(4 * i, 4 * i + 4))
    objects.append(stage)
    for name, (shader, centre, radius) in BALLS.items():
        ball = lv.lvAddObject()
        lv.lvSetObjectName(ball, name)
        part = lv.lvAddPart(ball)
        lv.lvSetShaderID(ball, part, shaders[shader])
        lv.lvAddPositions(ball, part, 1, centre)
        lv.lvAddRadii(ball, part, 1, [radius])
        lv.lvAddParticles(ball, part, 1, [0])
        objects.append(ball)
    root = lv.lvAddObject()
    lv.lvSetObjectName(root, "scene")
    for target in objects:
        lv.lvSetInstance(root, lv.lvAddInstance(root), target, np.eye(4))

    # A warm spot light whose cone falls off from 16 to 26 degrees, and a
    # cool point light blurred over a sphere of radius 0.35.
    spot = lv.lvAddPointLight()
    lv.lvSetPointLightColor(spot, 14, 11, 7)
    lv.lvSetPointLightPosition(spot, -2.2, 3.0, 1.2)
    lv.lvSetPointLightDirection(spot, 2.6, -3.0, -1.6)
    lv.lvSetPointLightInnerAngle(spot, 16)
    lv.lvSetPointLightOuterAngle(spot, 26)
    fill = lv.lvAddPointLight()
    lv.lvSetPointLightColor(fill, 3.0, 3.5, 4.4)
    lv.lvSetPointLightPosition(fill, 1.8, 1.3, 2.4)
    lv.lvSetPointLightBlur(fill, 0.35)
    lv.lvSetPointLightSample(fill, 64)
    lv.lvSetPointLightInnerAngle(fill, 180)
    lv.lvSetPointLightOuterAngle(fill, 180)
    lv.lvSetSkyLightColor(0.01, 0.01, 0.015)
    lv.lvSetSkyLightPhoton(0)
    lv.lvSetGeometryLightPhoton(0)

    camera = lv.lvAddCamera()
    lv.lvSetCameraName(camera, "front")
    lv.lvSetCameraResolution(camera, 640, 480)
    lv.lvSetCameraSample(camera, 16)
    lv.lvSetCameraProjection(camera, lv.Projection.PERSPECTIVE)
    lv.still_pose(camera, (0, 1.5, 5.0), (0, 0.6, 0), (0, 1, 0), 40)
    return camera


if __name__ == "__main__":
    lv.render(describe)
