#include "render/direct_light.h"

#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/registry.h"
#include "lights/lights.h"
#include "render/occlusion.h"
#include "shading/hair_scattering.h"
#include "shading/lobes.h"

namespace {

inline float mean(Color c) { return (c.x + c.y + c.z) / 3.0f; }

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
// the first-hit split, driven by the brightest class that can take light.
Split lightBudget(const LightContext& c, int budget) {
    float M = 0.0f;
    if (c.hit.has_lambertian) M = std::max(M, mean(c.hit.lambertian));
    if (c.hit.has_transmissive) M = std::max(M, mean(c.hit.transmissive));
    if (c.hit.has_glossy) M = std::max(M, mean(c.hit.glossy));
    const Color T = c.ray.throughput;
    return firstHitSplit(M / 3.0f * (T.x + T.y + T.z), budget);
}

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
        if (c.hit.has_lambertian) b.lambertian = E * EvaluateDiffuseHair(c.ray, from, l);
        if (c.hit.has_glossy) {
            const HairLobes lobes = EvaluateBcsdf(c.ray, from, l);
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

// The samples of one light: split over the frames at the first hit when the
// light is blurred or the hit diffuses, else one sample below the bounce
// budget. `sample(index, origin, split)` takes one.
template <typename Sample>
LobeBundle sampleLight(const LightContext& c, const DeltaLight& light, bool blurred, Sample sample) {
    LobeBundle sum;
    if (!linkAllows(light.link, c.ray.shader)) return sum;
    DiffusionPoint point;
    SampleOrigin origin;
    if (c.bounces == 0 && (blurred || c.diffusion)) {
        const Split split = lightBudget(c, light.sample);
        const uint32_t step = cameraSample();
        uint32_t index = registry.pass_index;
        for (uint32_t k = 0; k < split.perFrame; ++k) {
            if (sampleOrigin(c, point, origin)) sum += sample(index, origin, true);
            index = (index + step) & 0xFFFFu;
        }
        return sum * (float(step) / float(split.total));
    }
    if (c.bounces < registry.bounce && sampleOrigin(c, point, origin))
        sum = sample(c.ray.sample_index, origin, false);
    return sum;
}

// Two numbers of the ray's sequence at `index`.
inline void lightNumbers(const RayState& ray, uint32_t index, float& a, float& b) {
    drawPair(SequenceSampler{{ray.sequence_shift[0], ray.sequence_shift[1]}, index, ray.dimension}, a, b);
}

LobeBundle pointDirect(const LightContext& c, const PointLight& light) {
    return sampleLight(c, light, light.blur > 0.0f, [&](uint32_t index, SampleOrigin& origin, bool split) {
        Vector target = light.position;
        if (light.blur > 0.0f) {
            float a, b;
            lightNumbers(c.ray, index, a, b);
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
        return deltaSample(c, origin, l, t, light.color, s / d2, light.offset, split, false);
    });
}

LobeBundle parallelDirect(const LightContext& c, const ParallelLight& light) {
    return sampleLight(c, light, light.blur > 0.0f, [&](uint32_t index, SampleOrigin& origin, bool split) {
        Vector l = -light.axis();
        if (light.blur > 0.0f) {
            float a, b;
            lightNumbers(c.ray, index, a, b);
            l = -coneDirection(light.frame, light.blurCosine, a, b);
        }
        return deltaSample(c, origin, l, kInfinity, light.color, 1.0f, light.offset, split, true);
    });
}

}  // namespace

// Emitters and the sky reach surfaces through the lobes alone until they are
// sampled, and then count all of their radiance.
LobeBundle geometryDirect(const RayState&, const HitRecord&) { return {}; }
LobeBundle skyDirect(const RayState&, const HitRecord&) { return {}; }

LobeBundle gafferDirect(const RayState& ray, const HitRecord& hit) {
    LobeBundle sum;
    if (registry.pointLights.empty() && registry.parallelLights.empty()) return sum;
    const Color d = hit.diffusion;
    const LightContext c{ray, hit, ray.kind == kCylinder,
                         hit.has_diffusion && std::min(d.x, std::min(d.y, d.z)) > 0.0f &&
                             (ray.kind == kTriangle || ray.kind == kTetragon),
                         ray.diffuse_bounces + ray.glossy_bounces};
    for (const PointLight& light : registry.pointLights) sum += pointDirect(c, light);
    for (const ParallelLight& light : registry.parallelLights) sum += parallelDirect(c, light);
    return sum;
}

LobeBundle directLight(const RayState& ray, const HitRecord& hit) {
    LobeBundle bundle = geometryDirect(ray, hit);
    bundle += skyDirect(ray, hit);
    bundle += gafferDirect(ray, hit);
    return bundle;
}
