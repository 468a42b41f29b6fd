// Output images beside the beauty image: what the primary hit sees (camera
// AOVs), what each light contributed by lobe (light AOVs), and the photons'
// paths seen straight from the camera (the light-path channel). Every write
// adds in place, already divided by the path's split, so an image is
// meaningful at any moment of the render.
#pragma once

#include <vector>

#include "core/records.h"
#include "render/child_ray.h"

// Sizes an AOV's image (three zeroed float channels) and resolves its shader
// filter: the last shader of that name, or -1 for none.
void prepareAov(Aov& aov, int width, int height);
// Prepares light AOVs at the size of the camera that will render.
void prepareLightAovs(std::vector<Aov>& aovs);

// Adds `value` x throughput / split at the ray's pixel.
void addToAov(Aov& aov, const RayState& ray, Color value);

// What the primary hit writes into the current camera's AOVs.
void writeCameraAovs(const RayState& ray, const HitRecord& hit, const LobeBundle& bundle, Color emitted);
// One light's direct contribution at a hit, into that light's AOVs by lobe
// bit, times the surface colours.
void writeLightAovs(std::vector<Aov>& aovs, const RayState& ray, const HitRecord& hit, const LobeBundle& bundle);
// Emission found by a ray, into the geometry light's AOVs of the ray's lobe.
void writeGeometryLightAovs(const RayState& ray, Color emitted);

// Connects a photon at a glossy hit to the camera's light-path AOVs: `color`
// is the photon's power times the glossy colour of the hit.
void connectPhotonToCamera(const RayState& ray, const HitRecord& hit, Color color);
