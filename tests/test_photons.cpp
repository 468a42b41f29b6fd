// Photons cast from the lights, scattered through small scenes, and what
// they leave behind: caustic photons and the density estimator's cells,
// checked against the light's power, direct lighting and path tracing.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "host_run.h"
#include "lights/sky_light.h"
#include "photons/density_estimator.h"
#include "photons/photon_cast.h"
#include "radiance_scene.h"
#include "core/images.h"

namespace {

class Photons : public RadianceScene {
protected:
    static void initialize() { quietly(lvInitialize); }
    // Final gathering's image against path tracing's, as block means: within
    // 3 % in the mean and 10 % in every block.
    static void expectGatheredAsTraced(const std::vector<double>& gathered, const std::vector<double>& traced) {
        ASSERT_EQ(gathered.size(), traced.size());
        ASSERT_FALSE(traced.empty());
        const double a = std::accumulate(traced.begin(), traced.end(), 0.0) / double(traced.size());
        EXPECT_NEAR(std::accumulate(gathered.begin(), gathered.end(), 0.0) / double(traced.size()), a, 0.03 * a);
        for (size_t q = 0; q < traced.size(); ++q) EXPECT_NEAR(gathered[q], traced[q], 0.1 * traced[q]) << q;
    }
};

// Photons stand only for light that reached a diffuse surface through mirrors
// or refraction. A floor lit from above shows the direct light with or
// without photons (none are stored for it, or it would count twice). Under a
// clear sheet that stops shadow rays the floor's caustic carries the light
// the sheet passes on, and without photons the floor stays black; a glass
// ball focuses a caustic brighter than the open floor, which path tracing
// alone leaves dark. Sky photons never count as caustics.
TEST_F(Photons, CausticsCarryTheLightTheyPassOn) {
    auto floorUnder = [this](int photons, float radius, float fov, int cover) {
        restart();
        square(0.0f, 3.0f, shader(one * 0.5f));
        if (cover == 1) square(1.0f, 2.0f, specular(1.0f, 1.0f, LV_MATERIAL_SOLID));
        if (cover == 2) sphere({0, 0, 0.5f}, 0.5f, specular(1.0f, 1.5f, LV_MATERIAL_SOLID));
        sun({0, 0, -1}, {2, 1, 0.5f}, photons);
        lvSetRendererRadius(radius);
        camera({0, 0, 8}, {0, 0, 0}, fov, 8, 1);
        return imageMean(render());
    };
    const double direct = 0.5 * 3.5 / 3.0;
    EXPECT_NEAR(floorUnder(0, 0.5f, 8.0f, 0), direct, 0.01);
    EXPECT_NEAR(floorUnder(20000, 0.5f, 8.0f, 0), direct, 0.01);
    EXPECT_NEAR(floorUnder(100000, 0.5f, 8.0f, 1), direct, 0.05 * direct);
    EXPECT_EQ(floorUnder(0, 0.5f, 8.0f, 1), 0.0);
    EXPECT_GT(floorUnder(200000, 0.05f, 1.0f, 2), 1.5 * direct);
    EXPECT_LT(floorUnder(0, 0.05f, 1.0f, 2), 0.02 * direct);

    restart();
    square(0.0f, 2.0f, shader(one * 0.5f));
    square(1.0f, 2.0f, specular(1.0f, 1.0f, LV_MATERIAL_THIN));
    registry.skyLight.color = one, lvSetSkyLightPhoton(20000);
    initialize();
    EXPECT_TRUE(registry.photons.empty());
}

// Summed over a cast, the photons of the emissive faces carry the emission
// times the emitting area, and those of the sky its radiance over the
// sphere times the squared radius of the scene, with or without an image.
TEST_F(Photons, CastsCarryThePowerOfTheirLight) {
    square(0.0f, 3.0f, shader(one * 0.5f));
    square(1.0f, 0.5f, lamp({2, 3, 4}), false);
    registry.skyLight.color = {1, 2, 3};
    lvSetGeometryLightPhoton(4000), lvSetSkyLightPhoton(4000);
    initialize();
    // In double: fifty thousand small terms would drift in single precision.
    auto sum = [](int count, auto emit) {
        double total[3] = {0, 0, 0};
        for (int i = 0; i < count; ++i) {
            RayState ray = freshRay();
            emit(ray, uint64_t(i)), total[0] += ray.power.x, total[1] += ray.power.y, total[2] += ray.power.z;
        }
        return Color{float(total[0]), float(total[1]), float(total[2])};
    };
    const Color lamps = sum(4000, [](RayState& r, uint64_t i) { emitGeometryLightPhoton(r, i, 4000); });
    // The lamp emits from both sides of its unit of area.
    EXPECT_NEAR(lamps.z, 4.0f * 2.0f, 1e-3f);
    const float R2 = registry.sceneRadius * registry.sceneRadius;
    const Color sky = sum(4000, [](RayState& r, uint64_t i) { emitSkyPhoton(r, i); });
    EXPECT_NEAR(sky.y, 2.0f * kFourPi * R2, 1e-3f * sky.y);

    restart();
    square(0.0f, 3.0f, shader(one * 0.5f));
    registry.skyLight.color = one, lvSetSkyLightPhoton(50000);
    skyImage([](float u, float v) { return Color{1.0f + u, 0.5f + v * v, 1.0f}; });
    initialize();
    double expected = 0.0;
    for (uint32_t face = 0; face < 6; ++face)
        for (uint32_t t = 0; t < uint32_t(kCubeFaceTexels); ++t)
            expected += double(skyRadiance(cubeDirection(int(face), float(t & 0xFF) + 0.5f, float(t >> 8) + 0.5f)).x) *
                        texelSolidAngle((face << 16) | t);
    const Color imaged = sum(50000, [](RayState& r, uint64_t i) { emitSkyPhoton(r, i); });
    const double r2 = double(registry.sceneRadius) * registry.sceneRadius;
    EXPECT_NEAR(imaged.x, expected * r2, 0.002 * expected * r2);
}

// In final gathering the cells of a lambertian floor under a parallel
// light hold what direct lighting gives there: albedo, colour and cosine.
TEST_F(Photons, FloorCellsMatchDirectLight) {
    lvSetRendererDistance(0.01f), lvSetRendererResolution(16.0f / 400.0f);
    square(0.0f, 2.0f, shader(one * 0.5f));
    sun(normalized({0.6f, 0.0f, -0.8f}), {2, 2, 2}, 100000);
    initialize();
    ASSERT_EQ(registry.objects[size_t(registry.rootObject)].parts[0].tetragonCellResolution[0], 21u);
    EXPECT_NEAR(innerCellMean(2), 0.5 * 2.0 * 0.8, 0.02 * 0.8);
}

// Cells follow the faces: a face of area A gets the smallest n with
// resolution n² > A, one cell where no side diffuses, at most 255; every
// weight lands in one of the n² cells, and all cells are reached.
TEST_F(Photons, CellsAreSizedByAreaAndIndexEveryWeight) {
    lvSetRendererResolution(1.0f);
    lvSetRendererDistance(0.5f);   // final gathering: without it no cell is made
    square(0.0f, 0.5f, shader(one));      // area 1: 1 × 2² is the first above it
    square(1.0f, 0.5f, shader(zero));     // nothing to gather: one cell
    square(2.0f, 50.0f, shader(one));     // area 10000: 101² is the first above it
    square(3.0f, 200.0f, shader(one));    // would need 401: limited to 255
    initialize();
    const Part& part = registry.objects[size_t(registry.rootObject)].parts[0];
    EXPECT_EQ(part.tetragonCellResolution, (std::vector<uint32_t>{2, 1, 101, 255}));
    EXPECT_EQ(part.tetragonCellBase, (std::vector<uint32_t>{0, 4, 5, 5 + 101 * 101}));
    EXPECT_EQ(part.tetragonCellsBack.size(), size_t(5 + 101 * 101 + 255 * 255));

    for (uint32_t n : {1u, 3u, 8u}) {
        std::vector<int> triangleHits(n * n, 0), tetragonHits(n * n, 0);
        for (uint32_t i = 0; i < 20000; ++i) {
            const float u = radicalInverse(i, 0), v = radicalInverse(i, 1), s = std::sqrt(u);
            const uint32_t t = triangleCell(n, {1.0f - s, s * (1.0f - v), s * v}), q = tetragonCell(n, {u, v, 0});
            ASSERT_LT(std::max(t, q), n * n);
            ++triangleHits[t], ++tetragonHits[q];
        }
        for (const std::vector<int>& hits : {triangleHits, tetragonHits})
            for (uint32_t k = 0; k < n * n; ++k) EXPECT_NEAR(hits[k], 20000.0 / (n * n), 2000.0 / (n * n)) << n << " " << k;
    }
}

// Faces that would need more than a gigabyte of cells end the process with
// the message and exit code 1, before anything is allocated: the one
// deliberate end of a run.
TEST_F(Photons, CellsBeyondOneGigabyteEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");   // the child starts afresh: no threads of earlier tests
    Part part;
    const int s = shader(one);
    registry.shaders[size_t(s)].hasLambertian[0] = true;
    for (uint32_t k = 0; k < 700; ++k) {
        const float z = float(k);
        for (Vector p : {Vector{0, 0, z}, Vector{1, 0, z}, Vector{1, 1, z}, Vector{0, 1, z}}) part.positions.push_back(p);
        part.tetragons.push_back({4 * k, 4 * k + 1, 4 * k + 2, 4 * k + 3, uint32_t(s)});
    }
    registry.resolution = 2e-8f, registry.distance = 1.0f;
    // The report goes to standard output: the child sends it where the test reads.
    EXPECT_EXIT((dup2(STDERR_FILENO, STDOUT_FILENO), prepareDensityEstimator(part)), testing::ExitedWithCode(1),
                "\ndensity estimator consumes more than 1GB memory.\n_{80}\n\n$");
}

// Final gathering renders the light of path tracing to the photons' depth,
// in the mean and in each 32 x 32 block, in a room of separate objects placed
// by instances (one of them scaled: its cells measure its faces as placed).
// Without photons the terminal hits read black cells, and the light of later
// bounces is lost.
TEST_F(Photons, FinalGatheringAgreesWithPathTracing) {
    auto renderRoom = [this](bool gather, int photons) {
        restart();
        lvSetRendererSample(256), lvSetRendererPhotonDepth(8), lvSetRendererBounce(gather ? 2 : 8);
        lvSetGeometryLightSample(16), lvSetGeometryLightPhoton(photons);
        if (gather) lvSetRendererDistance(0.3f), lvSetRendererResolution(0.004f), lvSetRendererRadius(0.1f);
        room(12.0f);
        camera({0, -3.4f, 0}, {0, 0, 0}, 40.0f, 64, 16);
        return blockMeans(render(), 32);
    };
    const std::vector<double> traced = renderRoom(false, 0);
    for (const Object& object : registry.objects)   // path tracing reads no cells: none are made
        for (const Part& part : object.parts) EXPECT_TRUE(part.tetragonCellsFront.empty());
    const std::vector<double> dark = renderRoom(true, 0);
    expectGatheredAsTraced(renderRoom(true, 200000), traced);
    EXPECT_LT(dark[0] + dark[1] + dark[2] + dark[3], 0.85 * (traced[0] + traced[1] + traced[2] + traced[3]));
}

// The Cornell example by final gathering (its "gather" folder laid over it)
// renders the light of the plain example path traced to the photons' depth
// of 8 bounces, as above, at 64 x 64 pixels with 256 rays a pixel in both.
TEST_F(Photons, CornellExampleGathersThePathTracedLight) {
    auto renderExample = [&](bool gather) {
        const fs::path scene = copyExample("cornell", dir / (gather ? "gather" : "path"),
                                           {{"resolution 256 256", "resolution 64 64"},
                                            {"sample 1024", "sample 256"},
                                            {"bounce 2", gather ? "bounce 2" : "bounce 8"}});
        const auto over = fs::copy_options::recursive | fs::copy_options::overwrite_existing;
        if (gather) fs::copy(scene / "gather", scene, over);
        const HostRun run = runHost(dir, quoted(scene));
        EXPECT_EQ(run.status, 0) << run.err;
        ImageRecord image;
        image.name = (scene / "beauty.hdr").string(), image.wantsRgbe = false;
        LoadImage(image);
        return blockMeans(image, 32);
    };
    expectGatheredAsTraced(renderExample(true), renderExample(false));
}

}  // namespace
