#include "photons/photon_cast.h"

#include <omp.h>

#include <cstring>
#include <vector>

#include "core/clock.h"
#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"
#include "geometry/surface_sampling.h"
#include "geometry/traversal.h"
#include "lights/sky_light.h"
#include "lv.h"
#include "photons/photon_scattering.h"
#include "shading/hit_shading.h"
#include "core/images.h"
#include "shading/lobes.h"
#include "geometry/object.h"
#include "lights/lights.h"

namespace {

// The frame of one cast: `count` photons of which `emit` makes each ray,
// traced when it carries power, with a progress line about every hundredth
// photon and the cast's ray rate at the end.
template <typename Emit>
void cast(uint64_t count, uint64_t offset, Emit emit) {
    if (count == 0) return;
    std::memset(registry.threadRays, 0, sizeof registry.threadRays);
    std::memset(registry.threadShadowRays, 0, sizeof registry.threadShadowRays);
    const uint64_t t0 = systemTime100ns();
    // Fewer than 100 photons report each one.
    const uint64_t step = count >= 100 ? count / 100 : 1;
    // Of several processes, each casts every size-th photon from its rank.
    const uint64_t rank = uint64_t(registry.processes.rank), size = uint64_t(registry.processes.size);
    const uint64_t share = count > rank ? (count - rank + size - 1) / size : 0;
#pragma omp parallel for schedule(dynamic, 1)
    for (int64_t k = 0; k < int64_t(share); ++k) {
        const uint64_t i = rank + uint64_t(k) * size;
        RayState ray = freshRay();
        ray.thread = uint8_t(omp_get_thread_num());
        emit(ray, offset + i);
        if (largestChannel(ray.power) > 0.0f) tracePhoton(ray);
        if (i % step == 0) {
#pragma omp critical(photon_progress)
            reportProgress("photon cast ", (long long)(100 * i / count), "%");
        }
    }
    const uint64_t t1 = systemTime100ns();
    uint64_t rays = 0;
    for (ThreadCounter& c : registry.threadRays) {
        rays += c;
        c = 0;
    }
    const double ticks = t1 > t0 ? double(t1 - t0) : 1.0;
    reportReal("photon cast ", double(rays) / (ticks / 10.0), "M rays/second");
}

// A photon ray from a light that is not a delta light: the first free
// dimension 4, the light's link read at the first hit.
void beginPhoton(RayState& ray, uint64_t index, const ShaderLink& link, float ior, uint8_t caustic) {
    ray.sample_index = uint32_t(index);
    ray.dimension = 4;
    ray.parent_hit = &link;
    ray.ior = ior;
    ray.caustic = caustic;
    ray.photon_path = 1;
    ray.split = 1;
}

}  // namespace

// A stratified face of the root, a point on it, a cosine direction about
// the emitting side.
void emitGeometryLightPhoton(RayState& ray, uint64_t index, uint64_t count) {
    const Object& root = registry.objects[size_t(registry.rootObject)];
    thread_local std::vector<const Instance*> chain;
    chain.clear();
    const uint32_t i = uint32_t(index);
    const SurfaceTableEntry& row = drawPhotonSurface(root, int(i), int(count), &chain);
    const Part& part = *static_cast<const Part*>(row.part);
    const FacePoint face = facePoint(part, row.kind, row.index, radicalInverse(i, 0), radicalInverse(i, 1));
    const Shader& shader = registry.shaders[faceShader(part, row.kind, row.index)];
    const int side = row.front ? kFaceSide : kBackSide;

    Vector position = face.position, normal = face.normal;
    toWorldThroughChain(chain, position, normal);
    uint64_t path = 0;
    for (const Instance* instance : chain) path = extendPath(path, *instance);
    HitRecord frame{};
    frame.normal = normalized(normal);
    buildFrame(frame);
    if (!row.front) {
        frame.normal = -frame.normal;
        frame.tangent = -frame.tangent;
        frame.bitangent = -frame.bitangent;
    }

    beginPhoton(ray, index, registry.geometryLightLink, 1.0f, shader.hasVirtualLight[side]);
    ray.origin = position;
    ray.direction = cosineHemisphere(frame, {0u, i, 2});
    Color sum = zero;
    for (int k = 0; k < shader.layerCount[side]; ++k)
        sum += elementColor(shader.layers[shader.layerList[side][k]].elements[LV_ELEMENT_EMISSIVE], face.uv);
    ray.power = sum * registry.geometryLight.photonPower;
    // The path may not meet the face it leaves.
    ray.previous_kind = row.kind;
    ray.previous_primitive = row.index;
    ray.previous_part = &part;
    ray.previous_path = path;
}

// A direction by the sky's image (or uniform without one), and a start on
// the disc of the scene's bounding sphere that faces it.
void emitSkyPhoton(RayState& ray, uint64_t index) {
    const SkyLightValues& sky = registry.skyLight;
    const uint32_t i = uint32_t(index);
    const Distribution& texels = skyDistribution();
    Vector d;
    Color power = zero;
    if (texels.count == 0) {
        const float a = radicalInverse(i, 0), b = radicalInverse(i, 1);
        const float s = 2.0f * guardedLength(b * (1.0f - b));
        d = {s * std::cos(kTwoPi * a), s * std::sin(kTwoPi * a), 1.0f - 2.0f * b};
        power = skyRadiance(d) * sky.photonPower;
    } else {
        const uint32_t code = skyTexelOfEntry(uint32_t(sample(texels, radicalInverse(i, 0))));
        d = cubeDirection(code >> 16, float(code & 0xFF) + 0.5f, float((code >> 8) & 0xFF) + 0.5f);
        // The texel's own solid angle over its probability, as the sky's
        // direct samples weigh it, in place of the mean texel.
        const float density = skyDensity(code);
        if (probability(texels, int(skyEntryOf(code))) >= 1e-8f && density > 0.0f)
            power = skyRadiance(d) * sky.photonPower * (1.0f / (kFourPi * density));
    }
    float x, y;
    concentricDisc(radicalInverse(i, 2), radicalInverse(i, 3), x, y);
    HitRecord frame{};
    frame.normal = -d;
    buildFrame(frame);
    const float R = registry.sceneRadius;
    beginPhoton(ray, index, registry.skyLightLink, sky.ior, 0);
    ray.origin = registry.sceneCenter + (frame.tangent * x + frame.bitangent * y + d) * R;
    ray.direction = -d;
    ray.power = power / float(sky.photon);
}

void CastPhotonsFromParallelLights(uint32_t pass) {
    for (const ParallelLight& light : registry.parallelLights) {
        const uint64_t count = uint64_t(light.photon > 0 ? light.photon : 0);
        cast(count, pass * count, [&](RayState& ray, uint64_t i) { light.emitPhoton(ray, i); });
    }
}

void CastPhotonsFromPointLights(uint32_t pass) {
    for (const PointLight& light : registry.pointLights) {
        const uint64_t count = uint64_t(light.photon > 0 ? light.photon : 0);
        cast(count, pass * count, [&](RayState& ray, uint64_t i) { light.emitPhoton(ray, i); });
    }
}

void CastPhotonsFromGeometryLight(uint32_t pass) {
    if (registry.objects.empty()) return;
    const Object& root = registry.objects[size_t(registry.rootObject)];
    const int photons = registry.geometryLight.photon;
    if (photons <= 0 || !(root.photonArea > 0.0f) || root.photonTable.empty()) return;
    const uint64_t count = uint64_t(photons);
    cast(count, pass * count, [&](RayState& ray, uint64_t i) { emitGeometryLightPhoton(ray, i, count); });
}

void CastPhotonsFromSky(uint32_t pass) {
    const int photons = registry.skyLight.photon;
    if (photons <= 0) return;
    const uint64_t count = uint64_t(photons);
    cast(count, pass * count, emitSkyPhoton);
}

void castPhotons() {
    CastPhotonsFromParallelLights(0);
    CastPhotonsFromPointLights(0);
    CastPhotonsFromGeometryLight(0);
    CastPhotonsFromSky(0);
}
