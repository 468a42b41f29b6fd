// Camera preparation, pose interpolation and primary rays.
#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "core/random.h"
#include "core/sequence.h"
#include "render/camera.h"
#include "scene_fixture.h"

namespace {

constexpr double kPiD = std::numbers::pi;

class CameraTest : public SceneTest {
protected:
    void SetUp() override {
        SceneTest::SetUp();
        seedHardwareRandom(7);
    }

    // A camera whose two poses are the same.
    static int addCamera(int width, int height, Vector position, Vector target, Vector up, float fov) {
        const int c = lvAddCamera();
        lvSetCameraResolution(c, width, height);
        for (float t : {0.0f, 1.0f}) {
            lvSetCameraTime(c, t), lvSetCameraFOV(c, fov);
            lvSetCameraPosition(c, position.x, position.y, position.z);
            lvSetCameraTarget(c, target.x, target.y, target.z), lvSetCameraUpVector(c, up.x, up.y, up.z);
        }
        return c;
    }
    static void prepare() { quietly(lvInitializeCameras); }
    static Camera& camera(int c) { return registry.cameras[size_t(c)]; }
};

void expectNear(Vector a, Vector b, float tolerance) {
    EXPECT_LE(std::max({std::fabs(a.x - b.x), std::fabs(a.y - b.y), std::fabs(a.z - b.z)}), tolerance);
}

}  // namespace

TEST_F(CameraTest, PrepareLimitsSampleAndRegion) {
    for (int s : {0, 70000, -5, 100}) lvSetCameraSample(addCamera(64, 32, zero, {0, 0, -1}, {0, 1, 0}, 60), s);
    lvSetCameraRegion(0, -5, -3, 12, 7), lvSetCameraRegion(1, 2, 3, 10, 8), lvSetCameraRegion(3, 10, 20, 2000, 2000);
    lvAddCameraAOV(1);
    prepare();
    const int expected[] = {1, 65535, 1, 100};
    // Negative corners rise to 0, far ones fall to the sensor; the default covers the sensor.
    const std::array<int, 4> regions[] = {{0, 0, 12, 7}, {2, 3, 10, 8}, {0, 0, 64, 32}, {10, 20, 64, 32}};
    for (int c = 0; c < 4; ++c) {
        const Camera& k = camera(c);
        EXPECT_EQ(k.sample, expected[c]);
        EXPECT_EQ((std::array<int, 4>{k.regionLeft, k.regionTop, k.regionRight, k.regionBottom}), regions[c]) << c;
    }
    // Every AOV gets a zeroed 3-channel float raster of the camera's size.
    ASSERT_EQ(camera(1).aovs.size(), 2u);
    for (const Aov& aov : camera(1).aovs) EXPECT_EQ(aov.image.floatStore, std::vector<float>(64 * 32 * 3, 0.0f));
}

TEST_F(CameraTest, PoseBasisAndDistances) {
    const int c = addCamera(100, 50, {1, 2, 3}, {1, 2, -2}, {0, 3, 0}, 90);
    prepare();
    const CameraPose& p = camera(c).poses[0];
    // Right +x, forward -z, up +y: row i of the matrix holds component i of each.
    const float basis[9] = {1, 0, 0, 0, 0, 1, 0, -1, 0};
    for (int k = 0; k < 9; ++k) EXPECT_NEAR(p.basis[k], basis[k], 1e-6f) << k;
    EXPECT_NEAR(p.planeDistance, 50.0f, 1e-3f);
    EXPECT_FLOAT_EQ(p.targetDistance, 5.0f);

    CameraPose degenerate{};   // degenerate poses stay finite
    degenerate.fieldOfView = 45;
    preparePose(degenerate, 100.0f);
    EXPECT_EQ(degenerate.targetDistance, 1e-5f);
    for (float v : degenerate.basis) EXPECT_TRUE(std::isfinite(v));
}

TEST_F(CameraTest, InterpolationBlendsPoses) {
    const int c = addCamera(100, 50, zero, {0, 0, -4}, {0, 1, 0}, 40);
    lvSetCameraTime(c, 1.0f), lvSetCameraPosition(c, 4, 0, 0), lvSetCameraTarget(c, 4, 8, -4);
    lvSetCameraUpVector(c, 1, 0, 0), lvSetCameraBokeh(c, 2.0f), lvSetCameraFOV(c, 80);
    prepare();
    const CameraPose q = interpolatePose(camera(c), 0.25f);
    expectNear(q.position, {1, 0, 0}, 1e-6f);
    expectNear(q.target, {1, 2, -4}, 1e-6f);
    EXPECT_FLOAT_EQ(q.bokeh, 0.5f);
    EXPECT_FLOAT_EQ(q.fieldOfView, 50.0f);
    EXPECT_NEAR(q.planeDistance, 50.0f / std::tan(25.0f * float(kPiD) / 180.0f), 1e-3f);
    // Up vectors 90 degrees apart turn along the arc, not the chord.
    expectNear(q.upVector, {float(std::sin(kPiD / 8)), float(std::sin(3 * kPiD / 8)), 0}, 1e-5f);
    const float half = float(std::numbers::sqrt2 / 2);
    expectNear(interpolatePose(camera(c), 0.5f).upVector, {half, half, 0}, 1e-5f);

    // Parallel up vectors blend linearly, lengths included.
    lvSetCameraUpVector(c, 0, 3, 0);
    EXPECT_EQ(interpolatePose(camera(c), 0.5f).upVector, (Vector{0, 2, 0}));
}

// A ray starts at the camera's place at its sample's shutter time, with the
// sequence of its pixel, which it names for the sky's backdrop.
TEST_F(CameraTest, RayStartsAtItsShutterTimeWithItsPixelsSequence) {
    const int c = addCamera(40, 20, zero, {0, 0, -1}, {0, 1, 0}, 60);
    lvSetCameraTime(c, 1.0f), lvSetCameraPosition(c, 4, 0, 0), lvSetCameraTarget(c, 4, 0, -1);
    lvSetCameraSample(c, 4);
    prepare();
    RayState ray = freshRay();
    generateRay(camera(c), ray, 21, 19, 1);
    expectNear(ray.origin, {1.5f, 0, 0}, 1e-6f);   // sample 1 of 4 sits at time 0.375
    EXPECT_EQ(ray.sequence_key, pixelSequenceKey(registry.sequenceSeed, 21, 19));
    EXPECT_EQ(registry.threadPixelIndex[0], uint32_t(40 * 19 + 21));
}

TEST_F(CameraTest, PerspectiveRaysStayInsideTheirPixel) {
    const int width = 40, height = 20;
    const int c = addCamera(width, height, {1, 2, 3}, {4, 2, -1}, {0, 1, 0}, 70);
    prepare();
    const CameraPose p = interpolatePose(camera(c), 0.5f);
    for (int pass = 0; pass < 4; ++pass)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                RayState ray = freshRay();
                generateRay(camera(c), ray, x, y, 0);
                ASSERT_NEAR(dot(ray.direction, ray.direction), 1.0f, 1e-5f);
                // Back onto the image plane, in pixels from its centre.
                const float depth = dot(ray.direction, p.forward);
                ASSERT_GT(depth, 0.0f);
                // Distances from the pixel's centre, which stay within half a pixel.
                const float X = dot(ray.direction, p.right) / depth * p.planeDistance - float(x - width / 2) - 0.5f;
                const float Y = dot(ray.direction, p.up) / depth * p.planeDistance - float(height / 2 - y) + 0.5f;
                ASSERT_LE(std::max(std::fabs(X), std::fabs(Y)), 0.5f + 1e-3f) << x << " " << y;
            }
}

TEST_F(CameraTest, PanoramaCoversTheSphere) {
    const int width = 64, height = 32;
    const int c = addCamera(width, height, zero, {0, 0, -1}, {0, 1, 0}, 60);
    lvSetCameraProjection(c, LV_PROJECTION_SPHERICAL);
    prepare();
    const CameraPose p = interpolatePose(camera(c), 0.5f);
    const float cell = float(kPiD) / height;   // one row in theta, and with width = 2 height one column in phi
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            RayState ray = freshRay();
            generateRay(camera(c), ray, x, y, 0);
            const Vector d = ray.direction;
            ASSERT_NEAR(dot(d, d), 1.0f, 1e-5f);
            const float theta = std::acos(std::clamp(dot(d, p.up), -1.0f, 1.0f));
            ASSERT_LE(std::fabs(theta - (y + 0.5f) * cell), cell / 2 + 1e-3f) << x << " " << y;
            if (std::sin(theta) < 0.2f) continue;   // the azimuth is ill-defined at the poles
            // The azimuth runs from behind (x = 0) through -right, forward and right.
            float phi = std::atan2(dot(d, p.forward), -dot(d, p.right));
            // Unwrapped towards the pixel's own column: the last one ends at the seam.
            if (phi < x * cell - float(kPiD) * 1.5f) phi += 2 * float(kPiD);
            ASSERT_LE(std::fabs(phi - (x + 0.5f) * cell + float(kPiD) / 2), cell / 2 + 1e-3f) << x << " " << y;
        }
}
