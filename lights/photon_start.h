// The start of a photon's path, shared by the lights that emit photons.
#pragma once

#include "core/registry.h"
#include "lights/lights.h"

// A photon ray with its counters cleared, the light's link in `parent_hit`
// (read by the first scattering), the light's index of refraction, and the
// thread's terminator offset set to the light's. The caller keeps the thread
// number it set and fills origin, direction and power.
inline void startPhoton(RayState& ray, const DeltaLight& light, float offset, uint32_t index, uint32_t dimension) {
    const uint8_t thread = ray.thread;
    ray = freshRay();
    ray.thread = thread;
    ray.sample_index = index;
    ray.dimension = dimension;
    ray.parent_hit = &light.link;
    ray.ior = light.ior;
    ray.photon_path = 1;
    ray.caustic = 1;
    ray.split = 1;
    registry.threadOffset[thread] = offset;
}
