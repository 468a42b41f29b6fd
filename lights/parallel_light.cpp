// A parallel light: one direction, optionally blurred into a cone of `blur`
// degrees. Its photons start on a disc of the scene's size.
#include <cmath>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "lights/lights.h"
#include "lights/photon_start.h"
#include "shading/lobes.h"

void ParallelLight::reset() { *this = ParallelLight{}; }

Vector coneDirection(const float frame[9], float cosine, float a, float b) {
    const float z = 1.0f - b * (1.0f - cosine);
    const float s = guardedLength(1.0f - z * z);
    const float phi = kTwoPi * a;
    return Vector{frame[0], frame[1], frame[2]} * (s * std::cos(phi)) +
           Vector{frame[3], frame[4], frame[5]} * (s * std::sin(phi)) + Vector{frame[6], frame[7], frame[8]} * z;
}

void ParallelLight::emitPhoton(RayState& ray, uint64_t index) const {
    const uint32_t i = uint32_t(index);
    float p, q;
    concentricDisc(radicalInverse(i, 0), radicalInverse(i, 1), p, q);
    const float R = registry.sceneRadius;
    const Vector f0{frame[0], frame[1], frame[2]}, f1{frame[3], frame[4], frame[5]};
    startPhoton(ray, *this, offset, i, blur > 0.0f ? 4u : 2u);
    ray.origin = registry.sceneCenter + (f0 * p + f1 * q - axis()) * R;
    ray.direction = blur > 0.0f ? coneDirection(frame, blurCosine, radicalInverse(i, 2), radicalInverse(i, 3)) : axis();
    ray.power = photonPower / float(photon);
}
