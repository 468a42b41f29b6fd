// The sky light: the cube's parametrisation and its inverse, the bake and
// its distribution (checked by drawing directions from it), the stage's
// rules and report, and what rays see of the sky.
#include <cmath>
#include <functional>
#include <random>

#include "core/constants.h"
#include "lights/sky_light.h"
#include "scene_fixture.h"
#include "core/images.h"

namespace {

class SkyLight : public SceneTest {
protected:
    void SetUp() override {
        SceneTest::SetUp();
        registry.sceneRadius = 2.0f;
    }
    static void prepare() { quietly(prepareSkyLight); }
};

// Area of the spherical triangle of three unit vectors.
double triangleArea(Vector a, Vector b, Vector c) {
    const double numerator = std::fabs(double(dot(a, cross(b, c))));
    return 2.0 * std::atan2(numerator, 1.0 + double(dot(a, b)) + double(dot(b, c)) + double(dot(c, a)));
}
// Solid angle of the cube patch [s, s + h] x [t, t + h] of a face. Lines of
// constant s or t are great circles, so the patch is a spherical quad.
double patchArea(int face, float s, float t, float h) {
    const Vector a = cubeDirection(face, s, t), b = cubeDirection(face, s + h, t);
    const Vector c = cubeDirection(face, s + h, t + h), d = cubeDirection(face, s, t + h);
    return triangleArea(a, b, c) + triangleArea(a, c, d);
}

// Each face looks along its axis and the texel of a texel's centre is that
// texel. The warp makes texels nearly, not exactly, equal: the six faces
// tile the sphere once, no texel departs from 4 pi / 393216 by more than the
// warp's -10 % to +21 %, and the solid angle that the lights divide by is
// the texel's own.
TEST(SkyCube, TexelsInvertTheirDirectionsAndTileTheSphere) {
    const Vector centres[6] = {{1, 0, 0}, {0, 0, 1}, {-1, 0, 0}, {0, 0, -1}, {0, 1, 0}, {0, -1, 0}};
    const double ideal = 4.0 * kPi / kCubeTexels;
    double total = 0.0, smallest = 1e9, largest = 0.0, worst = 0.0;
    int misses = 0;
    for (int face = 0; face < 6; ++face) {
        EXPECT_NEAR(dot(cubeDirection(face, 128.0f, 128.0f), centres[face]), 1.0f, 1e-6f) << face;
        for (uint32_t y = 0; y < 256; ++y)
            for (uint32_t x = 0; x < 256; ++x) {
                const uint32_t code = uint32_t(face) << 16 | y << 8 | x;
                misses += cubeTexelOf(cubeDirection(face, float(x) + 0.5f, float(y) + 0.5f)) != code;
                const double area = patchArea(face, float(x), float(y), 1.0f), a = area / ideal;
                worst = std::max(worst, std::fabs(texelSolidAngle(code) / area - 1.0));
                total += a, smallest = std::min(smallest, a), largest = std::max(largest, a);
            }
    }
    EXPECT_EQ(misses, 0);
    // The corners of the cube and the edges, where two faces meet, stay in range.
    EXPECT_EQ(cubeTexelOf(normalized({1, 1, 1})) >> 16, 0u);   // ties go to x, then y
    EXPECT_EQ(cubeTexelOf({-1, 0, 0}), 2u << 16 | 128u << 8 | 128u);
    EXPECT_NEAR(total / kCubeTexels, 1.0, 1e-4);
    EXPECT_LT(worst, 1e-3);   // faces differ only by float rounding
    EXPECT_GT(smallest, 0.90);
    EXPECT_LT(largest, 1.21);
}

// Directions drawn as the lights draw them (a texel from the distribution, a
// uniform point in it, its cube direction), binned in latitude and longitude,
// against the density the lights claim integrated over each bin. The image, a
// gradient with a bright sun disc, is turned so that the sun is off every axis.
TEST_F(SkyLight, DrawnDirectionsFollowTheDistribution) {
    registry.skyLight.image = memoryImage(128, 64, [](float u, float v) {
        const float du = u - 0.3f, dv = (v - 0.25f) * 0.5f;
        const float sun = du * du + dv * dv < 0.0016f ? 100.0f : 0.0f;
        return Color{0.2f + v + sun, 0.3f + 0.5f * u + sun, 1.0f - 0.8f * v + sun};
    });
    lvSetSkyLightNorth(0.2f, 1.0f, 0.1f), lvSetSkyLightZenith(0.3f, 0.0f, 1.0f);
    prepare();
    const Distribution& d = skyDistribution();
    ASSERT_EQ(d.count, kCubeTexels);

    constexpr int kRows = 12, kColumns = 24, kBins = kRows * kColumns;
    auto bin = [](Vector v) {
        const int row = std::min(kRows - 1, int(std::acos(std::clamp(v.z, -1.0f, 1.0f)) / kPi * kRows));
        const int column = std::min(kColumns - 1, int((std::atan2(v.y, v.x) + kPi) / kTwoPi * kColumns));
        return row * kColumns + column;
    };
    // Expected shares: the claimed density over 4 x 4 parts of each texel.
    std::vector<double> expected(kBins, 0.0);
    for (int entry = 0; entry < kCubeTexels; ++entry) {
        const float p = probability(d, entry);
        if (p == 0.0f) continue;
        const uint32_t code = skyTexelOfEntry(uint32_t(entry));
        ASSERT_EQ(skyEntryOf(code), uint32_t(entry));
        const int face = code >> 16;
        for (int k = 0; k < 16; ++k) {
            const float s = float(code & 255) + float(k % 4) * 0.25f;
            const float t = float((code >> 8) & 255) + float(k / 4) * 0.25f;
            expected[size_t(bin(cubeDirection(face, s + 0.125f, t + 0.125f)))] +=
                double(skyDensity(code)) * patchArea(face, s, t, 0.25f);
        }
    }

    constexpr int kDraws = 1000000;
    std::mt19937 random(7);
    std::uniform_real_distribution<float> uniform(0.0f, 1.0f);
    std::vector<int> counts(kBins, 0);
    double sunShare = 0.0;
    for (int n = 0; n < kDraws; ++n) {
        const uint32_t code = skyTexelOfEntry(uint32_t(sample(d, uniform(random))));
        const Vector v = cubeDirection(code >> 16, float(code & 255) + uniform(random), float((code >> 8) & 255) + uniform(random));
        ++counts[size_t(bin(v))];
        sunShare += largestChannel(skyRadiance(v)) > 50.0f;
    }
    double chi2 = 0.0;
    int dof = -1;
    for (int b = 0; b < kBins; ++b)
        if (const double e = expected[size_t(b)] * kDraws, o = counts[size_t(b)]; e >= 5.0)
            chi2 += (o - e) * (o - e) / e, ++dof;
    EXPECT_LT(chi2, dof + 5.0 * std::sqrt(2.0 * dof)) << "dof " << dof;
    // The sun holds a small solid angle but a large share of the draws.
    EXPECT_GT(sunShare / kDraws, 0.3);
}

TEST_F(SkyLight, FrameKeepsNorthAndStraightensZenith) {
    lvSetSkyLightNorth(0.0f, 2.0f, 0.0f), lvSetSkyLightZenith(0.0f, 0.6f, 0.8f);
    prepare();
    const float *f = registry.skyLight.frame, *g = registry.skyLight.inverseFrame;
    for (int i = 0; i < 9; ++i) {
        EXPECT_NEAR(f[i], i % 4 == 0, 1e-6f) << i;   // the identity
        EXPECT_EQ(g[i], f[3 * (i % 3) + i / 3]) << i;
    }
}

// A black colour whatever the image, or a black image under a bright
// colour: nothing to sample and no photons to cast.
TEST_F(SkyLight, BlackSkySwitchesSamplingAndPhotonsOff) {
    for (float colour : {0.0f, 1.0f}) {
        registry.skyLight.image = memoryImage(4, 2, [=](float, float) { return one * (1.0f - colour); });
        lvSetSkyLightColor(colour, colour, colour);
        prepare();
        EXPECT_EQ((std::vector<int>{registry.skyLight.sample, registry.skyLight.photon, skyDistribution().count}),
                  (std::vector<int>{0, 0, 0})) << colour;
        quietly(releaseSkyLight);
    }
}

// A missing image prints its error, leaves a constant sky that photons still
// leave, and reports a size of 0.
TEST_F(SkyLight, MissingImageLeavesAConstantSky) {
    lvSetSkyLightImage("nowhere.hdr");
    EXPECT_EQ(reportedLines(prepareSkyLight),
              (std::vector<std::string>{"error :( \timage - nowhere.hdr\tcannot be found", kRule, "",
                                        "sky light map width                   0 [ n/a ]",
                                        "sky light map height                  0 [ n/a ]",
                                        "sky light memory                 0.0000 [ M bytes ]", kRule, ""}));
    EXPECT_EQ((std::vector<int>{registry.skyLight.sample, registry.skyLight.photon}), (std::vector<int>{0, 1000000}));
    EXPECT_EQ(skyRadiance({0, 0, 1}), (Color{0.75f, 0.75f, 0.75f}));
}

// Camera rays see the backdrop; every other ray sees the sky: its colour
// without an image, the exact image on a mirror-like path, the cube after a
// diffuse or glossy bounce.
TEST_F(SkyLight, BackdropAtDepthZeroThenColourImageOrCube) {
    Camera camera = defaultCamera();
    camera.width = 4, camera.height = 2;
    registry.cameras.push_back(camera);
    registry.skyLight.backdrop = memoryImage(4, 2, [](float u, float v) { return Color{u, v, 7.0f}; });
    registry.skyLight.color = {1.0f, 2.0f, 3.0f};
    prepare();

    RayState ray = freshRay();
    ray.direction = {0, 0, 1}, registry.threadPixelIndex[0] = 1 * 4 + 3;   // column 3, row 1
    EXPECT_EQ(skyRadianceForRay(ray), (Color{0.875f, 0.75f, 7.0f}));
    ray.depth = 1;
    EXPECT_EQ(skyRadianceForRay(ray), (Color{1.0f, 2.0f, 3.0f}));   // a backdrop does not light
    quietly(releaseSkyLight);

    // An image that is bright only near the zenith (v = 0).
    registry.skyLight.image = memoryImage(64, 32, [](float, float v) { return v < 0.1f ? Color{4, 4, 4} : Color{1, 1, 1}; });
    prepare();
    ray.depth = 1;
    EXPECT_NEAR(skyRadianceForRay(ray).x, 3.0f, 1e-5f);   // the image times 0.75
    ray.diffuse_bounces = 1;
    const Color cube = skyRadianceForRay(ray);
    EXPECT_EQ(cube, cubeTexelColor(cubeTexelOf(ray.direction)));
    EXPECT_NEAR(cube.x, 3.0f, 0.02f);
}

}  // namespace
