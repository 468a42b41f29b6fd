#include "shading/child_ray.h"

#include <algorithm>

#include "core/registry.h"

uint32_t cameraSample() {
    const Camera* camera = registry.currentCameraRecord;
    return camera && camera->sample > 1 ? uint32_t(camera->sample) : 1u;
}

Split firstHitSplit(float weight, int budget) {
    const int64_t c = cameraSample();
    const float scaled = weight * float(budget);
    int64_t n = budget;
    if (!(scaled >= float(budget))) n = scaled > 0.0f ? int64_t(scaled) : 0;
    n = std::max(n, c);
    n -= n % c;
    return {uint32_t(n), uint32_t(n / c)};
}

uint32_t splitIndex(const Split& split, uint32_t k) { return uint32_t(registry.pass_index) * split.perFrame + k; }

uint32_t firstHitLightSamples(const HitRecord& hit, int budget) {
    return firstHitSplit(hit.light_weight, budget).total;
}

bool withinBounceBudget(const RayState& ray) { return pathBounces(ray) < registry.bounce; }

RayState childRay(const RayState& parent, const HitRecord& hit, uint8_t tag) {
    RayState child = parent;
    child.origin = hit.position;
    child.primitive = kNoPrimitive;
    child.kind = kKindNotAsked;
    child.previous_shader = parent.shader;
    child.previous_primitive = parent.primitive;
    child.previous_kind = parent.kind;
    child.previous_part = parent.part;
    child.previous_path = parent.hit_path;
    child.previous_hair_lobe = parent.hair_lobe;
    child.parent_hit = &hit;
    child.depth = uint8_t(parent.depth + 1);
    child.earlier_lobe = parent.lobe == tag ? parent.earlier_lobe : parent.lobe;
    child.lobe = tag;
    return child;
}
