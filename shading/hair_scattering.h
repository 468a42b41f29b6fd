// What a fibre scatters from the direction `l` towards the viewer, for light
// sampling: the diffuse part and the three lobes (R, TT, TRT) with the
// density at which each lobe samples `l`.
#pragma once

#include "core/records.h"

struct HairLobes {
    Color value[3];
    float density[3];
};

Color EvaluateDiffuseHair(const RayState& ray, const HitRecord& hit, Vector l);
HairLobes EvaluateBcsdf(const RayState& ray, const HitRecord& hit, Vector l);
