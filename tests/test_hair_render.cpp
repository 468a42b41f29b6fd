// Hair in rendered scenes: a hair ball in a white furnace, light that fibres
// take from the sky, an emitter and a point light, each found by samples or
// by the fibres' own rays, and photons that go on from fibres.
#include <cmath>
#include <utility>
#include <vector>

#include "core/constants.h"
#include "photons/photon_cast.h"
#include "radiance_scene.h"

namespace {

class HairRender : public RadianceScene {
protected:
    static Vector randomDirection() {
        for (;;) {
            const Vector v{2.0f * hardwareRandomFloat() - 1.0f, 2.0f * hardwareRandomFloat() - 1.0f,
                           2.0f * hardwareRandomFloat() - 1.0f};
            if (dot(v, v) > 0.01f && dot(v, v) <= 1.0f) return normalized(v);
        }
    }
    // A hair shader: a lambertian part, a white glossy part with the given
    // roughness and index 1.55, all three lobes sampled when `allLobes`, and
    // its medium's transmittance as the fibre's colour.
    static int hairShader(float lambertian, float glossy, float roughness, bool allLobes, Color transmittance) {
        const int s = shader(one * lambertian);
        lvSetSurfaceColor(s, 0, LV_ELEMENT_GLOSSY, glossy, glossy, glossy);
        lvSetSurfaceColor(s, 0, LV_ELEMENT_ROUGHNESS, roughness, roughness, roughness);
        lvSetSurfaceColor(s, 0, LV_ELEMENT_IOR, 1.55f, 1.55f, 1.55f);
        if (allLobes) lvSetSurfaceMaterial(s, 0, LV_MATERIAL_SOLID);
        registry.shaders[size_t(s)].volume.transmittance = transmittance;   // a scene file's volume_shader
        return s;
    }
    // Strands as lists of points, all in one part.
    void strands(const std::vector<std::vector<Vector>>& list, float radius, int s) {
        const int part = lvAddPart(object_);
        int base = 0;
        for (const std::vector<Vector>& points : list) {
            for (const Vector& p : points) lvAddPositions(object_, part, 1, &p.x), lvAddRadii(object_, part, 1, &radius);
            for (int k = 0; k + 1 < int(points.size()); ++k) {
                const int index = base + k;
                lvAddCylinders(object_, part, 1, &index);
            }
            base += int(points.size());
        }
        lvSetShaderID(object_, part, s);
    }
    // One straight strand along x through the origin.
    void strandAlongX(float radius, int s) { strands({{{-2, 0, 0}, {-0.5f, 0, 0}, {0.5f, 0, 0}, {2, 0, 0}}}, radius, s); }
    // Mean of the rows [from, to) of an image, all columns.
    static Color rowMean(const ImageRecord& image, int from, int to) {
        Color c = zero;
        for (int y = from; y < to; ++y)
            for (int x = 0; x < image.width; ++x) c += storedPixel(image, y * image.width + x);
        return c / float((to - from) * image.width);
    }
    static void expectNear(Color a, Color b, float relative) {
        EXPECT_NEAR(a.x, b.x, relative * b.x + 1e-4f);
        EXPECT_NEAR(a.y, b.y, relative * b.y + 1e-4f);
        EXPECT_NEAR(a.z, b.z, relative * b.z + 1e-4f);
    }
};

// A ball of clear fibres, all three lobes sampled, under a sky of radiance 1
// all round, seen against a black backdrop: each scattering keeps at most
// what Fresnel leaves, so the fibres that the camera sees return no more
// than the sky's radiance, and in a ball this sparse, where light soon
// leaves, not much less after four bounces. The share of each pixel that fibres cover comes
// from a render of the ball as a plain emitter.
TEST_F(HairRender, ClearHairBallInAWhiteFurnaceStaysWithinTheSkysRadiance) {
    std::vector<std::vector<Vector>> ball;
    for (int i = 0; i < 1000; ++i) {
        const Vector d = randomDirection();
        const Vector bend = normalized(cross(d, {0.3f, 0.5f, 0.8f})) * 0.15f;
        ball.push_back({d * 0.3f, d * 0.6f + bend * 0.5f, d * 0.9f + bend});
    }
    double means[3];
    for (int pass = 0; pass < 3; ++pass) {
        SCOPED_TRACE(pass == 0 ? "cover" : pass == 1 ? "bounces alone" : "sky sampled");
        lvSetRendererSample(256);
        lvSetRendererBounce(4);
        lvSetRendererRayDepth(4 + 2);
        registry.skyLight.color = one;
        registry.skyLight.backdrop = memoryImage(4, 4, [](float, float) { return zero; });
        if (pass == 2) registry.skyLight.image = memoryImage(64, 32, [](float, float) { return one; });
        strands(ball, 0.005f, pass == 0 ? shader(zero, one) : hairShader(0.0f, 1.0f, 0.1f, true, one));
        camera({0, 0, 4}, {0, 0, 0}, 6.0f, 16, pass == 0 ? 64 : 4);
        means[pass] = rowMean(render(), 0, 16).x;
        restart();
    }
    EXPECT_GT(means[0], 0.3);
    for (int pass = 1; pass < 3; ++pass) {
        EXPECT_LT(means[pass] / means[0], 1.0) << pass;
        EXPECT_GT(means[pass] / means[0], 0.75) << pass;
    }
    // Three times a lobe's share on every bounce makes the fibres' own rays
    // noisy: the two agree to within their noise.
    EXPECT_NEAR(means[2], means[1], 0.1 * means[1]);
}

// One fibre with a lambertian and a glossy part and a coloured medium, under
// the sky and then under a small lamp: the light that samples find, weighed
// against the fibre's rays, adds up to what the rays alone find.
TEST_F(HairRender, LightSamplesOnAFibreAgreeWithItsOwnRays) {
    const Color medium{0.8f, 0.6f, 0.35f};
    for (bool lamp : {false, true}) {
        Color means[2];
        for (bool sampled : {false, true}) {
            SCOPED_TRACE(testing::Message() << (lamp ? "lamp" : "sky") << (sampled ? ", sampled" : ", rays alone"));
            lvSetRendererSample(256);
            const int hair = hairShader(0.3f, 0.7f, 0.15f, true, medium);
            strandAlongX(0.1f, hair);
            if (lamp) {
                lvSetGeometryLightSample(sampled ? 16 : 0);
                const int emitter = shader(zero, {4, 4, 4});
                lvSetSurfaceVirtualLight(emitter, 0, true);
                quad({-1.5f, -1.5f, 1.0f}, {-1.5f, 1.0f, 1.0f}, {1.5f, 1.0f, 1.0f}, {1.5f, -1.5f, 1.0f}, emitter);
            } else {
                registry.skyLight.color = one;
                if (sampled) registry.skyLight.image = memoryImage(64, 32, [](float, float) { return one; });
            }
            camera({0, -4, 0.3f}, {0, 0, 0}, 5.0f, 32, 8);
            means[sampled] = rowMean(render(), 14, 18);
            restart();
        }
        expectNear(means[1], means[0], 0.04f);
        // The medium colours what passes through the fibre.
        EXPECT_GT(means[0].x, means[0].y);
        EXPECT_GT(means[0].y, means[0].z);
    }
}

// A point light of colour L A / pi lights a fibre as a small lamp of
// radiance L and area A in its place does.
TEST_F(HairRender, PointLightMatchesASmallLampInItsPlace) {
    const Vector at{0.0f, 0.0f, 2.0f};
    const float half = 0.05f, L = 400.0f;
    Color means[2];
    for (bool point : {false, true}) {
        SCOPED_TRACE(point ? "point light" : "lamp");
        lvSetRendererSample(64);
        strandAlongX(0.1f, hairShader(0.3f, 0.7f, 0.15f, true, {0.8f, 0.6f, 0.35f}));
        if (point) {
            const int light = lvAddPointLight();
            lvSetPointLightPosition(light, at.x, at.y, at.z);
            const float c = L * 4.0f * half * half / kPi;
            lvSetPointLightColor(light, c, c, c);
            lvSetPointLightInnerAngle(light, 179.0f);
        } else {
            lvSetGeometryLightSample(64);
            const int emitter = shader(zero, one * L);
            lvSetSurfaceVirtualLight(emitter, 0, true);
            quad(at + Vector{-half, half, 0}, at + Vector{half, half, 0}, at + Vector{half, -half, 0},
                 at + Vector{-half, -half, 0}, emitter);
        }
        camera({0, -4, 0.3f}, {0, 0, 0}, 5.0f, 32, 4);
        means[point] = rowMean(render(), 14, 18);
        restart();
    }
    expectNear(means[1], means[0], 0.03f);
}

// Photons that meet a fibre go on through its lobes: under a mat of clear
// fibres that covers half of a floor seen from above, the floor's cells
// hold far more than the half of the light that passes between the fibres,
// as the fibres send most of theirs on forwards, and no more than all of it.
TEST_F(HairRender, PhotonsGoOnThroughFibresToTheFloor) {
    auto floorCells = [this](bool mat) {
        restart();
        lvSetRendererDistance(0.01f);
        lvSetRendererResolution(16.0f / 400.0f);
        square(0.0f, 2.0f, shader(one * 0.5f));
        if (mat) {
            // Strands along x, 0.2 apart, of radius 0.05: half the floor lies
            // in their shadow.
            std::vector<std::vector<Vector>> rows;
            for (int k = -15; k <= 15; ++k) {
                const float y = 0.2f * float(k);
                rows.push_back({{-3, y, 0.5f}, {-1, y, 0.5f}, {1, y, 0.5f}, {3, y, 0.5f}});
            }
            strands(rows, 0.05f, hairShader(0.0f, 1.0f, 0.1f, true, one));
        }
        const int sun = lvAddParallelLight();
        lvSetParallelLightDirection(sun, 0.0f, 0.0f, -1.0f);
        lvSetParallelLightColor(sun, 2.0f, 2.0f, 2.0f);
        lvSetParallelLightPhoton(sun, 200000);
        camera({0, 0, 8}, {0, 0, 0}, 10.0f, 4, 1);
        quietly(lvInitialize);
        const Part& floor = registry.objects[size_t(registry.rootObject)].parts[0];
        const uint32_t n = floor.tetragonCellResolution[0];
        double inner = 0.0;
        for (uint32_t a = n / 8; a < n - n / 8; ++a)
            for (uint32_t b = n / 8; b < n - n / 8; ++b) inner += floor.tetragonCellsFront[a * n + b].x;
        const uint32_t m = n - 2 * (n / 8);
        return inner / double(m * m);
    };
    const double open = floorCells(false), covered = floorCells(true);
    EXPECT_NEAR(open, 1.0, 0.02);   // albedo 0.5 times the light's 2
    EXPECT_GT(covered, 0.8 * open);
    EXPECT_LT(covered, 1.02 * open);
}

}  // namespace
