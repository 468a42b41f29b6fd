#include "render/direct_light.h"

// No light is sampled yet: emitters and the sky reach surfaces through the
// lobes alone, which then count all of their radiance.
LobeBundle geometryDirect(const RayState&, const HitRecord&) { return {}; }
LobeBundle skyDirect(const RayState&, const HitRecord&) { return {}; }
LobeBundle gafferDirect(const RayState&, const HitRecord&) { return {}; }

LobeBundle directLight(const RayState& ray, const HitRecord& hit) {
    LobeBundle bundle = geometryDirect(ray, hit);
    bundle += skyDirect(ray, hit);
    bundle += gafferDirect(ray, hit);
    return bundle;
}
