"""lumivane inside Blender: a render engine that renders the scene with the
lumivane library in a child process, and an exporter of scene directories."""

bl_info = {
    "name": "lumivane",
    "description": "The lumivane renderer as a render engine, and an exporter of lumivane scene directories",
    "author": "the lumivane developers",
    "version": (0, 1, 0),
    "blender": (3, 4, 0),
    "location": "Render Properties > Render Engine; File > Export > lumivane scene",
    "category": "Render",
}

import bpy  # noqa: E402

from . import engine, export, properties, ui  # noqa: E402

CLASSES = (properties.LumivaneSettings, engine.LumivaneRenderEngine, ui.LUMIVANE_PT_render,
           export.LUMIVANE_OT_export)
# Blender's own panels of output, dimensions and passes, shown for this engine too.
SHARED_PANELS = ("RENDER_PT_format", "RENDER_PT_frame_range", "RENDER_PT_output", "VIEWLAYER_PT_layer_passes",
                 "VIEWLAYER_PT_layer_passes_data", "DATA_PT_light", "DATA_PT_lens", "DATA_PT_camera",
                 "MATERIAL_PT_preview", "EEVEE_MATERIAL_PT_surface", "WORLD_PT_context_world",
                 "EEVEE_WORLD_PT_surface", "DATA_PT_EEVEE_light")


def _shared_panels():
    for name in SHARED_PANELS:
        panel = getattr(bpy.types, name, None)
        if panel is not None and hasattr(panel, "COMPAT_ENGINES"):
            yield panel


def register():
    for cls in CLASSES:
        bpy.utils.register_class(cls)
    bpy.types.Scene.lumivane = bpy.props.PointerProperty(type=properties.LumivaneSettings)
    bpy.types.TOPBAR_MT_file_export.append(export.menu_entry)
    for panel in _shared_panels():
        panel.COMPAT_ENGINES.add(engine.LumivaneRenderEngine.bl_idname)


def unregister():
    for panel in _shared_panels():
        panel.COMPAT_ENGINES.discard(engine.LumivaneRenderEngine.bl_idname)
    bpy.types.TOPBAR_MT_file_export.remove(export.menu_entry)
    del bpy.types.Scene.lumivane
    for cls in reversed(CLASSES):
        bpy.utils.unregister_class(cls)
