#include "render/aovs.h"

#include "core/images.h"
#include "core/registry.h"
#include "geometry/object.h"
#include "lights/aov_images.h"
#include "lv.h"
#include "shading/hit_shading.h"

namespace {

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

void addToAov(Aov& aov, const RayState& ray, Color value) {
    addToAovPixel(aov, pixelOf(ray), value * ray.throughput / float(ray.split));
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
        addToAovPixel(aov, pixelOf(ray), v / n);
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
        addToAovPixel(aov, pixelOf(ray), v * w);
    }
}

void writeGeometryLightAovs(const RayState& ray, Color emitted) {
    const uint32_t channel = lobeChannel(ray.lobe);
    for (Aov& aov : registry.geometryLightAOVs)
        if (aov.channel == channel && (aov.shaderIndex == -1 || aov.shaderIndex == int(ray.shader)))
            addToAov(aov, ray, emitted);
}
