// Point, spot and parallel lights lighting small scenes directly, against
// the values that the light's inverse square law, its spot ramp and the
// transparency of shadow casters fix; and the photons that lights send.
#include <cmath>

#include "lights/lights.h"
#include "radiance_scene.h"

namespace {

class DirectLight : public RadianceScene {
protected:
    // A fresh scene made by `build`, seen through one pixel looking straight
    // down at (x, y); the pixel's value.
    template <class Build>
    Color pixelAt(float x, float y, Build build) {
        restart();
        build();
        camera({x, y, 8}, {x, y, 0}, 0.002f, 1, 1);
        return storedPixel(render(), 0);
    }
};

// A lambertian plane of albedo a under a point light of colour c at height
// h: a c (u - o) / (1 - o) / d^2, u the cosine at the point and o the
// terminator offset, so that the light fades out before grazing. A spot
// scales this by its linear ramp between the inner and outer angles.
TEST_F(DirectLight, PointAndSpotLightsFollowTheInverseSquareAndTheRamp) {
    const float a = 0.5f, h = 2.0f, o = 0.1f;
    auto lamp = [&](float inner, float outer) {
        return [=, this] {
            square(0.0f, 100.0f, shader(one * a));
            const int light = pointLight({0, 0, h}, {4, 8, 12});
            lvSetPointLightInnerAngle(light, inner), lvSetPointLightOuterAngle(light, outer);
        };
    };
    for (float x : {0.0f, 1.0f, 4.0f, 15.0f, 25.0f}) {
        const float d = std::sqrt(h * h + x * x), u = h / d;
        const float expected = u > o ? a * (u - o) / (1.0f - o) / (d * d) : 0.0f;
        EXPECT_NEAR(pixelAt(x, 0, lamp(180, 180)).y, 8.0f * expected, 0.002f * 8.0f * expected) << "x " << x;
    }
    // A spot from 20 to 40 degrees: full inside, half way at 30 degrees, none outside.
    for (auto [degrees, spot] : {std::pair{10.0f, 1.0f}, {30.0f, 0.5f}, {35.0f, 0.25f}, {45.0f, 0.0f}}) {
        const float x = h * std::tan(degrees * kDegree), d = std::hypot(h, x), u = h / d;
        const float expected = spot * a * (u - o) / (1.0f - o) / (d * d);
        EXPECT_NEAR(pixelAt(x, 0, lamp(20, 40)).x, 4.0f * expected, 0.01f * 4.0f * expected) << degrees << " degrees";
    }
}

// A grey diffusion sends a sharp light's samples over the first-hit split,
// which weighs by the plain cosine, without the terminator offset; a
// parallel light gives a c (u - o) / (1 - o) on a single sample.
TEST_F(DirectLight, SplitPathsAndParallelLights) {
    const float u = 2.0f / std::sqrt(5.0f);
    const Color diffused = pixelAt(1, 0, [this] {
        const int wall = shader(one * 0.5f);
        grey(wall, LV_ELEMENT_DIFFUSION, 0.001f);
        square(0.0f, 100.0f, wall);
        pointLight({0, 0, 2}, one);
    });
    EXPECT_NEAR(diffused.x, 0.5f * u / 5.0f, 0.02f * 0.5f * u / 5.0f);
    const Color sunlit = pixelAt(0, 0, [this] {
        square(0.0f, 100.0f, shader(one * 0.5f));
        lvSetParallelLightOffset(sun({0.6f, 0.0f, -0.8f}, one * 2.0f, 0), 0.1f);   // the default offset
    });
    EXPECT_NEAR(sunlit.x, 0.5f * 2.0f * (0.8f - 0.1f) / 0.9f, 1e-4f);
}

// A square caster half way between the light and the floor throws a shadow
// twice its size. Sheets with shadow_transparency 0.5 halve the light each.
// A blurred light widens the penumbra with its radius.
TEST_F(DirectLight, ShadowsHaveTheirShapeTransparencyAndPenumbra) {
    auto scene = [&](float blur, Color transparency, int sheets) -> const ImageRecord& {
        restart();
        square(0.0f, 100.0f, shader(one));
        const int caster = shader(zero);
        lvSetShaderVisibility(caster, LV_VISIBILITY_NOT_CAMERA_PRIMARY);   // casts shadows, not seen
        lvSetSurfaceColor(caster, 0, LV_ELEMENT_SHADOW_TRANSPARENCY, transparency.x, transparency.y, transparency.z);
        for (int k = 0; k < sheets; ++k) square(1.0f + 0.1f * float(k), 0.5f, caster);
        const int light = pointLight({0, 0, 2.0f + 0.1f * float(sheets - 1)}, one * 4.0f);
        lvSetPointLightBlur(light, blur), lvSetPointLightSample(light, 64);
        // The view spans x and y from -2 to 2 on the floor, 32 pixels.
        camera({0, 0, 10}, {0, 0, 0}, 2.0f * std::atan(0.2f) / kDegree, 32, 4);
        return render();
    };
    // Sharp: pixel centres at |x| < 1 and |y| < 1 lie in the shadow.
    const ImageRecord& sharp = scene(0.0f, zero, 1);
    for (int y = 0; y < 32; ++y)
        for (int x = 0; x < 32; ++x) {
            const float px = (float(x) + 0.5f) / 8.0f - 2.0f, py = (float(y) + 0.5f) / 8.0f - 2.0f;
            const float v = storedPixel(sharp, y * 32 + x).x, r = std::max(std::fabs(px), std::fabs(py));
            EXPECT_TRUE(r < 0.95f ? v == 0.0f : r <= 1.05f || v > 0.1f) << x << ", " << y << ": " << v;
        }
    // Transparency: the floor under the sheets keeps 1/2 and 1/4 of the light.
    for (int sheets : {1, 2}) {
        const ImageRecord& image = scene(0.0f, one * 0.5f, sheets);
        const float h = 2.0f + 0.1f * float(sheets - 1), d = std::hypot(h, 1.0f / 16.0f), u = h / d;
        const float lit = 4.0f * (u - 0.1f) / 0.9f / (d * d);
        EXPECT_NEAR(storedPixel(image, 16 * 32 + 16).x, lit * std::ldexp(1.0f, -sheets), 0.02f * lit);
    }
    // The penumbra: pixels of the middle row that keep neither none nor all
    // of what they get with a caster that lets everything through (all grey).
    auto penumbra = [&](float blur) {
        const std::vector<double> open = blockMeans(scene(blur, one, 1), 1), r = blockMeans(scene(blur, zero, 1), 1);
        int count = 0;
        for (size_t x = 16 * 32; x < 17 * 32; ++x) count += r[x] > 0.05 * open[x] && r[x] < 0.95 * open[x];
        return count;
    };
    const int narrow = penumbra(0.1f), wide = penumbra(0.4f);
    EXPECT_GE(narrow, 1);
    EXPECT_GT(wide, narrow + 2);
}

// A light with a link lights only the linked shaders: the other half of
// the floor stays black. A link to unknown names lights everything.
TEST_F(DirectLight, LinksChooseTheShadersALightReaches) {
    auto halves = [this](bool linked, const char* name) {
        return [=, this] {
            const int left = shader(one), right = shader(one);
            quad({-10, -10, 0}, {0, -10, 0}, {0, 10, 0}, {-10, 10, 0}, left);
            quad({0, -10, 0}, {10, -10, 0}, {10, 10, 0}, {0, 10, 0}, right);
            const int light = pointLight({0, 0, 2}, one);
            if (linked) lvSetPointLightShaderLink(light, left);
            if (name) registry.pointLights[0].link.names = {name};
        };
    };
    EXPECT_GT(pixelAt(-0.5f, 0, halves(true, nullptr)).x, 0.1f);
    EXPECT_EQ(pixelAt(0.5f, 0, halves(true, nullptr)).x, 0.0f);
    EXPECT_GT(pixelAt(0.5f, 0, halves(false, "no such shader")).x, 0.1f);
}

// Photons of a point light outside the scene leave within the cone that holds
// the scene's sphere, from inside it over the whole sphere; a parallel light's
// start on a disc of the sphere's size, one radius up the beam. Their powers
// add up to the light's photon power.
TEST_F(DirectLight, PhotonsLeaveLightsTowardsTheScene) {
    registry.sceneCenter = {1, 1, 1}, registry.sceneRadius = 2.0f;
    const int n = 2000;
    for (Vector at : {Vector{1, 1, 11}, Vector{1, 1.5f, 1}}) lvSetPointLightPhoton(pointLight(at, {1, 2, 3}), n);
    sun({0, 0, -1}, {1, 2, 3}, n);
    quietly(lvInitializeGaffer);

    const float cone = std::cos(std::atan2(2.0f, 10.0f));
    // The blue channel's power: 3 times the solid angle, or the disc's area.
    const struct { const DeltaLight* light; float power; } cases[] = {
        {&registry.pointLights[0], 3.0f * kTwoPi * (1.0f - cone)},
        {&registry.pointLights[1], 3.0f * kFourPi},
        {&registry.parallelLights[0], 3.0f * kPi * 4.0f}};
    for (int k = 0; k < 3; ++k) {
        Vector power = zero, mean = zero;
        for (int i = 0; i < n; ++i) {
            RayState ray = freshRay();
            cases[k].light->emitPhoton(ray, uint64_t(i));
            power += ray.power, mean += ray.direction / float(n);
            const Vector o = ray.origin;
            EXPECT_TRUE(k != 0 || -normalized(ray.direction).z >= cone - 1e-5f) << i;
            EXPECT_TRUE(k != 2 || (o.z == 3.0f && std::hypot(o.x - 1.0f, o.y - 1.0f) <= 2.0f + 1e-5f)) << i;
        }
        EXPECT_NEAR(power.z, cases[k].power, 1e-3f * cases[k].power) << "light " << k;
        EXPECT_TRUE(k != 1 || std::sqrt(dot(mean, mean)) < 0.02f);   // all round
    }
}

}  // namespace
