"""What the package checks before a call reaches liblv.

The library trusts its host: an index past the end of a record array, a count
larger than the array it reads, a corner index past a part's positions or a
stage run out of turn makes it read or write memory it does not own, and the
process ends. The package therefore keeps a mirror of the library's records:
how many cameras there are and how many AOVs each has, the objects with their
parts (and each part's positions so far) and instances, the shaders with their
surface layers and displacement entries, the point and parallel lights with
their AOVs, and the AOVs of the geometry and sky lights. Every lvAdd... call
grows the mirror by the index that the library returns, and the calls that
release records (lvFinalize and its stages, lvGo) shrink it as the library
does. A call is checked against the mirror before it is made:

- an index argument that names no record raises IndexError;
- a negative count, a count larger than the array passed, an array whose rows
  have the wrong width, a value outside its enumeration, a string that is not
  one, or an int that does not fit a C int raises ValueError;
- a call out of turn (rendering an unprepared scene, preparing before
  lvStartup, describing a prepared scene) raises RuntimeError.

Every message starts with the function's name and gives the bad value.
"""

import os
import re

from .surface import DECLARATIONS

INT_MIN, INT_MAX = -2**31, 2**31 - 1


# The records that the mirror holds, with the defaults of a new record in the
# library where a check needs them.

class Camera:
    def __init__(self):
        self.aovs = [None]   # AOV 0, the beauty image, comes with the camera
        self.width, self.height = 960, 540
        self.region = (0, 0, 1048576, 1048576)   # left, top, right, bottom


class Part:
    def __init__(self):
        self.positions = 0
        self.shader = 0   # the largest shader index the part has been given


class Object:
    def __init__(self):
        self.parts = []
        self.instances = []


class Shader:
    def __init__(self):
        self.name = b"undefined"   # a new shader's name in the library
        self.layers = []
        self.displacements = []


class Light:
    def __init__(self):
        self.aovs = []


class Scene:
    """The mirror of the library's records, and where the scene is in its life."""

    def __init__(self):
        self.cameras, self.objects, self.shaders = [], [], []
        self.point_lights, self.parallel_lights = [], []
        self.geometry_light_aovs, self.sky_light_aovs = [], []
        self.open = False      # lvStartup made the tables that preparation and rendering use
        self.prepared = set()  # the stages prepared and not released
        self.intact = False    # nothing released since lvInitialize prepared everything


class Collection:
    """A list of records that index arguments address: one of the scene's
    own, or one that each record of its owner collection holds (a camera's
    AOVs, an object's parts). The owner's index is the call's argument of
    the owner's name, which lvAdd... of this collection takes as well."""

    def __init__(self, what, adder, members, owner=None, owner_argument=None, make=lambda: None):
        self.what, self.adder, self.members = what, adder, members
        self.owner, self.owner_argument, self.make = owner, owner_argument, make

    def of(self, scene, arguments):
        owner = scene if self.owner is None else self.owner.of(scene, arguments)[arguments[self.owner_argument]]
        return self.members(owner)

    def holder(self, arguments):
        if self.owner is None:
            return "the scene has"
        return f"{self.owner.what} {arguments[self.owner_argument]} has"


CAMERAS = Collection("camera", "lvAddCamera", lambda s: s.cameras, make=Camera)
CAMERA_AOVS = Collection("AOV", "lvAddCameraAOV", lambda c: c.aovs, CAMERAS, "camera")
OBJECTS = Collection("object", "lvAddObject", lambda s: s.objects, make=Object)
PARTS = Collection("part", "lvAddPart", lambda o: o.parts, OBJECTS, "object", Part)
INSTANCES = Collection("instance", "lvAddInstance", lambda o: o.instances, OBJECTS, "object")
SHADERS = Collection("shader", "lvAddShader", lambda s: s.shaders, make=Shader)
LAYERS = Collection("surface layer", "lvAddSurfaceShader", lambda s: s.layers, SHADERS, "shader")
DISPLACEMENTS = Collection("displacement", "lvAddDisplacementShader", lambda s: s.displacements, SHADERS, "shader")
POINT_LIGHTS = Collection("point light", "lvAddPointLight", lambda s: s.point_lights, make=Light)
POINT_LIGHT_AOVS = Collection("AOV", "lvAddPointLightAOV", lambda l: l.aovs, POINT_LIGHTS, "light")
PARALLEL_LIGHTS = Collection("parallel light", "lvAddParallelLight", lambda s: s.parallel_lights, make=Light)
PARALLEL_LIGHT_AOVS = Collection("AOV", "lvAddParallelLightAOV", lambda l: l.aovs, PARALLEL_LIGHTS, "light")
GEOMETRY_LIGHT_AOVS = Collection("geometry light AOV", "lvAddGeometryLightAOV", lambda s: s.geometry_light_aovs)
SKY_LIGHT_AOVS = Collection("sky light AOV", "lvAddSkyLightAOV", lambda s: s.sky_light_aovs)
COLLECTIONS = (CAMERAS, CAMERA_AOVS, OBJECTS, PARTS, INSTANCES, SHADERS, LAYERS, DISPLACEMENTS, POINT_LIGHTS,
               POINT_LIGHT_AOVS, PARALLEL_LIGHTS, PARALLEL_LIGHT_AOVS, GEOMETRY_LIGHT_AOVS, SKY_LIGHT_AOVS)
ADDERS = {collection.adder: collection for collection in COLLECTIONS}

# Which arguments of each function are indices, and into what, as lv.h names
# them: an argument named for a record, and a light or an AOV of the
# function's family. In every declaration an owner's index comes before the
# indices into its records, so that it is checked first.
_RECORDS = {"camera": CAMERAS, "object": OBJECTS, "source": OBJECTS, "part": PARTS, "instance": INSTANCES,
            "shader": SHADERS, "layer": LAYERS, "displacement": DISPLACEMENTS}
_FAMILIES = (("PointLight", POINT_LIGHTS, POINT_LIGHT_AOVS), ("ParallelLight", PARALLEL_LIGHTS, PARALLEL_LIGHT_AOVS),
             ("GeometryLight", None, GEOMETRY_LIGHT_AOVS), ("SkyLight", None, SKY_LIGHT_AOVS),
             ("Camera", CAMERAS, CAMERA_AOVS), ("", None, None))


def _indexes(declaration):
    name, text = re.fullmatch(r"\w+ (\w+)\((.*)\)", declaration).groups()
    _, light, aov = next(family for family in _FAMILIES if family[0] in name)
    records = dict(_RECORDS, light=light, aov=aov)
    arguments = [re.search(r"(\w+)\)?(\[\d\])?$", argument).group(1) for argument in text.split(", ")]
    return name, {argument: records[argument] for argument in arguments if records.get(argument) is not None}


INDEXES = dict(_indexes(declaration) for declaration in DECLARATIONS.strip().splitlines())

# The arrays the library reads: the argument with the element count, the
# array, and the values per element (a number, or the argument that holds it).
ARRAYS = {
    "lvAddPositions": ("count", "xyz", 3), "lvAddNormals": ("count", "xyz", 3), "lvAddTangents": ("count", "xyz", 3),
    "lvAddUVs": ("count", "uv", 2), "lvAddRadii": ("count", "radii", 1), "lvAddParticles": ("count", "indices", 1),
    "lvAddCylinders": ("count", "indices", 1), "lvAddTriangles": ("count", "indices", 3),
    "lvAddTetragons": ("count", "indices", 4), "lvAddVertexData": ("count", "data", "components"),
    "lvRenderPixels": ("count", "rgb", 3),
}
# Arrays of vertex indices into the part's positions, and how many vertices
# each index spans: a hair segment runs from its vertex to the next.
CORNERS = {"lvAddParticles": 1, "lvAddCylinders": 2, "lvAddTriangles": 1, "lvAddTetragons": 1}
# Plain int arguments with a range of their own.
RANGES = {("lvAddVertexData", "components"): range(1, 4)}

# The preparation stages. lvInitializeGeometryLight runs the sky light's
# stage (the geometry light's own is part of lvInitialize alone), and
# lvFinalizeGeometryLight releases the sky light's.
STAGES = ("cameras", "shaders", "accelerator", "sky light", "geometry light", "gaffer", "renderer")
PREPARES = {"lvInitializeCameras": "cameras", "lvInitializeShaders": "shaders",
            "lvInitializeAccelerator": "accelerator", "lvInitializeSkyLight": "sky light",
            "lvInitializeGeometryLight": "sky light", "lvInitializeGaffer": "gaffer",
            "lvInitializeRenderer": "renderer"}
RELEASES = {name.replace("Initialize", "Finalize"): stage for name, stage in PREPARES.items()}
# What the release of a stage drops from the library's records.
DROPS = {"cameras": ("cameras",), "shaders": ("shaders",), "accelerator": ("objects",),
         "gaffer": ("point_lights", "parallel_lights")}
# What a prepared scene still takes: a camera's pose is read afresh for every
# ray. Everything else that describes the scene waits for lvFinalize, since
# the prepared stages hold sizes, counts and pointers derived from it.
WHILE_PREPARED = {"lvSetCameraTime", "lvSetCameraPosition", "lvSetCameraTarget", "lvSetCameraUpVector",
                  "lvSetCameraBokeh", "lvSetCameraFOV"}
LIFECYCLE = {"lvStartup", "lvShutdown", "lvGo", "lvInitialize", "lvFinalize", "lvRender", "lvRenderPixels",
             *PREPARES, *RELEASES}

# A sensor the library will not hold: it ends the process instead.
_MAX_SENSOR_PIXELS = 1 << 28


def _plural(what, count):
    return f"{count} {what}" + ("" if count == 1 else "s")


class Guard:
    """Checks each call against the mirror (check) and updates the mirror
    with what a call did (record)."""

    def __init__(self):
        self.scene = Scene()

    # Checks, before the call.

    def check(self, name, arguments):
        scene = self.scene
        for argument, collection in INDEXES.get(name, {}).items():
            index = arguments[argument]
            members = collection.of(scene, arguments)
            if not 0 <= index < len(members):
                raise IndexError(f"{name}: {argument} {index} is out of range "
                                 f"({collection.holder(arguments)} {_plural(collection.what, len(members))})")
        for argument, value in arguments.items():
            allowed = RANGES.get((name, argument))
            if allowed is not None and value not in allowed:
                raise ValueError(f"{name}: {argument} {value} is not one of {list(allowed)}")
        if name in ARRAYS:
            self._check_array(name, arguments)
        if name in CORNERS:
            self._check_corners(name, arguments)
        if name in LIFECYCLE:
            check = getattr(self, "_check_" + name, self._check_stage if name in PREPARES else None)
            if check is not None:
                check(name, arguments)
        elif scene.prepared and name not in WHILE_PREPARED:
            raise RuntimeError(f"{name}: the scene is prepared; it takes changes again after lvFinalize")

    def _check_array(self, name, arguments):
        count_argument, array_argument, width = ARRAYS[name]
        count, array = arguments[count_argument], arguments[array_argument]
        width = arguments[width] if isinstance(width, str) else width
        if count < 0:
            raise ValueError(f"{name}: {count_argument} {count} is negative")
        if array.ndim >= 2 and array.shape[-1] != width:
            raise ValueError(f"{name}: {array_argument} of shape {array.shape} does not have {width} values a row")
        if count * width > array.size:
            raise ValueError(f"{name}: {count_argument} {count} needs {count * width} values, "
                             f"{array_argument} holds {array.size}")

    def _check_corners(self, name, arguments):
        count, indices, width = ARRAYS[name]
        corners = arguments[indices].reshape(-1)[:arguments[count] * width]
        if corners.size == 0:
            return
        part = PARTS.of(self.scene, arguments)[arguments["part"]]
        span = CORNERS[name]
        low, high = int(corners.min()), int(corners.max())
        if low < 0 or high + span > part.positions:
            bad = low if low < 0 else high
            raise IndexError(f"{name}: vertex index {bad} is out of range (part {arguments['part']} of object "
                             f"{arguments['object']} has {_plural('position', part.positions)} so far"
                             + (", and a segment needs the vertex after its own)" if span > 1 else ")"))

    def _check_stage(self, name, arguments):
        scene = self.scene
        stage = PREPARES[name]
        if not scene.open:
            raise RuntimeError(f"{name}: no scene is open; lvStartup opens one")
        if stage in scene.prepared:
            raise RuntimeError(f"{name}: the {stage} stage is prepared already; release it first")
        if stage == "renderer" and not (scene.intact and scene.prepared == set(STAGES) - {"renderer"}):
            raise RuntimeError(f"{name}: the renderer is prepared by lvInitialize, or again after "
                               "lvFinalizeRenderer alone")
        if stage == "cameras":
            self._check_sensors(name)

    def _check_lvStartup(self, name, arguments):
        if self.scene.prepared:
            raise RuntimeError(f"{name}: the scene is prepared; lvFinalize it first")

    def _check_lvGo(self, name, arguments):
        self._check_lvStartup(name, arguments)
        # lvGo's own lvStartup makes sure of one shader, the default.
        self._check_shader_references(name, max(len(self.scene.shaders), 1))

    def _check_lvInitialize(self, name, arguments):
        scene = self.scene
        if not scene.open:
            raise RuntimeError(f"{name}: no scene is open; lvStartup opens one")
        if scene.prepared:
            raise RuntimeError(f"{name}: the scene is prepared already; lvFinalize it first")
        self._check_shader_references(name, len(scene.shaders))
        self._check_sensors(name)

    def _check_shader_references(self, name, shaders):
        for o, record in enumerate(self.scene.objects):
            for p, part in enumerate(record.parts):
                if part.shader >= shaders:
                    raise IndexError(f"{name}: part {p} of object {o} has shader {part.shader}, which is out of "
                                     f"range (the scene has {_plural('shader', shaders)})")

    def _check_sensors(self, name):
        memory = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
        for c, camera in enumerate(self.scene.cameras):
            pixels = max(camera.width, 0) * max(camera.height, 0)
            if pixels > _MAX_SENSOR_PIXELS or pixels * 12 * len(camera.aovs) >= memory:
                raise ValueError(f"{name}: camera {c} of {camera.width} x {camera.height} pixels is too large "
                                 "to be held in memory")

    def rendering(self, name):
        """Raises unless the scene is ready to render: prepared as a whole by
        lvInitialize, with a camera to render through."""
        scene = self.scene
        if not (scene.open and scene.intact and scene.prepared == set(STAGES)):
            raise RuntimeError(f"{name}: the scene is not prepared; lvInitialize prepares it after lvStartup")
        if not scene.cameras:
            raise IndexError(f"{name}: camera 0 is out of range (the scene has 0 cameras)")

    def region_pixels(self, name):
        """The pixel count of the current camera's region, as lvRenderPixels
        renders it: camera 0's region within its image."""
        self.rendering(name)
        camera = self.scene.cameras[0]
        left, top, right, bottom = camera.region
        width = min(right, camera.width) - max(left, 0)
        height = min(bottom, camera.height) - max(top, 0)
        return width * height if width > 0 and height > 0 else 0

    def _check_lvRender(self, name, arguments):
        self.rendering(name)

    def _check_lvRenderPixels(self, name, arguments):
        pixels = self.region_pixels(name)
        if arguments["count"] != pixels:
            raise ValueError(f"{name}: count {arguments['count']} is not the {pixels} pixels of camera 0's region")

    # The mirror, after the call.

    def record(self, name, arguments, result):
        scene = self.scene
        collection = ADDERS.get(name)
        if collection is not None:
            members = collection.of(scene, arguments)
            while len(members) <= result:
                members.append(collection.make())
        elif name == "lvAddPositions":
            PARTS.of(scene, arguments)[arguments["part"]].positions += max(arguments["count"], 0)
        elif name == "lvSetShaderID":
            part = PARTS.of(scene, arguments)[arguments["part"]]
            part.shader = max(part.shader, arguments["shader"])
        elif name == "lvSetShaderName":
            scene.shaders[arguments["shader"]].name = arguments["name"]
        elif name == "lvSetCameraResolution":
            camera = scene.cameras[arguments["camera"]]
            camera.width, camera.height = arguments["width"], arguments["height"]
        elif name == "lvSetCameraRegion":
            scene.cameras[arguments["camera"]].region = tuple(
                arguments[k] for k in ("left", "top", "right", "bottom"))
        elif name == "lvStartup":
            self._startup()
        elif name in ("lvShutdown", "lvGo"):
            if name == "lvGo":
                # lvGo starts, renders and releases a scene of its own; the
                # AOVs its files gave the geometry and sky lights stay in the
                # library unseen, so their counts here are the lower bound.
                self._release(*STAGES)
            scene.open = scene.intact = False
        elif name == "lvInitialize":
            scene.prepared = set(STAGES)
            scene.intact = True
        elif name == "lvRender":
            # The end of the last frame releases the lights, as lvFinalize
            # would; rendering again needs the scene prepared anew.
            self._release("sky light", "geometry light", "gaffer")
        elif name == "lvFinalize":
            self._release(*STAGES)
        elif name in PREPARES:
            scene.prepared.add(PREPARES[name])
        elif name in RELEASES:
            self._release(RELEASES[name])

    def _startup(self):
        # lvStartup releases nothing; it makes sure of a shader named
        # "undefined", the default, and gives it one fresh layer.
        scene = self.scene
        default = next((s for s in scene.shaders if s.name == b"undefined"), None)
        if default is None:
            default = Shader()
            scene.shaders.append(default)
        default.layers, default.displacements = [None], []
        scene.open = True
        scene.intact = False

    def _release(self, *stages):
        scene = self.scene
        for stage in stages:
            scene.prepared.discard(stage)
            for records in DROPS.get(stage, ()):
                setattr(scene, records, [])
            if stage in DROPS:
                scene.intact = False
            if stage == "shaders":
                # The default shader is gone with the rest; only lvStartup makes it again.
                scene.open = False
