// The contract between the integrator and everything that continues a path
// (the lobes, light sampling, the photons' scattering): lobe tags, how a child
// ray is made from its parent, and the first-hit split that spreads a lobe's
// or a light's samples over the frames. A child is traced with `radiance`.
#pragma once

#include <cstdint>

#include "core/records.h"

// One colour for each lobe class, in the order lambertian, transmissive,
// glossy, specular.
struct LobeBundle {
    Color lambertian{0.0f, 0.0f, 0.0f};
    Color transmissive{0.0f, 0.0f, 0.0f};
    Color glossy{0.0f, 0.0f, 0.0f};
    Color specular{0.0f, 0.0f, 0.0f};
};

inline LobeBundle& operator+=(LobeBundle& a, const LobeBundle& b) {
    a.lambertian += b.lambertian;
    a.transmissive += b.transmissive;
    a.glossy += b.glossy;
    a.specular += b.specular;
    return a;
}

inline LobeBundle operator*(const LobeBundle& a, float s) {
    return {a.lambertian * s, a.transmissive * s, a.glossy * s, a.specular * s};
}

// Lobe tags of a ray: how it was made.
inline constexpr uint8_t kTagLight = 1;
inline constexpr uint8_t kTagLambertian = 2;
inline constexpr uint8_t kTagDiffuseTransmission = 3;
inline constexpr uint8_t kTagGlossyReflection = 4;
inline constexpr uint8_t kTagGlossyTransmission = 5;
inline constexpr uint8_t kTagSpecularReflection = 6;
inline constexpr uint8_t kTagSpecularTransmission = 7;

// The radiance that a ray carries back along its path.
Color radiance(RayState& ray);

// True when all three channels are at or below the cut-off.
inline bool belowCutoff(Color c) { return c.x <= 0.0009765625f && c.y <= 0.0009765625f && c.z <= 0.0009765625f; }

// A child of `parent` leaving `hit` with lobe tag `tag`: origin at the hit,
// one level deeper, the parent's hit (kind, index, part and instance chain)
// as the surface it must not meet again, no hit yet. Direction, throughput,
// counters and the sequence position are the caller's.
RayState childRay(const RayState& parent, const HitRecord& hit, uint8_t tag);

// The first-hit split of a lobe or a light: `total` indices over all frames,
// of which `perFrame` are fired in this frame.
struct Split {
    uint32_t total;
    uint32_t perFrame;
};
// From the mean weight w of the lobe and its budget: n = int(w * budget),
// at most the budget, at least the camera's sample, a multiple of it.
Split firstHitSplit(float weight, int budget);
// The camera's sample count: a split's rays are spread over that many frames.
uint32_t cameraSample();
// The sequence index of ray `k` of this frame's share of a split. The shares
// of the frames follow one another, so that the rays fired by any number of
// frames hold the first indices of the sequence, and the c frames of the
// image use each index below the split's total once.
uint32_t splitIndex(const Split& split, uint32_t k);
// The samples that a first hit takes over all frames of a light of budget
// `budget`, by the hit's `light_weight`.
uint32_t firstHitLightSamples(const HitRecord& hit, int budget);
