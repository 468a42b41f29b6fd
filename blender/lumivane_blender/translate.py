"""Blender's evaluated scene as a lumivane scene description.

The description is plain data (dicts, lists, numpy arrays) that two writers
share: build.py makes the scene through the library's exported functions
(the render engine's child process), files.py writes it as a scene directory
(the exporter). It holds:

- settings: frames, gather_rays, bounce, final_gathering, distance,
  cell_size, photons, light_samples;
- camera: width, height, region (left, top, right, bottom in pixels from the
  top left, or None), position, target, up, fov (horizontal, degrees);
- passes: the camera AOVs beside the beauty image, a list of names out of
  "depth", "normal", "lambertian_color";
- shaders: name, lambertian, lambertian_image, glossy, roughness, ior,
  transmissive, specular, solid (a refracting body), emissive, virtual_light,
  shadow_transparency, one_sided (the layer on the front only), camera_sees;
- meshes: name, positions (n x 3), normals (n x 3), uvs (n x 2 or None), and
  parts, each a shader index and triangles (m x 3 indices into the corners);
- root: the meshes placed once, in world space; instances: (mesh, 3 x 4
  matrix) for meshes that several objects place;
- point_lights, parallel_lights, sky (color, image).

Units. Blender's lights are radiometric: a point or spot light of power P
watts sends P / (4 pi) watts per steradian, which a lumivane point light of
colour P / (4 pi^2) gives (its colour times pi is the intensity); a sun of
strength S watts per square metre is a parallel light of colour S / pi; an
area light of power P over an area A emits radiance P / (4 A) from one side
(as Cycles has it, so that it sends pi / 4 of P);
emission and the world's background are radiances, colour times strength.
"""

import math
import os

import numpy as np

PASSES = {"depth": "use_pass_z", "normal": "use_pass_normal", "lambertian_color": "use_pass_diffuse_color"}


def _rgb(value, scale=1.0):
    return [float(value[0]) * scale, float(value[1]) * scale, float(value[2]) * scale]


class Translation:
    """Collects the description of one depsgraph; warnings gather what could
    not be mapped, each once."""

    def __init__(self, depsgraph, scene=None):
        self.depsgraph = depsgraph
        self.scene = scene or depsgraph.scene
        self.warnings = []
        self.shaders = []
        self.shader_of = {}
        self.meshes = []

    def warn(self, text):
        if text not in self.warnings:
            self.warnings.append(text)

    # Materials.

    def shader(self, material):
        key = material.name if material else None
        if key in self.shader_of:
            return self.shader_of[key]
        s = {"name": key or "lumivane_default", "lambertian": [0.8, 0.8, 0.8], "lambertian_image": None,
             "glossy": [0.0, 0.0, 0.0], "roughness": 0.5, "ior": 1.0, "transmissive": [0.0, 0.0, 0.0],
             "emissive": [0.0, 0.0, 0.0], "virtual_light": False, "shadow_transparency": [0.0, 0.0, 0.0],
             "one_sided": False, "camera_sees": True, "specular": [0.0, 0.0, 0.0], "solid": False}
        if material:
            self._material(material, s)
        self.shader_of[key] = len(self.shaders)
        self.shaders.append(s)
        return self.shader_of[key]

    def _material(self, material, s):
        s["lambertian"] = _rgb(material.diffuse_color)
        tree = material.node_tree if material.use_nodes else None
        if tree is None:
            return
        output = next((n for n in tree.nodes if n.type == "OUTPUT_MATERIAL" and n.is_active_output), None)
        link = output.inputs["Surface"].links[0] if output and output.inputs["Surface"].is_linked else None
        node = link.from_node if link else None
        if node is None:
            return
        if node.type == "EMISSION":
            s["lambertian"] = [0.0, 0.0, 0.0]
            s["emissive"] = _rgb(node.inputs["Color"].default_value, node.inputs["Strength"].default_value)
            s["virtual_light"] = max(s["emissive"]) > 0.0
            return
        if node.type == "BSDF_DIFFUSE":
            s["lambertian"], s["lambertian_image"] = self._color(material, node.inputs["Color"])
            return
        if node.type != "BSDF_PRINCIPLED":
            self.warn(f"material {material.name}: the {node.bl_label} node is not mapped; grey lambertian instead")
            return
        value = lambda name: node.inputs[name].default_value  # noqa: E731
        for name in ("Subsurface", "Sheen", "Clearcoat", "Anisotropic"):
            if node.inputs[name].is_linked or float(value(name)) > 0.0:
                self.warn(f"material {material.name}: {name} of the Principled BSDF is not mapped")
        base, s["lambertian_image"] = self._color(material, node.inputs["Base Color"])
        metallic, transmission = float(value("Metallic")), float(value("Transmission"))
        diffuse = (1.0 - metallic) * (1.0 - transmission)
        s["lambertian"] = [c * diffuse for c in base]
        # Dielectric reflection from the specular level (0.5 is a reflectance
        # of 4 %, an index of 1.5); metals reflect their base colour at every
        # angle, which a very high index gives. The layer's index also takes
        # the Fresnel complement from the diffuse part, which Cycles does not:
        # without reflection the index stays 1.
        f0 = min(0.99, 0.08 * float(value("Specular")))
        if f0 > 0.0 or metallic > 0.0:
            dielectric = (1.0 + math.sqrt(f0)) / (1.0 - math.sqrt(f0))
            s["ior"] = dielectric + (1000.0 - dielectric) * metallic
            s["glossy"] = [1.0 + (c - 1.0) * metallic for c in base]
            s["roughness"] = max(1e-3, float(value("Roughness")) ** 2)
        if transmission > 0.0:
            s["ior"] = float(value("IOR"))
            through = [c * transmission * (1.0 - metallic) for c in base]
            if float(value("Roughness")) < 0.1:
                # Clear glass: a refracting solid behind a Fresnel mirror.
                s["specular"], s["solid"], s["glossy"] = through, True, [0.0, 0.0, 0.0]
            else:
                s["transmissive"] = through
        strength = float(value("Emission Strength"))
        s["emissive"] = _rgb(value("Emission"), strength)
        s["virtual_light"] = max(s["emissive"]) > 0.0
        alpha = float(value("Alpha"))
        if alpha < 1.0:
            s["shadow_transparency"] = [1.0 - alpha] * 3

    def _color(self, material, socket):
        """A colour input: its value and no image, or white and the file of
        an image texture linked to it."""
        if not socket.is_linked:
            return _rgb(socket.default_value), None
        node = socket.links[0].from_node
        if node.type == "TEX_IMAGE" and node.image is not None and node.image.filepath:
            return [1.0, 1.0, 1.0], os.path.abspath(node.image.filepath_from_user())
        self.warn(f"material {material.name}: the {node.bl_label} node into {socket.name} is not mapped")
        return [0.8, 0.8, 0.8], None

    # Geometry.

    def mesh(self, obj, name):
        """The evaluated object's mesh, modifiers applied, as corners with
        their split normals and active UVs, and triangles by material."""
        data = obj.to_mesh()
        if data is None:   # a curve or text with nothing to fill
            return {"name": name, "positions": np.zeros((0, 3), np.float32), "normals": np.zeros((0, 3), np.float32),
                    "uvs": None, "parts": []}
        try:
            data.calc_loop_triangles()
            if hasattr(data, "calc_normals_split"):
                data.calc_normals_split()
            loops, vertices, triangles = len(data.loops), len(data.vertices), len(data.loop_triangles)
            index = np.empty(loops, dtype=np.int32)
            data.loops.foreach_get("vertex_index", index)
            co = np.empty(vertices * 3, dtype=np.float32)
            data.vertices.foreach_get("co", co)
            normals = np.empty(loops * 3, dtype=np.float32)
            data.loops.foreach_get("normal", normals)
            uvs = None
            if data.uv_layers.active is not None:
                uvs = np.empty(loops * 2, dtype=np.float32)
                data.uv_layers.active.data.foreach_get("uv", uvs)
                uvs = uvs.reshape(-1, 2)
            corners = np.empty(triangles * 3, dtype=np.int32)
            data.loop_triangles.foreach_get("loops", corners)
            materials = np.empty(triangles, dtype=np.int32)
            data.loop_triangles.foreach_get("material_index", materials)
        finally:
            obj.to_mesh_clear()
        corners = corners.reshape(-1, 3)
        slots = [slot.material for slot in obj.material_slots] or [None]
        parts = []
        for m in np.unique(materials):
            material = slots[int(m)] if 0 <= int(m) < len(slots) else None
            parts.append({"shader": self.shader(material), "triangles": corners[materials == m]})
        return {"name": name, "positions": co.reshape(-1, 3)[index], "normals": normals.reshape(-1, 3),
                "uvs": uvs, "parts": parts}

    def placed(self, mesh, matrix):
        """A mesh moved into world space by a 4 x 4 matrix."""
        m = np.array(matrix, dtype=np.float64)
        p = mesh["positions"] @ m[:3, :3].T + m[:3, 3]
        n = mesh["normals"] @ np.linalg.inv(m[:3, :3])
        n /= np.maximum(np.linalg.norm(n, axis=1, keepdims=True), 1e-12)
        return dict(mesh, positions=p.astype(np.float32), normals=n.astype(np.float32))

    def area_light(self, light, matrix):
        """An area light as an emissive quad facing along its -Z axis, in no
        shadow ray's way. Cameras see its front, as in Cycles, and its back
        as a black face."""
        sx = light.size
        sy = light.size_y if light.shape in ("RECTANGLE", "ELLIPSE") else light.size
        if light.shape in ("DISK", "ELLIPSE"):
            self.warn(f"light {light.name}: a {light.shape.lower()} area light is rendered as a rectangle")
        area = max(sx * sy, 1e-12)
        shader = {"name": f"lumivane_area_{light.name}", "lambertian": [0.0, 0.0, 0.0], "lambertian_image": None,
                  "glossy": [0.0, 0.0, 0.0], "roughness": 0.5, "ior": 1.0, "transmissive": [0.0, 0.0, 0.0],
                  "emissive": _rgb(light.color, light.energy / (4.0 * area)), "virtual_light": True,
                  "shadow_transparency": [1.0, 1.0, 1.0], "one_sided": True, "camera_sees": True,
                  "specular": [0.0, 0.0, 0.0], "solid": False}
        self.shaders.append(shader)
        x, y = sx / 2, sy / 2
        # Counter-clockwise seen from below: the front faces -Z.
        quad = {"name": f"area_{light.name}",
                "positions": np.array([[-x, -y, 0], [-x, y, 0], [x, y, 0], [x, -y, 0]], dtype=np.float32),
                "normals": np.tile(np.array([0, 0, -1], dtype=np.float32), (4, 1)), "uvs": None,
                "parts": [{"shader": len(self.shaders) - 1, "triangles": np.array([[0, 1, 2], [0, 2, 3]])}]}
        return self.placed(quad, matrix)

    # The whole scene.

    def describe(self):
        root, instances, point, parallel = [], [], [], []
        shared = {}
        seen = {}
        entries = []
        for instance in self.depsgraph.object_instances:
            obj = instance.object
            matrix = [list(row) for row in instance.matrix_world]
            if obj.type == "LIGHT":
                self._light(obj.data, matrix, point, parallel, root)
            elif obj.type in ("MESH", "CURVE", "SURFACE", "META", "FONT"):
                key = obj.original.name if instance.is_instance else ("object", obj.name)
                entries.append((key, obj, matrix))
                seen[key] = seen.get(key, 0) + 1
        for key, obj, matrix in entries:
            if seen[key] == 1:
                mesh = self.mesh(obj, obj.name)
                if len(mesh["positions"]):
                    root.append(self.placed(mesh, matrix))
                continue
            if key not in shared:
                shared[key] = len(self.meshes)
                self.meshes.append(self.mesh(obj, obj.name))
            instances.append({"mesh": shared[key], "matrix": [row for row in matrix[:3]]})
        return {"settings": self._settings(), "camera": self._camera(), "passes": self._passes(),
                "shaders": self.shaders, "meshes": self.meshes, "root": root, "instances": instances,
                "point_lights": point, "parallel_lights": parallel, "sky": self._sky()}

    def _light(self, light, matrix, point, parallel, root):
        m = np.array(matrix)
        position = [float(v) for v in m[:3, 3]]
        axis = -m[:3, 2] / max(np.linalg.norm(m[:3, 2]), 1e-12)
        if light.type in ("POINT", "SPOT"):
            entry = {"position": position, "direction": [float(v) for v in axis],
                     "color": _rgb(light.color, light.energy / (4.0 * math.pi ** 2)),
                     "blur": float(light.shadow_soft_size), "inner": 180.0, "outer": 180.0}
            if light.type == "SPOT":
                outer = math.degrees(light.spot_size) / 2.0
                entry["outer"], entry["inner"] = outer, outer * (1.0 - light.spot_blend)
            point.append(entry)
        elif light.type == "SUN":
            parallel.append({"direction": [float(v) for v in axis], "color": _rgb(light.color, light.energy / math.pi),
                             "blur": math.degrees(light.angle) / 2.0})
        elif light.type == "AREA":
            root.append(self.area_light(light, matrix))

    def _settings(self):
        p = self.scene.lumivane
        return {"frames": p.frames, "gather_rays": p.gather_rays, "bounce": p.bounce,
                "final_gathering": p.final_gathering, "distance": p.distance, "cell_size": p.cell_size,
                "photons": p.photons, "light_samples": p.light_samples}

    def _camera(self):
        render = self.scene.render
        scale = render.resolution_percentage / 100.0
        width, height = max(1, int(render.resolution_x * scale)), max(1, int(render.resolution_y * scale))
        region = None
        if render.use_border:
            region = [int(render.border_min_x * width), int((1.0 - render.border_max_y) * height),
                      int(math.ceil(render.border_max_x * width)), int(math.ceil((1.0 - render.border_min_y) * height))]
        camera = self.scene.camera
        if camera is None:
            return {"width": width, "height": height, "region": region, "position": [0, -10, 0],
                    "target": [0, 0, 0], "up": [0, 0, 1], "fov": 40.0}
        camera = camera.evaluated_get(self.depsgraph)
        m = np.array(camera.matrix_world)
        position = m[:3, 3]
        data = camera.data
        # The horizontal angle: the sensor fits the width, or the height
        # (set so, or the taller side with the automatic fit).
        fit = data.sensor_fit
        vertical = fit == "VERTICAL" or (fit == "AUTO" and height > width)
        sensor = data.sensor_height if fit == "VERTICAL" else data.sensor_width
        half = math.atan(sensor / (2.0 * data.lens)) if data.type == "PERSP" else math.radians(20)
        if vertical:
            half = math.atan(math.tan(half) * width / height)
        return {"width": width, "height": height, "region": region, "position": [float(v) for v in position],
                "target": [float(v) for v in position - m[:3, 2]], "up": [float(v) for v in m[:3, 1]],
                "fov": math.degrees(2.0 * half)}

    def _passes(self):
        layer = self.depsgraph.view_layer
        return [name for name, flag in PASSES.items() if getattr(layer, flag, False)]

    def _sky(self):
        world = self.scene.world
        sky = {"color": [0.0, 0.0, 0.0], "image": None}
        if world is None:
            return sky
        sky["color"] = _rgb(world.color)
        tree = world.node_tree if world.use_nodes else None
        background = next((n for n in tree.nodes if n.type == "BACKGROUND"), None) if tree else None
        if background is None:
            return sky
        strength = float(background.inputs["Strength"].default_value)
        color = background.inputs["Color"]
        if color.is_linked:
            node = color.links[0].from_node
            if node.type == "TEX_ENVIRONMENT" and node.image is not None:
                sky["image"] = os.path.abspath(node.image.filepath_from_user())
                sky["color"] = [strength] * 3
                return sky
            self.warn(f"world: the {node.bl_label} node into the background is not mapped")
        sky["color"] = _rgb(color.default_value, strength)
        return sky
