// What a ray sees by itself: the emission of the surface it hits and the sky
// when it leaves the scene, each weighed against the light sampling that
// found the same light by a shadow ray.
#pragma once

#include "core/records.h"

// Emission at a shaded hit, Fresnel-weighted like a diffuse layer.
Color emission(const RayState& ray, const HitRecord& hit);
// The radiance of a ray that hit nothing.
Color missRadiance(const RayState& ray);

// The share of an emitter's radiance that a ray counts, given how the path
// reached it: 1 for paths that no light sample covers, 0 for those that the
// samples or the photons carry, the balance heuristic in between.
float emissionWeight(const RayState& ray, const HitRecord& hit);
