// The scattering lobes of a surface layer: the directions they pick with
// their weights, their values, refraction, the diffusion point and the rays
// they fire. Camera paths (through the integrator), light sampling and the
// photons' scattering all draw on these; none of it traces a ray.
#pragma once

#include <cstdint>

#include "core/records.h"
#include "core/sequence.h"
#include "shading/child_ray.h"

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

// The throughput that the lobe of class `tag` (lambertian, diffuse
// transmission or glossy reflection) carries into its rays, before the
// ray's own weights. A fibre's lambertian part has no Fresnel term.
Color lobeThroughput(const RayState& ray, const HitRecord& hit, uint8_t tag);
// The first-hit split of the lobe of class `tag` that carries `t`.
Split lobeSplit(const RayState& ray, const HitRecord& hit, uint8_t tag, Color t);
// The rays that the lobe of class `tag` (lambertian, diffuse transmission or
// glossy reflection) fires from this hit over all frames: its first-hit
// split's total, one past the first hit while the bounce budget lasts, and
// none when the class is absent or too dim. Light samples weigh themselves
// against these counts.
uint32_t lobeRays(const RayState& ray, const HitRecord& hit, uint8_t tag);

// A direction that a lobe picked: the weight that the child's throughput and
// the radiance it brings back both take, its lobe tag, and for a fibre's
// glossy ray the hair lobe that drew it.
struct LobeRay {
    Vector direction;
    Color weight;
    uint8_t tag;
    int hairLobe = -1;
};
// A diffuse ray from `from` at the sampler's numbers: cosine-distributed
// above the frame, or below it for diffuse transmission; false when it
// leaves on the wrong side of the geometric surface, which a fibre
// (`anySide`) does not have.
bool diffuseRay(const HitRecord& from, const SequenceSampler& sampler, bool below, bool anySide, LobeRay& r);
// A fibre's glossy ray, drawn by the hair model at sequence index `index`.
LobeRay fibreRay(const RayState& ray, const HitRecord& hit, uint32_t index);
// The rays of the glossy half vector h, or of the specular layer: refracted
// (through a solid layer, or a thin sheet for the specular one) first, then
// reflected, each with its Fresnel weight. A refracted ray is kept only when
// it leaves more than `margin` below the geometric surface, a reflected one
// above it. Returns how many rays it wrote.
int glossyRays(const RayState& ray, const HitRecord& hit, Vector h, float margin, LobeRay rays[2]);
int specularRays(const RayState& ray, const HitRecord& hit, float margin, LobeRay rays[2]);
// The child that a lobe ray makes with throughput `t` times the ray's
// weight: one more bounce of its class, two more dimensions of the sequence
// for the classes that draw from it, the index beyond a refraction. Through
// a thin sheet a path keeps its parent and its class.
RayState lobeChild(const RayState& ray, const HitRecord& hit, const LobeRay& r, Color t);
