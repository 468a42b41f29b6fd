#include "render/radiance.h"

// Black until the scene can be intersected and shaded.
Color radiance(RayState&) { return zero; }
