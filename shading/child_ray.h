// The contract between the integrator and everything that continues a path
// (the lobes, light sampling, the photons' scattering): lobe tags, how a child
// ray is made from its parent, the first-hit split that spreads a lobe's or a
// light's samples over the frames, and the balance weights between them.
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

// Lobe tags of a ray: how it was made. Camera rays count as specular
// reflections.
inline constexpr uint8_t kTagLight = 1;
inline constexpr uint8_t kTagLambertian = 2;
inline constexpr uint8_t kTagDiffuseTransmission = 3;
inline constexpr uint8_t kTagGlossyReflection = 4;
inline constexpr uint8_t kTagGlossyTransmission = 5;
inline constexpr uint8_t kTagSpecularReflection = 6;
inline constexpr uint8_t kTagSpecularTransmission = 7;
// The class of a tag, named by its reflection tag: the reflection and the
// transmission of one class differ in the lowest bit alone.
inline constexpr uint8_t lobeClass(uint8_t tag) { return tag & 0xFEu; }

// True when all three channels are at or below the cut-off.
inline bool belowCutoff(Color c) { return c.x <= 0.0009765625f && c.y <= 0.0009765625f && c.z <= 0.0009765625f; }

// A child of `parent` leaving `hit` with lobe tag `tag`: origin at the hit,
// one level deeper, the parent's hit (kind, index, part and instance chain)
// as the surface it must not meet again, no hit yet. Direction, throughput,
// counters and the sequence position are the caller's.
RayState childRay(const RayState& parent, const HitRecord& hit, uint8_t tag);

// The diffuse and glossy bounces behind a ray: 0 at the first hit, where
// lobes and lights split their samples over the frames.
inline int pathBounces(const RayState& ray) { return ray.diffuse_bounces + ray.glossy_bounces; }

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
// True while the path may bounce once more.
bool withinBounceBudget(const RayState& ray);

// The samples that a lobe or a light takes at a hit. When `atSplit` (the
// first hit), this frame's share of `split`, each at its own index of the
// sequence, `share` being the split's rays a frame; else one at the path's
// own index with a share of 1, while the bounce budget lasts (`split` is
// read at the first hit only, so callers make it only there). Calls
// `take(index, share)` for each and returns how many it called: a child of
// the sample carries `index` and the parent's split times `share`.
template <typename Take>
uint32_t takeSamples(const RayState& ray, bool atSplit, const Split& split, Take take) {
    if (atSplit) {
        for (uint32_t k = 0; k < split.perFrame; ++k) take(splitIndex(split, k), split.perFrame);
        return split.perFrame;
    }
    if (!withinBounceBudget(ray)) return 0;
    take(ray.sample_index, 1u);
    return 1;
}

// The balance heuristic: the weight of a strategy that takes n samples of
// density p of an event that another strategy takes m samples of, of density
// q. The weights of the two strategies for one event add up to one, so that
// light found both by light samples and by bounces is counted once.
inline float balanceWeight(float n, float p, float m, float q) { return n * p / (n * p + m * q); }
