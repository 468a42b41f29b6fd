// The azimuthal tables of the hair model, one set per hair shader: each
// texel integrates the three lobes over the width of the fibre, so that
// evaluation reads one texel a lobe instead of a 128-step integral.
#include <algorithm>
#include <cmath>

#include "core/clock.h"
#include "core/constants.h"
#include "core/report.h"
#include "shading/hair_table.h"
#include "core/registry.h"
#include "lv.h"
#include "shading/hair_scattering.h"
#include "core/images.h"

namespace {

// Steps of the midpoint rule across the fibre. The steps are even in the
// angle of incidence g, h = sin g, weighed by cos g: even steps in h would
// leave the grazing edges, where g and so the lobes' azimuths change
// fastest, a comb of sharp peaks for smooth fibres.
constexpr int kWidthSteps = 128;

// Below this R roughness the lobes' Gaussians and longitudinal terms have
// no width left to integrate or sample.
constexpr float kLeastHairAngle = 1.0f * kDegree;

inline float limitUnit(float v) { return std::clamp(v, -1.0f, 1.0f); }

// The wrapped Gaussian of one lobe, five turns wide.
struct WrappedGaussian {
    float scale;      // 1 / (a sqrt(2 pi))
    float exponent;   // -1 / (2 a^2)
    explicit WrappedGaussian(float a) : scale(1.0f / (a * std::sqrt(kTwoPi))), exponent(-1.0f / (2.0f * a * a)) {}
    float operator()(float d) const {
        float sum = 0.0f;
        for (int k = -2; k <= 2; ++k) {
            const float x = d - kTwoPi * float(k);
            sum += std::exp(x * x * exponent);
        }
        return sum * scale;
    }
};

// What does not depend on the azimuth at one row (one cosine c of the half
// longitudinal difference): for each offset across the fibre the two angles
// and the Fresnel and absorption weights of TT and TRT.
struct BcsdfRow {
    float gi[kWidthSteps], gt[kWidthSteps], weight[kWidthSteps];
    Color tt[kWidthSteps], trt[kWidthSteps];
};

void fillRow(const HairBlock& block, float c, BcsdfRow& row) {
    const float eta = block.ior;
    const float e = guardedLength(eta * eta - 1.0f + c * c);
    const Color A = block.absorption;
    for (int k = 0; k < kWidthSteps; ++k) {
        const float gi = -kHalfPi + kPi * (float(k) + 0.5f) / float(kWidthSteps);
        const float h = std::sin(gi);
        row.weight[k] = std::cos(gi) * (kHalfPi / float(kWidthSteps));
        const float s = h * c / e;
        const float gt = std::asin(limitUnit(s));
        const float q = guardedLength(1.0f - s * s);
        const float m = 1.0f - std::cos(gi) * c;
        const float m2 = m * m;
        const float F = block.F0 + (1.0f - block.F0) * m2 * m2 * m;
        // The path through the fibre, twice its half chord over the cosine.
        const float path = -2.0f * (1.0f + std::cos(2.0f * gt)) / q;
        const Color T{std::exp(A.x * path), std::exp(A.y * path), std::exp(A.z * path)};
        row.gi[k] = gi;
        row.gt[k] = gt;
        row.tt[k] = T * ((1.0f - F) * (1.0f - F));
        row.trt[k] = T * T * (F * (1.0f - F) * (1.0f - F));
    }
}

// The integrals of one texel of a filled row.
void integrateRow(const HairBlock& block, const BcsdfRow& row, float phi, Color colored[3], Vector& plain) {
    const WrappedGaussian G0(block.angle[0]), G1(block.angle[1]), G2(block.angle[2]);
    Color r = zero, tt = zero, trt = zero;
    Vector sums = zero;
    for (int k = 0; k < kWidthSteps; ++k) {
        const float gi = row.gi[k], gt = row.gt[k];
        const float nr = G0(2.0f * gi + phi);
        const float ntt = G1(2.0f * (gi - gt) + phi - kPi);
        const float ntrt = G2(2.0f * (gi - kPi) + phi - 4.0f * gt);
        const float w = row.weight[k];
        r += Color{nr, nr, nr} * w;
        tt += row.tt[k] * (ntt * w);
        trt += row.trt[k] * (ntrt * w);
        sums += Vector{nr, ntt, ntrt} * w;
    }
    colored[0] = r;
    colored[1] = tt;
    colored[2] = trt;
    plain = sums;
}

}  // namespace

void IntegrateBcsdf(const HairBlock& block, float phi, float c, Color colored[3], Vector& plain) {
    BcsdfRow row;
    fillRow(block, c, row);
    integrateRow(block, row, phi, colored, plain);
}

void InitializeBcsdf(HairBlock& block) {
    const uint64_t start = systemTime100ns();
    block.angle[1] = 2.0f * block.angle[0];
    block.angle[2] = 3.0f * block.angle[0];
    for (int p = 0; p < kHairLobes; ++p) {
        const float v = block.angle[p] * block.angle[p];
        block.variance[p] = v;
        // Only lobes with v of at least 0.2 use it, where sinh stays finite.
        block.normalizer[p] = float(1.0 / (2.0 * double(v) * std::sinh(1.0 / double(v))));
    }
    const float r = (block.ior - 1.0f) / (block.ior + 1.0f);
    block.F0 = r * r;

    ImageRecord* images[4] = {&block.BcsdfImage0, &block.BcsdfImage1, &block.BcsdfImage2, &block.BcsdfImage3};
    for (ImageRecord* image : images) SizeImage(*image, kBcsdfSize, kBcsdfSize, 3, 32, false);

    const HairBlock& table = block;
#pragma omp parallel for schedule(dynamic, 1)
    for (int j = 0; j < kBcsdfSize; ++j) {
        BcsdfRow row;
        fillRow(table, std::cos(kHalfPi * (float(j) + 0.5f) / float(kBcsdfSize)), row);
        for (int i = 0; i < kBcsdfSize; ++i) {
            Color colored[3];
            Vector plain;
            integrateRow(table, row, kPi * (float(i) + 0.5f) / float(kBcsdfSize), colored, plain);
            const int texel = j * kBcsdfSize + i;
            StorePixel(*images[0], texel, plain);
            for (int p = 0; p < kHairLobes; ++p) StorePixel(*images[p + 1], texel, colored[p]);
        }
    }
    reportReal("bcsdf lut", double(systemTime100ns() - start) * 1e-7, "seconds");
    reportRule();
}

// The hair model of a shader from its first layer: all three lobes sampled
// for a solid layer, the mean index, the R roughness 30 degrees times the
// sum of the roughness channels, and the absorption of the shader's medium,
// so that a hair takes its colour from its volume shader.
void buildHairTable(Shader& shader) {
    HairBlock& block = shader.hairBlock;
    if (!shader.layers.empty()) {
        const SurfaceShader& layer = shader.layers[0];
        const Color ior = layer.elements[LV_ELEMENT_IOR].color;
        const Color roughness = layer.elements[LV_ELEMENT_ROUGHNESS].color;
        block.allLobes = layer.material == LV_MATERIAL_SOLID;
        block.ior = mean(ior);
        block.angle[0] = 30.0f * kDegree * (roughness.x + roughness.y + roughness.z);
    }
    block.absorption = volumeAbsorption(shader.volume);
    if (!(block.angle[0] >= kLeastHairAngle)) {
        reportWarning("hair - roughness of shader " + shader.name + " gives less than 1 degree, taken as 1 degree");
        block.angle[0] = kLeastHairAngle;
    }
    InitializeBcsdf(block);
}

void prepareHairTables() {
    for (Shader& shader : registry.shaders)
        if (shader.hair) buildHairTable(shader);
}
