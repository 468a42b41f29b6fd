// The pieces of shading that a whole render averages away: Fresnel terms,
// the frame builder and the densities that the sampled directions claim.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "core/random.h"
#include "core/registry.h"
#include "lv.h"
#include "shading/hit_shading.h"
#include "shading/lobes.h"

namespace {

HitRecord frameAround(Vector normal) {
    HitRecord hit{};
    hit.normal = normalized(normal);
    buildFrame(hit);
    return hit;
}

TEST(Fresnel, SchlickThinSheetAndIndexOne) {
    // A sheet reflects at both faces: F + (1 - F)^2 F / (1 - F^2) = 2F / (1 + F).
    const struct { float ior, cosine; bool thin; float expected; } cases[] = {
        {1.5f, 1.0f, false, 0.04f}, {1.5f, 0.0f, false, 1.0f}, {1.5f, 1.0f, true, 0.08f / 1.04f},
        {1.5f, 0.0f, true, 1.0f},   {1.0f, 0.3f, false, 0.0f}, {1.0f, 0.3f, true, 0.0f}};
    for (const auto& c : cases)
        EXPECT_NEAR(fresnelReflectance(c.ior, c.cosine, c.thin), c.expected, 1e-7f) << c.ior << " " << c.cosine;
}

// The frame is orthonormal and right-handed, the -z pole included, where the
// general formula would divide by zero. (Between the pole's threshold and
// about z = -0.9999 float rounding bends the frame; that band is left as is.)
TEST(FrameBuilder, OrthonormalUpToTheSouthPole) {
    const Vector normals[] = {{0, 0, 1}, {0, 0, -1},         {1e-4f, 0, -1},         {0.3f, -0.2f, -0.99f},
                              {1, 0, 0}, {-0.5f, 0.5f, 0.1f}, {0.01f, 0.01f, -0.99f}};
    for (Vector n : normals) {
        const HitRecord hit = frameAround(n);
        SCOPED_TRACE(testing::Message() << n.x << " " << n.y << " " << n.z);
        const Vector t = hit.tangent, b = hit.bitangent;
        const float got[] = {dot(t, t), dot(b, b), dot(t, b), dot(t, hit.normal), dot(cross(t, b), hit.normal)};
        const float want[] = {1, 1, 0, 0, 1};
        for (int k = 0; k < 5; ++k) EXPECT_NEAR(got[k], want[k], 2e-3f) << k;
    }
    const HitRecord pole = frameAround({0, 0, -1});
    EXPECT_TRUE(pole.tangent == (Vector{0, -1, 0}) && pole.bitangent == (Vector{-1, 0, 0}));
}

// Cosine-distributed directions have cos^2 and the azimuth uniform: a
// chi-square over an 8 x 8 grid of them, for the frame's upper and lower twin.
TEST(HemisphereMapping, CosineDensityPassesChiSquare) {
    initializeRandomTables();
    const HitRecord hit = frameAround(normalized({0.3f, -0.4f, 0.8f}));
    constexpr int kBins = 8, kCount = 4096;
    for (bool below : {false, true}) {
        int bins[kBins][kBins] = {};
        for (uint32_t i = 0; i < kCount; ++i) {
            const SequenceSampler sampler{0x2C1B3C6Du, i, 2};
            const Vector d = below ? cosineHemisphereBelow(hit, sampler) : cosineHemisphere(hit, sampler);
            const float z = dot(d, hit.normal) * (below ? -1.0f : 1.0f);
            ASSERT_GT(z, 0.0f);
            const float phi = std::atan2(dot(d, hit.bitangent), dot(d, hit.tangent)) + kPi;
            ++bins[std::min(int(z * z * kBins), kBins - 1)][std::min(int(phi / kTwoPi * kBins), kBins - 1)];
        }
        const double expected = double(kCount) / (kBins * kBins);
        double chi2 = 0.0;
        for (auto& row : bins)
            for (int n : row) chi2 += (n - expected) * (n - expected) / expected;
        EXPECT_LT(chi2, 110.0) << below;   // 63 degrees of freedom, p < 1e-4
    }
}

// Half vectors of an isotropic lobe have tan^2(theta) / alpha^2 exponential
// with mean 1, and lean no way in azimuth.
TEST(GlossySampling, HalfVectorsFollowTheLobe) {
    initializeRandomTables();
    HitRecord hit = frameAround({0, 0, 1});
    hit.alpha[0] = hit.alpha[1] = 0.2f;
    double sum = 0.0;
    Vector lean = zero;
    constexpr int kCount = 4096;
    for (uint32_t i = 0; i < kCount; ++i) {
        const Vector h = sampleHalfVector(hit, {0x297A2D39u, i, 4});
        const float c2 = h.z * h.z;
        sum += (1.0f - c2) / c2 / (0.2f * 0.2f), lean += h;
    }
    EXPECT_NEAR(sum / kCount, 1.0, 0.05);
    EXPECT_LT(std::hypot(lean.x, lean.y) / kCount, 0.014);
}

}  // namespace
