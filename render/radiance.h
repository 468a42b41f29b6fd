// The radiance that a ray carries back along its path: the recursive
// function at the heart of the renderer, declared with the child-ray rules
// that it shares with the lobes and light sampling.
#pragma once

#include "render/child_ray.h"
