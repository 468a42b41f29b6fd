#include "photons/photon_scattering.h"

#include <mutex>

#include "core/constants.h"
#include "core/images.h"
#include "core/registry.h"
#include "geometry/traversal.h"
#include "lights/aov_images.h"
#include "lights/lights.h"
#include "lv.h"
#include "photons/density_estimator.h"
#include "photons/photon_tree.h"
#include "shading/hit_shading.h"
#include "shading/lobes.h"
#include "shading/occlusion.h"

namespace {

std::mutex photonStoreLock;

// The light's link decides the first hit only: a shader it is not linked
// to receives none of its photons, and so sends none on.
bool linkedAtFirstHit(const RayState& ray) {
    if (ray.depth != 0 || !ray.parent_hit) return true;
    return linkAllows(*static_cast<const ShaderLink*>(ray.parent_hit), ray.shader);
}

inline SequenceSampler ownSampler(const RayState& ray) { return {ray.sequence_key, ray.sample_index, ray.dimension}; }

// Light that came from a light through mirrors and refractions alone: a
// caustic, kept for the photon tree.
void storeCaustic(const RayState& ray, const HitRecord& hit) {
    if (!ray.caustic || ray.diffuse_bounces != 0 || ray.glossy_bounces != 0 || ray.specular_bounces == 0) return;
    const Photon photon{hit.position, ray.power * ray.throughput, packPhotonDirection(hit.out_direction),
                        packPhotonDirection(hit.geometric_normal)};
    std::lock_guard<std::mutex> lock(photonStoreLock);
    registry.photons.push_back(photon);
}

// Connects a photon at a glossy hit to the camera's light-path AOVs: `color`
// is the photon's power times the glossy colour of the hit. The hit is
// projected through the first camera's opening pose and weighed by the
// camera's importance there: the squared plane distance over the squared
// distance and the cube of the view cosine, with the geometric cosine
// towards the camera, the shading normal's correction and the glossy lobe's
// response towards the camera. Photon threads add without a lock and may
// lose a contribution when two land on one pixel at once.
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
        if (aov.channel == LV_CHANNEL_LIGHT_PATH) addToAovPixel(aov, pixel, color * ray.throughput * value);
}

// A photon follows the child that a lobe ray makes from its hit, its
// throughput `E` times the ray's weight.
void follow(const RayState& ray, const HitRecord& hit, const LobeRay& r, Color E) {
    RayState child = lobeChild(ray, hit, r, E);
    tracePhoton(child);
}

// The lambertian class, or diffuse transmission (`below`): both store, both
// deposit on the side the photon arrived from, and bounce on their side.
// A fibre's lambertian part, as on camera paths, has no Fresnel term and
// scatters all round the fibre: its hemisphere turns about the random
// normal of the hit, with no side to keep to.
void addDiffuse(const RayState& ray, const HitRecord& hit, bool below) {
    if (!linkedAtFirstHit(ray)) return;
    const bool fibre = !below && ray.kind == kCylinder;
    const Color c = (below ? hit.transmissive : hit.lambertian) * (fibre ? 1.0f : hit.fresnel_complement);
    const Color E = c * ray.throughput;
    if (belowCutoff(E)) return;
    storeCaustic(ray, hit);
    // Without final gathering photons serve the caustics alone.
    if (!registry.final_gather_mode) return;
    depositPhoton(ray, ray.power * ray.throughput * c);

    LobeRay r;
    if (diffuseRay(hit, ownSampler(ray), below, fibre, r)) follow(ray, hit, r, E);
}

// A fibre's glossy photon follows the hair model's draw, one ray by one
// lobe; a surface's follows both rays of its half vector.
void addGlossy(const RayState& ray, const HitRecord& hit) {
    if (!linkedAtFirstHit(ray)) return;
    const Color E = hit.glossy * ray.throughput;
    if (belowCutoff(E)) return;
    if (ray.kind == kCylinder) return follow(ray, hit, fibreRay(ray, hit, ray.sample_index), E);
    connectPhotonToCamera(ray, hit, hit.glossy * ray.power);

    LobeRay rays[2];
    const int n = glossyRays(ray, hit, normalized(sampleHalfVector(hit, ownSampler(ray))), 0.0f, rays);
    for (int k = 0; k < n; ++k) follow(ray, hit, rays[k], E);
}

// Mirror and refraction keep the sequence's dimension: they draw nothing.
void addSpecular(const RayState& ray, const HitRecord& hit) {
    if (!linkedAtFirstHit(ray)) return;
    const Color E = hit.specular * ray.throughput;
    if (belowCutoff(E)) return;
    LobeRay rays[2];
    const int n = specularRays(ray, hit, 0.0f, rays);
    for (int k = 0; k < n; ++k) follow(ray, hit, rays[k], E);
}

}  // namespace

void shadePhotonHit(const RayState& ray, HitRecord& hit) {
    hit = HitRecord{};
    // Photon paths never take a layer's terminal shortcut.
    hit.terminal = 0;
    shadeHit(ray, hit);
    if (!hit.layer) return;
    const SurfaceElement* e = hit.layer->elements;
    hit.has_lambertian = elementColorTest(e[LV_ELEMENT_LAMBERTIAN], hit.uv, hit.lambertian);
    hit.has_transmissive = elementColorTest(e[LV_ELEMENT_TRANSMISSIVE], hit.uv, hit.transmissive);
    hit.has_glossy = elementColorTest(e[LV_ELEMENT_GLOSSY], hit.uv, hit.glossy);
    hit.has_specular = elementColorTest(e[LV_ELEMENT_SPECULAR], hit.uv, hit.specular);
}

void tracePhoton(RayState& ray) {
    // A photon path gets one hit more than `photon_depth`; the counter has
    // eight bits, so 255 ends it whatever the setting.
    if (int(ray.depth) > registry.photon_depth || ray.depth == 255) return;
    if (belowCutoff(ray.throughput)) return;
    if (!intersectClosest(ray)) return;
    HitRecord hit;
    shadePhotonHit(ray, hit);
    if (!hit.layer) return;
    addDiffuse(ray, hit, false);
    addDiffuse(ray, hit, true);
    addGlossy(ray, hit);
    addSpecular(ray, hit);
}
