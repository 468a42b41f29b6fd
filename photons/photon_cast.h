// The photon casts of the renderer's preparation: each light kind shoots its
// photons once, in a parallel loop, into the scattering step.
#pragma once

#include <cstdint>

#include "core/records.h"

// The casts, each with a pass number that offsets the photon index by
// pass × count. The preparation passes 0.
void CastPhotonsFromParallelLights(uint32_t pass);
void CastPhotonsFromPointLights(uint32_t pass);
void CastPhotonsFromGeometryLight(uint32_t pass);
void CastPhotonsFromSky(uint32_t pass);
// The ray of photon `index` of `count` from the root's emissive faces, and
// of photon `index` from the sky; a photon of zero power is not traced.
void emitGeometryLightPhoton(RayState& ray, uint64_t index, uint64_t count);
void emitSkyPhoton(RayState& ray, uint64_t index);
// All four, in the order parallel lights, point lights, geometry light, sky.
void castPhotons();
