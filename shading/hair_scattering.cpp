// Evaluation and sampling of the hair lobes, and the diffuse term of a
// fibre. Everything here reads the shader's table and allocates nothing.
#include "shading/hair_scattering.h"

#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "shading/lobes.h"

namespace {

constexpr float kLn2 = 0.6931472f;

inline float limitUnit(float v) { return std::clamp(v, -1.0f, 1.0f); }
// The logarithm with the floor of the whole renderer.
inline float guardedLog(float v) { return v < 1e-10f ? -10.0f : std::log(v); }

// The modified Bessel function of order 0 by the polynomials of Abramowitz
// and Stegun 9.8.1 (below 3.75) and 9.8.2 (above, times exp(x) / sqrt(x)).
float besselPolynomialSmall(float x) {
    const float t = (x / 3.75f) * (x / 3.75f);
    return 1.0f +
           t * (3.5156229f + t * (3.0899424f + t * (1.2067492f + t * (0.2659732f + t * (0.0360768f + t * 0.0045813f)))));
}
float besselPolynomialLarge(float x) {
    const float t = 3.75f / x;
    return 0.39894228f +
           t * (0.01328592f +
                t * (0.00225319f +
                     t * (-0.00157565f +
                          t * (0.00916281f +
                               t * (-0.02057706f + t * (0.02635537f + t * (-0.01647633f + t * 0.00392377f)))))));
}
float besselI0(float x) {
    x = std::fabs(x);
    return x < 3.75f ? besselPolynomialSmall(x) : std::exp(x) / std::sqrt(x) * besselPolynomialLarge(x);
}
float logBesselI0(float x) {
    x = std::fabs(x);
    return x < 3.75f ? guardedLog(besselPolynomialSmall(x))
                     : x - 0.5f * guardedLog(x) + guardedLog(besselPolynomialLarge(x));
}

// The two directions split into their longitudinal sines and cosines, and
// the cosine of the azimuth between them.
struct FibreAngles {
    float sinView, cosView, sinLight, cosLight, cosPhi;
};

FibreAngles fibreAngles(Vector view, Vector light, Vector t) {
    FibreAngles a;
    a.sinView = dot(t, view);
    a.sinLight = dot(t, light);
    const Vector pv = normalized(view - t * a.sinView), pl = normalized(light - t * a.sinLight);
    a.cosView = dot(view, pv);
    a.cosLight = dot(light, pl);
    a.cosPhi = limitUnit(dot(pv, pl));
    return a;
}

// The texel of a pair: the column by the azimuth, the row by half the
// longitudinal difference, each over the band that it was integrated for.
int texelOf(const FibreAngles& a) {
    const float phi = std::acos(a.cosPhi);
    const float half = 0.5f * std::fabs(std::atan2(a.sinLight, a.cosLight) - std::atan2(a.sinView, a.cosView));
    const int column = std::min(int(float(kBcsdfSize) * phi / kPi), kBcsdfSize - 1);
    const int row = std::min(int(float(kBcsdfSize) * half / kHalfPi), kBcsdfSize - 1);
    return row * kBcsdfSize + column;
}

inline Color texelColor(const ImageRecord& image, int texel) {
    const float* p = image.floatStore.data() + size_t(texel) * 3;
    return {p[0], p[1], p[2]};
}

inline bool hasTable(const HairBlock& block) {
    return block.BcsdfImage0.floatStore.size() == size_t(kBcsdfSize * kBcsdfSize * 3);
}

// The densities of the three lobes at a pair, with the longitudinal terms
// kept for the values.
int densities(const HairBlock& block, const FibreAngles& a, float M[3], float density[3]) {
    const int texel = texelOf(a);
    const Color plain = texelColor(block.BcsdfImage0, texel);
    const float azimuthal[3] = {plain.x, plain.y, plain.z};
    for (int p = 0; p < kHairLobes; ++p) {
        M[p] = longitudinalScattering(block.variance[p], block.normalizer[p], a.cosView, a.sinView, a.cosLight,
                                      a.sinLight);
        density[p] = azimuthal[p] * M[p];
    }
    return texel;
}

// Schlick's Fresnel term for the cosine c.
inline float schlick(float F0, float c) {
    const float m = 1.0f - c;
    const float m2 = m * m;
    return F0 + (1.0f - F0) * m2 * m2 * m;
}

// Fresnel of the surface reflection between two directions: at the cosine
// of half the angle between them.
inline float reflectionFresnel(float F0, Vector a, Vector b) {
    return schlick(F0, std::cos(0.5f * std::acos(limitUnit(dot(a, b)))));
}

}  // namespace

float longitudinalScattering(float v, float n, float cosA, float sinA, float cosB, float sinB) {
    const float x = cosA * cosB / v, y = -sinA * sinB / v;
    if (!(v < 0.2f)) return std::exp(y) * n * besselI0(x);
    // The normalizer and I0 in logarithms, where both alone would overflow.
    const float logHalfInverse = guardedLog(1.0f / (2.0f * v));
    if (x > 12.0f)
        return std::exp(x + kLn2 + y - 1.0f / v +
                        0.5f * (1.0f / (8.0f * x) - guardedLog(kTwoPi) + guardedLog(1.0f / x)) + logHalfInverse);
    return std::exp(y + kLn2 - 1.0f / v + logBesselI0(x) + logHalfInverse);
}

void EvaluateBcsdf(const HairBlock& block, Color colored[3], Vector view, Vector light, Vector tangent,
                   float density[3]) {
    if (!hasTable(block)) {
        colored[0] = colored[1] = colored[2] = zero;
        density[0] = density[1] = density[2] = 0.0f;
        return;
    }
    const FibreAngles a = fibreAngles(view, light, tangent);
    float M[3];
    const int texel = densities(block, a, M, density);
    colored[0] = texelColor(block.BcsdfImage1, texel) * (M[0] * reflectionFresnel(block.F0, view, light));
    colored[1] = texelColor(block.BcsdfImage2, texel) * M[1];
    colored[2] = texelColor(block.BcsdfImage3, texel) * M[2];
}

void DensityBcsdf(const HairBlock& block, float density[3], Vector view, Vector light, Vector tangent) {
    if (!hasTable(block)) {
        density[0] = density[1] = density[2] = 0.0f;
        return;
    }
    float M[3];
    densities(block, fibreAngles(view, light, tangent), M, density);
}

int SampleBcsdf(const HairBlock& block, Vector& direction, Color& weight, float h, float thetaI, Vector tangent,
                Vector normal, Vector binormal, const BcsdfNumbers& numbers) {
    const int p = block.allLobes ? int(numbers.lobe % uint32_t(kHairLobes)) : 0;
    const double v = block.variance[p];
    const float a = block.angle[p];

    // The cosine of the angle to the cone of the lobe, from the exponential
    // distribution that the longitudinal term's sphere form has; in double,
    // as sinh(1 / v) leaves the float range below v = 0.0113.
    const double u = std::clamp(double(numbers.u), 1e-8, 1.0);
    double c;
    if (a >= 0.1f) c = v * std::log(std::exp(-1.0 / v) + 2.0 * u * std::sinh(1.0 / v));
    else c = 1.0 + v * (std::log(u) + std::log(1.0 - (u - 1.0) / u * std::exp(-2.0 / v)));
    const float cone = float(std::clamp(c, -1.0, 1.0));

    // The sine of the new direction's longitudinal angle is -r: the cone
    // mirrors the view's angle through the plane normal to the fibre.
    const float sinI = std::sin(thetaI), cosI = std::cos(thetaI);
    const float r = limitUnit(cone * sinI + guardedLength(1.0f - cone * cone) * std::cos(kTwoPi * numbers.u2) * cosI);
    const float cosT = guardedLength(1.0f - r * r);
    // Half the longitudinal difference between the view and the new direction.
    const float cd = std::cos(0.5f * (std::asin(r) + thetaI));

    const float eta = block.ior;
    const float gi = std::asin(limitUnit(h));
    const float s = cd * h / guardedLength(eta * eta - 1.0f + cd * cd);
    const float gt = std::asin(limitUnit(s));
    const float gauss = a * guardedLength(-2.0f * guardedLog(numbers.u3)) * std::cos(kTwoPi * numbers.u4);
    const float phi = float(p) * kPi - 2.0f * gi + 2.0f * float(p) * gt + gauss;

    direction = (binormal * std::sin(phi) + normal * std::cos(phi)) * cosT - tangent * r;
    if (p == 0) {
        const Vector view = normal * cosI + tangent * sinI;
        const float F = reflectionFresnel(block.F0, direction, view);
        weight = {F, F, F};
    } else {
        const float F = schlick(block.F0, cd * std::cos(gi));
        const float path = -2.0f * (1.0f + std::cos(2.0f * gt)) / guardedLength(1.0f - s * s);
        const Color A = block.absorption;
        const Color T{std::exp(A.x * path), std::exp(A.y * path), std::exp(A.z * path)};
        weight = (p == 1 ? T : T * T) * ((1.0f - F) * (1.0f - F) * (p == 1 ? 1.0f : F));
    }
    if (block.allLobes) weight = weight * 3.0f;
    return p;
}

float EvaluateDiffuseHair(Vector view, Vector light, Vector tangent) {
    const FibreAngles a = fibreAngles(view, light, tangent);
    const float x = std::acos(a.cosPhi);
    return std::fabs((kPi - x) * std::cos(x) + std::sin(x)) * a.cosLight * 0.07957747f;
}

HairLobes hairLobesAt(const RayState& ray, const HitRecord& hit, Vector light) {
    const HairBlock& block = registry.shaders[ray.shader].hairBlock;
    HairLobes lobes;
    EvaluateBcsdf(block, lobes.value, hit.out_direction, light, hit.tangent, lobes.density);
    if (!block.allLobes) lobes.density[1] = lobes.density[2] = 0.0f;
    return lobes;
}

int sampleFibre(const RayState& ray, const HitRecord& hit, uint32_t index, Vector& direction, Color& weight) {
    BcsdfNumbers numbers;
    drawPair({ray.sequence_key, index, ray.dimension}, kUseLobe, numbers.u, numbers.u2);
    numbers.lobe = hardwareRandom();
    numbers.u3 = hardwareRandomFloat();
    numbers.u4 = hardwareRandomFloat();
    const float h = float(hardwareRandom()) * 4.656613e-10f - 1.0f;
    // The frame of the view: its direction across the fibre, or the shading
    // normal when the view runs along the fibre.
    const Vector t = hit.tangent;
    const float sinI = limitUnit(dot(t, hit.out_direction));
    Vector normal = normalized(hit.out_direction - t * sinI);
    if (dot(normal, normal) < 0.5f) normal = hit.normal;
    return SampleBcsdf(registry.shaders[ray.shader].hairBlock, direction, weight, h, std::asin(sinI), t, normal,
                       cross(t, normal), numbers);
}
