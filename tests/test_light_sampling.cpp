// Light found by sampling the sky and the emitters, weighed against the light
// that bounces find: with sampling on or off a scene renders the same value,
// the one physics fixes where known, and sampling leaves far less noise.
#include <cmath>
#include <random>

#include "lights/sky_light.h"
#include "radiance_scene.h"

namespace {

class LightSampling : public RadianceScene {
protected:
    // Mean and variance over the pixels of a grey image.
    static std::pair<double, double> moments(const ImageRecord& image) {
        double sum = 0.0, squares = 0.0, n = image.width * image.height;
        for (double v : blockMeans(image, 1)) sum += v, squares += v * v;
        return {sum / n, squares / n - (sum / n) * (sum / n)};
    }
    // A floor under the sky, seen from above through `size` pixels.
    const ImageRecord& floorUnderSky(int s, int size, int frames) {
        square(0.0f, 1000.0f, s);
        camera({0, 0, 5}, {0, 0, 0}, 20.0f, size, frames);
        return render();
    }
};

// A floor that reflects a and lets through t diffusely, under a sky of
// radiance 1 all round, shows a + t, whether a constant sky image is sampled
// or bounces alone find it. With a glossy layer on top the two agree too.
TEST_F(LightSampling, FurnaceSkyGivesTheAlbedoWithAndWithoutSampling) {
    for (bool coated : {false, true}) {
        double means[2];
        for (bool sampled : {false, true}) {
            SCOPED_TRACE(testing::Message() << (sampled ? "sampled" : "bounces alone") << (coated ? ", glossy" : ""));
            lvSetRendererSample(64), registry.skyLight.color = one;
            if (sampled) skyImage([](float, float) { return one; });
            const int s = shader(one * 0.5f);
            grey(s, LV_ELEMENT_TRANSMISSIVE, 0.25f);
            if (coated) glossy(s, 0.2f, 0.3f, 1.5f);
            means[sampled] = moments(floorUnderSky(s, 8, 2)).first;
            EXPECT_TRUE(coated || std::fabs(means[sampled] - 0.75) < 0.01) << means[sampled];
            restart();
        }
        EXPECT_NEAR(means[1], means[0], 0.015 * means[0]) << (coated ? "glossy" : "diffuse");
    }
}

// A small bright sun in a dim sky: both ways agree on the floor's value within
// their noise, and the sampled one varies far less from pixel to pixel.
TEST_F(LightSampling, SunIsFoundWithLessNoiseBySampling) {
    double means[2], variances[2];
    for (int sampled : {0, 1}) {
        lvSetRendererSample(16), registry.skyLight.color = one;
        sunInSky(0.3f, 0.25f, 0.004f, one * 200.0f, one * 0.2f);
        lvSetSkyLightSample(sampled ? 64 : 0);
        std::tie(means[sampled], variances[sampled]) = moments(floorUnderSky(shader(one * 0.5f), 16, 4));
        restart();
    }
    // Within four standard errors of the difference of the two means.
    EXPECT_NEAR(means[1], means[0], 4.0 * std::sqrt((variances[0] + variances[1]) / 256.0));
    EXPECT_LT(variances[1], 0.25 * variances[0]);
}

// Light sampled and light found by bounces alone agree past the first hit
// too, where one sample stands for the light and the lobes that led there
// carry the path's throughput: a ball on the ground under a sun in a dim sky,
// and the room under its lamp, at one, two and four bounces.
TEST_F(LightSampling, SampledAndUnsampledLightsAgreeAtEveryBounce) {
    for (int bounce : {1, 2, 4}) {
        SCOPED_TRACE(bounce);
        double sky[2], lamp[2];
        for (int sampled : {0, 1}) {
            lvSetRendererSample(256), lvSetRendererBounce(bounce), registry.skyLight.color = one;
            sunInSky(0.3f, 0.25f, 0.01f, one * 8.0f, one * 0.2f);
            lvSetSkyLightSample(sampled ? 64 : 0);
            square(0.0f, 1000.0f, shader(one * 0.5f));
            sphere({0, 0, 1}, 1.0f, shader(one * 0.5f));
            camera({0, -6, 3}, {0, 0, 0.8f}, 40.0f, 32, 256);
            sky[sampled] = imageMean(render());
            restart();
            lvSetRendererSample(256), lvSetRendererBounce(bounce), lvSetGeometryLightSample(sampled ? 16 : 0);
            room(12.0f);
            camera({0, -3.4f, 0}, {0, 0, 0}, 40.0f, 32, 1024);
            lamp[sampled] = imageMean(render());
            restart();
        }
        EXPECT_NEAR(sky[1], sky[0], 0.01 * sky[0]);
        EXPECT_NEAR(lamp[1], lamp[0], 0.01 * lamp[0]);
    }
}

// A white floor under a sky image shows the irradiance of the sky over pi:
// the integral of the image as its lookup places it (texel i of a row at
// u = i / width), through the cube's texels, their densities and weights.
TEST_F(LightSampling, FloorUnderASkyImageTakesItsIrradiance) {
    lvSetRendererSample(64), registry.skyLight.color = one;
    sunInSky(0.6f, 0.3f, 0.003f, {60, 50, 40}, {0.3f, 0.4f, 0.5f});
    square(0.0f, 1000.0f, shader(one));
    camera({0, 0, 5}, {0, 0, 0}, 20.0f, 16, 64);
    quietly(lvInitialize);
    // The integral of the radiance times the cosine over the upper half of
    // the sky, by the midpoint rule in elevation and azimuth.
    Color irradiance = zero;
    const int n = 300;
    const double step = kPi / 2 / n;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < 4 * n; ++j) {
            const double theta = (i + 0.5) * step, phi = (j + 0.5) * step;
            const double s = std::sin(theta), c = std::cos(theta);
            const Vector d{float(s * std::cos(phi)), float(s * std::sin(phi)), float(c)};
            irradiance += skyRadiance(d) * float(c * s * step * step);
        }
    quietly(lvRender);
    expectMean(registry.cameras[0].aovs[0].image, 0, 16, irradiance * kInvPi, 0.005f);
}

// A lambertian wall under a square lamp of half side a at height h: albedo
// times the lamp's radiance times the form factor 4 (X / s) atan(1 / s) / pi,
// X = a / h, s = sqrt(1 + X^2). Sampling the lamp's points changes the noise,
// not the value. Found by bounces alone, a sample sees the lamp about half
// the time, so that way takes eight times the samples to stay within 2 %.
// With more frames than the light's budget, the first hit takes a sample a
// frame: light and bounces weigh each other by what they really take. With a
// grey `diffusion` light and bounces leave from points drawn nearby on the
// same wall, which see nearly the same lamp.
TEST_F(LightSampling, EmitterSampledOrNotGivesTheFormFactor) {
    const float X = 1.0f, s = std::sqrt(1.0f + X * X), F = 4.0f * (X / s) * std::atan(1.0f / s) / kPi;
    const struct { int samples, frames; float diffusion; } cases[] = {
        {0, 4, 0.0f}, {16, 4, 0.0f}, {2, 32, 0.0f}, {16, 4, 0.002f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.samples << " samples, diffusion " << c.diffusion);
        lvSetRendererSample(c.samples ? 64 : 512), lvSetGeometryLightSample(c.samples);
        const int wall = shader(one * 0.5f);
        grey(wall, LV_ELEMENT_DIFFUSION, c.diffusion);
        square(0.0f, 20.0f, wall);
        square(2.0f, 2.0f, lamp(one), false);
        camera({0, 0, 1}, {0, 0, 0}, 6.0f, 16, c.frames);
        expectMean(render(), 4, 12, one * (0.5f * F), 0.02f);
        restart();
    }
}

// A wall lit at grazing angles by a lamp whose far half lies behind the
// wall's plane takes the lamp's radiance integrated over its area; so does
// the wall turned about the vertical, its corners no longer exact floats. A
// hit lies a rounding error off the plane: a shadow ray that did not skip
// the wall it leaves would stop on it for many samples.
TEST_F(LightSampling, WallUnderGrazingLampTakesTheIntegratedLight) {
    // The point the camera sees; the lamp at y = 1.98 over x in [-0.4, 0.4], z
    // in [-0.3, 0.5], radiance 11, facing down; the wall z = 0, albedo 0.5.
    const Vector P{0, 0.6f, 0};
    double E = 0.0;
    const int n = 400;
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < n; ++k) {
            const double x = -0.4 + 0.8 * (i + 0.5) / n, z = -0.3 + 0.8 * (k + 0.5) / n;
            const double dx = x - P.x, dy = 1.98 - P.y, dz = z - P.z, d2 = dx * dx + dy * dy + dz * dz;
            if (dz > 0.0) E += 11.0 * (dz / std::sqrt(d2)) * (dy / std::sqrt(d2)) * (0.64 / (n * n)) / d2;
        }
    const float expected = float(0.5 * E / kPi);
    for (bool turned : {false, true}) {
        SCOPED_TRACE(turned);
        const float c = turned ? 0.927f : 1.0f, s = turned ? 0.375f : 0.0f;
        const auto place = [&](Vector v) {
            return turned ? Vector{c * v.x + s * v.z - 0.52f, v.y, -s * v.x + c * v.z - 0.19f} : v;
        };
        lvSetRendererSample(256), lvSetGeometryLightSample(256);
        const int wall = shader(one * 0.5f), lamp = this->lamp(one * 11.0f);
        quad(place({-0.28f, 0, 0}), place({0.28f, 0, 0}), place({0.28f, 1.2f, 0}), place({-0.28f, 1.2f, 0}), wall);
        quad(place({-0.4f, 1.98f, -0.3f}), place({0.4f, 1.98f, -0.3f}), place({0.4f, 1.98f, 0.5f}),
             place({-0.4f, 1.98f, 0.5f}), lamp);
        camera(place({0, 0.6f, 3.6f}), place(P), 0.5f, 16, 4);
        expectMean(render(), 0, 16, one * expected, 0.03f);
        restart();
    }
}

// A window shows the sky's own radiance behind it and no emission of its
// own; with a black sky nothing of the sky is sampled or seen.
TEST_F(LightSampling, WindowsShowTheSkyAndABlackSkyIsOff) {
    registry.skyLight.color = {0.25f, 0.5f, 1.0f};
    const int pane = shader(zero, {9, 9, 9});
    registry.shaders[size_t(pane)].layers[0].window = true;   // a scene file's `window` line
    expectMean(floorUnderSky(pane, 4, 1), 0, 4, {0.25f, 0.5f, 1.0f}, 1e-6f);
    restart();
    skyImage([](float, float) { return one; });
    expectMean(floorUnderSky(shader(one), 4, 1), 0, 4, zero, 0.0f);
}

// Light that both a light sample and a bounce can find is counted once: the
// balance weights of the two add up to one, as direct light and emission
// call them. At the first hit the light's samples are folded into its
// density on one side and counted apart on the other; past it each takes
// one; the sky weighs its draw twice against half the lobes' rays.
TEST(BalanceWeights, BothStrategiesOfOneEventSumToOne) {
    std::mt19937 random(7);
    std::uniform_real_distribution<float> density(1e-3f, 100.0f), count(1.0f, 256.0f);
    for (int k = 0; k < 200; ++k) {
        const float pl = density(random), pb = density(random), nl = std::floor(count(random)),
                    nb = std::floor(count(random));
        const float sums[] = {balanceWeight(1.0f, nl * pl, nb, pb) + balanceWeight(nb, pb, nl, pl),
                              balanceWeight(1.0f, pl, 1.0f, pb) + balanceWeight(1.0f, pb, 1.0f, pl),
                              balanceWeight(1.0f, nl * pl, nb * 0.5f, pb) + balanceWeight(nb, pb, nl, 2.0f * pl)};
        for (float sum : sums) EXPECT_NEAR(sum, 1.0f, 1e-6f) << pl << " " << pb << " " << nl << " " << nb;
    }
}

}  // namespace
