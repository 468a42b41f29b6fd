// The sky light stage and what rays and photons see of the sky.
#include "lights/sky_light.h"

#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"
#include "output/write_image.h"
#include "lights/lights.h"
#include "lights/aov_images.h"
#include "core/images.h"

namespace {

// Both sky images are read with one default sampler: bilinear, no gamma,
// no colour or uv transform.
const SurfaceElement skyElement{};

// The inputs of the analytic daylight model, made afresh at every
// preparation. The model's coefficient tables are not shipped, and no
// lookup reads this state: the sky's radiance always comes from its colour
// and its images.
struct SkyModelState {
    double turbidity = 0.0;
    double albedo = 0.0;
    double elevation = 0.0;
};
SkyModelState skyModelState;
float sunElevation = 0.0f;

// The sky medium's absorption per unit length, -ln of its transmittance,
// when the air is not clear; zero otherwise.
Color skyMediumAbsorption = zero;

// Mean colour of the sky image and the mean square of its largest channel,
// computed as the frame statistics are and kept for inspection.
struct SkyImageStatistics {
    Color mean = zero;
    float secondMoment = 0.0f;
};
SkyImageStatistics skyImageStatistics;

inline Vector row(const float m[9], int i) { return {m[3 * i], m[3 * i + 1], m[3 * i + 2]}; }
inline void setRow(float m[9], int i, Vector v) { m[3 * i] = v.x, m[3 * i + 1] = v.y, m[3 * i + 2] = v.z; }

// North keeps its direction; zenith gives way to it. The inverse is the
// transpose.
void orthonormaliseFrame(float frame[9], float inverse[9]) {
    const Vector z = normalized(row(frame, 2));
    const Vector n = normalized(row(frame, 1));
    const Vector r = normalized(cross(n, z));
    setRow(frame, 0, r);
    setRow(frame, 1, n);
    setRow(frame, 2, normalized(cross(r, n)));
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) inverse[3 * i + j] = frame[3 * j + i];
}

SkyImageStatistics imageStatistics(const ImageRecord& image) {
    SkyImageStatistics statistics;
    if (!image.loaded || image.width <= 0 || image.height <= 0) return statistics;
    const int count = image.width * image.height;
    const float share = 1.0f / float(count);
    for (int i = 0; i < count; ++i) statistics.mean += FetchPixel(image, i) * share;
    for (int i = 0; i < count; ++i) {
        const float m = largestChannel(FetchPixel(image, i));
        statistics.secondMoment += m * m * share;
    }
    return statistics;
}

uint32_t skyBytes() {
    const SkyLightValues& sky = registry.skyLight;
    const Distribution& d = skyDistribution();
    uint32_t bytes = imageBytes(sky.image) + imageBytes(sky.backdrop);
    for (const Aov& aov : registry.skyLightAOVs) bytes += imageBytes(aov.image);
    bytes += uint32_t((d.cdf.size() + d.pdf.size() + d.guide.size()) * 4);
    for (const std::vector<uint32_t>& face : skyCube) bytes += uint32_t(face.size() * 4);
    return bytes;
}

// The camera pixel of a ray, as a position on the backdrop.
Color backdropColor(const RayState& ray) {
    const Camera* camera = registry.currentCameraRecord;
    if (!camera) camera = &registry.cameras[size_t(registry.currentCamera)];
    const uint32_t pixel = registry.threadPixelIndex[ray.thread];
    const uint32_t width = uint32_t(camera->width);
    const float uv[2] = {float(pixel % width) / float(camera->width), float(pixel / width) / float(camera->height)};
    Color c;
    LookupTexture(registry.skyLight.backdrop, c, uv, skyElement);
    return c;
}

}  // namespace

Color skyRadiance(Vector d) {
    const SkyLightValues& sky = registry.skyLight;
    if (!sky.image.loaded) return sky.color;
    const float* frame = sky.frame;
    const float east = frame[0] * d.x + frame[1] * d.y + frame[2] * d.z;
    const float north = frame[3] * d.x + frame[4] * d.y + frame[5] * d.z;
    const float up = frame[6] * d.x + frame[7] * d.y + frame[8] * d.z;
    const float uv[2] = {1.0f - (kPi + std::atan2(north, east)) * kInvTwoPi,
                         std::acos(std::clamp(up, -1.0f, 1.0f)) * kInvPi};
    Color c;
    LookupTexture(sky.image, c, uv, skyElement);
    return c * sky.color;
}

Color skyRadianceForRay(const RayState& ray) {
    const SkyLightValues& sky = registry.skyLight;
    if (ray.depth == 0 && sky.backdrop.loaded) return backdropColor(ray);
    if (!sky.image.loaded) return sky.color;
    // Mirror-like paths see the exact image; a black sky has no cube.
    if (ray.diffuse_bounces + ray.glossy_bounces == 0 || skyCube[0].empty()) return skyRadiance(ray.direction);
    return cubeTexelColor(cubeTexelOf(ray.direction));
}

void prepareSkyLight() {
    SkyLightValues& sky = registry.skyLight;
    resolveLink(registry.skyLightLink);
    orthonormaliseFrame(sky.frame, sky.inverseFrame);

    registry.sunDirection = normalized(registry.sunDirection);
    const float c = std::clamp(dot(registry.sunDirection, row(sky.frame, 2)), -1.0f, 1.0f);
    sunElevation = kHalfPi - std::acos(c);
    skyModelState = {double(registry.skyLightTurbidity), double(registry.skyLightAlbedo), double(sunElevation)};

    skyMediumAbsorption = sky.medium.transmittance == one ? zero : volumeAbsorption(sky.medium);

    if (sky.photon > 0) {
        const float power = registry.sceneRadius * registry.sceneRadius * kFourPi;
        sky.photonPower = {power, power, power};
    }

    LoadImage(sky.backdrop);
    LoadImage(sky.image);
    if (isBlack(sky.color)) {
        sky.photon = 0;
        sky.sample = 0;
    } else if (!sky.image.loaded) {
        sky.sample = 0;   // a constant sky; photons still leave it
    } else if (!bakeSkyCube()) {
        // An image that is black all over lights nothing.
        sky.photon = 0;
        sky.sample = 0;
    }

    prepareLightAovs(registry.skyLightAOVs);
    skyImageStatistics = imageStatistics(sky.image);

    reportCount("sky light map width   ", sky.image.width, "n/a");
    reportCount("sky light map height  ", sky.image.height, "n/a");
    reportReal("sky light memory      ", double(float(skyBytes()) * kMegabytes), "M bytes");
    reportRule();
}

void releaseSkyLight() {
    releaseSkyCube();
    writeAovs(registry.skyLightAOVs);
    resetSkyLightValues();   // which frees both images
    skyMediumAbsorption = zero;
}
