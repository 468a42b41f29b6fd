#include "render/direct_light.h"

#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "lights/geometry_light.h"
#include "lights/lights.h"
#include "lights/sky_light.h"
#include "render/aovs.h"
#include "shading/hair_scattering.h"
#include "shading/lobes.h"
#include "shading/occlusion.h"

namespace {

// A light's direct contribution, also added to its AOVs when it has any.
LobeBundle intoAovs(std::vector<Aov>& aovs, const RayState& ray, const HitRecord& hit, const LobeBundle& b) {
    if (!aovs.empty()) writeLightAovs(aovs, ray, hit, b);
    return b;
}

// Where one light sample is taken from: the hit itself, or a point that the
// diffusion draw found beside it, with that draw's weight on the diffuse
// contributions.
struct SampleOrigin {
    const HitRecord* hit;
    Color weight;
    RayState shadow;
};

// Everything one light needs from the hit, gathered once per routine.
struct LightContext {
    const RayState& ray;
    const HitRecord& hit;
    bool hair;
    bool diffusion;   // each sample starts from a diffusion point
    int bounces;
};

// The number of samples that the first hit spends on a light of budget L:
// the first-hit split, driven by the hit's light weight.
Split lightBudget(const LightContext& c, int budget) { return firstHitSplit(c.hit.light_weight, budget); }

// The origin of a sample: with diffusion, a fresh point beside the hit whose
// shadow ray skips that point's surface; false when none was found.
bool sampleOrigin(const LightContext& c, DiffusionPoint& point, SampleOrigin& origin) {
    if (!c.diffusion) {
        origin = {&c.hit, one, shadowRay(c.ray, c.hit)};
        return true;
    }
    if (!drawDiffusionPoint(c.ray, c.hit, point)) return false;
    origin = {&point.hit, point.weight, shadowRay(c.ray, point.hit)};
    origin.shadow.previous_primitive = point.primitive;
    origin.shadow.previous_kind = point.kind;
    origin.shadow.previous_part = point.part;
    origin.shadow.previous_path = point.path;
    return true;
}

// What a delta light of colour `color`, seen in the unit direction `l`,
// adds to the lobes once `scale` (spot factor over squared distance, or 1)
// is applied: the lambertian, transmissive and glossy weights decide before
// the shadow ray is spent. `offset` is the terminator offset of the light,
// used by single samples; the split path weighs by the plain cosine.
// `gateShadow` ends a sample whose shadow ray found nothing getting through.
LobeBundle deltaSample(const LightContext& c, SampleOrigin& origin, Vector l, float t, Color color, float scale,
                       float offset, bool split, bool gateShadow) {
    LobeBundle b;
    const HitRecord& from = *origin.hit;
    origin.shadow.direction = l;
    if (c.hair) {
        const Color T = occlusion(origin.shadow, t);
        if (gateShadow && belowCutoff(T)) return b;
        const Color E = T * color * (kPi * scale);
        if (c.hit.has_lambertian) b.lambertian = E * EvaluateDiffuseHair(from.out_direction, l, from.tangent);
        if (c.hit.has_glossy) {
            const HairLobes lobes = hairLobesAt(c.ray, from, l);
            b.glossy = E * (lobes.value[0] + lobes.value[1] + lobes.value[2]);
        }
        return b;
    }
    const float u = dot(l, from.normal);
    float A = 0.0f, B = 0.0f, G = 0.0f;
    if (c.hit.has_lambertian) A = split ? u : (u - offset) / (1.0f - offset);
    if (c.hit.has_transmissive) B = split ? -u : -(u + offset) / (1.0f - offset);
    if (c.hit.has_glossy) G = u * halfVectorLobe(from.out_direction, l, from);
    if (!(A > 0.0f) && !(B > 0.0f) && !(G > 0.0f)) return b;

    const Color T = occlusion(origin.shadow, t);
    if (gateShadow && belowCutoff(T)) return b;
    const Color E = T * color * scale;
    const Color diffuse = E * (c.hit.fresnel_complement) * origin.weight;
    if (A > 0.0f) b.lambertian = diffuse * A;
    if (B > 0.0f) b.transmissive = diffuse * B;
    if (G > 0.0f) b.glossy = E * (G * c.hit.fresnel * kFourPi);
    return b;
}

// The samples of one light of budget `budget`: split over the frames at the
// first hit when `spread` (a light with an extent) or the hit diffuses, else
// one sample below the bounce budget. `sample(index, origin, total)` takes
// one; `total` is the split's count, or 0 for a single sample.
template <typename Sample>
LobeBundle sampleLight(const LightContext& c, int budget, bool spread, Sample sample) {
    LobeBundle sum;
    DiffusionPoint point;
    SampleOrigin origin;
    const bool atSplit = c.bounces == 0 && (spread || c.diffusion);
    const Split split = atSplit ? lightBudget(c, budget) : Split{};
    const uint32_t n = takeSamples(c.ray, atSplit, split, [&](uint32_t index, uint32_t) {
        if (sampleOrigin(c, point, origin)) sum += sample(index, origin, atSplit ? split.total : 0u);
    });
    return n > 1 ? sum * (1.0f / float(n)) : sum;
}

// The number that picks a light's point or texel for sample `index` of
// `total` (0 past the first hit). A first hit that takes one sample a frame
// draws it with the pixel's jitter.
float lightPick(const RayState& ray, uint32_t index, uint32_t total, SequenceUse use) {
    if (total == cameraSample() && ray.dimension == 0) return drawWithJitter(ray.sequence_key, index, use);
    return drawOne({ray.sequence_key, index, ray.dimension}, use);
}

// Two numbers of the ray's sequence at `index` for a light's event.
inline void lightNumbers(const RayState& ray, uint32_t index, SequenceUse use, float& a, float& b) {
    drawPair(SequenceSampler{ray.sequence_key, index, ray.dimension}, use, a, b);
}

LobeBundle pointDirect(const LightContext& c, const PointLight& light) {
    if (!linkAllows(light.link, c.ray.shader)) return {};
    return sampleLight(c, light.sample, light.blur > 0.0f, [&](uint32_t index, SampleOrigin& origin, uint32_t total) {
        Vector target = light.position;
        if (light.blur > 0.0f) {
            float a, b;
            lightNumbers(c.ray, index, kUsePointLight, a, b);
            const float s = 2.0f * guardedLength(b * (1.0f - b));
            target += Vector{s * std::cos(kTwoPi * a), s * std::sin(kTwoPi * a), 1.0f - 2.0f * b} * light.blur;
        }
        const Vector v = target - origin.hit->position;
        const float d2 = dot(v, v);
        const float t = std::sqrt(d2);
        const Vector l = v / t;
        const float s = spotWeight(light, -l);
        if (s == 0.0f) return LobeBundle{};
        // The gate after occlusion reads the ray's own throughput, which is
        // alive here: a nearly blocked sample still adds its little.
        return deltaSample(c, origin, l, t, light.color, s / d2, light.offset, total > 0, false);
    });
}

LobeBundle parallelDirect(const LightContext& c, const ParallelLight& light) {
    if (!linkAllows(light.link, c.ray.shader)) return {};
    return sampleLight(c, light.sample, light.blur > 0.0f, [&](uint32_t index, SampleOrigin& origin, uint32_t total) {
        Vector l = -light.axis();
        if (light.blur > 0.0f) {
            float a, b;
            lightNumbers(c.ray, index, kUseParallelLight, a, b);
            l = -coneDirection(light.frame, light.blurCosine, a, b);
        }
        return deltaSample(c, origin, l, kInfinity, light.color, 1.0f, light.offset, total > 0, true);
    });
}

LightContext lightContext(const RayState& ray, const HitRecord& hit) {
    const Color d = hit.diffusion;
    return {ray, hit, ray.kind == kCylinder,
            hit.has_diffusion && std::min(d.x, std::min(d.y, d.z)) > 0.0f &&
                (ray.kind == kTriangle || ray.kind == kTetragon),
            ray.diffuse_bounces + ray.glossy_bounces};
}

// Whether a direction with cosines a (shading normal) and g (geometric
// normal) can light a class the surface has: reflection above, diffuse
// transmission below. Fibres take light from everywhere.
bool reachesAClass(const LightContext& c, float a, float g) {
    if (c.hair) return true;
    const bool above = a > 0.0f && g > 0.0f, below = a < 0.0f && g < 0.0f;
    return (c.hit.has_lambertian && above) || (c.hit.has_transmissive && below) || (c.hit.has_glossy && above);
}

// The rays that the hit's lobes fire over all frames, by class: what a light
// sample weighs itself against.
struct LobeCounts {
    float lambertian, transmissive, glossy;
    LobeCounts operator*(float s) const { return {lambertian * s, transmissive * s, glossy * s}; }
};
LobeCounts lobeCounts(const LightContext& c) {
    return {float(lobeRays(c.ray, c.hit, kTagLambertian)), float(lobeRays(c.ray, c.hit, kTagDiffuseTransmission)),
            float(lobeRays(c.ray, c.hit, kTagGlossyReflection))};
}

// A sample of an emitter or the sky, weighed against the lobes that could
// have found the same light: R is the radiance already divided by the
// light's density and multiplied by the cosine at the surface; `pl` the
// light's density times the samples the hit takes of it, and `nb` the rays
// of each lobe. Lambertian and transmissive lobes have the density |a| / pi,
// the glossy lobe its half-vector value.
LobeBundle balancedSample(const LightContext& c, const SampleOrigin& origin, Vector l, float a, Color R, float pl,
                          const LobeCounts& nb) {
    LobeBundle b;
    const float pd = a * kInvPi;
    const Color diffuse = R * c.hit.fresnel_complement * origin.weight;
    if (c.hit.has_lambertian && a > 0.0f) b.lambertian = diffuse * balanceWeight(1.0f, pl, nb.lambertian, pd);
    if (c.hit.has_transmissive && a < 0.0f) b.transmissive = diffuse * balanceWeight(1.0f, pl, nb.transmissive, -pd);
    if (c.hit.has_glossy && a > 0.0f) {
        const float v = halfVectorLobe(origin.hit->out_direction, l, *origin.hit);
        b.glossy = R * (v * kFourPi * c.hit.fresnel * balanceWeight(1.0f, pl, nb.glossy, v));
    }
    return b;
}

// A fibre lit from `l`: the diffuse part and the three lobes, each weighed
// against its own sampling density.
LobeBundle balancedHairSample(const LightContext& c, const SampleOrigin& origin, Vector l, Color R, float pl,
                              const LobeCounts& nb) {
    LobeBundle b;
    const HitRecord& from = *origin.hit;
    if (c.hit.has_lambertian) {
        const float v = EvaluateDiffuseHair(from.out_direction, l, from.tangent);
        b.lambertian = R * (v * balanceWeight(1.0f, pl, nb.lambertian, v));
    }
    if (c.hit.has_glossy) {
        const HairLobes lobes = hairLobesAt(c.ray, from, l);
        for (int k = 0; k < kHairLobes; ++k)
            b.glossy += lobes.value[k] * R * balanceWeight(1.0f, pl, nb.glossy, lobes.density[k]);
    }
    return b;
}

}  // namespace

// The fixed point set on the emitters, drawn by power. Every sample is
// weighed against the lobes by the balance heuristic, as emission found by
// a bounce is (see emission.cpp), so that the two add up to one.
LobeBundle geometryDirect(const RayState& ray, const HitRecord& hit) {
    const GeometryLightValues& light = registry.geometryLight;
    if (!(light.totalArea > 0.0f) || light.sample <= 0 || !linkAllows(registry.geometryLightLink, ray.shader))
        return {};
    const LightContext c = lightContext(ray, hit);
    const LobeCounts nb = lobeCounts(c);
    const Distribution& points = registry.geometryLightDistribution;
    return sampleLight(c, light.sample, true, [&](uint32_t index, SampleOrigin& origin, uint32_t total) {
        const int k = sample(points, lightPick(ray, index, total, kUseGeometryLight));
        const GeometryLightPoint& q = registry.geometryLightPoints[size_t(k)];
        const float p = probability(points, k);
        const HitRecord& from = *origin.hit;
        const Vector v = q.position - from.position;
        const float d2 = dot(v, v), distance = std::sqrt(d2);
        const Vector l = v / distance;
        const float cosLight = -dot(l, normalized(q.normal));
        if (!(cosLight > 0.0f)) return LobeBundle{};
        const float a = dot(l, from.normal);
        if (!reachesAClass(c, a, dot(l, from.geometric_normal))) return LobeBundle{};
        // The shadow ray must stop neither on the emitter's own face nor on
        // the surface it leaves. It keeps skipping the surface it leaves (on
        // a fibre, the fibre's segment, whose lobes hold the light that
        // crosses it) and ends just short of the emitter. Skipping the
        // emitter's face in its place would let a slanted face shadow its
        // own points, where the hit lies a rounding error behind the plane
        // and the light comes in at a grazing angle.
        origin.shadow.direction = l;
        const float reach = distance * 0.9999f;
        const Color T = occlusion(origin.shadow, reach);
        if (belowCutoff(T)) return LobeBundle{};
        // Weighed by the samples that each side really takes at this hit.
        const float nl = total ? float(total) : 1.0f;
        const float pl = nl * d2 / (cosLight * light.totalArea);
        const float toLight = cosLight / (d2 * float(kGeometryLightPoints) * p);
        if (c.hair) return balancedHairSample(c, origin, l, T * q.power * (kPi * toLight), pl, nb);
        // A point's power is its radiance times the whole emitting area over
        // pi, so power |a| cos / d^2 over the point's share of the set is the
        // estimate of the cosine-weighted mean of the incoming radiance that
        // the lambertian bounces also estimate.
        return balancedSample(c, origin, l, a, T * q.power * (std::fabs(a) * toLight), pl, nb);
    });
}

// Texels of the sky's cube, drawn by their radiance: at the first hit the
// light budget's split, past it one sample.
LobeBundle skyDirect(const RayState& ray, const HitRecord& hit) {
    const SkyLightValues& sky = registry.skyLight;
    if (sky.sample < 1 || !linkAllows(registry.skyLightLink, ray.shader)) return {};
    const LightContext c = lightContext(ray, hit);
    const LobeCounts nb = lobeCounts(c);
    const Distribution& texels = skyDistribution();
    const LobeBundle b = sampleLight(c, sky.sample, true, [&](uint32_t index, SampleOrigin& origin, uint32_t total) {
        const uint32_t code = skyTexelOfEntry(uint32_t(sample(texels, lightPick(ray, index, total, kUseSkyTexel))));
        float s, t;
        lightNumbers(ray, index, kUseSkyPosition, s, t);
        const Vector l = cubeDirection(code >> 16, float(code & 0xFF) + s, float((code >> 8) & 0xFF) + t);
        const HitRecord& from = *origin.hit;
        const float a = dot(l, from.normal);
        if (!reachesAClass(c, a, dot(l, from.geometric_normal))) return LobeBundle{};
        origin.shadow.direction = l;
        const Color T = occlusion(origin.shadow, kInfinity);
        if (belowCutoff(T)) return LobeBundle{};
        const Color radiance = skyRadiance(l);
        // The density of the draw per steradian. A sample past the first hit
        // counts as a split of one: like every light sample it carries its
        // shadow ray's throughput, as the path's own throughput is applied by
        // the lobes that led here. Against a surface's lobes the weights
        // count the draw twice against half their rays, against a fibre's
        // once.
        const float P = skyDensity(code);
        if (P <= 1e-8f) return LobeBundle{};
        const float Q = float(total ? total : 1u) * P;
        if (c.hair) return balancedHairSample(c, origin, l, radiance / P * T, Q, nb);
        return balancedSample(c, origin, l, a, radiance / P * (std::fabs(a) * kInvPi) * T, Q, nb * 0.5f);
    });
    return intoAovs(registry.skyLightAOVs, ray, hit, b);
}

LobeBundle gafferDirect(const RayState& ray, const HitRecord& hit) {
    LobeBundle sum;
    if (registry.pointLights.empty() && registry.parallelLights.empty()) return sum;
    const LightContext c = lightContext(ray, hit);
    for (PointLight& light : registry.pointLights) sum += intoAovs(light.aovs, ray, hit, pointDirect(c, light));
    for (ParallelLight& light : registry.parallelLights)
        sum += intoAovs(light.aovs, ray, hit, parallelDirect(c, light));
    return sum;
}

float lightWeight(const RayState& ray, const HitRecord& hit) {
    float M = 0.0f;
    if (hit.has_lambertian) M = std::max(M, mean(hit.lambertian));
    if (hit.has_transmissive) M = std::max(M, mean(hit.transmissive));
    if (hit.has_glossy) M = std::max(M, mean(hit.glossy));
    const Color T = ray.throughput;
    return M / 3.0f * (T.x + T.y + T.z);
}

LobeBundle directLight(const RayState& ray, const HitRecord& hit) {
    LobeBundle bundle = geometryDirect(ray, hit);
    bundle += skyDirect(ray, hit);
    bundle += gafferDirect(ray, hit);
    return bundle;
}
