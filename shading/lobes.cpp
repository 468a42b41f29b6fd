#include "shading/lobes.h"

#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "shading/hair_scattering.h"
#include "shading/hit_shading.h"

namespace {

// The logarithm with the floor of the whole renderer.
inline float guardedLog(float v) { return v < 1e-10f ? -10.0f : std::log(v); }

inline Vector inFrame(const HitRecord& hit, float x, float y, float z) {
    return hit.tangent * x + hit.bitangent * y + hit.normal * z;
}

// A point on the unit sphere from two uniform numbers.
inline Vector spherePoint(float a, float b) {
    const float s = 2.0f * guardedLength(b * (1.0f - b));
    return {s * std::cos(kTwoPi * a), s * std::sin(kTwoPi * a), 1.0f - 2.0f * b};
}

bool isHair(const RayState& ray) { return ray.kind == kCylinder; }

}  // namespace

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

// What sizes the split: the mean of `t`, and for the glossy lobe of a
// surface the larger of the Fresnel reflectance and its complement as well,
// since either of its two rays may be the bright one.
Split lobeSplit(const RayState& ray, const HitRecord& hit, uint8_t tag, Color t) {
    float w = mean(t);
    if (tag == kTagGlossyReflection && !isHair(ray)) w *= std::max(hit.fresnel_complement, hit.fresnel);
    return firstHitSplit(w, registry.rendererSample);
}

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
    const Color t = lobeThroughput(ray, hit, tag);
    if (!present || !withinBounceBudget(ray) || belowCutoff(t)) return 0;
    return pathBounces(ray) == 0 ? lobeSplit(ray, hit, tag, t).total : 1u;
}

bool diffuseRay(const HitRecord& from, const SequenceSampler& sampler, bool below, bool anySide, LobeRay& r) {
    r.direction = below ? cosineHemisphereBelow(from, sampler) : cosineHemisphere(from, sampler);
    r.weight = one;
    r.tag = below ? kTagDiffuseTransmission : kTagLambertian;
    const float side = dot(r.direction, from.geometric_normal);
    return anySide || (below ? side < 0.0f : side > 0.0f);
}

LobeRay fibreRay(const RayState& ray, const HitRecord& hit, uint32_t index) {
    LobeRay r;
    r.tag = kTagGlossyReflection;
    r.hairLobe = sampleFibre(ray, hit, index, r.direction, r.weight);
    return r;
}

int glossyRays(const RayState& ray, const HitRecord& hit, Vector h, float margin, LobeRay rays[2]) {
    const float c = -dot(h, ray.direction);
    const Color transmitted{hit.fresnel_complement, hit.fresnel_complement, hit.fresnel_complement};
    int n = 0;
    bool totalReflection = false;
    if (hit.material == LV_MATERIAL_SOLID) {
        Vector d;
        if (!refractDirection(ray.direction, h, hit.eta, c, d))
            totalReflection = true;
        else if (dot(d, hit.geometric_normal) < -margin)
            rays[n++] = {d, transmitted, kTagGlossyTransmission};
    }
    const Vector d = ray.direction + h * (2.0f * c);
    const float w = totalReflection ? 1.0f : hit.fresnel;
    if (dot(d, hit.geometric_normal) > 0.0f) rays[n++] = {d, {w, w, w}, kTagGlossyReflection};
    return n;
}

int specularRays(const RayState& ray, const HitRecord& hit, float margin, LobeRay rays[2]) {
    const Color transmitted{hit.fresnel_complement, hit.fresnel_complement, hit.fresnel_complement};
    int n = 0;
    bool totalReflection = false;
    if (hit.material == LV_MATERIAL_SOLID || hit.material == LV_MATERIAL_THIN) {
        Vector d;
        totalReflection = !specularTransmission(ray, hit, d);
        if (!totalReflection && dot(d, hit.geometric_normal) < -margin)
            rays[n++] = {d, transmitted, kTagSpecularTransmission};
    }
    const Vector d = ray.direction + hit.normal * (2.0f * hit.cos_out);
    const float w = totalReflection ? 1.0f : hit.fresnel;
    if (dot(d, hit.geometric_normal) > 0.0f) rays[n++] = {d, {w, w, w}, kTagSpecularReflection};
    return n;
}

RayState lobeChild(const RayState& ray, const HitRecord& hit, const LobeRay& r, Color t) {
    RayState child = childRay(ray, hit, r.tag);
    child.direction = r.direction;
    child.throughput = t * r.weight;
    if (r.hairLobe >= 0) child.hair_lobe = uint8_t(r.hairLobe);
    switch (lobeClass(r.tag)) {
    case kTagLambertian:
        ++child.diffuse_bounces;
        child.dimension += 2;
        break;
    case kTagGlossyReflection:
        ++child.glossy_bounces;
        child.dimension += 2;
        break;
    default: ++child.specular_bounces; break;
    }
    if (r.tag == kTagGlossyTransmission || r.tag == kTagSpecularTransmission) child.ior = ray.ior * hit.eta;
    if (r.tag == kTagSpecularTransmission && hit.material == LV_MATERIAL_THIN) {
        // Through a thin sheet the path keeps its class and origin.
        child.parent_hit = ray.parent_hit;
        child.lobe = ray.lobe;
        child.earlier_lobe = ray.earlier_lobe;
    }
    return child;
}
