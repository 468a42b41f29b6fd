// The radiance that a ray carries back along its path: the recursive
// function at the heart of the renderer. The child-ray rules that it shares
// with the lobes, light sampling and the photons come with it.
#pragma once

#include "shading/child_ray.h"

Color radiance(RayState& ray);
