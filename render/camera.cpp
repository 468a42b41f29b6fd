#include "render/camera.h"

#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"
#include "core/sequence.h"
#include "output/write_image.h"
#include "lights/aov_images.h"
#include "lv.h"
#include "render/aovs.h"

void preparePose(CameraPose& pose, float width) {
    const Vector u = normalized(pose.upVector);
    Vector toTarget = pose.target - pose.position;
    pose.forward = normalized(toTarget);
    pose.right = normalized(cross(pose.forward, u));
    pose.up = normalized(cross(pose.right, pose.forward));
    const Vector columns[3] = {pose.right, pose.forward, pose.up};
    for (int c = 0; c < 3; ++c) {
        pose.basis[0 * 3 + c] = columns[c].x;
        pose.basis[1 * 3 + c] = columns[c].y;
        pose.basis[2 * 3 + c] = columns[c].z;
    }
    pose.planeDistance = width / 2.0f / std::tan(pose.fieldOfView * kDegree / 2.0f);
    pose.targetDistance = guardedLength(dot(toTarget, toTarget));
}

CameraPose interpolatePose(const Camera& camera, float t) {
    const CameraPose& p0 = camera.poses[0];
    const CameraPose& p1 = camera.poses[1];
    const float a = 1.0f - t;
    CameraPose pose = p0;
    pose.position = p0.position * a + p1.position * t;
    pose.target = p0.target * a + p1.target * t;
    pose.bokeh = a * p0.bokeh + t * p1.bokeh;
    pose.fieldOfView = a * p0.fieldOfView + t * p1.fieldOfView;
    float c = dot(p0.upVector, p1.upVector);
    if (std::fabs(c) > 0.999999f) {
        pose.upVector = p0.upVector * a + p1.upVector * t;
    } else {
        c = std::clamp(c, -1.0f, 1.0f);
        float w = std::acos(c);
        float s = std::sin(w);
        pose.upVector = p0.upVector * (std::sin(w * a) / s) + p1.upVector * (std::sin(w * t) / s);
    }
    preparePose(pose, float(camera.width));
    return pose;
}

void generateRay(const Camera& camera, RayState& ray, int x, int y, unsigned sampleIndex) {
    const float t = (float(sampleIndex) + 0.5f) / float(camera.sample);
    const CameraPose pose = interpolatePose(camera, t);

    ray.primitive = kNoPrimitive;
    ray.kind = kKindNotAsked;
    ray.throughput = one;
    ray.earlier_lobe = kTagSpecularReflection;
    ray.lobe = kTagSpecularReflection;
    ray.split = uint32_t(camera.sample);
    ray.ior = camera.ior;
    ray.depth = 0;
    ray.diffuse_bounces = ray.glossy_bounces = ray.specular_bounces = 0;
    ray.dimension = 0;
    ray.sample_index = 0;
    ray.sequence_key = pixelSequenceKey(registry.sequenceSeed, x, y);

    const int thread = omp_get_thread_num();
    ray.thread = uint8_t(thread);
    // Every ray of a pass stores the same index; reading first keeps the
    // shared cache line clean after the first ray.
    if (registry.pass_index != uint16_t(sampleIndex)) registry.pass_index = uint16_t(sampleIndex);
    registry.threadPixelIndex[thread] = uint32_t(camera.width * y + x);
    registry.threadPathCounters[0][thread] = 0;
    registry.threadPathCounters[1][thread] = 0;

    // The place in the pixel: the frames' jitters of a pixel are stratified.
    float jx, jy;
    drawPair({ray.sequence_key, sampleIndex, 0}, kUseJitter, jx, jy);
    switch (camera.projection) {
    case 0: {
        const float X = (float(x) - float(camera.width) * 0.5f) + jx;
        const float Y = (float(camera.height) * 0.5f - float(y)) - jy;
        ray.direction = normalized(pose.right * X + pose.forward * pose.planeDistance + pose.up * Y);
        break;
    }
    case 1: {
        const float phi = ((float(x) + jx) / float(camera.width)) * kTwoPi - kHalfPi;
        const float theta = ((float(y) + jy) / float(camera.height)) * kPi;
        const float st = std::sin(theta);
        ray.direction = pose.right * (-std::cos(phi) * st) + pose.forward * (std::sin(phi) * st) +
                        pose.up * std::cos(theta);
        break;
    }
    default: break;
    }
    ray.origin = pose.position;
}

namespace {

// Pixels a sensor may have: pixel indices times channels stay within int.
constexpr uint64_t kMaxSensorPixels = uint64_t(1) << 28;

// A sensor whose images cannot be held ends the run before anything is
// allocated or written, with one error line that names the camera.
void refuseOversizedSensor(const Camera& camera) {
    const uint64_t pixels = uint64_t(std::max(camera.width, 0)) * uint64_t(std::max(camera.height, 0));
    const uint64_t bytes = pixels * 3 * sizeof(float) * uint64_t(std::max<size_t>(camera.aovs.size(), 1));
    const uint64_t memory = uint64_t(sysconf(_SC_PHYS_PAGES)) * uint64_t(sysconf(_SC_PAGE_SIZE));
    if (pixels <= kMaxSensorPixels && bytes < memory) return;
    reportError("camera - a sensor of " + std::to_string(camera.width) + " x " + std::to_string(camera.height) +
                " pixels is too large to be held in memory" + (camera.name.empty() ? "" : " (" + camera.name + ")"));
    reportRule();
    std::exit(1);
}


}  // namespace

void prepareCameras() {
    for (Camera& camera : registry.cameras) {
        refuseOversizedSensor(camera);
        camera.sample = std::clamp(camera.sample, 1, 65535);
        camera.inverseSample = 1.0f / float(camera.sample);
        camera.regionLeft = std::max(camera.regionLeft, 0);
        camera.regionTop = std::max(camera.regionTop, 0);
        camera.regionRight = std::min(camera.regionRight, camera.width);
        camera.regionBottom = std::min(camera.regionBottom, camera.height);
        preparePose(camera.poses[0], float(camera.width));
        preparePose(camera.poses[1], float(camera.width));
        const CameraPose& a = camera.poses[0];
        const CameraPose& b = camera.poses[1];
        camera.moving = !(a.position == b.position && a.target == b.target && a.upVector == b.upVector &&
                          a.bokeh == b.bokeh && a.fieldOfView == b.fieldOfView);
        uint32_t bytes = 0;
        for (Aov& aov : camera.aovs) {
            prepareAov(aov, camera.width, camera.height);
            bytes += imageBytes(aov.image);
        }
        reportCount("camera sensor width ", camera.width, "pixels");
        reportCount("camera sensor height", camera.height, "pixels");
        reportReal("camera memory       ", double(float(bytes) * kMegabytes), "M bytes");
        reportRule();
    }
}

void releaseCameras() {
    for (Camera& camera : registry.cameras) {
        writeAovs(camera.aovs);
        camera = defaultCamera();
    }
    registry.cameras.clear();
    registry.currentCameraRecord = nullptr;
}

extern "C" {

LV_API int lvAddCamera(void) {
    registry.cameras.push_back(defaultCamera());
    return int(registry.cameras.size()) - 1;
}

LV_API void lvSetCameraName(int camera, const char* name) { registry.cameras[size_t(camera)].name.assign(std::string(name)); }
LV_API void lvSetCameraResolution(int camera, int width, int height) {
    registry.cameras[size_t(camera)].width = width;
    registry.cameras[size_t(camera)].height = height;
}
LV_API void lvSetCameraRegion(int camera, int left, int top, int right, int bottom) {
    Camera& c = registry.cameras[size_t(camera)];
    c.regionLeft = left;
    c.regionTop = top;
    c.regionRight = right;
    c.regionBottom = bottom;
}
LV_API void lvSetCameraSample(int camera, int sample) { registry.cameras[size_t(camera)].sample = sample; }
LV_API void lvSetCameraExposure(int camera, float r, float g, float b) {
    float* e = registry.cameras[size_t(camera)].exposure;
    e[0] = r;
    e[1] = g;
    e[2] = b;
}
LV_API void lvSetCameraProjection(int camera, Projection projection) {
    registry.cameras[size_t(camera)].projection = uint8_t(projection);
}
LV_API void lvSetCameraAngleMeasure(int camera, AngleMeasure measure) {
    registry.cameras[size_t(camera)].angleMeasure = uint8_t(measure);
}
LV_API void lvSetCameraTime(int camera, float t) { registry.cameras[size_t(camera)].currentPose = t < 0.5f ? 0 : 1; }

static CameraPose& selectedPose(int camera) {
    Camera& c = registry.cameras[size_t(camera)];
    return c.poses[c.currentPose];
}
LV_API void lvSetCameraPosition(int camera, float x, float y, float z) { selectedPose(camera).position = {x, y, z}; }
LV_API void lvSetCameraTarget(int camera, float x, float y, float z) { selectedPose(camera).target = {x, y, z}; }
LV_API void lvSetCameraUpVector(int camera, float x, float y, float z) { selectedPose(camera).upVector = {x, y, z}; }
LV_API void lvSetCameraBokeh(int camera, float bokeh) { selectedPose(camera).bokeh = bokeh; }
LV_API void lvSetCameraFOV(int camera, float degrees) { selectedPose(camera).fieldOfView = degrees; }

LV_API int lvAddCameraAOV(int camera) {
    auto& aovs = registry.cameras[size_t(camera)].aovs;
    aovs.emplace_back();
    return int(aovs.size()) - 1;
}
LV_API void lvSetCameraAOVChannel(int camera, int aov, Channel channel) {
    registry.cameras[size_t(camera)].aovs[size_t(aov)].channel = uint32_t(channel);
}
LV_API void lvSetCameraAOVName(int camera, int aov, const char* name) {
    registry.cameras[size_t(camera)].aovs[size_t(aov)].image.name.assign(std::string(name));
}
LV_API void lvSetCameraAOVUserData(int camera, int aov, const char* data) {
    registry.cameras[size_t(camera)].aovs[size_t(aov)].userData.assign(std::string(data));
}

}  // extern "C"
