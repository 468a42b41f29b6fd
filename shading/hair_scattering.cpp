// The fibre scattering model evaluated for light sampling. Until the tables
// of the hair model are filled, fibres reflect nothing towards a light.
#include "shading/hair_scattering.h"

Color EvaluateDiffuseHair(const RayState&, const HitRecord&, Vector) { return zero; }

HairLobes EvaluateBcsdf(const RayState&, const HitRecord&, Vector) { return HairLobes{{zero, zero, zero}, {0, 0, 0}}; }
