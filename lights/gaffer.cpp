// The gaffer stage: point and parallel lights are prepared against the
// scene's bounding sphere, reported, and at release write their AOVs.
#include <cmath>

#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"
#include "output/write_image.h"
#include "lights/lights.h"
#include "lights/aov_images.h"

namespace {

// The first two vectors of `frame` around its third, the unit `axis`.
void frameAround(float frame[9], Vector axis) {
    frame[6] = axis.x, frame[7] = axis.y, frame[8] = axis.z;
    if (axis.z < -0.9999999f) {
        frame[0] = 0.0f, frame[1] = -1.0f, frame[2] = 0.0f;
        frame[3] = -1.0f, frame[4] = 0.0f, frame[5] = 0.0f;
        return;
    }
    const float a = 1.0f / (1.0f + axis.z);
    const float b = a * axis.y;
    frame[0] = 1.0f - a * axis.x * axis.x, frame[1] = -b * axis.x, frame[2] = -axis.x;
    frame[3] = -b * axis.x, frame[4] = 1.0f - b * axis.y, frame[5] = -axis.y;
}

bool airScatters() {
    const Color a = registry.skyLight.medium.albedo;
    return a.x > kCutoff || a.y > kCutoff || a.z > kCutoff;
}

void preparePointLight(PointLight& light, Vector center, float radius) {
    resolveLink(light.link);
    light.direction = normalized(light.direction);
    const Vector toCenter = center - light.position;
    const float d = std::sqrt(dot(toCenter, toCenter));
    if (radius > d || airScatters()) {
        light.isInside = 1;
        if (light.photon > 0) light.photonPower = light.color * kFourPi;
    } else {
        light.isInside = 0;
        light.coneCosine = std::cos(std::atan2(radius, d));
        if (light.photon > 0) light.photonPower = light.color * (kTwoPi * (1.0f - light.coneCosine));
        frameAround(light.frame, normalized(toCenter));
    }
    prepareLightAovs(light.aovs);
    light.innerRadians = light.innerAngle * kDegree;
    light.outerRadians = light.outerAngle * kDegree;
}

void prepareParallelLight(ParallelLight& light, float radius) {
    resolveLink(light.link);
    frameAround(light.frame, normalized(light.axis()));
    if (light.photon > 0) light.photonPower = light.color * (kPi * radius * radius);
    light.blurCosine = std::cos(light.blur * kDegree);
    prepareLightAovs(light.aovs);
}

}  // namespace

void prepareGaffer() {
    for (PointLight& light : registry.pointLights)
        preparePointLight(light, registry.sceneCenter, registry.sceneRadius);
    for (ParallelLight& light : registry.parallelLights) prepareParallelLight(light, registry.sceneRadius);
    // Both lines show the size of the parallel lights' array.
    const double bytes = double(float(uint32_t(registry.parallelLights.size() * sizeof(ParallelLight))) * kMegabytes);
    reportCountAndSize("parallel lights", (long long)registry.parallelLights.size(), bytes, "M bytes");
    reportCountAndSize("point    lights", (long long)registry.pointLights.size(), bytes, "M bytes");
    reportRule();
}

void releaseGaffer() {
    for (const PointLight& light : registry.pointLights) writeAovs(light.aovs);
    for (const ParallelLight& light : registry.parallelLights) writeAovs(light.aovs);
    registry.pointLights.clear();
    registry.parallelLights.clear();
}
