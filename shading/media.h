// The attenuation of a ray's radiance by the medium it ran through.
#pragma once

#include "core/records.h"

// The colour times pow(T, t) per channel: T of the hit shader's medium when
// the ray's index differs from the camera's (it ran inside a body), else of
// the sky's medium, the scene's air.
Color attenuate(const RayState& ray, Color c);
