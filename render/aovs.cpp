#include "render/aovs.h"

#include <cmath>

#include "core/constants.h"
#include "core/registry.h"
#include "lv.h"
#include "render/occlusion.h"
#include "shading/hit_shading.h"
#include "core/images.h"
#include "shading/lobes.h"

namespace {

// Adds `v` to the pixel of index `pixel`, when the image has been sized and
// holds that pixel.
inline void addAt(Aov& aov, size_t pixel, Color v) {
    std::vector<float>& store = aov.image.floatStore;
    const size_t at = pixel * size_t(aov.image.channels);
    if (aov.image.channels < 3 || at + 3 > store.size()) return;
    store[at] += v.x;
    store[at + 1] += v.y;
    store[at + 2] += v.z;
}

inline size_t pixelOf(const RayState& ray) { return registry.threadPixelIndex[ray.thread]; }

// Blends a per-vertex channel over the corners; a corner beyond the channel
// adds nothing.
template <typename T, typename Read>
Color blendChannel(const std::vector<T>& elements, const uint32_t* vertex, const float* weight, int corners, Read read) {
    Color sum = zero;
    for (int k = 0; k < corners; ++k)
        if (vertex[k] < elements.size()) sum += read(elements[vertex[k]]) * weight[k];
    return sum;
}

// The named per-vertex data at the primary hit, in as many channels as it
// has components; false when the part has no such data.
bool userData(const RayState& ray, const std::string& name, Color& value) {
    uint32_t vertex[4];
    float weight[4];
    const int corners = primitiveCorners(*ray.part, ray.kind, ray.primitive, ray.barycentric, vertex, weight);
    const Part& part = *ray.part;
    for (const auto& c : part.scalarChannels)
        if (c.name == name) {
            value = blendChannel(c.elements, vertex, weight, corners, [](float v) { return Color{v, 0.0f, 0.0f}; });
            return true;
        }
    for (const auto& c : part.uvChannels)
        if (c.name == name) {
            value = blendChannel(c.elements, vertex, weight, corners, [](UV v) { return Color{v.u, v.v, 0.0f}; });
            return true;
        }
    for (const auto& c : part.vectorChannels)
        if (c.name == name) {
            value = blendChannel(c.elements, vertex, weight, corners, [](Vector v) { return v; });
            return true;
        }
    return false;
}

// The channel that emission found along a lobe of each tag goes to; 0 for
// camera and shadow rays.
uint32_t lobeChannel(uint8_t lobe) {
    switch (lobe) {
    case kTagLambertian: return LV_CHANNEL_LAMBERTIAN;
    case kTagDiffuseTransmission: return LV_CHANNEL_TRANSMISSIVE;
    case kTagGlossyReflection:
    case kTagGlossyTransmission: return LV_CHANNEL_GLOSSY;
    case kTagSpecularReflection:
    case kTagSpecularTransmission: return LV_CHANNEL_SPECULAR;
    default: return 0;
    }
}

}  // namespace

void prepareAov(Aov& aov, int width, int height) {
    aov.width = width;
    aov.height = height;
    SizeImage(aov.image, width, height, 3, 32, false);
    aov.shaderIndex = -1;
    for (size_t i = 0; i < registry.shaders.size(); ++i)
        if (registry.shaders[i].name == aov.shaderFilter) aov.shaderIndex = int(i);
}

void prepareLightAovs(std::vector<Aov>& aovs) {
    if (registry.cameras.empty()) return;
    const Camera& camera = registry.cameras[size_t(registry.currentCamera)];
    for (Aov& aov : aovs) prepareAov(aov, camera.width, camera.height);
}

void addToAov(Aov& aov, const RayState& ray, Color value) {
    addAt(aov, pixelOf(ray), value * ray.throughput / float(ray.split));
}

// A channel word is compared as a whole: an AOV with two bits set, or the
// beauty bit on an AOV past the first, receives nothing.
void writeCameraAovs(const RayState& ray, const HitRecord& hit, const LobeBundle& bundle, Color emitted) {
    Camera* camera = registry.currentCameraRecord;
    if (!camera) return;
    const float n = float(ray.split);
    for (Aov& aov : camera->aovs) {
        Color v;
        switch (aov.channel) {
        case LV_CHANNEL_NORMAL: v = (one + hit.normal) * 0.5f; break;
        case LV_CHANNEL_TANGENT: v = (one + hit.tangent) * 0.5f; break;
        case LV_CHANNEL_POSITION: v = hit.position; break;
        case LV_CHANNEL_DEPTH: v = {ray.t, ray.t, ray.t}; break;
        case LV_CHANNEL_LAMBERTIAN_COLOR: v = hit.lambertian; break;
        case LV_CHANNEL_TRANSMISSIVE_COLOR: v = hit.transmissive; break;
        case LV_CHANNEL_GLOSSY_COLOR: v = hit.glossy; break;
        case LV_CHANNEL_SPECULAR_COLOR: v = hit.specular; break;
        case LV_CHANNEL_LAMBERTIAN: v = bundle.lambertian; break;
        case LV_CHANNEL_TRANSMISSIVE: v = bundle.transmissive; break;
        case LV_CHANNEL_GLOSSY: v = bundle.glossy; break;
        case LV_CHANNEL_SPECULAR: v = bundle.specular; break;
        case LV_CHANNEL_EMISSIVE: v = emitted; break;
        case LV_CHANNEL_USER:
            if (!userData(ray, aov.userData, v)) continue;
            break;
        default: continue;
        }
        addAt(aov, pixelOf(ray), v / n);
    }
}

// Light AOVs test single bits, so one AOV may gather several lobes.
void writeLightAovs(std::vector<Aov>& aovs, const RayState& ray, const HitRecord& hit, const LobeBundle& bundle) {
    const Color w = ray.throughput / float(ray.split);
    for (Aov& aov : aovs) {
        Color v = zero;
        if (aov.channel & LV_CHANNEL_LAMBERTIAN) v += bundle.lambertian * hit.lambertian;
        if (aov.channel & LV_CHANNEL_TRANSMISSIVE) v += bundle.transmissive * hit.transmissive;
        if (aov.channel & LV_CHANNEL_GLOSSY) v += bundle.glossy * hit.glossy;
        addAt(aov, pixelOf(ray), v * w);
    }
}

void writeGeometryLightAovs(const RayState& ray, Color emitted) {
    const uint32_t channel = lobeChannel(ray.lobe);
    for (Aov& aov : registry.geometryLightAOVs)
        if (aov.channel == channel && (aov.shaderIndex == -1 || aov.shaderIndex == int(ray.shader)))
            addToAov(aov, ray, emitted);
}

// The photon's glossy hit is projected through the first camera's
// opening pose and weighed by the camera's importance there: the squared
// plane distance over the squared distance and the cube of the view cosine,
// with the geometric cosine towards the camera, the shading normal's
// correction and the glossy lobe's response towards the camera. Photon threads add without a lock and may lose a contribution
// when two land on one pixel at once.
void connectPhotonToCamera(const RayState& ray, const HitRecord& hit, Color color) {
    if (registry.cameras.empty()) return;
    Camera& camera = registry.cameras[0];
    bool any = false;
    for (const Aov& aov : camera.aovs) any = any || aov.channel == LV_CHANNEL_LIGHT_PATH;
    if (!any || isBlack(ray.throughput)) return;

    const CameraPose& pose = camera.poses[0];
    const Vector d = hit.position - pose.position;
    const float depth = dot(pose.forward, d);
    const float sx = dot(pose.right, d) / depth * pose.planeDistance + 0.5f * float(camera.width);
    const float sy = -dot(pose.up, d) / depth * pose.planeDistance + 0.5f * float(camera.height);
    if (!(sx >= 0.0f) || sx + 1e-8f >= float(camera.width) || !(sy >= 0.0f) || sy + 1e-8f >= float(camera.height))
        return;
    const Vector v = pose.position - hit.position;
    if (!(dot(v, hit.geometric_normal) > 0.0f)) return;
    const float d2 = dot(v, v), distance = guardedLength(d2);
    const Vector u = v / distance;
    const float q = -dot(u, pose.forward);
    if (!(q > 0.0f)) return;
    const float a = dot(hit.out_direction, hit.geometric_normal);
    const float g = a < 0.000001f ? 1.0f : dot(hit.out_direction, hit.normal) / a;
    const float value = dot(hit.geometric_normal, u) * pose.planeDistance * pose.planeDistance / (d2 * q * q * q) * g *
                        halfVectorLobe(hit.out_direction, u, hit) * kFourPi;

    RayState shadow = shadowRay(ray, hit);
    shadow.photon_path = 0;
    shadow.direction = u;
    if (belowCutoff(occlusion(shadow, distance))) return;

    const size_t pixel = size_t(camera.width) * size_t(sy) + size_t(sx);
    for (Aov& aov : camera.aovs)
        if (aov.channel == LV_CHANNEL_LIGHT_PATH) addAt(aov, pixel, color * ray.throughput * value);
}
