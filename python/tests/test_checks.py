"""The package refuses, before the call, what would make the library read or
write past its records, and still passes what is right."""

import json
import os
import subprocess
import sys
from pathlib import Path

import lumivane as lv
from lumivane import checks
from lumivane.surface import DECLARATIONS

INDEX_NAMES = {"camera", "aov", "object", "part", "instance", "source", "shader", "layer", "displacement", "light"}


def test_the_tables_cover_every_index_argument_and_every_add():
    adders = set()
    for line in DECLARATIONS.strip().splitlines():
        result, name, arguments = lv._parse(line)
        indices = {argument for kind, argument in arguments if kind == "int" and argument in INDEX_NAMES}
        assert indices == set(checks.INDEXES.get(name, {})), name
        if result == "int":
            adders.add(name)
    assert adders == set(checks.ADDERS)


def test_bad_calls_raise_and_never_reach_the_library(tmp_path):
    # In a process of its own: a call that got through would end it.
    package = str(Path(lv.__file__).resolve().parents[1])
    library = Path(lv.library_path)
    env = dict(os.environ, LUMIVANE_LIBRARY=str(library.resolve()) if library.exists() else lv.library_path,
               PYTHONPATH=os.pathsep.join(filter(None, [package, os.environ.get("PYTHONPATH")])))
    outcomes = tmp_path / "outcomes.json"
    run = subprocess.run([sys.executable, str(Path(__file__).with_name("bad_calls.py")), str(outcomes)],
                         cwd=tmp_path, env=env, capture_output=True, text=True)
    assert run.returncode == 0, run.stderr[-3000:]
    result = json.loads(outcomes.read_text())
    assert result["wrong"] == []
    assert result["cases"] > 300


def test_records_the_library_keeps_stay_addressable(scratch):
    lv.lvStartup()
    camera = lv.lvAddCamera()
    sky_aov = lv.lvAddSkyLightAOV()
    lv.lvStartup()   # releases nothing, and gives the default shader 0 a fresh layer
    lv.lvSetSkyLightAOVName(sky_aov, "")
    lv.lvSetSurfaceColor(0, 0, lv.Element.LAMBERTIAN, 0.5, 0.5, 0.5)
    lv.lvSetCameraAOVName(camera, 0, "beauty.pfm")
    lv.lvSetCameraResolution(camera, 6, 4)
    lv.lvSetCameraRegion(camera, -2, 1, 4, 9)   # 4 x 3 pixels of it lie within the image
    lv.still_pose(camera, (0, 0, 5), (0, 0, 0), (0, 1, 0), 40)
    lv.lvInitialize()
    assert lv.render_pixels(12, 0).shape == (12, 3)
    lv.lvSetCameraPosition(camera, 0, 0, 6)   # a pose may change between passes
    lv.lvFinalize()
    lv.lvShutdown()
    # The AOVs of the sky light outlive lvFinalize; cameras do not.
    lv.lvStartup()
    lv.lvSetSkyLightAOVName(sky_aov, "")
    assert lv.lvAddCamera() == 0
    lv.lvFinalize()
    lv.lvShutdown()
