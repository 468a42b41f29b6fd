#include "shading/lobes.h"

#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "photons/photon_tree.h"
#include "render/child_ray.h"
#include "shading/hair_scattering.h"
#include "shading/hit_shading.h"

namespace {

inline float mean(Color c) { return (c.x + c.y + c.z) / 3.0f; }
// The logarithm with the floor of the whole renderer.
inline float guardedLog(float v) { return v < 1e-10f ? -10.0f : std::log(v); }

inline SequenceSampler samplerAt(const RayState& ray, uint32_t index) { return {ray.sequence_key, index, ray.dimension}; }

inline Vector inFrame(const HitRecord& hit, float x, float y, float z) {
    return hit.tangent * x + hit.bitangent * y + hit.normal * z;
}

// A point on the unit sphere from two uniform numbers.
inline Vector spherePoint(float a, float b) {
    const float s = 2.0f * guardedLength(b * (1.0f - b));
    return {s * std::cos(kTwoPi * a), s * std::sin(kTwoPi * a), 1.0f - 2.0f * b};
}

bool isHair(const RayState& ray) { return ray.kind == kCylinder; }

// The throughput that the lobe of class `tag` (lambertian, diffuse
// transmission or glossy reflection) carries into its rays, before the
// ray's own weights. A fibre's lambertian part has no Fresnel term.
Color lobeThroughput(const RayState& ray, const HitRecord& hit, uint8_t tag) {
    switch (tag) {
    case kTagLambertian:
        return isHair(ray) ? ray.throughput * hit.lambertian
                           : ray.throughput * hit.lambertian * hit.fresnel_complement;
    case kTagDiffuseTransmission: return ray.throughput * hit.transmissive;
    case kTagGlossyReflection: return ray.throughput * hit.glossy;
    default: return zero;
    }
}

// What sizes the first-hit split of a lobe that carries `t`: its mean, and
// for the glossy lobe of a surface the larger of the Fresnel reflectance and
// its complement as well, since either of its two rays may be the bright one.
Split lobeSplit(const RayState& ray, const HitRecord& hit, uint8_t tag, Color t) {
    float w = mean(t);
    if (tag == kTagGlossyReflection && !isHair(ray)) w *= std::max(hit.fresnel_complement, hit.fresnel);
    return firstHitSplit(w, registry.rendererSample);
}

// A diffuse or glossy child: one more bounce of its class and two more dimensions.
RayState bounceChild(const RayState& ray, const HitRecord& from, uint8_t tag, Vector direction, Color throughput,
                     uint8_t RayState::*bounces) {
    RayState child = childRay(ray, from, tag);
    child.direction = direction;
    child.throughput = throughput;
    ++(child.*bounces);
    child.dimension += 2;
    return child;
}

RayState diffuseChild(const RayState& ray, const HitRecord& from, uint8_t tag, Vector direction, Color throughput) {
    return bounceChild(ray, from, tag, direction, throughput, &RayState::diffuse_bounces);
}

RayState glossyChild(const RayState& ray, const HitRecord& from, uint8_t tag, Vector direction, Color throughput) {
    return bounceChild(ray, from, tag, direction, throughput, &RayState::glossy_bounces);
}

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

// The two rays of a glossy half vector: refracted about H for a solid
// layer, then reflected about it. The split's index and share are set on
// both children by the caller through `prepare`.
template <typename Prepare>
void glossyPair(const RayState& ray, const HitRecord& hit, Vector h, Color t, RaySum& reflected,
                RaySum& transmitted, Prepare prepare) {
    const float c = -dot(h, ray.direction);
    bool totalReflection = false;
    if (hit.material == LV_MATERIAL_SOLID) {
        Vector d;
        if (!refractDirection(ray.direction, h, hit.eta, c, d)) {
            totalReflection = true;
        } else if (dot(d, hit.geometric_normal) < -1e-8f) {
            RayState child = glossyChild(ray, hit, kTagGlossyTransmission, d, t * hit.fresnel_complement);
            child.ior = ray.ior * hit.eta;
            prepare(child);
            transmitted.add(radiance(child) * hit.fresnel_complement);
        }
    }
    const Vector d = ray.direction + h * (2.0f * c);
    if (dot(d, hit.geometric_normal) > 0.0f) {
        const float w = totalReflection ? 1.0f : hit.fresnel;
        RayState child = glossyChild(ray, hit, kTagGlossyReflection, d, t * w);
        prepare(child);
        reflected.add(radiance(child) * w);
    }
}

// The diffuse lobes share everything but the side they leave on: `below`
// for diffuse transmission. Diffusion and hair apply to the lambertian lobe.
Color diffuseLobe(const RayState& ray, const HitRecord& hit, Color t, bool below) {
    const bool hair = !below && isHair(ray);
    const uint8_t tag = below ? kTagDiffuseTransmission : kTagLambertian;
    auto accepted = [&](Vector d, const HitRecord& from) {
        const float side = dot(d, from.geometric_normal);
        return hair || (below ? side < 0.0f : side > 0.0f);
    };
    auto direction = [&](const HitRecord& from, const SequenceSampler& s) {
        return below ? cosineHemisphereBelow(from, s) : cosineHemisphere(from, s);
    };

    const int bounces = ray.diffuse_bounces + ray.glossy_bounces;
    RaySum sum;
    if (bounces == 0) {
        const Split split = lobeSplit(ray, hit, tag, t);
        for (uint32_t k = 0; k < split.perFrame; ++k) {
            const uint32_t index = splitIndex(split, k);
            const SequenceSampler sampler = samplerAt(ray, index);
            if (!below && !hair && hit.has_diffusion) {
                DiffusionPoint point;
                if (drawDiffusionPoint(ray, hit, point)) {
                    const Vector d = direction(point.hit, sampler);
                    if (accepted(d, point.hit)) {
                        RayState child = diffuseChild(ray, point.hit, tag, d, t * point.weight);
                        child.previous_primitive = point.primitive;
                        child.previous_kind = point.kind;
                        child.previous_part = point.part;
                        child.previous_path = point.path;
                        child.sample_index = index;
                        child.split = ray.split * split.perFrame;
                        sum.add(radiance(child) * point.weight);
                    }
                }
            } else {
                const Vector d = direction(hit, sampler);
                if (accepted(d, hit)) {
                    RayState child = diffuseChild(ray, hit, tag, d, t);
                    child.sample_index = index;
                    child.split = ray.split * split.perFrame;
                    sum.add(radiance(child));
                }
            }
        }
        if (hair) return sum.sum / float(split.perFrame);
    } else if (bounces < registry.bounce) {
        const Vector d = direction(hit, samplerAt(ray, ray.sample_index));
        if (accepted(d, hit)) {
            RayState child = diffuseChild(ray, hit, tag, d, t);
            sum.add(radiance(child));
        }
    } else {
        return zero;
    }
    // Fibres have no cells of the photons.
    return hair ? sum.sum : sum.average() + photonEstimate(ray, hit);
}

// The glossy rays of a fibre, drawn by the hair model: every ray is sent,
// reflected or through the fibre, and its weight is the lobe's value over
// the density of the draw.
Color fibreGlossyLobe(const RayState& ray, const HitRecord& hit, Color t) {
    auto fire = [&](uint32_t index, auto prepare) {
        Vector d;
        Color w;
        const int lobe = sampleFibre(ray, hit, index, d, w);
        RayState child = glossyChild(ray, hit, kTagGlossyReflection, d, t * w);
        child.hair_lobe = uint8_t(lobe);
        prepare(child);
        return radiance(child) * w;
    };
    const int bounces = ray.diffuse_bounces + ray.glossy_bounces;
    if (bounces == 0) {
        const Split split = lobeSplit(ray, hit, kTagGlossyReflection, t);
        Color sum = zero;
        for (uint32_t k = 0; k < split.perFrame; ++k) {
            const uint32_t index = splitIndex(split, k);
            sum += fire(index, [&](RayState& child) {
                child.sample_index = index;
                child.split = ray.split * split.perFrame;
            });
        }
        return sum / float(split.perFrame);
    }
    if (bounces < registry.bounce) return fire(ray.sample_index, [](RayState&) {});
    return zero;
}

}  // namespace

void concentricDisc(float a, float b, float& x, float& y) {
    const float sa = 2.0f * a - 1.0f, sb = 2.0f * b - 1.0f;
    float r, k;
    if (sa > -sb) {
        if (sa > sb) {
            r = sa;
            k = sb / sa;
        } else {
            r = sb;
            k = 2.0f - sa / sb;
        }
    } else if (sa < sb) {
        r = -sa;
        k = 4.0f + sb / sa;
    } else {
        r = -sb;
        k = sb != 0.0f ? 6.0f - sa / sb : 0.0f;
    }
    const float phi = k * kQuarterPi;
    x = r * std::cos(phi);
    y = r * std::sin(phi);
}

Vector cosineHemisphere(const HitRecord& hit, const SequenceSampler& sampler) {
    float a, b, x, y;
    drawPair(sampler, kUseLobe, a, b);
    concentricDisc(a, b, x, y);
    return inFrame(hit, x, y, guardedLength(1.0f - x * x - y * y));
}

Vector cosineHemisphereBelow(const HitRecord& hit, const SequenceSampler& sampler) {
    float a, b, x, y;
    drawPair(sampler, kUseLobe, a, b);
    concentricDisc(a, b, x, y);
    return inFrame(hit, x, y, -guardedLength(1.0f - x * x - y * y));
}

Vector sampleHalfVector(const HitRecord& hit, const SequenceSampler& sampler) {
    float a1, a2;
    drawPair(sampler, kUseLobe, a1, a2);
    const float phi = kTwoPi * a1;
    const float ax = hit.alpha[0], ay = hit.alpha[1];
    const float x = ax * std::cos(phi), y = ay * std::sin(phi);
    const float length = guardedLength(x * x + y * y);
    const float cx = x / length, cy = y / length;
    const float A = std::max(ax * ax, 1e-8f), B = std::max(ay * ay, 1e-8f);
    const float D = cx * cx / A + (1.0f - cx * cx) / B;
    const float theta = std::atan(guardedLength(-guardedLog(a2)) / guardedLength(D));
    const float s = std::sin(theta);
    return inFrame(hit, cx * s, cy * s, std::cos(theta));
}

float halfVectorLobe(Vector a, Vector b, const HitRecord& hit) {
    const Vector s = a + b;
    const float ss = dot(s, s);
    const Vector h = normalized(s);
    const float hn = dot(h, hit.normal);
    if (ss <= 1e-10f || hn == 0.0f) return 0.0f;
    const float ax = hit.alpha[0], ay = hit.alpha[1];
    const float ht = dot(h, hit.tangent) / ax, hb = dot(h, hit.bitangent) / ay;
    const float hn2 = hn * hn;
    return std::exp(-(ht * ht + hb * hb) / hn2) / (ax * ay * hn2 * hn2 * ss) * kInvFourPi;
}

bool refractDirection(Vector direction, Vector normal, float eta, float cosine, Vector& refracted) {
    if (std::fabs(1.0f - eta) < 1e-8f) {
        refracted = direction;
        return true;
    }
    const float k = 1.0f - eta * eta * (1.0f - cosine * cosine);
    if (k < 0.0f) return false;
    refracted = normalized(normal * (eta * cosine - guardedLength(k)) + direction * eta);
    return true;
}

bool specularTransmission(const RayState& ray, const HitRecord& hit, Vector& d) {
    const float c = std::fabs(hit.cos_out);
    d = ray.direction;
    if (hit.material == LV_MATERIAL_THIN) return 1.0f - hit.eta * hit.eta * (1.0f - c * c) >= 0.0f;
    return refractDirection(ray.direction, hit.normal, hit.eta, c, d);
}

bool drawDiffusionPoint(const RayState& ray, const HitRecord& hit, DiffusionPoint& point) {
    const Color dc = hit.diffusion;
    const float d = largestChannel(dc);
    // A surface that no chord around the hit finds again (a sphere, or a
    // spread far beyond the object) would draw forever: give up in time.
    constexpr int kAttempts = 256;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const float radicand = -2.0f * guardedLog(hardwareRandomFloat()) * d;
        const float R = guardedLength(radicand);
        const float radius = R * std::cos(kTwoPi * hardwareRandomFloat());
        const float a0 = hardwareRandomFloat(), b0 = hardwareRandomFloat();
        const float a1 = hardwareRandomFloat(), b1 = hardwareRandomFloat();
        const Vector p0 = hit.position + spherePoint(a0, b0) * radius;
        const Vector p1 = hit.position + spherePoint(a1, b1) * radius;

        RayState chord = ray;
        const Vector span = p1 - p0;
        const float length = guardedLength(dot(span, span));
        chord.origin = p0;
        chord.direction = span / length;
        chord.t = length;
        chord.primitive = kNoPrimitive;
        chord.kind = 0;
        chord.previous_primitive = kNoPrimitive;
        chord.previous_kind = 0;
        chord.previous_part = nullptr;
        if (!intersectSurfaces(chord) || chord.shader != ray.shader) continue;

        point.hit = HitRecord{};
        point.hit.terminal = hit.terminal;
        point.hit.light_weight = hit.light_weight;
        shadeHit(chord, point.hit);
        if (chord.front != ray.front) {
            point.hit.out_direction = -point.hit.out_direction;
            point.hit.geometric_normal = -point.hit.geometric_normal;
            point.hit.normal = -point.hit.normal;
        }
        // The Gaussian's normalisation alone, per channel.
        const float whole = guardedLength(kTwoPi * d);
        point.weight = {guardedLength(kTwoPi * dc.x) / whole, guardedLength(kTwoPi * dc.y) / whole,
                        guardedLength(kTwoPi * dc.z) / whole};
        point.primitive = chord.primitive;
        point.kind = chord.kind;
        point.part = chord.part;
        point.path = chord.hit_path;
        return true;
    }
    return false;
}

uint32_t lobeRays(const RayState& ray, const HitRecord& hit, uint8_t tag) {
    const bool present = tag == kTagLambertian           ? hit.has_lambertian
                         : tag == kTagDiffuseTransmission ? hit.has_transmissive
                                                          : hit.has_glossy;
    const int bounces = ray.diffuse_bounces + ray.glossy_bounces;
    const Color t = lobeThroughput(ray, hit, tag);
    if (!present || bounces >= registry.bounce || belowCutoff(t)) return 0;
    return bounces == 0 ? lobeSplit(ray, hit, tag, t).total : 1u;
}

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

Color glossyLobe(const RayState& ray, const HitRecord& hit) {
    const Color t = lobeThroughput(ray, hit, kTagGlossyReflection);
    if (belowCutoff(t)) return zero;
    if (isHair(ray)) return fibreGlossyLobe(ray, hit, t);

    const int bounces = ray.diffuse_bounces + ray.glossy_bounces;
    RaySum reflected, transmitted;
    if (bounces == 0) {
        const Split split = lobeSplit(ray, hit, kTagGlossyReflection, t);
        for (uint32_t k = 0; k < split.perFrame; ++k) {
            const uint32_t index = splitIndex(split, k);
            const Vector h = sampleHalfVector(hit, samplerAt(ray, index));
            glossyPair(ray, hit, h, t, reflected, transmitted, [&](RayState& child) {
                child.sample_index = index;
                child.split = ray.split * split.perFrame;
            });
        }
        return reflected.average() + transmitted.average();
    }
    if (bounces < registry.bounce) {
        const Vector h = sampleHalfVector(hit, samplerAt(ray, ray.sample_index));
        glossyPair(ray, hit, h, t, reflected, transmitted, [](RayState&) {});
        return reflected.sum + transmitted.sum;
    }
    return zero;
}

Color specularLobe(const RayState& ray, const HitRecord& hit) {
    const Color t = ray.throughput * hit.specular;
    if (belowCutoff(t)) return zero;
    Color sum = zero;
    bool totalReflection = false;
    if (hit.material == LV_MATERIAL_SOLID || hit.material == LV_MATERIAL_THIN) {
        Vector d;
        totalReflection = !specularTransmission(ray, hit, d);
        if (!totalReflection && dot(d, hit.geometric_normal) < -1e-8f) {
            RayState child = childRay(ray, hit, kTagSpecularTransmission);
            if (hit.material == LV_MATERIAL_THIN) {
                // Through a thin sheet the path keeps its class and origin.
                child.parent_hit = ray.parent_hit;
                child.lobe = ray.lobe;
                child.earlier_lobe = ray.earlier_lobe;
            }
            child.direction = d;
            child.throughput = t * hit.fresnel_complement;
            child.ior = ray.ior * hit.eta;
            ++child.specular_bounces;
            sum += radiance(child) * hit.fresnel_complement;
        }
    }
    const Vector d = ray.direction + hit.normal * (2.0f * hit.cos_out);
    if (dot(d, hit.geometric_normal) > 0.0f) {
        const float w = totalReflection ? 1.0f : hit.fresnel;
        RayState child = childRay(ray, hit, kTagSpecularReflection);
        child.direction = d;
        child.throughput = t * w;
        ++child.specular_bounces;
        sum += radiance(child) * w;
    }
    return sum;
}

// The caustic photons' estimate at a diffuse hit; black while there are none.
Color photonEstimate(const RayState& ray, const HitRecord& hit) { return densityEstimate(ray, hit); }
