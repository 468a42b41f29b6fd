#include "render/emission.h"

#include <cmath>

#include "core/constants.h"
#include "core/registry.h"
#include "geometry/object.h"
#include "lights/lights.h"
#include "lights/sky_light.h"
#include "lv.h"
#include "photons/density_estimator.h"
#include "render/aovs.h"
#include "render/child_ray.h"
#include "shading/hair_scattering.h"
#include "core/images.h"
#include "shading/lobes.h"

namespace {

inline bool outsideBody(const RayState& ray) { return std::fabs(ray.ior - 1.0f) < 1e-8f; }

// The density of the bounce that made the ray, seen from its parent hit.
float bounceDensity(const RayState& ray) {
    if (!ray.parent_hit) return 0.0f;
    const HitRecord& parent = *static_cast<const HitRecord*>(ray.parent_hit);
    if (ray.previous_kind == kCylinder) {
        // A fibre's diffuse rays follow its diffuse term; its glossy rays
        // the lobe that drew them.
        if (ray.lobe == kTagLambertian) return EvaluateDiffuseHair(parent.out_direction, ray.direction, parent.tangent);
        if (ray.lobe != kTagGlossyReflection || ray.hair_lobe > 2) return 0.0f;
        float density[3];
        DensityBcsdf(registry.shaders[ray.previous_shader].hairBlock, density, parent.out_direction, ray.direction,
                     parent.tangent);
        return density[ray.hair_lobe];
    }
    switch (ray.lobe) {
    case kTagLambertian: return dot(parent.normal, ray.direction) * kInvPi;
    case kTagDiffuseTransmission: return -dot(parent.normal, ray.direction) * kInvPi;
    case kTagGlossyReflection: return halfVectorLobe(parent.out_direction, ray.direction, parent);
    default: return 0.0f;
    }
}

// The balance weight of light that a bounce found against the samples that
// a light of budget `lightBudget` took with density `pl`. At the first bounce
// the parent hit fired the ray's split (`split`, the rays of its lobe over
// all frames, as no earlier bounce split the path) and took its first-hit
// share of the light's samples; past it, one of each.
float bounceWeight(const RayState& ray, float pl, int lightBudget) {
    const float pb = bounceDensity(ray);
    if (pb <= 0.0f) return 0.0f;
    if (ray.diffuse_bounces + ray.glossy_bounces == 1) {
        const HitRecord& parent = *static_cast<const HitRecord*>(ray.parent_hit);
        const float n = float(ray.split);
        return pb * n / (pb * n + pl * float(firstHitLightSamples(parent, lightBudget)));
    }
    return pb / (pl + pb);
}

}  // namespace

float emissionWeight(const RayState& ray, const HitRecord& hit) {
    const GeometryLightValues& light = registry.geometryLight;
    const int bounces = ray.diffuse_bounces + ray.glossy_bounces;
    const uint8_t D = ray.lobe & 0xFEu;
    if (!hit.virtual_light || light.sample == 0 || bounces == 0) return 1.0f;
    // Caustic paths, which no light sample and no photon carries.
    if ((ray.earlier_lobe == 2 || ray.earlier_lobe == 3) && D == 6 && light.photon == 0) return 1.0f;
    if (ray.earlier_lobe == 4 && D == 6) return 1.0f;
    if (D != 2 && ray.lobe != 4) return 0.0f;
    if (!outsideBody(ray) || hit.cos_out <= 0.0f) return 0.0f;

    const float pl = light.totalArea > 0.0f ? ray.t * ray.t / (hit.cos_out * light.totalArea) : 0.0f;
    return bounceWeight(ray, pl, light.sample);
}

Color emission(const RayState& ray, const HitRecord& hit) {
    const SurfaceShader& layer = *hit.layer;
    Color e = zero;
    if (hit.terminal) {
        // The cells hold what the photons left, the surface's colour in it.
        if (layer.has_lambertian) e += readCell(ray, true);
        if (layer.has_transmissive) e += readCell(ray, false);
    }
    // Emitters shine only on the surfaces that the geometry light is linked to.
    if (!linkAllows(registry.geometryLightLink, ray.previous_shader)) return e * hit.fresnel_complement;
    // A window shows the sky behind it.
    const Color r = layer.window ? skyRadiance(ray.direction) : elementColor(layer.elements[LV_ELEMENT_EMISSIVE], hit.uv);
    if (!isBlack(r)) e += r * emissionWeight(ray, hit);

    if (!registry.geometryLightAOVs.empty()) writeGeometryLightAovs(ray, e);
    return e * hit.fresnel_complement;
}

Color missRadiance(const RayState& ray) {
    if (!linkAllows(registry.skyLightLink, ray.previous_shader)) return zero;
    const Color s = skyRadianceForRay(ray);
    Color result = s;
    const SkyLightValues& sky = registry.skyLight;
    const int bounces = ray.diffuse_bounces + ray.glossy_bounces;
    // Light that the sky's samples could have found is shared with them.
    if (sky.sample != 0 && bounces != 0 && ((ray.lobe & 0xFEu) == 2 || ray.lobe == 4) && outsideBody(ray)) {
        const float density = skyDensity(cubeTexelOf(ray.direction));
        const float P = ray.previous_kind == kCylinder ? density : 2.0f * density;
        result = s * bounceWeight(ray, P, sky.sample);
    }
    if (ray.lobe >= 2 && ray.lobe <= 7)
        for (Aov& aov : registry.skyLightAOVs) addToAov(aov, ray, result);
    return result;
}
