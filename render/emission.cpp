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
#include "shading/child_ray.h"
#include "shading/hair_scattering.h"
#include "core/images.h"
#include "shading/lobes.h"

namespace {

inline bool outsideBody(const RayState& ray) { return std::fabs(ray.ior - 1.0f) < 1e-8f; }

// Rays of the lobes that light samples weigh themselves against: the
// diffuse ones and glossy reflections.
inline bool lightsSampleItsLobe(const RayState& ray) {
    return lobeClass(ray.lobe) == kTagLambertian || ray.lobe == kTagGlossyReflection;
}

// The density of the bounce that made the ray, seen from its parent hit.
float bounceDensity(const RayState& ray) {
    if (!ray.parent_hit) return 0.0f;
    const HitRecord& parent = *static_cast<const HitRecord*>(ray.parent_hit);
    if (ray.previous_kind == kCylinder) {
        // A fibre's diffuse rays follow its diffuse term; its glossy rays
        // the lobe that drew them.
        if (ray.lobe == kTagLambertian) return EvaluateDiffuseHair(parent.out_direction, ray.direction, parent.tangent);
        if (ray.lobe != kTagGlossyReflection || ray.hair_lobe >= kHairLobes) return 0.0f;
        float density[kHairLobes];
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
    if (pathBounces(ray) == 1) {
        const HitRecord& parent = *static_cast<const HitRecord*>(ray.parent_hit);
        return balanceWeight(float(ray.split), pb, float(firstHitLightSamples(parent, lightBudget)), pl);
    }
    return balanceWeight(1.0f, pb, 1.0f, pl);
}

}  // namespace

float emissionWeight(const RayState& ray, const HitRecord& hit) {
    const GeometryLightValues& light = registry.geometryLight;
    if (!hit.virtual_light || light.sample == 0 || pathBounces(ray) == 0) return 1.0f;
    // Caustic paths, which no light sample and no photon carries.
    if (lobeClass(ray.lobe) == kTagSpecularReflection) {
        if (lobeClass(ray.earlier_lobe) == kTagLambertian && light.photon == 0) return 1.0f;
        if (ray.earlier_lobe == kTagGlossyReflection) return 1.0f;
    }
    if (!lightsSampleItsLobe(ray)) return 0.0f;
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
    // Light that the sky's samples could have found is shared with them.
    if (sky.sample != 0 && pathBounces(ray) != 0 && lightsSampleItsLobe(ray) && outsideBody(ray)) {
        const float density = skyDensity(cubeTexelOf(ray.direction));
        const float P = ray.previous_kind == kCylinder ? density : 2.0f * density;
        result = s * bounceWeight(ray, P, sky.sample);
    }
    if (ray.lobe >= kTagLambertian && ray.lobe <= kTagSpecularTransmission)
        for (Aov& aov : registry.skyLightAOVs) addToAov(aov, ray, result);
    return result;
}
