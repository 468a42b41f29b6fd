// Occlusion along a shadow ray: not a yes or no, but the product of what
// every surface on the way lets through.
#pragma once

#include "core/records.h"
#include "geometry/traversal.h"

// The shadow ray of a hit: a light-sampling child that starts at the hit,
// counts as a first ray for visibility and skips the surface it leaves.
RayState shadowRay(const RayState& ray, const HitRecord& hit);

// Walks the segment of length `t` from `shadow`'s origin along its direction
// and returns what gets through; the ray's throughput holds the same. Counts
// one shadow ray for the thread.
Color occlusion(RayState& shadow, float t);

// What one surface met by a shadow ray lets through: the product over the
// layers of its side of the evaluated `shadow_transparency`, or for a thin
// sheet of its specular colour less the reflections at both faces.
Color shadowFactor(const RayState& ray, const ShadowHit& hit);
