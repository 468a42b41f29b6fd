#include "render/radiance.h"

#include <algorithm>
#include <cmath>

#include "core/registry.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "render/direct_light.h"
#include "render/emission.h"
#include "shading/hit_shading.h"
#include "shading/images.h"
#include "shading/lobes.h"
#include "shading/media.h"

namespace {

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

// What the primary hit writes into the current camera's AOVs. A channel word
// is compared as a whole: an AOV with two bits set receives nothing.
void writeCameraAovs(const RayState& ray, const HitRecord& hit, const LobeBundle& bundle, Color emitted) {
    Camera* camera = registry.currentCameraRecord;
    if (!camera) return;
    const float n = float(ray.split);
    const size_t pixel = registry.threadPixelIndex[ray.thread];
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
        std::vector<float>& store = aov.image.floatStore;
        const size_t at = pixel * size_t(aov.image.channels);
        if (aov.image.channels < 3 || at + 3 > store.size()) continue;
        store[at] += v.x / n;
        store[at + 1] += v.y / n;
        store[at + 2] += v.z / n;
    }
}

}  // namespace

Color radiance(RayState& ray) {
    // The depth counter has eight bits: a path ends at 255 whatever the setting.
    if (int(ray.depth) >= registry.ray_depth || ray.depth == 255) return zero;
    if (belowCutoff(ray.throughput)) return zero;
    if (!intersectClosest(ray)) return missRadiance(ray);

    // In final gathering a diffuse ray that ran far enough, or spent its
    // bounces, reads the photons' cells instead of shading on.
    const bool terminal =
        registry.final_gather_mode && ray.gatherable &&
        (ray.diffuse_bounces >= registry.bounce || (ray.diffuse_bounces > 0 && ray.t > registry.distance + 0.000001f));

    HitRecord hit{};
    hit.terminal = terminal;
    shadeHit(ray, hit);
    if (!hit.layer) return zero;

    const SurfaceElement* e = hit.layer->elements;
    if (!terminal) {
        hit.has_lambertian = elementColorTest(e[LV_ELEMENT_LAMBERTIAN], hit.uv, hit.lambertian);
        hit.has_transmissive = elementColorTest(e[LV_ELEMENT_TRANSMISSIVE], hit.uv, hit.transmissive);
        hit.has_diffusion = elementColorTest(e[LV_ELEMENT_DIFFUSION], hit.uv, hit.diffusion);
    }
    hit.has_glossy = elementColorTest(e[LV_ELEMENT_GLOSSY], hit.uv, hit.glossy);
    hit.has_specular = elementColorTest(e[LV_ELEMENT_SPECULAR], hit.uv, hit.specular);

    LobeBundle bundle;
    // Direct light only where the surface can answer it, and never inside a
    // refracting body.
    const bool hair = ray.kind == kCylinder;
    const bool responds = terminal ? hit.has_glossy || hair
                                   : hit.has_lambertian || hit.has_transmissive || hit.has_glossy || hair;
    if (std::fabs(ray.ior - 1.0f) < 1e-8f && responds) bundle += directLight(ray, hit);

    if (hit.has_lambertian) bundle.lambertian = (bundle.lambertian + lambertianLobe(ray, hit)) * hit.lambertian;
    if (hit.has_transmissive)
        bundle.transmissive = (bundle.transmissive + transmissiveLobe(ray, hit)) * hit.transmissive;
    if (hit.has_glossy) bundle.glossy = (bundle.glossy + glossyLobe(ray, hit)) * hit.glossy;
    if (hit.has_specular) bundle.specular = (bundle.specular + specularLobe(ray, hit)) * hit.specular;

    const Color emitted = emission(ray, hit);
    if (ray.depth == 0) writeCameraAovs(ray, hit, bundle, emitted);

    const Color sum = bundle.lambertian + bundle.transmissive + bundle.glossy + bundle.specular + emitted;
    // No clamp here: the frame loop clamps once per pixel.
    return attenuate(ray, sum);
}
