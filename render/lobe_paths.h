// The lobes of a camera path: each traces the rays that its lobe picks at a
// hit through `radiance` and returns the radiance they bring back, without
// the layer colour.
#pragma once

#include "core/records.h"

Color lambertianLobe(const RayState& ray, const HitRecord& hit);
Color transmissiveLobe(const RayState& ray, const HitRecord& hit);
Color glossyLobe(const RayState& ray, const HitRecord& hit);
Color specularLobe(const RayState& ray, const HitRecord& hit);
