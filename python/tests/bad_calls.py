"""Calls every exported function with bad arguments, and the stages out of
turn, in a process of its own: a call that reaches the library can end it.
Writes the number of calls, and [case, expected, outcome] of each call that
did not raise what it should, to the JSON file named by the first argument."""

import json
import sys

import numpy as np

import lumivane as lv
from lumivane import checks
from lumivane.surface import DECLARATIONS

cases, wrong = [], []


def expect(error, case, function, *arguments):
    cases.append(case)
    try:
        function(*arguments)
        outcome = "returned"
    except Exception as raised:  # noqa: BLE001 (any other exception is a wrong outcome too)
        outcome = type(raised).__name__
    if outcome != error.__name__:
        wrong.append([case, error.__name__, outcome])


def one_of_everything():
    """A scene in which index 0 of every collection exists: the part has four
    positions, so that each vertex array below is within it."""
    lv.lvStartup()
    camera = lv.lvAddCamera()
    lv.lvSetCameraResolution(camera, 4, 4)
    obj = lv.lvAddObject()
    lv.lvAddPositions(obj, lv.lvAddPart(obj), 4, np.zeros((4, 3)))
    lv.lvAddInstance(obj)
    lv.lvAddSurfaceShader(lv.lvAddShader())
    lv.lvAddDisplacementShader(0)
    lv.lvAddPointLightAOV(lv.lvAddPointLight())
    lv.lvAddParallelLightAOV(lv.lvAddParallelLight())
    lv.lvAddGeometryLightAOV()
    lv.lvAddSkyLightAOV()


ARRAY = ("const float*", "const int*")
MATRIX = ("float (*)[4]", "const float (*)[4]", "const float (*)[3]")
# Refused values of each C type; an enumeration's type starts with a capital.
BAD = {"int": [(2**40, ValueError)], "const char*": [(None, ValueError), ("a\0b", ValueError)],
       **dict.fromkeys(ARRAY, [(np.zeros((4, 5), np.int32), ValueError)]),
       **dict.fromkeys(MATRIX, [(np.zeros((2, 2)), ValueError)])}
ENUMERATION_BAD = [(1 << 16, ValueError), (-1, ValueError)]
ARRAY_COUNTS = {name: count for name, (count, _, _) in checks.ARRAYS.items()}


def valid(name, kind, argument):
    if argument in checks.INDEXES.get(name, {}):
        return 0
    if kind in ARRAY:
        return np.arange(12) % 4
    good = {"const char*": "x", "float*": np.zeros((16, 3), np.float32), "float": 0.5, "bool": True}
    # An int or an enumeration's value 1; a pass over a 4 x 4 camera.
    return good.get(kind, None if kind in MATRIX else 16 if name == "lvRenderPixels" else 1)


def bad_values(name, kind, argument):
    if argument in checks.INDEXES.get(name, {}):
        return [(1000, IndexError), (-1, IndexError)]
    if argument == ARRAY_COUNTS.get(name):
        return [(-1, ValueError), (1000, ValueError)]
    return ENUMERATION_BAD if kind[0].isupper() else BAD.get(kind, [])


one_of_everything()
for line in DECLARATIONS.strip().splitlines():
    _, name, declared = lv._parse(line)
    for position, (kind, argument) in enumerate(declared):
        for value, error in bad_values(name, kind, argument):
            arguments = [valid(name, k, a) for k, a in declared]
            arguments[position] = value
            expect(error, f"{name} {argument}={value!r}", getattr(lv, name), *arguments)

# Vertex indices past the part's four positions, and a segment at the last.
expect(IndexError, "triangle past the positions", lv.lvAddTriangles, 0, 0, 1, [0, 1, 4])
expect(IndexError, "segment at the last vertex", lv.lvAddCylinders, 0, 0, 1, [3])
expect(ValueError, "vertex data of 4 components", lv.lvAddVertexData, 0, 0, "v", 1, 4, np.zeros(4))

# The stages out of turn.
for render in (lv.lvRender, lambda: lv.render_pixels(16, 0), lv.lvInitializeRenderer):
    expect(RuntimeError, "render before lvInitialize", render)
lv.lvInitialize()
expect(ValueError, "a pass of another count", lv.render_pixels, 15, 0)
expect(ValueError, "a pass into another shape", lv.render_pixels, 16, 0, np.zeros((4, 12), np.float32))
for describe in (lv.lvAddCamera, lambda: lv.lvSetCameraRegion(0, 0, 0, 9, 9), lv.lvStartup, lambda: lv.go(".")):
    expect(RuntimeError, "describing a prepared scene", describe)
lv.render_pixels(16, 0)
lv.lvRender()
expect(RuntimeError, "a pass after lvRender released the lights", lv.render_pixels, 16, 0)
lv.lvFinalize()
expect(IndexError, "a camera after lvFinalize", lv.lvSetCameraName, 0, "x")
expect(RuntimeError, "lvInitialize after lvFinalize", lv.lvInitialize)

# Shaders released under the objects that refer to them.
one_of_everything()
lv.lvSetShaderID(0, 0, 1)
lv.lvFinalizeShaders()
lv.lvStartup()
expect(IndexError, "a part's shader released", lv.lvInitialize)

with open(sys.argv[1], "w") as out:
    json.dump({"cases": len(cases), "wrong": wrong}, out)
