// A photon's way through the scene: at every hit it may be stored as a
// caustic, deposit into the density estimator's cells, and it continues
// down every scattering class of the surface at once, its energy split by
// the class colours.
#pragma once

#include "core/records.h"

// Follows the photon `ray` from its origin until its depth or its
// throughput ends it.
void tracePhoton(RayState& ray);
// The photon shaded at its closest hit, with the four class colours read.
void shadePhotonHit(const RayState& ray, HitRecord& hit);
