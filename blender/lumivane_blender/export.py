"""File > Export > lumivane scene: the evaluated scene as a scene directory."""

import bpy
from bpy.props import StringProperty

from .files import write_scene
from .translate import Translation


class LUMIVANE_OT_export(bpy.types.Operator):
    """Write the scene as a lumivane scene directory"""

    bl_idname = "export_scene.lumivane"
    bl_label = "Export lumivane Scene"
    bl_options = {"REGISTER"}

    directory: StringProperty(name="Directory", subtype="DIR_PATH")
    filter_folder: bpy.props.BoolProperty(default=True, options={"HIDDEN"})

    def execute(self, context):
        if not self.directory:
            self.report({"ERROR"}, "lumivane: no directory given")
            return {"CANCELLED"}
        translation = Translation(context.evaluated_depsgraph_get(), context.scene)
        description = translation.describe()
        for shader in description["shaders"]:
            if shader["solid"]:
                translation.warn(f"material {shader['name']}: scene files have no refracting solid; "
                                 "written as frosted glass")
        for warning in translation.warnings:
            self.report({"WARNING"}, "lumivane: " + warning)
        try:
            written = write_scene(description, self.directory)
        except OSError as error:
            self.report({"ERROR"}, f"lumivane: cannot write {self.directory}: {error}")
            return {"CANCELLED"}
        self.report({"INFO"}, f"lumivane: {len(written)} files written to {self.directory}")
        return {"FINISHED"}

    def invoke(self, context, event):
        context.window_manager.fileselect_add(self)
        return {"RUNNING_MODAL"}


def menu_entry(self, context):
    self.layout.operator(LUMIVANE_OT_export.bl_idname, text="lumivane scene (.lv directory)")
