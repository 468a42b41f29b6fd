#include "shading/occlusion.h"

#include <cmath>

#include "core/registry.h"
#include "lv.h"
#include "shading/child_ray.h"
#include "core/images.h"

namespace {

// The first uv set blended over the primitive's corners; (0, 0) when a corner
// has none.
void shadowUv(const ShadowHit& hit, float uv[2]) {
    uv[0] = uv[1] = 0.0f;
    const Part& part = *hit.part;
    if (part.uvChannels.empty()) return;
    const std::vector<UV>& set = part.uvChannels[0].elements;
    uint32_t vertex[4];
    float weight[4];
    const int corners = primitiveCorners(part, hit.kind, hit.primitive, hit.barycentric, vertex, weight);
    float u = 0.0f, v = 0.0f;
    for (int k = 0; k < corners; ++k) {
        if (vertex[k] >= set.size()) return;
        u += weight[k] * set[vertex[k]].u;
        v += weight[k] * set[vertex[k]].v;
    }
    uv[0] = u, uv[1] = v;
}

// The cosine between the ray and the surface at the hit, in the space of
// the walk. A fibre has no normal to speak of and counts as met head on.
float shadowCosine(const RayState& ray, const ShadowHit& hit) {
    const Part& part = *hit.part;
    Vector n;
    switch (hit.kind) {
    case kParticle: n = hit.barycentric; break;   // from the centre to the hit
    case kTriangle: {
        const Triangle& f = part.triangles[hit.primitive];
        n = cross(part.positions[f.b] - part.positions[f.a], part.positions[f.c] - part.positions[f.a]);
        break;
    }
    case kTetragon: {
        const Tetragon& f = part.tetragons[hit.primitive];
        n = cross(part.positions[f.c] - part.positions[f.a], part.positions[f.d] - part.positions[f.b]);
        break;
    }
    default: return 1.0f;
    }
    return dot(normalized(ray.direction), normalized(n));
}

}  // namespace

RayState shadowRay(const RayState& ray, const HitRecord& hit) {
    RayState shadow = childRay(ray, hit, kTagLight);
    shadow.depth = 0;
    shadow.photon_path = 1;
    return shadow;
}

Color occlusion(RayState& shadow, float t) {
    shadow.throughput = one;
    shadow.primitive = kNoPrimitive;
    shadow.kind = 0;
    shadow.t = t;
    ++registry.threadShadowRays[shadow.thread];
    if (!registry.objects.empty()) transmittanceQuery(registry.objects[size_t(registry.rootObject)], shadow);
    return shadow.throughput;
}

Color shadowFactor(const RayState& ray, const ShadowHit& hit) {
    const Shader& shader = registry.shaders[hit.shader];
    const int side = hit.front ? kFaceSide : kBackSide;
    const int count = shader.layerCount[side];
    bool needsUv = false;
    for (int k = 0; k < count; ++k) needsUv = needsUv || shader.layers[shader.layerList[side][k]].needs_uv;
    float uv[2] = {0.0f, 0.0f};
    if (needsUv) shadowUv(hit, uv);

    Color factor = one;
    for (int k = 0; k < count; ++k) {
        const SurfaceShader& layer = shader.layers[shader.layerList[side][k]];
        if (layer.material != LV_MATERIAL_THIN) {
            factor *= elementColor(layer.elements[LV_ELEMENT_SHADOW_TRANSPARENCY], uv);
            continue;
        }
        // A thin sheet passes its specular colour, less what its two faces
        // reflect, with all the light that bounces between them.
        const Color s = elementColor(layer.elements[LV_ELEMENT_SPECULAR], uv);
        const float i = mean(elementColor(layer.elements[LV_ELEMENT_IOR], uv));
        if (std::fabs(i - 1.0f) < 1e-8f) {
            factor *= s;
            continue;
        }
        const float r0 = (i - 1.0f) * (i - 1.0f) / ((i + 1.0f) * (i + 1.0f));
        const float m = 1.0f - std::fabs(shadowCosine(ray, hit));
        const float F = r0 + m * m * m * m * m * (1.0f - r0);
        // At a grazing angle both faces reflect everything.
        factor *= F < 1.0f ? s * ((1.0f - F) * (1.0f - F) / (1.0f - F * F)) : zero;
    }
    return factor;
}
