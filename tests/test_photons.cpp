// Photons cast from the lights, scattered through small scenes, and what
// they leave behind: caustic photons and the density estimator's cells,
// checked against the light's power, direct lighting and path tracing.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "capture.h"
#include "host_run.h"
#include "lights/sky_light.h"
#include "photons/density_estimator.h"
#include "photons/photon_cast.h"
#include "radiance_scene.h"
#include "core/images.h"
#include "geometry/object.h"
#include "photons/photon_tree.h"

namespace {

class Photons : public RadianceScene {
protected:
    // A parallel light along `direction` with `count` photons and no
    // terminator offset, so that its direct light is the plain cosine law.
    static int sun(Vector direction, Color color, int count) {
        const int l = lvAddParallelLight();
        lvSetParallelLightDirection(l, direction.x, direction.y, direction.z);
        lvSetParallelLightColor(l, color.x, color.y, color.z);
        lvSetParallelLightPhoton(l, count);
        lvSetParallelLightOffset(l, 0.0f);
        return l;
    }
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
    static Color storedPower() {
        Color sum = zero;
        for (const Photon& p : registry.photons) sum += p.power;
        return sum;
    }
    // The cells of tetragon `face` of the root's first part, front side.
    static std::vector<Color> cells(uint32_t face) {
        const Part& part = registry.objects[size_t(registry.rootObject)].parts[0];
        const uint32_t n = part.tetragonCellResolution[face], base = part.tetragonCellBase[face];
        return {part.tetragonCellsFront.begin() + base, part.tetragonCellsFront.begin() + base + n * n};
    }
};

// A glass ball on a floor under a parallel light bends the light that
// crosses it towards a point below it: with photons the floor under the ball
// shows a caustic brighter than the openly lit floor, while path tracing,
// whose shadow rays the ball stops, leaves it dark.
TEST_F(Photons, GlassBallFocusesACausticThatPathTracingMisses) {
    auto underBall = [this](int photons, float ball) {
        restart();
        square(0.0f, 3.0f, shader(one * 0.5f));
        if (ball > 0.0f) sphere({0, 0, ball}, ball, specular(1.0f, 1.5f, LV_MATERIAL_SOLID));
        sun({0, 0, -1}, one, photons);
        lvSetRendererRadius(0.05f);
        camera({0, 0, 8}, {0, 0, 0}, 1.0f, 4, 1);
        Color mean = zero;
        const ImageRecord& image = render();
        for (int i = 0; i < 16; ++i) mean += storedPixel(image, i) / 16.0f;
        return mean.x;
    };
    const float open = underBall(0, 0.0f);
    EXPECT_NEAR(open, 0.5f, 0.01f);
    EXPECT_GT(underBall(200000, 0.5f), 1.5f * open);
    EXPECT_LT(underBall(0, 0.5f), 0.02f * open);
}

// Light straight on a diffuse floor stores nothing; through a clear thin
// sheet above it (one specular event) every photon that lands is stored,
// and together they carry the light's power on the floor: its colour per
// unit of area. Sky photons never count as caustics.
TEST_F(Photons, OnlyLightThroughMirrorsAndRefractionIsStoredWithItsPower) {
    square(0.0f, 2.0f, shader(one * 0.5f));
    sun({0, 0, -1}, {2, 1, 0.5f}, 20000);
    initialize();
    EXPECT_TRUE(registry.photons.empty());

    restart();
    square(0.0f, 2.0f, shader(one * 0.5f));
    square(1.0f, 2.0f, specular(1.0f, 1.0f, LV_MATERIAL_THIN));
    sun({0, 0, -1}, {2, 1, 0.5f}, 20000);
    initialize();
    ASSERT_GT(registry.photons.size(), 10000u);
    const Color power = storedPower();
    EXPECT_NEAR(power.x, 32.0f, 0.32f);
    EXPECT_NEAR(power.z, 8.0f, 0.08f);
    for (const Photon& p : registry.photons) ASSERT_NEAR(p.position.z, 0.0f, 1e-4f);

    restart();
    square(0.0f, 2.0f, shader(one * 0.5f));
    square(1.0f, 2.0f, specular(1.0f, 1.0f, LV_MATERIAL_THIN));
    registry.skyLight.color = one;
    lvSetSkyLightPhoton(20000);
    initialize();
    EXPECT_TRUE(registry.photons.empty());
}

// Under a clear sheet that stops shadow rays, a floor lit by a parallel
// light shows only its caustic: the photon tree's estimate gives the light's
// colour per unit of area there, as direct light would without the sheet;
// without photons the floor stays black.
TEST_F(Photons, CausticUnderASheetMatchesTheLightItPassesOn) {
    auto floorUnderSheet = [this](int photons) {
        restart();
        square(0.0f, 2.0f, shader(one * 0.5f));
        square(1.0f, 2.0f, specular(1.0f, 1.0f, LV_MATERIAL_SOLID));
        sun({0, 0, -1}, {2, 1, 0.5f}, photons);
        lvSetRendererRadius(0.5f);
        camera({0, 0, 8}, {0, 0, 0}, 8.0f, 8, 1);
        const ImageRecord& image = render();
        Color mean = zero;
        for (int i = 0; i < 64; ++i) mean += storedPixel(image, i) / 64.0f;
        return mean;
    };
    const Color caustic = floorUnderSheet(100000);
    EXPECT_NEAR(caustic.x, 0.5f * 2.0f, 0.05f);
    EXPECT_NEAR(caustic.z, 0.5f * 0.5f, 0.0125f);
    EXPECT_EQ(floorUnderSheet(0).x, 0.0f);
}

// Summed over a cast, the photons of the emissive faces carry the emission
// times the emitting area, and those of the sky its radiance over the
// sphere times the squared radius of the scene, with or without an image.
TEST_F(Photons, CastsCarryThePowerOfTheirLight) {
    square(0.0f, 3.0f, shader(one * 0.5f));
    const int lamp = shader(zero, {2, 3, 4});
    lvSetSurfaceVirtualLight(lamp, 0, true);
    square(1.0f, 0.5f, lamp, false);
    registry.skyLight.color = {1, 2, 3};
    lvSetGeometryLightPhoton(4000);
    lvSetSkyLightPhoton(4000);
    initialize();
    // In double: fifty thousand small terms would drift in single precision.
    auto sum = [](int count, auto emit) {
        double total[3] = {0, 0, 0};
        for (int i = 0; i < count; ++i) {
            RayState ray = freshRay();
            emit(ray, uint64_t(i));
            total[0] += ray.power.x, total[1] += ray.power.y, total[2] += ray.power.z;
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
    registry.skyLight.color = one;
    registry.skyLight.image = memoryImage(64, 32, [](float u, float v) { return Color{1.0f + u, 0.5f + v * v, 1.0f}; });
    lvSetSkyLightPhoton(50000);
    initialize();
    double expected = 0.0;
    for (uint32_t face = 0; face < 6; ++face)
        for (uint32_t t = 0; t < uint32_t(kCubeFaceTexels); ++t) {
            const uint32_t code = (face << 16) | t;
            const Vector d = cubeDirection(int(face), float(t & 0xFF) + 0.5f, float(t >> 8) + 0.5f);
            expected += double(skyRadiance(d).x) * texelSolidAngle(code);
        }
    const Color imaged = sum(50000, [](RayState& r, uint64_t i) { emitSkyPhoton(r, i); });
    const double r2 = double(registry.sceneRadius) * registry.sceneRadius;
    EXPECT_NEAR(imaged.x, expected * r2, 0.002 * expected * r2);
}

// In final gathering the cells of a lambertian floor under a parallel
// light hold what direct lighting gives there: albedo, colour and cosine.
TEST_F(Photons, FloorCellsMatchDirectLight) {
    const Vector d = normalized({0.6f, 0.0f, -0.8f});
    square(0.0f, 2.0f, shader(one * 0.5f));
    sun(d, {2, 2, 2}, 100000);
    camera({0, 0, 8}, {0, 0, 0}, 10.0f, 4, 1);
    const Color direct = storedPixel(render(), 5);

    restart();
    lvSetRendererDistance(0.01f);
    lvSetRendererResolution(16.0f / 400.0f);
    square(0.0f, 2.0f, shader(one * 0.5f));
    sun(d, {2, 2, 2}, 100000);
    initialize();
    const std::vector<Color> grid = cells(0);
    ASSERT_EQ(grid.size(), 21u * 21u);
    double inner = 0.0;
    for (int a = 2; a < 19; ++a)
        for (int b = 2; b < 19; ++b) inner += grid[size_t(a * 21 + b)].x;
    EXPECT_NEAR(inner / (17.0 * 17.0), direct.x, 0.02 * direct.x);
    EXPECT_NEAR(direct.x, 0.5f * 2.0f * 0.8f, 1e-4f);
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
            const float u = radicalInverse(i, 0), v = radicalInverse(i, 1);
            const float s = std::sqrt(u);
            const Vector b{1.0f - s, s * (1.0f - v), s * v};
            const uint32_t t = triangleCell(n, b), q = tetragonCell(n, {u, v, 0});
            ASSERT_LT(t, n * n);
            ASSERT_LT(q, n * n);
            ++triangleHits[t], ++tetragonHits[q];
        }
        for (uint32_t k = 0; k < n * n; ++k) {
            EXPECT_NEAR(triangleHits[k], 20000.0 / (n * n), 0.1 * 20000.0 / (n * n)) << n << " " << k;
            EXPECT_NEAR(tetragonHits[k], 20000.0 / (n * n), 0.1 * 20000.0 / (n * n)) << n << " " << k;
        }
    }
}

// Faces that would need more than a gigabyte of cells end the process with
// the message and exit code 1, before anything is allocated. The child only
// sizes cells: no thread team is used after the fork.
TEST_F(Photons, CellsBeyondOneGigabyteEndTheProcess) {
    Part part;
    const int s = shader(one);
    registry.shaders[size_t(s)].hasLambertian[0] = true;
    for (uint32_t k = 0; k < 700; ++k) {
        const float z = float(k);
        for (Vector p : {Vector{0, 0, z}, Vector{1, 0, z}, Vector{1, 1, z}, Vector{0, 1, z}}) part.positions.push_back(p);
        part.tetragons.push_back({4 * k, 4 * k + 1, 4 * k + 2, 4 * k + 3, uint32_t(s)});
    }
    registry.resolution = 2e-8f, registry.distance = 1.0f;
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        dup2(out[1], STDOUT_FILENO);
        close(out[0]);
        prepareDensityEstimator(part);
        std::_Exit(0);
    }
    close(out[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t n; (n = read(out[0], buffer, sizeof buffer)) > 0;) text.append(buffer, size_t(n));
    close(out[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(text, "density estimator consumes more than 1GB memory.\n" + std::string(80, '_') + "\n\n");
}

// A cast prints a progress line about every hundredth photon, overwritten
// by a carriage return and ending below 100 %, then its ray rate.
TEST_F(Photons, CastReportsProgressThenItsRate) {
    square(0.0f, 2.0f, shader(one * 0.5f));
    sun({0, 0, -1}, one, 250);
    ReportCapture capture;
    lvInitialize();
    capture.restore();
    const std::string text = capture.text();
    std::vector<int> values;
    const std::string head = "photon cast  ";
    size_t at = text.find(head);
    for (size_t cr; (cr = text.find('\r', at)) != std::string::npos; at = cr + 1) {
        const size_t start = text.rfind(head, cr);
        ASSERT_NE(start, std::string::npos);
        const std::string line = text.substr(start, cr - start);
        ASSERT_EQ(line.size(), 13u + 16u + 6u) << line;
        ASSERT_EQ(line.substr(29), " [ % ]");
        values.push_back(std::stoi(line.substr(13, 16)));
    }
    EXPECT_EQ(values.size(), 125u);
    EXPECT_EQ(*std::max_element(values.begin(), values.end()), 99);
    EXPECT_NE(text.find(" [ M rays/second ]\nphoton cast   "), std::string::npos);
}

// Final gathering renders the light of path tracing to the photons' depth,
// in the mean and in each 32 x 32 block, in a room of separate objects placed
// by instances (one of them scaled: its cells measure its faces as placed).
// Without photons the terminal hits read black cells, and the light of later
// bounces is lost.
TEST_F(Photons, FinalGatheringAgreesWithPathTracing) {
    auto renderRoom = [this](bool gather, int photons) {
        restart();
        lvSetRendererSample(256);
        lvSetRendererPhotonDepth(8);
        lvSetRendererBounce(gather ? 2 : 8);
        lvSetGeometryLightSample(16);
        lvSetGeometryLightPhoton(photons);
        if (gather) {
            lvSetRendererDistance(0.3f);
            lvSetRendererResolution(0.004f);
            lvSetRendererRadius(0.1f);
        }
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
// of 8 bounces, in the mean and in each 32 x 32 block, here at 64 x 64
// pixels with 256 gather rays a pixel in both.
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
        image.name = (scene / "beauty.hdr").string();
        image.wantsRgbe = false;
        LoadImage(image);
        return blockMeans(image, 32);
    };
    expectGatheredAsTraced(renderExample(true), renderExample(false));
}

}  // namespace
