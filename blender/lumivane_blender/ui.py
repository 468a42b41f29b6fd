"""The lumivane panel of the Render properties."""

import bpy


class LUMIVANE_PT_render(bpy.types.Panel):
    bl_label = "lumivane"
    bl_space_type = "PROPERTIES"
    bl_region_type = "WINDOW"
    bl_context = "render"
    COMPAT_ENGINES = {"LUMIVANE"}

    @classmethod
    def poll(cls, context):
        return context.engine in cls.COMPAT_ENGINES

    def draw(self, context):
        settings = context.scene.lumivane
        layout = self.layout
        layout.use_property_split = True
        for name in ("frames", "gather_rays", "bounce", "light_samples", "photons", "final_gathering"):
            layout.prop(settings, name)
        column = layout.column()
        column.enabled = settings.final_gathering
        column.prop(settings, "distance")
        column.prop(settings, "cell_size")
