"""The render settings of the Render properties, kept on the scene."""

import bpy
from bpy.props import BoolProperty, FloatProperty, IntProperty


class LumivaneSettings(bpy.types.PropertyGroup):
    frames: IntProperty(name="Frames", description="Passes over the image, each adding to the running mean",
                        default=16, min=1, max=65535)
    gather_rays: IntProperty(name="Gather Rays", description="Rays that a first hit's lobes fire over all frames",
                             default=64, min=1, max=65535)
    bounce: IntProperty(name="Bounces", description="Diffuse and glossy bounces of a path", default=4, min=0, max=64)
    final_gathering: BoolProperty(name="Final Gathering",
                                  description="Read the photons' cells where a gather ray lands far enough away",
                                  default=False)
    distance: FloatProperty(name="Distance", description="A gather ray longer than this reads a cell",
                            default=0.3, min=0.0001, unit="LENGTH")
    cell_size: FloatProperty(name="Cell Size", description="Area of one cell of the photons' density estimator",
                             default=0.004, min=1e-6)
    photons: IntProperty(name="Photons", description="Photons cast from emitting surfaces (and the sky)",
                         default=200000, min=0)
    light_samples: IntProperty(name="Light Samples", description="Shadow rays a first hit sends to each light",
                               default=16, min=0, max=65535)
