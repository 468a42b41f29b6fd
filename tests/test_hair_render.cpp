// Hair in rendered scenes: a hair ball in a white furnace, light that a
// fibre takes from the sky, an emitter and a point light, found by samples
// or by the fibre's own rays, and photons that go on from fibres.
#include <tuple>
#include <vector>

#include "radiance_scene.h"

namespace {

class HairRender : public RadianceScene {
protected:
    // A white glossy layer of index 1.55 sampling all three lobes, with a
    // lambertian part and the medium's transmittance as the fibres' colour.
    static int hairShader(float lambertian, float glossy, float roughness, Color transmittance) {
        const int s = shader(one * lambertian);
        RadianceScene::glossy(s, glossy, roughness, 1.55f);
        lvSetSurfaceMaterial(s, 0, LV_MATERIAL_SOLID);
        registry.shaders[size_t(s)].volume.transmittance = transmittance;   // a scene file's volume_shader
        return s;
    }
    // Strands as lists of points, in one part.
    void strands(const std::vector<std::vector<Vector>>& list, float radius, int s) {
        const int part = lvAddPart(object_);
        int base = 0;
        for (const std::vector<Vector>& points : list) {
            for (const Vector& p : points) lvAddPositions(object_, part, 1, &p.x), lvAddRadii(object_, part, 1, &radius);
            for (int k = base; k + 1 < base + int(points.size()); ++k) lvAddCylinders(object_, part, 1, &k);
            base += int(points.size());
        }
        lvSetShaderID(object_, part, s);
    }
    // Mean of the image rows [from, to).
    static Color rowMean(const ImageRecord& image, int from, int to) {
        Color c = zero;
        for (int i = from * image.width; i < to * image.width; ++i) c += storedPixel(image, i);
        return c / float((to - from) * image.width);
    }
};

// A ball of clear fibres under a sky of radiance 1 all round, seen against
// a black backdrop: each scattering keeps at most what Fresnel leaves, so
// the fibres return no more than the sky's radiance, and in a ball this
// sparse, where light soon leaves, not much less after four bounces. The
// share of each pixel that fibres cover comes from the ball as an emitter.
TEST_F(HairRender, ClearHairBallInAWhiteFurnaceStaysWithinTheSkysRadiance) {
    std::vector<std::vector<Vector>> ball;
    while (ball.size() < 1000) {
        const Vector v = Vector{hardwareRandomFloat(), hardwareRandomFloat(), hardwareRandomFloat()} * 2.0f - one;
        if (dot(v, v) > 1.0f || dot(v, v) < 0.01f) continue;
        const Vector d = normalized(v), bend = normalized(cross(d, {0.3f, 0.5f, 0.8f})) * 0.15f;
        ball.push_back({d * 0.3f, d * 0.6f + bend * 0.5f, d * 0.9f + bend});
    }
    double means[3];   // cover, bounces alone, sky sampled
    for (int pass = 0; pass < 3; ++pass) {
        lvSetRendererSample(256), lvSetRendererBounce(4), lvSetRendererRayDepth(6);
        registry.skyLight.color = one;
        registry.skyLight.backdrop = memoryImage(4, 4, [](float, float) { return zero; });
        if (pass == 2) skyImage([](float, float) { return one; });
        strands(ball, 0.005f, pass == 0 ? shader(zero, one) : hairShader(0.0f, 1.0f, 0.1f, one));
        camera({0, 0, 4}, {0, 0, 0}, 6.0f, 16, pass == 0 ? 64 : 4);
        means[pass] = rowMean(render(), 0, 16).x;
        restart();
    }
    EXPECT_GT(means[0], 0.3);
    for (int pass = 1; pass < 3; ++pass) {
        EXPECT_LT(means[pass] / means[0], 1.0) << pass;
        EXPECT_GT(means[pass] / means[0], 0.75) << pass;
    }
    // Three times a lobe's share at every bounce makes the fibres' own rays
    // noisy: the two agree to within their noise.
    EXPECT_NEAR(means[2], means[1], 0.1 * means[1]);
}

// One fibre along x, with a lambertian part and a coloured medium, seen
// across: the sky and a large lamp light it alike whether samples find
// them, weighed against the fibre's rays, or the rays alone; and a point
// light of colour L A / pi lights it as a small lamp of radiance L and
// area A right above it.
TEST_F(HairRender, LightOnAFibreIsTheSameFoundBySamplesOrByItsRays) {
    enum Light { kSkyRays, kSkySampled, kLampRays, kLampSampled, kSmallLamp, kPoint };
    Color means[6];
    for (int light = kSkyRays; light <= kPoint; ++light) {
        lvSetRendererSample(256);
        strands({{{-2, 0, 0}, {-0.5f, 0, 0}, {0.5f, 0, 0}, {2, 0, 0}}}, 0.1f,
                hairShader(0.3f, 0.7f, 0.15f, {0.8f, 0.6f, 0.35f}));
        if (light == kSkyRays || light == kSkySampled) registry.skyLight.color = one;
        if (light == kSkySampled) skyImage([](float, float) { return one; });
        // The small lamp takes many samples, so that the fibre's rays, which
        // seldom find it, carry little of its light.
        lvSetGeometryLightSample(light == kLampRays ? 0 : light == kSmallLamp ? 256 : 16);
        const float h = light == kSmallLamp ? 0.05f : 1.0f, L = light == kSmallLamp ? 400.0f : 4.0f;
        if (light == kLampRays || light == kLampSampled || light == kSmallLamp)
            quad({-h, -h, 1.5f}, {-h, h, 1.5f}, {h, h, 1.5f}, {h, -h, 1.5f}, lamp(one * L));   // facing down
        if (light == kPoint) pointLight({0, 0, 1.5f}, one * (400.0f * 0.01f / kPi));
        camera({0, -4, 0.3f}, {0, 0, 0}, 5.0f, 32, 8);
        means[light] = rowMean(render(), 10, 22);
        restart();
    }
    // The lamp found by the rays alone is the noisiest of the six.
    for (auto [a, b, tolerance] : {std::tuple{kSkySampled, kSkyRays, 0.02f}, {kLampSampled, kLampRays, 0.08f},
                                   {kPoint, kSmallLamp, 0.03f}}) {
        SCOPED_TRACE(testing::Message() << a << " against " << b);
        EXPECT_NEAR(means[a].x, means[b].x, tolerance * means[b].x);
        EXPECT_NEAR(means[a].z, means[b].z, tolerance * means[b].z);
    }
    // The medium colours what passes through the fibre.
    EXPECT_GT(means[kSkyRays].x, means[kSkyRays].y);
    EXPECT_GT(means[kSkyRays].y, means[kSkyRays].z);
}

// Photons that meet a fibre go on through its lobes: under a mat of clear
// fibres that shades half of a floor lit from above, the floor's cells
// hold far more than the half of the light that passes between the fibres,
// as fibres send most of theirs on forwards, and no more than all of it.
TEST_F(HairRender, PhotonsGoOnThroughFibresToTheFloor) {
    double inner[2];
    for (bool mat : {false, true}) {
        lvSetRendererDistance(0.01f), lvSetRendererResolution(16.0f / 400.0f);
        square(0.0f, 2.0f, shader(one * 0.5f));
        std::vector<std::vector<Vector>> rows;
        for (int k = -15; mat && k <= 15; ++k) {
            const float y = 0.2f * float(k);
            rows.push_back({{-3, y, 0.5f}, {-1, y, 0.5f}, {1, y, 0.5f}, {3, y, 0.5f}});
        }
        if (mat) strands(rows, 0.05f, hairShader(0.0f, 1.0f, 0.1f, one));
        sun({0, 0, -1}, one * 2.0f, 200000);
        camera({0, 0, 8}, {0, 0, 0}, 10.0f, 4, 1);
        quietly(lvInitialize);
        inner[mat] = innerCellMean(registry.objects[size_t(registry.rootObject)].parts[0].tetragonCellResolution[0] / 8);
        restart();
    }
    EXPECT_NEAR(inner[0], 1.0, 0.02);   // albedo 0.5 times the light's 2
    EXPECT_GT(inner[1], 0.8 * inner[0]);
    EXPECT_LT(inner[1], 1.02 * inner[0]);
}

}  // namespace
