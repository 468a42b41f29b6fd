// The four scattering lobes of a surface layer, which continue a path through
// the radiance function, and the small formulas that direct lighting and
// photon scattering share with them.
#pragma once

#include <cstdint>

#include "core/records.h"
#include "core/sequence.h"

// The unit square onto the unit disc by the concentric map.
void concentricDisc(float a, float b, float& x, float& y);
// Cosine-distributed direction above the hit's frame, and its twin below.
Vector cosineHemisphere(const HitRecord& hit, const SequenceSampler& sampler);
Vector cosineHemisphereBelow(const HitRecord& hit, const SequenceSampler& sampler);
// A half vector drawn from the anisotropic lobe of the hit's roughness.
Vector sampleHalfVector(const HitRecord& hit, const SequenceSampler& sampler);
// The value of the half-vector lobe for the directions a and b in the hit's
// frame and roughness (the caller multiplies by 4 pi where it needs to).
float halfVectorLobe(Vector a, Vector b, const HitRecord& hit);
// The direction refracted about `normal` with the cosine `cosine` of the
// incident side; false on total internal reflection.
bool refractDirection(Vector direction, Vector normal, float eta, float cosine, Vector& refracted);
// The direction through a specular layer of a solid (bent about the normal)
// or a thin sheet (straight on); false on total internal reflection.
bool specularTransmission(const RayState& ray, const HitRecord& hit, Vector& d);

// A second point on the same surface near the hit, from which a diffusion
// ray leaves, with the colour weight of the draw.
struct DiffusionPoint {
    HitRecord hit;
    Color weight;
    uint32_t primitive;
    uint8_t kind;
    const Part* part;
    uint64_t path;
};
// Draws until a chord finds the same shader; false only when the surface
// cannot be found around the hit at all.
bool drawDiffusionPoint(const RayState& ray, const HitRecord& hit, DiffusionPoint& point);

// The rays that the lobe of class `tag` (lambertian, diffuse transmission or
// glossy reflection) fires from this hit over all frames: its first-hit
// split's total, one past the first hit while the bounce budget lasts, and
// none when the class is absent or too dim. Light samples weigh themselves
// against these counts.
uint32_t lobeRays(const RayState& ray, const HitRecord& hit, uint8_t tag);

// The lobes: each returns the radiance it gathers, without the layer colour.
Color lambertianLobe(const RayState& ray, const HitRecord& hit);
Color transmissiveLobe(const RayState& ray, const HitRecord& hit);
Color glossyLobe(const RayState& ray, const HitRecord& hit);
Color specularLobe(const RayState& ray, const HitRecord& hit);

// The photons' estimate of the light that arrives at a diffuse hit.
Color photonEstimate(const RayState& ray, const HitRecord& hit);
