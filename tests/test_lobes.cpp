// The pieces of shading that a whole render averages away: Fresnel terms,
// the frame builder, the reflection guard, layer choice, the first-hit split
// and the densities that the sampled directions claim.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "core/random.h"
#include "core/registry.h"
#include "lv.h"
#include "registry_guard.h"
#include "render/radiance.h"
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

// A shading normal that would mirror the viewer into the surface gives way to
// the geometric normal; one that does not stays, and Fresnel follows it.
TEST(FinishShading, ReflectionGuardAndFresnelBySide) {
    SurfaceShader layer;
    layer.elements[LV_ELEMENT_IOR].color = {1.5f, 1.5f, 1.5f};
    RayState ray = freshRay();
    ray.front = 1;
    HitRecord hit{};
    hit.geometric_normal = {0, 0, 1}, hit.out_direction = normalized({1, 0, 0.1f});
    hit.normal = normalized({-0.5f, 0, 1});   // tilted away from a grazing viewer
    finishShading(layer, ray, hit);
    EXPECT_EQ(hit.normal, hit.geometric_normal);
    EXPECT_NEAR(hit.cos_out, hit.out_direction.z, 1e-7f);
    EXPECT_NEAR(hit.eta, 1.0f / 1.5f, 1e-7f);
    EXPECT_NEAR(hit.fresnel + hit.fresnel_complement, 1.0f, 1e-7f);

    const Vector kept = hit.normal = normalized({0.2f, 0, 1});
    ray.front = 0;
    finishShading(layer, ray, hit);
    EXPECT_EQ(hit.normal, kept);
    EXPECT_NEAR(hit.eta, 1.5f, 1e-7f);
    EXPECT_NEAR(hit.fresnel, fresnelReflectance(1.5f, dot(hit.out_direction, kept), false), 1e-7f);
}

// Each side serves its own layer; a one-sided shader is black behind.
TEST(LayerChoice, TwoSidedShaders) {
    Shader shader, oneSided;
    shader.layers.resize(2), oneSided.layers.resize(1);
    shader.layers[0].sideness = oneSided.layers[0].sideness = LV_SIDENESS_FACE;
    shader.layers[1].sideness = LV_SIDENESS_BACK;
    oneSided.layers[0].elements[LV_ELEMENT_LAMBERTIAN].color = one;
    prepareShader(shader), prepareShader(oneSided);
    const float uv[2] = {0, 0};
    EXPECT_EQ(pickLayer(shader, uv, true), 0);
    EXPECT_EQ(pickLayer(shader, uv, false), 1);
    const int behind = pickLayer(oneSided, uv, false);
    EXPECT_NE(behind, 0);
    EXPECT_FALSE(oneSided.layers[size_t(behind)].has_lambertian);
}

// With c = 4 frames: a budget of 6 rounds down to 4 indices, one a frame; a
// dim lobe still fires one ray a frame; a bright one gets its whole budget.
TEST(FirstHitSplit, CountsAreMultiplesOfTheCameraSample) {
    RegistryGuard guard;
    Camera camera = defaultCamera();
    camera.sample = 4;
    registry.currentCameraRecord = &camera;
    const struct { float w; int budget; uint32_t total, perFrame; } cases[] = {
        {1.0f, 6, 4, 1}, {0.001f, 64, 4, 1}, {0.5f, 64, 32, 8}, {3.0f, 64, 64, 16}, {std::nanf(""), 64, 4, 1}};
    for (const auto& c : cases) {
        const Split s = firstHitSplit(c.w, c.budget);
        EXPECT_EQ(std::pair(s.total, s.perFrame), std::pair(c.total, c.perFrame)) << c.w << " " << c.budget;
    }
}

// A child remembers the last different class on its path.
TEST(ChildRay, LobeTagsAndParent) {
    RayState parent = freshRay();
    parent.lobe = parent.earlier_lobe = kTagSpecularReflection;   // a camera ray
    parent.shader = 3, parent.primitive = 9, parent.kind = 4, parent.depth = 2;
    HitRecord hit{};
    hit.position = {1, 2, 3};
    const RayState child = childRay(parent, hit, kTagLambertian);
    EXPECT_TRUE(child.lobe == kTagLambertian && child.earlier_lobe == kTagSpecularReflection && child.depth == 3);
    EXPECT_TRUE(child.origin == hit.position && child.parent_hit == &hit);
    EXPECT_TRUE(child.previous_primitive == 9u && child.previous_kind == 4 && child.kind == kKindNotAsked);
    const RayState grandchild = childRay(child, hit, kTagLambertian);
    EXPECT_EQ(grandchild.earlier_lobe, kTagSpecularReflection);   // same class again: kept
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
            const int a = std::min(int(z * z * kBins), kBins - 1);
            const int b = std::min(int(phi / kTwoPi * kBins), kBins - 1);
            ++bins[a][b];
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
