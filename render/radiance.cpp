#include "render/radiance.h"

#include <algorithm>
#include <cmath>

#include "core/registry.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "render/aovs.h"
#include "render/direct_light.h"
#include "render/emission.h"
#include "render/lobe_paths.h"
#include "shading/hit_shading.h"
#include "core/images.h"
#include "shading/lobes.h"
#include "shading/media.h"

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

    hit.light_weight = lightWeight(ray, hit);
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
