// Light that reaches a shading point straight from the lights, as a lobe
// bundle: geometry light, sky, then point and parallel lights.
#pragma once

#include "core/records.h"
#include "shading/child_ray.h"

LobeBundle geometryDirect(const RayState& ray, const HitRecord& hit);
LobeBundle skyDirect(const RayState& ray, const HitRecord& hit);
LobeBundle gafferDirect(const RayState& ray, const HitRecord& hit);

// What sizes the first hit's share of every light's samples (the hit's
// `light_weight`): the largest mean colour of the classes that take light,
// over 3, times the sum of the ray's throughput.
float lightWeight(const RayState& ray, const HitRecord& hit);

// The three sources in their order, summed.
LobeBundle directLight(const RayState& ray, const HitRecord& hit);
