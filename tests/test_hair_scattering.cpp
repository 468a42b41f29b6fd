// The hair model checked by integration over the sphere of directions and by
// the distribution of its samples: energy of the three lobes, absorption,
// the longitudinal term's closed forms, and sampling against the densities.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "capture.h"
#include "core/constants.h"
#include "core/random.h"
#include "geometry/load_time.h"
#include "lv.h"
#include "shading/hair_scattering.h"

namespace {

// The fibre runs along z; the viewer looks from the x side at the
// longitudinal angle theta.
constexpr Vector kTangent{0, 0, 1};
inline Vector fromAngles(float theta, float phi) {
    return {std::cos(theta) * std::cos(phi), std::cos(theta) * std::sin(phi), std::sin(theta)};
}

HairBlock hairBlock(float degrees, float ior, Color absorption, bool allLobes) {
    HairBlock block;
    block.angle[0] = degrees * kDegree;
    block.ior = ior;
    block.absorption = absorption;
    block.allLobes = allLobes;
    ReportCapture quiet;
    InitializeBcsdf(block);
    return block;
}

// The integrals over the sphere of light directions of the three lobes'
// values, seen from `view`, by the midpoint rule in (sin theta, phi), where
// the solid angle is uniform.
void integrateLobes(const HairBlock& block, Vector view, Color sums[3], int steps = 600) {
    sums[0] = sums[1] = sums[2] = zero;
    const float cell = (2.0f / float(steps)) * (kTwoPi / float(steps));
    for (int a = 0; a < steps; ++a) {
        const float s = -1.0f + 2.0f * (float(a) + 0.5f) / float(steps);
        for (int b = 0; b < steps; ++b) {
            const float phi = -kPi + kTwoPi * (float(b) + 0.5f) / float(steps);
            Color value[3];
            float density[3];
            EvaluateBcsdf(block, value, view, fromAngles(std::asin(s), phi), kTangent, density);
            for (int p = 0; p < 3; ++p) sums[p] += value[p] * cell;
        }
    }
}

// The lobes' energies by an integral across the fibre alone: R takes F,
// TT (1 - F)^2 T, TRT F (1 - F)^2 T^2, at the half difference of the lobes'
// centre, where the light leaves at the mirror angle of the view.
void expectedEnergies(const HairBlock& block, float thetaView, Color out[3]) {
    const float c = std::cos(thetaView), eta = block.ior;
    out[0] = out[1] = out[2] = zero;
    const int steps = 20000;
    for (int k = 0; k < steps; ++k) {
        const float h = -1.0f + 2.0f * (float(k) + 0.5f) / float(steps);
        const float gi = std::asin(h), gt = std::asin(h * c / std::sqrt(eta * eta - 1.0f + c * c));
        const float F = block.F0 + (1.0f - block.F0) * std::pow(1.0f - std::cos(gi) * c, 5.0f);
        const float length = 4.0f * std::cos(gt);
        const Color T{std::exp(-block.absorption.x * length), std::exp(-block.absorption.y * length),
                      std::exp(-block.absorption.z * length)};
        out[0] += one * (F / float(steps));
        out[1] += T * ((1.0f - F) * (1.0f - F) / float(steps));
        out[2] += T * T * (F * (1.0f - F) * (1.0f - F) / float(steps));
    }
}

TEST(HairScattering, LongitudinalTermIsNormalisedInAllThreeForms) {
    // v of 0.3 takes the plain form, 0.03 the logarithmic one, and 0.002 its
    // asymptotic Bessel term near the cone.
    for (float v : {0.3f, 0.03f, 0.002f}) {
        const float n = float(1.0 / (2.0 * v * std::sinh(1.0 / v)));
        for (float thetaView : {0.0f, 0.4f, 1.2f}) {
            double sum = 0.0;
            const int steps = 200000;
            for (int k = 0; k < steps; ++k) {
                const float theta = -kHalfPi + kPi * (float(k) + 0.5f) / float(steps);
                sum += longitudinalScattering(v, n, std::cos(thetaView), std::sin(thetaView), std::cos(theta),
                                              std::sin(theta)) *
                       std::cos(theta) * (kPi / steps);
            }
            EXPECT_NEAR(sum, 1.0, 0.01) << "v " << v << " view " << thetaView;
        }
    }
}

// Without absorption the lobes keep what Fresnel lets them keep: each lobe's
// integral is its share across the fibre, and the three add up to at most
// one, short of it by the light of later internal reflections.
TEST(HairScattering, LobesIntegrateToTheirFresnelSharesAndAtMostOne) {
    for (float degrees : {4.0f, 10.0f}) {
        const HairBlock block = hairBlock(degrees, 1.55f, zero, true);
        for (float thetaView : {0.0f, 0.5f, 1.0f}) {
            SCOPED_TRACE(testing::Message() << degrees << " degrees, view at " << thetaView);
            Color sums[3], expected[3];
            integrateLobes(block, fromAngles(thetaView, 0.0f), sums);
            expectedEnergies(block, thetaView, expected);
            const float total = sums[0].y + sums[1].y + sums[2].y;
            EXPECT_LE(total, 1.0f);
            EXPECT_NEAR(total, expected[0].y + expected[1].y + expected[2].y, 0.02f);
            for (int p = 0; p < 3; ++p) EXPECT_NEAR(sums[p].y, expected[p].y, 0.1f * expected[p].y + 0.003f) << p;
        }
    }
}

// An absorbing fibre darkens TT once and TRT twice by the colour of its
// medium, and leaves the surface reflection white.
TEST(HairScattering, AbsorptionDarkensTransmissionByItsColour) {
    const Color absorption{0.05f, 0.3f, 1.2f};
    const HairBlock clear = hairBlock(10.0f, 1.55f, zero, true), brown = hairBlock(10.0f, 1.55f, absorption, true);
    Color plain[3], dark[3], expectedPlain[3], expectedDark[3];
    const Vector view = fromAngles(0.3f, 0.0f);
    integrateLobes(clear, view, plain, 300);
    integrateLobes(brown, view, dark, 300);
    expectedEnergies(clear, 0.3f, expectedPlain);
    expectedEnergies(brown, 0.3f, expectedDark);
    EXPECT_TRUE(dark[0] == plain[0]);
    EXPECT_NEAR(dark[0].x, dark[0].z, 1e-6f);
    for (int p = 1; p < 3; ++p) {
        SCOPED_TRACE(p);
        const float c[3] = {dark[p].x / plain[p].x, dark[p].y / plain[p].y, dark[p].z / plain[p].z};
        const float e[3] = {expectedDark[p].x / expectedPlain[p].x, expectedDark[p].y / expectedPlain[p].y,
                            expectedDark[p].z / expectedPlain[p].z};
        EXPECT_GT(c[0], c[1]);
        EXPECT_GT(c[1], c[2]);
        for (int k = 0; k < 3; ++k) EXPECT_NEAR(c[k], e[k], 0.05f * e[k] + 0.002f) << "channel " << k;
    }
}

// A chi-square test of directions drawn by `draw` against the density
// `density`, in bins of equal solid angle over (sin theta, |phi|).
double chiSquareAgainst(const std::function<Vector()>& draw, const std::function<float(Vector)>& density,
                        int samples, int& degrees) {
    constexpr int kThetaBins = 20, kPhiBins = 24, kSub = 6;
    std::vector<double> observed(kThetaBins * kPhiBins, 0.0), expected(kThetaBins * kPhiBins, 0.0);
    auto binOf = [&](Vector d) {
        const int a = std::min(int((d.z + 1.0f) * 0.5f * kThetaBins), kThetaBins - 1);
        const int b = std::min(int(std::fabs(std::atan2(d.y, d.x)) / kPi * kPhiBins), kPhiBins - 1);
        return a * kPhiBins + b;
    };
    for (int i = 0; i < samples; ++i) observed[size_t(binOf(draw()))] += 1.0;
    // Both signs of phi fall in a bin: integrate over both halves.
    const double cell = (2.0 / (kThetaBins * kSub)) * (kPi / (kPhiBins * kSub));
    for (int a = 0; a < kThetaBins * kSub; ++a)
        for (int b = 0; b < kPhiBins * kSub; ++b) {
            const float s = -1.0f + 2.0f * (float(a) + 0.5f) / float(kThetaBins * kSub);
            const float phi = kPi * (float(b) + 0.5f) / float(kPhiBins * kSub);
            const float theta = std::asin(s);
            const double p = density(fromAngles(theta, phi)) + density(fromAngles(theta, -phi));
            expected[size_t((a / kSub) * kPhiBins + b / kSub)] += p * cell * samples;
        }
    // Bins expecting fewer than 10 samples are pooled into one.
    double chi = 0.0, pooledObserved = 0.0, pooledExpected = 0.0;
    degrees = 0;
    for (size_t k = 0; k < observed.size(); ++k) {
        if (expected[k] < 10.0) {
            pooledObserved += observed[k], pooledExpected += expected[k];
            continue;
        }
        chi += (observed[k] - expected[k]) * (observed[k] - expected[k]) / expected[k];
        ++degrees;
    }
    if (pooledExpected > 0.0) chi += (pooledObserved - pooledExpected) * (pooledObserved - pooledExpected) / pooledExpected;
    return chi;
}

// The 0.999 quantile of the chi-square distribution (Wilson and Hilferty).
double chiSquareLimit(int degrees) {
    const double k = degrees, z = 3.09;
    return k * std::pow(1.0 - 2.0 / (9.0 * k) + z * std::sqrt(2.0 / (9.0 * k)), 3.0);
}

// Each lobe's draws fall where its density says, for views across the fibre,
// at an angle and at a grazing angle, and for a rough and a sharp fibre.
// (Below some 5 degrees the table's 128 steps across the fibre start to
// miss the sharp peak of TRT, and the test would see it.)
TEST(HairScattering, SamplesOfEachLobeFollowItsDensity) {
    seedHardwareRandom(5);
    for (float degrees : {12.0f, 6.0f}) {
        const HairBlock block = hairBlock(degrees, 1.55f, {0.1f, 0.2f, 0.3f}, true);
        for (float thetaView : {0.0f, 0.45f, 1.2f}) {
            const Vector view = fromAngles(thetaView, 0.0f);
            for (uint32_t lobe = 0; lobe < 3; ++lobe) {
                SCOPED_TRACE(testing::Message() << degrees << " degrees, view " << thetaView << ", lobe " << lobe);
                auto draw = [&] {
                    const BcsdfNumbers numbers{lobe, hardwareRandomFloat(), hardwareRandomFloat(), hardwareRandomFloat(),
                                               hardwareRandomFloat()};
                    const float h = 2.0f * hardwareRandomFloat() - 1.0f;
                    Vector d;
                    Color weight;
                    EXPECT_EQ(SampleBcsdf(block, d, weight, h, thetaView, kTangent, {1, 0, 0}, {0, 1, 0}, numbers),
                              int(lobe));
                    return d;
                };
                auto density = [&](Vector light) {
                    float d[3];
                    DensityBcsdf(block, d, view, light, kTangent);
                    return d[lobe];
                };
                int dof = 0;
                const double chi = chiSquareAgainst(draw, density, 200000, dof);
                EXPECT_LT(chi, chiSquareLimit(dof)) << dof << " bins";
            }
        }
    }
}

// The weight of a draw is the lobe's value over its density: the mean weight
// of each lobe's draws is that lobe's integral, colour by colour, and a
// shader that samples R alone draws nothing else, without the factor 3.
TEST(HairScattering, MeanSampleWeightIsTheLobesIntegral) {
    seedHardwareRandom(6);
    for (bool allLobes : {true, false}) {
        const HairBlock block = hairBlock(10.0f, 1.55f, {0.1f, 0.4f, 0.9f}, allLobes);
        const Vector view = fromAngles(0.35f, 0.0f);
        Color integrals[3], means[3] = {zero, zero, zero};
        integrateLobes(block, view, integrals, 300);
        const int samples = 300000;
        int counts[3] = {0, 0, 0};
        for (int i = 0; i < samples; ++i) {
            const BcsdfNumbers numbers{hardwareRandom(), hardwareRandomFloat(), hardwareRandomFloat(),
                                       hardwareRandomFloat(), hardwareRandomFloat()};
            Vector d;
            Color weight;
            const int p = SampleBcsdf(block, d, weight, 2.0f * hardwareRandomFloat() - 1.0f, 0.35f, kTangent, {1, 0, 0},
                                      {0, 1, 0}, numbers);
            means[p] += weight, ++counts[p];
        }
        for (int p = 0; p < 3; ++p) {
            SCOPED_TRACE(testing::Message() << "lobe " << p << (allLobes ? ", all lobes" : ", R alone"));
            if (!allLobes && p > 0) {
                EXPECT_EQ(counts[p], 0);
                continue;
            }
            const Color mean = means[p] / float(samples);
            EXPECT_NEAR(mean.x, integrals[p].x, 0.03f * integrals[p].x + 5e-4f);
            EXPECT_NEAR(mean.y, integrals[p].y, 0.03f * integrals[p].y + 5e-4f);
            EXPECT_NEAR(mean.z, integrals[p].z, 0.03f * integrals[p].z + 5e-4f);
        }
    }
}

// The diffuse term is the distribution of cosine-weighted rays about a
// normal drawn uniformly across the fibre, as the lambertian lobe of a hit
// on hair sends them, and it integrates to one.
TEST(HairScattering, DiffuseTermIsTheLambertianCylindersDistribution) {
    seedHardwareRandom(7);
    for (float thetaView : {0.0f, 0.7f}) {
        SCOPED_TRACE(thetaView);
        const Vector view = fromAngles(thetaView, 0.0f);
        auto draw = [] {
            const float r = 2.0f * hardwareRandomFloat() - 1.0f;
            const Vector n{std::sqrt(1.0f - r * r), r, 0.0f}, b{-r, std::sqrt(1.0f - r * r), 0.0f};
            const float a = hardwareRandomFloat(), s = std::sqrt(hardwareRandomFloat());
            const Vector local{s * std::cos(kTwoPi * a), s * std::sin(kTwoPi * a), std::sqrt(1.0f - s * s)};
            return kTangent * local.x + b * local.y + n * local.z;
        };
        auto density = [&](Vector light) { return EvaluateDiffuseHair(view, light, kTangent); };
        int dof = 0;
        const double chi = chiSquareAgainst(draw, density, 200000, dof);
        EXPECT_LT(chi, chiSquareLimit(dof));
        double sum = 0.0;
        for (int a = 0; a < 400; ++a)
            for (int b = 0; b < 400; ++b)
                sum += density(fromAngles(std::asin(-1.0f + (float(a) + 0.5f) / 200.0f), kTwoPi * (float(b) + 0.5f) / 400.0f)) *
                       (2.0 / 400.0) * (kTwoPi / 400.0);
        EXPECT_NEAR(sum, 1.0, 0.002);
    }
}

// A hair shader takes its model from its first layer and its medium: all
// lobes for a solid layer, the mean index, 30 degrees of R roughness for
// each unit of the sum of the roughness channels, TT and TRT twice and three
// times as rough, and the medium's absorption. A roughness of 0, which
// leaves the lobes no width, is raised to 1 degree with a warning.
TEST(HairScattering, ShaderPreparationDerivesTheModelFromTheFirstLayer) {
    Shader shader;
    shader.name = "hair";
    shader.layers.resize(2);
    SurfaceShader& layer = shader.layers[0];
    layer.material = LV_MATERIAL_SOLID;
    layer.elements[LV_ELEMENT_IOR].color = {1.5f, 1.6f, 1.7f};
    layer.elements[LV_ELEMENT_ROUGHNESS].color = {0.1f, 0.1f, 0.1f};
    shader.layers[1].elements[LV_ELEMENT_ROUGHNESS].color = {1.0f, 1.0f, 1.0f};
    shader.volume.transmittance = {1.0f, 0.5f, 0.0f};
    ReportCapture report;
    buildHairTable(shader);
    const HairBlock& block = shader.hairBlock;
    EXPECT_TRUE(block.allLobes);
    EXPECT_NEAR(block.ior, 1.6f, 1e-6f);
    EXPECT_NEAR(block.angle[0], 9.0f * kDegree, 1e-6f);
    EXPECT_NEAR(block.angle[1], 18.0f * kDegree, 1e-6f);
    EXPECT_NEAR(block.angle[2], 27.0f * kDegree, 1e-6f);
    EXPECT_NEAR(block.variance[2], block.angle[2] * block.angle[2], 1e-9f);
    EXPECT_NEAR(block.F0, 0.0532544f, 1e-6f);   // ((1.6 - 1) / (1.6 + 1))^2
    EXPECT_TRUE(block.absorption == (Color{0.0f, std::log(2.0f), 10.0f}));
    EXPECT_EQ(block.BcsdfImage3.floatStore.size(), size_t(128 * 128 * 3));

    layer.material = 0;
    layer.elements[LV_ELEMENT_ROUGHNESS].color = zero;
    report.restore();
    ReportCapture second;
    buildHairTable(shader);
    EXPECT_FALSE(shader.hairBlock.allLobes);
    EXPECT_NEAR(shader.hairBlock.angle[0], kDegree, 1e-7f);
    EXPECT_EQ(second.lines().at(0), "warning :( \thair - roughness of shader hair gives less than 1 degree, taken as 1 degree");
    EXPECT_EQ(second.lines().at(1).rfind("bcsdf lut", 0), 0u);
    Color value[3];
    float density[3];
    EvaluateBcsdf(shader.hairBlock, value, fromAngles(0.2f, 0.0f), fromAngles(-0.2f, 0.3f), kTangent, density);
    for (int p = 0; p < 3; ++p) EXPECT_TRUE(std::isfinite(value[p].x) && std::isfinite(density[p])) << p;
}

}  // namespace
