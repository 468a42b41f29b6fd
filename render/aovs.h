// Output images beside the beauty image: what the primary hit sees (camera
// AOVs) and what each light contributed by lobe (light AOVs). Every write
// adds in place, already divided by the path's split, so an image is
// meaningful at any moment of the render.
#pragma once

#include <vector>

#include "core/records.h"
#include "shading/child_ray.h"

// Adds `value` x throughput / split at the ray's pixel.
void addToAov(Aov& aov, const RayState& ray, Color value);

// What the primary hit writes into the current camera's AOVs.
void writeCameraAovs(const RayState& ray, const HitRecord& hit, const LobeBundle& bundle, Color emitted);
// One light's direct contribution at a hit, into that light's AOVs by lobe
// bit, times the surface colours.
void writeLightAovs(std::vector<Aov>& aovs, const RayState& ray, const HitRecord& hit, const LobeBundle& bundle);
// Emission found by a ray, into the geometry light's AOVs of the ray's lobe.
void writeGeometryLightAovs(const RayState& ray, Color emitted);
