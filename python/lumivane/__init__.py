"""Python bindings of the lumivane renderer.

Every function that liblv exports is a module function of the same name and
arguments (``lumivane.lvAddCamera()``, ``lumivane.lvSetCameraPosition(c, 0, 1,
3)``), called through ctypes. Strings may be ``str`` or ``bytes``; wherever the
C function takes an array of floats or ints, any sequence or numpy array
serves and is converted to contiguous 32-bit values for the call. Matrices
are 3 rows of 4 (a 4 x 4 array gives its first three rows) and 3 x 3, or
None. Enumerations are IntEnums named as in lv.h without the prefix
(``Element.LAMBERTIAN`` for ``LV_ELEMENT_LAMBERTIAN``); the C names exist too.

On top of that: ``go(directory)`` renders a scene directory as the
command-line host does, ``render(describe)`` runs a whole scene that a
function describes, ``still_pose(...)`` gives a camera one pose for the whole
frame time, ``render_pixels(...)`` returns one pass as an array, and
``read_image(path)`` reads a rendered ``.pfm`` or ``.hdr`` image back.

The library is found, in this order, through the environment variable
``LUMIVANE_LIBRARY`` (the path of liblv.so or of its folder), in the build
folders of the source tree that holds this package (``build``,
``build-test``), in the ``lib`` folders of Python's prefix, ``/usr/local``
and ``/usr``, and by the system's loader.
"""

import ctypes
import enum
import os
import re
import sys

import numpy as np

from .images import read_image
from .library import find_library
from .surface import DECLARATIONS

__all__ = ["go", "render", "still_pose", "render_pixels", "read_image", "library_path", "exported_names",
           "Channel", "Projection", "AngleMeasure", "Element", "Material", "Sideness", "Visibility"]


class Channel(enum.IntFlag):
    BEAUTY = 1
    LIGHT_PATH = 2
    LAMBERTIAN = 4
    LAMBERTIAN_COLOR = 8
    TRANSMISSIVE = 16
    TRANSMISSIVE_COLOR = 32
    GLOSSY = 64
    GLOSSY_COLOR = 128
    SPECULAR = 256
    SPECULAR_COLOR = 512
    EMISSIVE = 1024
    NORMAL = 2048
    TANGENT = 4096
    POSITION = 8192
    DEPTH = 16384
    USER = 32768


class Projection(enum.IntEnum):
    PERSPECTIVE = 0
    SPHERICAL = 1


class AngleMeasure(enum.IntEnum):
    DEGREES = 0
    RADIANS = 1


class Element(enum.IntEnum):
    LAMBERTIAN = 0
    TRANSMISSIVE = 1
    GLOSSY = 2
    SPECULAR = 3
    EMISSIVE = 4
    DIFFUSION = 5
    SHADOW_TRANSPARENCY = 6
    NORMAL = 7
    WEIGHT = 8
    ANISOTROPY = 9
    ROUGHNESS = 10
    ANGLE = 11
    IOR = 12
    ELEMENT_13 = 13
    THICKNESS = 14
    ELEMENT_15 = 15


class Material(enum.IntEnum):
    OPAQUE = 0
    SOLID = 1
    THIN = 2


class Sideness(enum.IntEnum):
    FACE = 0
    BACK = 1
    BOTH = 2


class Visibility(enum.IntEnum):
    INVISIBLE = 0
    NOT_LIGHT_PRIMARY = 1
    NOT_CAMERA_PRIMARY = 2
    ALL = 3


# The C names of the enumerators, LV_CHANNEL_BEAUTY and the like.
_C_PREFIXES = {Channel: "LV_CHANNEL_", Projection: "LV_PROJECTION_", AngleMeasure: "LV_ANGLE_",
               Element: "LV_ELEMENT_", Material: "LV_MATERIAL_", Sideness: "LV_SIDENESS_",
               Visibility: "LV_VISIBILITY_"}
for _enum, _prefix in _C_PREFIXES.items():
    for _member in _enum:
        _c_name = "LV_" + _member.name if _member.name.startswith("ELEMENT_") else _prefix + _member.name
        globals()[_c_name] = _member
        __all__.append(_c_name)


def _text(value):
    return value if isinstance(value, bytes) else str(value).encode()


def _array(dtype, ctype):
    def convert(value):
        data = np.ascontiguousarray(value, dtype=dtype)
        return data, data.ctypes.data_as(ctypes.POINTER(ctype))
    return convert


def _matrix(rows, columns):
    def convert(value):
        if value is None:
            return None, None
        data = np.asarray(value, dtype=np.float32)
        if data.ndim == 2 and data.shape[0] > rows:
            data = data[:rows]
        data = np.ascontiguousarray(data.reshape(rows, columns))
        return data, data.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
    return convert


def _output(value):
    if not isinstance(value, np.ndarray) or value.dtype != np.float32 or not value.flags.c_contiguous:
        raise TypeError("the colours of lvRenderPixels go into a contiguous numpy array of float32")
    return value, value.ctypes.data_as(ctypes.POINTER(ctypes.c_float))


# C type of an argument: its ctypes type and how a Python value becomes one.
# A converter returns the object to keep alive during the call and the value.
_ARGUMENTS = {
    "int": (ctypes.c_int, None),
    "float": (ctypes.c_float, None),
    "bool": (ctypes.c_bool, None),
    "const char*": (ctypes.c_char_p, lambda v: (None, _text(v))),
    "const float*": (ctypes.POINTER(ctypes.c_float), _array(np.float32, ctypes.c_float)),
    "const int*": (ctypes.POINTER(ctypes.c_int), _array(np.int32, ctypes.c_int)),
    "float*": (ctypes.POINTER(ctypes.c_float), _output),
    "float (*)[4]": (ctypes.POINTER(ctypes.c_float), _matrix(3, 4)),
    "const float (*)[4]": (ctypes.POINTER(ctypes.c_float), _matrix(4, 4)),
    "const float (*)[3]": (ctypes.POINTER(ctypes.c_float), _matrix(3, 3)),
}
# Enumerations pass as ints; their members are ints already.
for _enum in _C_PREFIXES:
    _ARGUMENTS[_enum.__name__] = (ctypes.c_int, None)

_RESULTS = {"void": None, "int": ctypes.c_int}


def _parse(line):
    """A declaration line: the result type, the name and (type, name) pairs."""
    match = re.fullmatch(r"(\w+) (\w+)\((.*)\)", line)
    result, name, text = match.groups()
    arguments = []
    if text != "void":
        for argument in text.split(", "):
            words = re.fullmatch(r"(.*?)\s*\(?\*?(\w+)\)?(\[\d\])?", argument)
            kind, argument_name, extent = words.groups()
            if extent:
                kind = kind + " (*)" + extent
            arguments.append((kind.replace(" *", "*"), argument_name))
    return result, name, arguments


def _bind(library, line):
    result, name, arguments = _parse(line)
    function = getattr(library, name)
    function.restype = _RESULTS[result]
    function.argtypes = [_ARGUMENTS[kind][0] for kind, _ in arguments]
    converters = [_ARGUMENTS[kind][1] for kind, _ in arguments]

    def call(*values):
        if len(values) != len(converters):
            raise TypeError(f"{name} takes {len(converters)} arguments ({len(values)} given)")
        kept = []
        passed = []
        for convert, value in zip(converters, values):
            if convert is None:
                passed.append(value)
            else:
                keep, value = convert(value)
                kept.append(keep)
                passed.append(value)
        return function(*passed)

    call.__name__ = name
    call.__qualname__ = name
    call.__doc__ = line
    return call


library_path = find_library()
try:
    _library = ctypes.CDLL(library_path)
except OSError as error:
    raise ImportError(f"lumivane cannot load {library_path} ({error}); build the library, install it, "
                      "or name it in the environment variable LUMIVANE_LIBRARY") from error
exported_names = []
for _line in DECLARATIONS.strip().splitlines():
    _function = _bind(_library, _line)
    globals()[_function.__name__] = _function
    exported_names.append(_function.__name__)
__all__ += exported_names


def render_pixels(count, sample_index, rgb=None):
    """One pass of the current camera's region through lvRenderPixels.

    Returns the pass's colours as an array of count x 3 float32 (rgb, if given,
    is filled and returned). The scene must be initialised, and count must be
    the region's pixel count, as the C function wants."""
    if rgb is None:
        rgb = np.zeros((count, 3), dtype=np.float32)
    lvRenderPixels(count, rgb, sample_index)  # noqa: F821 (bound above)
    return rgb


def go(directory):
    """Renders a scene directory from start to end, as the command-line host does.

    The directory is the working directory during the run, so that the file
    names inside the scene and the images it writes resolve inside it."""
    home = os.getcwd()
    os.chdir(directory)
    try:
        sys.stdout.flush()
        lvGo("./")  # noqa: F821 (bound above)
    finally:
        os.chdir(home)


def render(describe):
    """Runs one scene from start-up to shut-down: describe() makes it through
    the lv... functions, then it is prepared, rendered and released, its
    images written. Returns what describe returned."""
    lvStartup()  # noqa: F821 (bound above)
    try:
        described = describe()
        lvInitialize()  # noqa: F821
        lvRender()  # noqa: F821
    finally:
        lvFinalize()  # noqa: F821
        lvShutdown()  # noqa: F821
    return described


def still_pose(camera, position, target, up_vector, fov):
    """Gives both poses of a camera the same position, target, up vector and
    field of view (degrees): a camera that stands still over the frame."""
    for time in (0, 1):
        lvSetCameraTime(camera, time)  # noqa: F821
        lvSetCameraPosition(camera, *position)  # noqa: F821
        lvSetCameraTarget(camera, *target)  # noqa: F821
        lvSetCameraUpVector(camera, *up_vector)  # noqa: F821
        lvSetCameraFOV(camera, fov)  # noqa: F821
