#include "render/lobe_paths.h"

#include "geometry/object.h"
#include "photons/photon_tree.h"
#include "render/radiance.h"
#include "shading/lobes.h"

namespace {

bool isHair(const RayState& ray) { return ray.kind == kCylinder; }

inline SequenceSampler samplerAt(const RayState& ray, uint32_t index) { return {ray.sequence_key, index, ray.dimension}; }

// A camera path keeps a refracted ray only clearly below the surface.
constexpr float kRefractionMargin = 1e-8f;

// Running sum of a lobe's rays, averaged over the rays that were really sent.
struct RaySum {
    Color sum{0.0f, 0.0f, 0.0f};
    uint32_t sent = 0;
    void add(Color c) {
        sum += c;
        ++sent;
    }
    Color average() const { return sent > 0 ? sum / float(sent) : sum; }
};

// The radiance of the child of sample `index` of its parent `ray`, one of
// `share` rays that the sample's split fires a frame.
Color traceSample(RayState child, const RayState& ray, uint32_t index, uint32_t share) {
    child.sample_index = index;
    child.split = ray.split * share;
    return radiance(child);
}

// The diffuse lobes share everything but the side they leave on: `below`
// for diffuse transmission. Diffusion and hair apply to the lambertian lobe;
// diffusion at the first hit alone, where each ray leaves from a point of
// its own drawn beside the hit.
Color diffuseLobe(const RayState& ray, const HitRecord& hit, Color t, bool below) {
    const bool hair = !below && isHair(ray);
    const bool first = pathBounces(ray) == 0;
    const bool diffusion = first && !below && !hair && hit.has_diffusion;
    const Split split = first ? lobeSplit(ray, hit, below ? kTagDiffuseTransmission : kTagLambertian, t) : Split{};
    RaySum sum;
    const uint32_t n = takeSamples(ray, first, split, [&](uint32_t index, uint32_t share) {
        const SequenceSampler sampler = samplerAt(ray, index);
        LobeRay r;
        if (!diffusion) {
            if (diffuseRay(hit, sampler, below, hair, r))
                sum.add(traceSample(lobeChild(ray, hit, r, t), ray, index, share));
            return;
        }
        DiffusionPoint point;
        if (!drawDiffusionPoint(ray, hit, point) || !diffuseRay(point.hit, sampler, below, false, r)) return;
        r.weight = point.weight;
        RayState child = lobeChild(ray, point.hit, r, t);
        child.previous_primitive = point.primitive;
        child.previous_kind = point.kind;
        child.previous_part = point.part;
        child.previous_path = point.path;
        sum.add(traceSample(child, ray, index, share) * point.weight);
    });
    if (n == 0) return zero;
    // Fibres have no cells of the photons.
    return hair ? sum.sum / float(n) : sum.average() + densityEstimate(ray, hit);
}

// The glossy rays of a fibre, drawn by the hair model: every ray is sent,
// reflected or through the fibre, and its weight is the lobe's value over
// the density of the draw.
Color fibreGlossyLobe(const RayState& ray, const HitRecord& hit, Color t) {
    Color sum = zero;
    const bool first = pathBounces(ray) == 0;
    const Split split = first ? lobeSplit(ray, hit, kTagGlossyReflection, t) : Split{};
    const uint32_t n = takeSamples(ray, first, split, [&](uint32_t index, uint32_t share) {
        const LobeRay r = fibreRay(ray, hit, index);
        sum += traceSample(lobeChild(ray, hit, r, t), ray, index, share) * r.weight;
    });
    return n > 0 ? sum / float(n) : zero;
}

}  // namespace

Color lambertianLobe(const RayState& ray, const HitRecord& hit) {
    const Color t = lobeThroughput(ray, hit, kTagLambertian);
    if (belowCutoff(t)) return zero;
    if (isHair(ray)) return diffuseLobe(ray, hit, t, false);
    return diffuseLobe(ray, hit, t, false) * hit.fresnel_complement;
}

Color transmissiveLobe(const RayState& ray, const HitRecord& hit) {
    const Color t = lobeThroughput(ray, hit, kTagDiffuseTransmission);
    if (belowCutoff(t)) return zero;
    return diffuseLobe(ray, hit, t, true) * hit.fresnel_complement;
}

// Each half vector sends its refracted and its reflected ray; the two are
// averaged apart over the rays each really sent.
Color glossyLobe(const RayState& ray, const HitRecord& hit) {
    const Color t = lobeThroughput(ray, hit, kTagGlossyReflection);
    if (belowCutoff(t)) return zero;
    if (isHair(ray)) return fibreGlossyLobe(ray, hit, t);

    RaySum reflected, transmitted;
    const bool first = pathBounces(ray) == 0;
    const Split split = first ? lobeSplit(ray, hit, kTagGlossyReflection, t) : Split{};
    const uint32_t n = takeSamples(ray, first, split, [&](uint32_t index, uint32_t share) {
        LobeRay rays[2];
        const int count = glossyRays(ray, hit, sampleHalfVector(hit, samplerAt(ray, index)), kRefractionMargin, rays);
        for (int k = 0; k < count; ++k) {
            const Color c = traceSample(lobeChild(ray, hit, rays[k], t), ray, index, share) * rays[k].weight;
            (rays[k].tag == kTagGlossyTransmission ? transmitted : reflected).add(c);
        }
    });
    return n > 0 ? reflected.average() + transmitted.average() : zero;
}

Color specularLobe(const RayState& ray, const HitRecord& hit) {
    const Color t = ray.throughput * hit.specular;
    if (belowCutoff(t)) return zero;
    LobeRay rays[2];
    const int count = specularRays(ray, hit, kRefractionMargin, rays);
    Color sum = zero;
    for (int k = 0; k < count; ++k) {
        RayState child = lobeChild(ray, hit, rays[k], t);
        sum += radiance(child) * rays[k].weight;
    }
    return sum;
}
