// The geometry light's point set: where the points lie, what they carry, how
// they are weighted, and what the stage reports.
#include <cmath>

#include "geometry/prepare.h"
#include "lights/geometry_light.h"
#include "output/write_image.h"
#include "shading/shader.h"
#include "geometry/surface_sampling.h"
#include "geometry/traversal.h"
#include "radiance_scene.h"

namespace {

constexpr size_t kPoints = size_t(kGeometryLightPoints);

class GeometryLight : public RadianceScene {
protected:
    // An emitting shader of one layer, on the front unless told otherwise; a
    // virtual light, so that its points are sampled and it sends photons.
    static int emitter(Color emission, Sideness side = LV_SIDENESS_FACE, bool virtualLight = true) {
        const int s = virtualLight ? lamp(emission) : shader(zero, emission);
        lvSetSurfaceSideness(s, 0, side);
        return s;
    }
    // One triangle as a part of its own in `object`, its front where a, b, c run counter-clockwise.
    static void triangle(int object, Vector a, Vector b, Vector c, int s) {
        const int part = lvAddPart(object), corners[3] = {0, 1, 2};
        const float xyz[9] = {a.x, a.y, a.z, b.x, b.y, b.z, c.x, c.y, c.z};
        lvAddPositions(object, part, 3, xyz), lvSetShaderID(object, part, s), lvAddTriangles(object, part, 1, corners);
    }
    // The geometry light's report lines with `sample` samples, after the stages it builds on.
    static std::vector<std::string> prepare(int sample) {
        lvSetGeometryLightSample(sample);
        quietly([] { prepareShaders(), prepareAccelerator(); });
        return reportedLines(prepareGeometryLight);
    }
    static const std::vector<GeometryLightPoint>& points() { return registry.geometryLightPoints; }

    static void expectNear(Vector a, Vector b, float tolerance) {
        EXPECT_LE(std::max({std::fabs(a.x - b.x), std::fabs(a.y - b.y), std::fabs(a.z - b.z)}), tolerance);
    }

    // A ray that comes to the point from the side it emits to hits the
    // point's surface there, and names it as the point does.
    static void expectRayFindsPoint(const GeometryLightPoint& point) {
        RayState ray = freshRay();
        ray.origin = point.position + point.normal * 0.5f;
        // zero - n rather than -n: a direction component of -0 makes the
        // closest-hit walk miss every box.
        ray.direction = zero - point.normal;
        ASSERT_TRUE(intersectClosest(ray));
        expectNear(ray.origin + ray.direction * ray.t, point.position, 1e-4f);
        EXPECT_EQ(ray.primitive, point.primitive);
        EXPECT_EQ(ray.kind, point.kind);
        EXPECT_EQ(ray.front, point.side);
    }
};

TEST_F(GeometryLight, OneTriangleTakesEveryPointStratifiedOverItsArea) {
    triangle(object_, {0, 0, 0}, {2, 0, 0}, {0, 2, 0}, emitter({1, 2, 3}));
    prepare(4);

    EXPECT_NEAR(registry.geometryLight.totalArea, 2.0f, 1e-5f);
    ASSERT_EQ(points().size(), kPoints);
    const Color power = Color{1, 2, 3} * (2.0f / kPi);
    // Cells of an 8 x 8 grid over the triangle's square; the cells wholly
    // inside it each hold close to their share of the points.
    int cells[8][8] = {};
    for (const GeometryLightPoint& p : points()) {
        ASSERT_TRUE(p.position.x >= 0.0f && p.position.y >= 0.0f && p.position.x + p.position.y <= 2.0f + 1e-5f);
        ASSERT_EQ(p.position.z, 0.0f);
        expectNear(p.power, power, 1e-5f);
        expectNear(p.normal, {0, 0, 1}, 1e-6f);
        EXPECT_NEAR(p.area, 2.0f, 1e-5f);
        ++cells[std::min(7, int(p.position.x * 4.0f))][std::min(7, int(p.position.y * 4.0f))];
    }
    const float share = float(kPoints) / 32.0f;
    for (int i = 0; i < 8; ++i)
        for (int j = 0; i + j <= 6; ++j) EXPECT_NEAR(float(cells[i][j]), share, 0.04f * share) << i << " " << j;
    expectRayFindsPoint(points()[1234]);
    // Entries side by side are points side by side, so that a stratified
    // pick from the distribution is stratified over the area: the mean step
    // from one to the next is near the points' own spacing (about 0.01
    // here), where the order of their numbers would step about 0.9.
    double step = 0.0;
    for (size_t i = 1; i < kPoints; ++i) {
        const Vector d = points()[i].position - points()[i - 1].position;
        step += std::sqrt(double(dot(d, d))) / double(kPoints - 1);
    }
    EXPECT_LT(step, 0.03);
}

// A quad of the root and a lamp that emits from its back, reached through a
// moved and turned instance: every point lies where a ray from the side it
// emits to sees that surface, and is named as the ray names it.
TEST_F(GeometryLight, QuadAndInstancedLampPointsLieWhereRaysSeeThem) {
    square(0.0f, 1.0f, emitter({1, 1, 1}));
    const int lamp = lvAddObject();
    triangle(lamp, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, emitter({4, 4, 4}, LV_SIDENESS_BACK));
    float move[3][4] = {{1, 0, 0, 5}, {0, 0, -1, 0}, {0, 1, 0, 2}};   // a quarter turn about x, then moved
    lvSetInstance(object_, lvAddInstance(object_), lamp, move);
    prepare(1);

    EXPECT_NEAR(registry.geometryLight.totalArea, 4.0f + 0.5f, 1e-5f);
    ASSERT_EQ(points().size(), kPoints);
    size_t onLamp = 0;
    for (size_t i = 0; i < kPoints; ++i) {
        const GeometryLightPoint& p = points()[i];
        onLamp += p.kind == kTriangle;
        EXPECT_NEAR(p.area, p.kind == kTriangle ? 0.5f : 4.0f, 1e-5f);
        if (p.kind == kTriangle) {
            EXPECT_TRUE(p.position.x >= 5.0f && p.position.z >= 2.0f) << p.position.x << " " << p.position.z;
            expectNear(p.normal, {0, 1, 0}, 1e-5f);   // the face's normal turns to -y
        }
        if (i % 97 == 1) expectRayFindsPoint(p);
    }
    // Points follow the area: the lamp holds a ninth of the emissive area.
    EXPECT_NEAR(float(onLamp), float(kPoints) / 9.0f, 2.0f);
}

// The root's tables list an instance without emitting area after the lamp,
// as a room lists a ball that it places. The last stratum of a large count
// rounds to a draw of 1 about half of the time, and the pick must still be
// the lamp: the instance has no faces to hand on to.
TEST_F(GeometryLight, TheLastStratumNeverFallsOnADarkInstance) {
    square(0.0f, 1.0f, emitter({1, 1, 1}));
    const int ball = lvAddObject();
    triangle(ball, {0, 0, 0}, {1, 0, 0}, {0, 1, 0}, shader({0.5f, 0.5f, 0.5f}));
    float place[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 3}};
    lvSetInstance(object_, lvAddInstance(object_), ball, place);
    prepare(1);

    const Object& root = registry.objects[size_t(registry.rootObject)];
    ASSERT_EQ(root.photonTable.back().kind, kInstance);
    ASSERT_EQ(root.photonTable.back().weight, 0.0f);
    const int n = 1 << 24;
    for (int k = 0; k < 64; ++k) {
        EXPECT_EQ(drawPhotonSurface(root, n - 1, n, nullptr).kind, kTetragon);
        EXPECT_EQ(drawLightSurface(root, n - 1, n, nullptr).kind, kTetragon);
    }
}

// The emission image is black over the left half of the quad: those points
// have no power and no weight, and no draw of the distribution lands on them.
TEST_F(GeometryLight, PointsOnBlackEmissionAreNeverSampled) {
    ImageRecord image = memoryImage(64, 1, [](float u, float) { return u < 0.5f ? zero : one; });
    image.name = path("half.pfm"), writeImage(image);
    const int s = emitter({1, 1, 1});
    lvSetSurfaceImage(s, 0, LV_ELEMENT_EMISSIVE, image.name.c_str(), 1.0f, nullptr, nullptr);
    quad({0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, s);
    const float uv[8] = {0, 0, 1, 0, 1, 1, 0, 1};
    lvAddUVs(object_, faces_, 4, uv);
    prepare(1);

    ASSERT_EQ(points().size(), kPoints);
    const Distribution& d = registry.geometryLightDistribution;
    int dark = 0;
    for (size_t i = 0; i < kPoints; ++i) {
        const GeometryLightPoint& p = points()[i];
        if (p.position.x >= 0.45f) continue;
        ++dark;
        EXPECT_EQ(p.power, zero);
        EXPECT_EQ(probability(d, int(i)), 0.0f);
    }
    EXPECT_GT(dark, int(kPoints) / 3);
    for (int k = 0; k < 50000; ++k)
        ASSERT_GT(points()[size_t(sample(d, (float(k) + 0.5f) / 50000.0f))].power.x, kCutoff) << k;
}

// The area line shows the photon-emitting area; with no photon-emitting
// face no photon is cast.
TEST_F(GeometryLight, ReportAndPhotonPower) {
    triangle(object_, {0, 0, 0}, {2, 0, 0}, {0, 2, 0}, emitter({1, 1, 1}));
    lvSetGeometryLightPhoton(1000);
    EXPECT_EQ(prepare(8), (std::vector<std::string>{"geometry light area             2.0000 [ m x m ]",
                                                   "geometry light sample                8 [ n/a ]", kRule, ""}));

    // An emitter that is no virtual light sends no photons and has no points:
    // bounces alone find it.
    restart();
    triangle(object_, {0, 0, 0}, {2, 0, 0}, {0, 2, 0}, emitter({1, 1, 1}, LV_SIDENESS_FACE, false));
    EXPECT_EQ(prepare(8)[0], "geometry light area             0.0000 [ m x m ]");
    EXPECT_EQ(registry.geometryLight.photon, 0);
    EXPECT_TRUE(points().empty());
}

}  // namespace
