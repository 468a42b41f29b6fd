"""Python bindings of the lumivane renderer.

Every function that liblv exports is a module function of the same name and
arguments (``lumivane.lvAddCamera()``, ``lumivane.lvSetCameraPosition(c, 0, 1,
3)``), called through ctypes. Strings may be ``str`` or ``bytes``; wherever the
C function takes an array of floats or ints, any sequence or numpy array
serves and is converted to contiguous 32-bit values for the call. Matrices
are 3 rows of 4 (a 4 x 4 array gives its first three rows) and 3 x 3, or
None. Enumerations are IntEnums named as in lv.h without the prefix
(``Element.LAMBERTIAN`` for ``LV_ELEMENT_LAMBERTIAN``); the C names exist too.

The library checks nothing, so the package does (see ``checks``): it counts
the records that every lvAdd... call makes and the stages release, and an
index that names no record raises IndexError, a bad count, array, string or
enumeration value raises ValueError, and a call out of turn (rendering an
unprepared scene, describing a prepared one) raises RuntimeError, each before
the library is called.

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
import operator
import os
import re
import sys

import numpy as np

from . import checks
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


# Each converter takes the function's name, the argument's name and the value
# given; it returns the Python value that the checks read (and that keeps the
# data alive during the call) and the value passed to ctypes. ctypes itself
# would wrap an int that does not fit and pass any object's text as a string.

def _whole(function, argument, value):
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"{function}: {argument} {value!r} is not an int") from None


def _int(function, argument, value):
    number = _whole(function, argument, value)
    if not checks.INT_MIN <= number <= checks.INT_MAX:
        raise ValueError(f"{function}: {argument} {number} does not fit a C int")
    return number, number


def _enumeration(kind):
    members = {int(member) for member in kind}
    # A Channel is a set of bits; the others are one of their members.
    bits = sum(members) if issubclass(kind, enum.IntFlag) else None

    def convert(function, argument, value):
        number = _whole(function, argument, value)
        if number not in members if bits is None else (number < 0 or number & ~bits):
            raise ValueError(f"{function}: {argument} {value!r} is not a value of {kind.__name__}")
        return number, number
    return convert


def _text(function, argument, value):
    if isinstance(value, os.PathLike):
        value = os.fspath(value)
    if isinstance(value, str):
        try:
            value = value.encode()
        except UnicodeEncodeError as error:
            raise ValueError(f"{function}: {argument} {value!r} cannot be encoded ({error})") from None
    if not isinstance(value, (bytes, bytearray)):
        raise ValueError(f"{function}: {argument} {value!r} is not a string")
    value = bytes(value)
    if b"\0" in value:
        raise ValueError(f"{function}: {argument} {value!r} holds a zero byte")
    return value, value


def _array(dtype, ctype):
    integers = np.dtype(dtype).kind == "i"

    def convert(function, argument, value):
        try:
            data = np.asarray(value)
            if integers and data.size:
                # Checked before the narrowing, which would wrap silently.
                if data.dtype.kind not in "iu":
                    raise ValueError(f"holds {data.dtype} values, not integers")
                if data.min() < checks.INT_MIN or data.max() > checks.INT_MAX:
                    raise ValueError("holds values that do not fit a C int")
            data = np.ascontiguousarray(data, dtype=dtype)
        except (TypeError, ValueError) as error:
            raise ValueError(f"{function}: {argument} is not an array of {np.dtype(dtype)} ({error})") from None
        return data, data.ctypes.data_as(ctypes.POINTER(ctype))
    return convert


def _matrix(rows, columns):
    def convert(function, argument, value):
        if value is None:
            return None, None
        try:
            data = np.asarray(value, dtype=np.float32)
        except (TypeError, ValueError) as error:
            raise ValueError(f"{function}: {argument} is not a matrix ({error})") from None
        if rows < columns and data.shape == (columns, columns):
            data = data[:rows]   # the affine rows of a square matrix
        if data.shape not in ((rows, columns), (rows * columns,)):
            raise ValueError(f"{function}: {argument} of shape {data.shape} is not a {rows} x {columns} matrix")
        data = np.ascontiguousarray(data.reshape(rows, columns))
        return data, data.ctypes.data_as(ctypes.POINTER(ctypes.c_float))
    return convert


def _output(function, argument, value):
    if not (isinstance(value, np.ndarray) and value.dtype == np.float32 and value.flags.c_contiguous
            and value.flags.writeable):
        raise TypeError(f"{function}: the colours go into a writable, contiguous numpy array of float32")
    return value, value.ctypes.data_as(ctypes.POINTER(ctypes.c_float))


# C type of an argument: its ctypes type and how a Python value becomes one.
_ARGUMENTS = {
    "int": (ctypes.c_int, _int),
    "float": (ctypes.c_float, None),
    "bool": (ctypes.c_bool, None),
    "const char*": (ctypes.c_char_p, _text),
    "const float*": (ctypes.POINTER(ctypes.c_float), _array(np.float32, ctypes.c_float)),
    "const int*": (ctypes.POINTER(ctypes.c_int), _array(np.int32, ctypes.c_int)),
    "float*": (ctypes.POINTER(ctypes.c_float), _output),
    "float (*)[4]": (ctypes.POINTER(ctypes.c_float), _matrix(3, 4)),
    "const float (*)[4]": (ctypes.POINTER(ctypes.c_float), _matrix(4, 4)),
    "const float (*)[3]": (ctypes.POINTER(ctypes.c_float), _matrix(3, 3)),
}
# Enumerations pass as ints, within their members.
for _enum in _C_PREFIXES:
    _ARGUMENTS[_enum.__name__] = (ctypes.c_int, _enumeration(_enum))

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
    converters = [(argument, _ARGUMENTS[kind][1]) for kind, argument in arguments]

    def call(*values):
        if len(values) != len(converters):
            raise TypeError(f"{name} takes {len(converters)} arguments ({len(values)} given)")
        given = {}
        passed = []
        for (argument, convert), value in zip(converters, values):
            if convert is not None:
                value, passed_value = convert(name, argument, value)
            else:
                passed_value = value
            given[argument] = value
            passed.append(passed_value)
        _guard.check(name, given)
        result = function(*passed)
        _guard.record(name, given, result)
        return result

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
_guard = checks.Guard()
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
    count = operator.index(count)
    pixels = _guard.region_pixels("render_pixels")
    if count != pixels:
        raise ValueError(f"render_pixels: count {count} is not the {pixels} pixels of camera 0's region")
    if rgb is None:
        rgb = np.zeros((count, 3), dtype=np.float32)
    elif not isinstance(rgb, np.ndarray) or rgb.dtype != np.float32 or not rgb.flags.c_contiguous:
        raise TypeError("render_pixels: rgb must be a contiguous numpy array of float32")
    elif rgb.shape != (count, 3):
        raise ValueError(f"render_pixels: rgb of shape {rgb.shape} is not ({count}, 3)")
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
        if not _guard.scene.cameras:
            raise IndexError("render: camera 0 is out of range (describe() made no camera)")
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
