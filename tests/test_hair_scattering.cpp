// The hair model checked by integration over the sphere of directions and by
// the distribution of its draws.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>

#include "capture.h"
#include "core/constants.h"
#include "core/random.h"
#include "shading/hair_scattering.h"

namespace {

// The fibre runs along z; directions by longitudinal angle and azimuth from x.
constexpr Vector kTangent{0, 0, 1};
Vector fromAngles(float theta, float phi) {
    return {std::cos(theta) * std::cos(phi), std::cos(theta) * std::sin(phi), std::sin(theta)};
}

HairBlock hairBlock(float degrees, Color absorption) {
    HairBlock block;
    block.angle[0] = degrees * kDegree, block.absorption = absorption, block.allLobes = true;
    ReportCapture quiet;
    InitializeBcsdf(block);
    return block;
}

// The integral of f over the sphere by the midpoint rule in (sin theta, phi).
template <typename F>
void overSphere(int steps, F f) {
    const float cell = (2.0f / float(steps)) * (kTwoPi / float(steps));
    for (int a = 0; a < steps; ++a)
        for (int b = 0; b < steps; ++b)
            f(fromAngles(std::asin(-1.0f + 2.0f * (float(a) + 0.5f) / float(steps)),
                         kTwoPi * (float(b) + 0.5f) / float(steps)),
              cell);
}

std::array<Color, 3> integrateLobes(const HairBlock& block, Vector view) {
    std::array<Color, 3> sums{zero, zero, zero};
    overSphere(500, [&](Vector light, float cell) {
        Color value[3];
        float density[3];
        EvaluateBcsdf(block, value, view, light, kTangent, density);
        for (int p = 0; p < 3; ++p) sums[size_t(p)] += value[p] * cell;
    });
    return sums;
}

// What each lobe keeps across the fibre at the half difference of its
// centre: R takes F, TT (1 - F)^2 T, TRT F (1 - F)^2 T^2.
std::array<Color, 3> fresnelShares(const HairBlock& block, float thetaView) {
    const float c = std::cos(thetaView), eta = block.ior;
    std::array<Color, 3> out{zero, zero, zero};
    for (int k = 0; k < 20000; ++k) {
        const float h = -1.0f + (float(k) + 0.5f) / 10000.0f;
        const float gi = std::asin(h), gt = std::asin(h * c / std::sqrt(eta * eta - 1.0f + c * c));
        const float F = block.F0 + (1.0f - block.F0) * std::pow(1.0f - std::cos(gi) * c, 5.0f);
        const Color A = block.absorption * (-4.0f * std::cos(gt));
        const Color T{std::exp(A.x), std::exp(A.y), std::exp(A.z)};
        out[0] += one * (F / 20000.0f);
        out[1] += T * ((1.0f - F) * (1.0f - F) / 20000.0f);
        out[2] += T * T * (F * (1.0f - F) * (1.0f - F) / 20000.0f);
    }
    return out;
}

// Each lobe integrates to its Fresnel share, clear or coloured by the
// absorption of the medium (TT once, TRT twice, R never), in all the closed
// forms of the longitudinal term; without absorption the three add up to at
// most one, short of it by the light of later internal reflections.
TEST(HairScattering, LobesIntegrateToTheirFresnelSharesAndAtMostOne) {
    for (Color absorption : {zero, Color{0.05f, 0.3f, 1.2f}})
        for (float degrees : {4.0f, 12.0f}) {
            const HairBlock block = hairBlock(degrees, absorption);
            for (float thetaView : {0.0f, 0.5f, 1.0f}) {
                SCOPED_TRACE(testing::Message() << degrees << " degrees, view " << thetaView << ", A " << absorption.z);
                const auto sums = integrateLobes(block, fromAngles(thetaView, 0.0f));
                const auto shares = fresnelShares(block, thetaView);
                EXPECT_TRUE(!isBlack(absorption) || sums[0].y + sums[1].y + sums[2].y <= 1.0f);
                for (int p = 0; p < 3; ++p) {
                    EXPECT_NEAR(sums[p].x, shares[p].x, 0.1f * shares[p].x + 0.005f) << p;
                    EXPECT_NEAR(sums[p].z, shares[p].z, 0.1f * shares[p].z + 0.005f) << p;
                }
            }
        }
}

// Draws against a density: the chi-square of their counts in bins of equal
// solid angle over (sin theta, |phi|), pooling bins that expect under 10,
// and the 0.999 quantile of its distribution (Wilson and Hilferty).
void expectDrawsFollow(const std::function<Vector()>& draw, const std::function<float(Vector)>& density) {
    constexpr int kTheta = 20, kPhi = 24, kSamples = 200000;
    std::vector<double> observed(kTheta * kPhi, 0.0), expected(kTheta * kPhi, 0.0);
    auto bin = [&](Vector d) {
        const int b = std::min(int(std::fabs(std::atan2(d.y, d.x)) / kPi * kPhi), kPhi - 1);
        return std::min(int((d.z + 1.0f) * 0.5f * kTheta), kTheta - 1) * kPhi + b;
    };
    for (int i = 0; i < kSamples; ++i) observed[size_t(bin(draw()))] += 1.0;
    overSphere(kTheta * kPhi, [&](Vector d, float cell) { expected[size_t(bin(d))] += density(d) * cell * kSamples; });
    double chi = 0.0, restObserved = 0.0, restExpected = 0.0;
    int degrees = 0;
    for (size_t k = 0; k < observed.size(); ++k)
        if (expected[k] < 10.0)
            restObserved += observed[k], restExpected += expected[k];
        else
            chi += (observed[k] - expected[k]) * (observed[k] - expected[k]) / expected[k], ++degrees;
    chi += (restObserved - restExpected) * (restObserved - restExpected) / std::max(restExpected, 1.0);
    const double n = degrees, limit = n * std::pow(1.0 - 2.0 / (9.0 * n) + 3.09 * std::sqrt(2.0 / (9.0 * n)), 3.0);
    EXPECT_LT(chi, limit) << degrees << " bins";
}

// Each lobe's draws fall where its density says, for views across the fibre,
// at an angle and grazing it, and for a rough and a sharp fibre; the mean
// weight of a lobe's draws is its integral, colour by colour. (Below some 5
// degrees the table's 128 steps across the fibre start to miss TRT's peak.)
TEST(HairScattering, DrawsOfEachLobeFollowItsDensityWithItsValueAsWeight) {
    seedHardwareRandom(5);
    for (float degrees : {12.0f, 6.0f}) {
        const HairBlock block = hairBlock(degrees, {0.1f, 0.4f, 0.9f});
        for (float thetaView : {0.0f, 0.45f, 1.2f}) {
            const Vector view = fromAngles(thetaView, 0.0f);
            const std::array<Color, 3> integrals = integrateLobes(block, view);
            for (uint32_t lobe = 0; lobe < 3; ++lobe) {
                SCOPED_TRACE(testing::Message() << degrees << " degrees, view " << thetaView << ", lobe " << lobe);
                Color weights = zero;
                expectDrawsFollow(
                    [&] {
                        const BcsdfNumbers numbers{lobe, hardwareRandomFloat(), hardwareRandomFloat(),
                                                   hardwareRandomFloat(), hardwareRandomFloat()};
                        Vector d;
                        Color weight;
                        const float h = 2.0f * hardwareRandomFloat() - 1.0f;
                        EXPECT_EQ(SampleBcsdf(block, d, weight, h, thetaView, kTangent, {1, 0, 0}, {0, 1, 0}, numbers),
                                  int(lobe));
                        weights += weight / 3.0f;   // one lobe of three, three times its weight
                        return d;
                    },
                    [&](Vector light) {
                        float d[3];
                        DensityBcsdf(block, d, view, light, kTangent);
                        return d[lobe];
                    });
                const Color mean = weights / 200000.0f, expected = integrals[lobe];
                EXPECT_NEAR(mean.x, expected.x, 0.03f * expected.x + 5e-4f);
                EXPECT_NEAR(mean.z, expected.z, 0.03f * expected.z + 5e-4f);
            }
        }
    }
}

// The diffuse term is the distribution of cosine-weighted rays about a
// normal drawn uniformly across the fibre, as the lambertian lobe sends them
// from a hit on hair.
TEST(HairScattering, DiffuseTermIsTheDistributionOfTheLambertianLobesRays) {
    seedHardwareRandom(7);
    for (float thetaView : {0.0f, 0.7f}) {
        SCOPED_TRACE(thetaView);
        const Vector view = fromAngles(thetaView, 0.0f);
        expectDrawsFollow(
            [] {
                const float r = 2.0f * hardwareRandomFloat() - 1.0f, q = std::sqrt(1.0f - r * r);
                const float a = kTwoPi * hardwareRandomFloat(), s = std::sqrt(hardwareRandomFloat());
                return kTangent * (s * std::cos(a)) + Vector{-r, q, 0.0f} * (s * std::sin(a)) +
                       Vector{q, r, 0.0f} * std::sqrt(1.0f - s * s);
            },
            [&](Vector light) { return EvaluateDiffuseHair(view, light, kTangent); });
    }
}

}  // namespace
