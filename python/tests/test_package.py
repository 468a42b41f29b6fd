"""The package itself: numpy arrays and matrices for the C arrays, one pass
into an array, the images read back the right way up."""

import numpy as np
import pytest

import lumivane as lv


def test_wrong_arguments_are_refused_before_the_call():
    with pytest.raises(TypeError):
        lv.lvSetCameraPosition(0, 1, 2)
    with pytest.raises(TypeError):
        lv.lvRenderPixels(4, [0.0] * 12, 0)   # the colours need a writable float32 array


def _panel_scene():
    """An emissive panel of colour (1, 2, 3), made in the lower half of the
    view and moved into the upper half by its instance's matrix, before a
    black sky: 8 x 8 pixels, the beauty image as PFM and the emissive AOV as
    HDR."""
    lv.lvStartup()
    # A scene before this one in the process may have left a clamp behind.
    lv.lvSetRendererClamp(100, 100, 100)
    lv.lvSetRendererDistance(0)
    shader = lv.lvAddShader()
    layer = lv.lvAddSurfaceShader(shader)
    lv.lvSetSurfaceColor(shader, layer, lv.Element.LAMBERTIAN, 0, 0, 0)
    lv.lvSetSurfaceColor(shader, layer, lv.LV_ELEMENT_EMISSIVE, 1, 2, 3)
    panel = lv.lvAddObject()
    part = lv.lvAddPart(panel)
    lv.lvSetShaderID(panel, part, shader)
    lv.lvAddPositions(panel, part, 4, np.array([[-3, -3, 0], [3, -3, 0], [3, 0, 0], [-3, 0, 0]], dtype=np.float64))
    lv.lvAddTetragons(panel, part, 1, np.arange(4, dtype=np.int64))
    root = lv.lvAddObject()
    up = np.eye(4)
    up[1, 3] = 3
    lv.lvSetInstance(root, lv.lvAddInstance(root), panel, up)
    lv.lvSetSkyLightColor(0, 0, 0)
    lv.lvSetSkyLightPhoton(0)
    lv.lvSetGeometryLightPhoton(0)
    camera = lv.lvAddCamera()
    lv.lvSetCameraResolution(camera, 8, 8)
    lv.lvSetCameraSample(camera, 1)
    lv.lvSetCameraAOVName(camera, 0, "beauty.pfm")
    aov = lv.lvAddCameraAOV(camera)
    lv.lvSetCameraAOVName(camera, aov, b"emission.hdr")
    lv.lvSetCameraAOVChannel(camera, aov, lv.Channel.EMISSIVE)
    lv.still_pose(camera, (0, 0, 5), (0, 0, 0), (0, 1, 0), 40)


def test_arrays_matrices_passes_and_images(scratch, capfd):
    expected = np.zeros((8, 8, 3), dtype=np.float32)
    expected[:4] = (1, 2, 3)
    _panel_scene()
    lv.lvInitialize()
    one_pass = lv.render_pixels(64, 0)
    np.testing.assert_array_equal(one_pass.reshape(8, 8, 3), expected)
    lv.lvFinalize()
    lv.lvShutdown()
    # A pass adds into every AOV; the files come from a render of its own.
    _panel_scene()
    lv.lvInitialize()
    lv.lvRender()
    lv.lvFinalize()
    lv.lvShutdown()
    np.testing.assert_array_equal(lv.read_image(scratch / "beauty.pfm"), expected)
    np.testing.assert_allclose(lv.read_image(scratch / "emission.hdr"), expected, rtol=0.01)
    report = capfd.readouterr().out
    assert "camera sensor width  " + "8".rjust(16) + " [ pixels ]" in report
