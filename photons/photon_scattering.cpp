#include "photons/photon_scattering.h"

#include <mutex>

#include "core/registry.h"
#include "geometry/traversal.h"
#include "lights/lights.h"
#include "lv.h"
#include "photons/density_estimator.h"
#include "photons/photon_tree.h"
#include "render/aovs.h"
#include "render/child_ray.h"
#include "shading/hair_scattering.h"
#include "shading/hit_shading.h"
#include "core/images.h"
#include "shading/lobes.h"

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

    const SequenceSampler sampler = ownSampler(ray);
    const Vector d = below ? cosineHemisphereBelow(hit, sampler) : cosineHemisphere(hit, sampler);
    const float side = dot(d, hit.geometric_normal);
    if (!fibre && (below ? !(side < 0.0f) : !(side > 0.0f))) return;
    RayState child = childRay(ray, hit, below ? kTagDiffuseTransmission : kTagLambertian);
    child.direction = d;
    child.throughput = E;
    ++child.diffuse_bounces;
    child.dimension += 2;
    tracePhoton(child);
}

// A fibre's glossy photon follows the hair model's draw, one ray by one lobe.
void addFibreGlossy(const RayState& ray, const HitRecord& hit, Color E) {
    Vector d;
    Color w;
    const int lobe = sampleFibre(ray, hit, ray.sample_index, d, w);
    RayState child = childRay(ray, hit, kTagGlossyReflection);
    child.direction = d;
    child.throughput = E * w;
    child.hair_lobe = uint8_t(lobe);
    ++child.glossy_bounces;
    child.dimension += 2;
    tracePhoton(child);
}

void addGlossy(const RayState& ray, const HitRecord& hit) {
    if (!linkedAtFirstHit(ray)) return;
    const Color E = hit.glossy * ray.throughput;
    if (belowCutoff(E)) return;
    if (ray.kind == kCylinder) return addFibreGlossy(ray, hit, E);
    connectPhotonToCamera(ray, hit, hit.glossy * ray.power);

    const Vector h = normalized(sampleHalfVector(hit, ownSampler(ray)));
    const float c = -dot(h, ray.direction);
    bool totalReflection = false;
    auto bounce = [&](uint8_t tag, Vector d, Color throughput) {
        RayState child = childRay(ray, hit, tag);
        child.direction = d;
        child.throughput = throughput;
        ++child.glossy_bounces;
        child.dimension += 2;
        if (tag == kTagGlossyTransmission) child.ior = ray.ior * hit.eta;
        tracePhoton(child);
    };
    if (hit.material == LV_MATERIAL_SOLID) {
        Vector d;
        totalReflection = !refractDirection(ray.direction, h, hit.eta, c, d);
        if (!totalReflection && dot(d, hit.geometric_normal) < 0.0f)
            bounce(kTagGlossyTransmission, d, E * hit.fresnel_complement);
    }
    const Vector d = ray.direction + h * (2.0f * c);
    if (dot(d, hit.geometric_normal) > 0.0f) bounce(kTagGlossyReflection, d, E * (totalReflection ? 1.0f : hit.fresnel));
}

// Mirror and refraction keep the sequence's dimension: they draw nothing.
void addSpecular(const RayState& ray, const HitRecord& hit) {
    if (!linkedAtFirstHit(ray)) return;
    const Color E = hit.specular * ray.throughput;
    if (belowCutoff(E)) return;

    bool totalReflection = false;
    if (hit.material == LV_MATERIAL_SOLID || hit.material == LV_MATERIAL_THIN) {
        Vector d;
        totalReflection = !specularTransmission(ray, hit, d);
        if (!totalReflection && dot(d, hit.geometric_normal) < 0.0f) {
            RayState child = childRay(ray, hit, kTagSpecularTransmission);
            if (hit.material == LV_MATERIAL_THIN) {
                // Through a thin sheet the path keeps its class.
                child.lobe = ray.lobe;
                child.earlier_lobe = ray.earlier_lobe;
            }
            child.direction = d;
            child.throughput = E * hit.fresnel_complement;
            child.ior = ray.ior * hit.eta;
            ++child.specular_bounces;
            tracePhoton(child);
        }
    }
    const Vector d = ray.direction + hit.normal * (2.0f * hit.cos_out);
    if (dot(d, hit.geometric_normal) > 0.0f) {
        RayState child = childRay(ray, hit, kTagSpecularReflection);
        child.direction = d;
        child.throughput = E * (totalReflection ? 1.0f : hit.fresnel);
        ++child.specular_bounces;
        tracePhoton(child);
    }
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
