// A point light: a position, optionally a sphere of radius `blur` around it,
// and a spot cone given by an inner and an outer angle around `direction`.
#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "lights/lights.h"
#include "lights/photon_start.h"

void PointLight::reset() { *this = PointLight{}; }

float spotWeight(const PointLight& light, Vector w) {
    const float a = std::acos(std::clamp(dot(light.direction, w), -1.0f, 1.0f));
    const float q = (light.outerRadians - a) / (light.outerRadians - light.innerRadians);
    // A NaN quotient (equal angles, on the edge) fails the test and weighs 0.
    if (!(q > 0.0f)) return 0.0f;
    return std::min(q, 1.0f);
}

void PointLight::emitPhoton(RayState& ray, uint64_t index) const {
    const uint32_t i = uint32_t(index);
    const float u1 = radicalInverse(i, 0);
    const float phi = float(double(index) / double(photon)) * kTwoPi;
    Vector d;
    if (!isInside) {
        // Uniform in the cone that holds the scene.
        const float c = 1.0f - u1 * (1.0f - coneCosine);
        const float s = guardedLength(1.0f - c * c);
        const Vector f0{frame[0], frame[1], frame[2]}, f1{frame[3], frame[4], frame[5]};
        d = f0 * (s * std::cos(phi)) + f1 * (s * std::sin(phi)) + axis() * c;
    } else {
        // Uniform on the sphere.
        const float s = 2.0f * guardedLength(u1 * (1.0f - u1));
        d = {s * std::cos(phi), s * std::sin(phi), 1.0f - 2.0f * u1};
    }
    Vector origin = position;
    if (blur > 0.0f) {
        const float u2 = radicalInverse(i, 1), u3 = radicalInverse(i, 2);
        const float s = 2.0f * guardedLength(u3 * (1.0f - u3));
        origin += Vector{s * std::cos(kTwoPi * u2), s * std::sin(kTwoPi * u2), 1.0f - 2.0f * u3} * blur;
    }
    startPhoton(ray, *this, offset, i, blur > 0.0f ? 3u : 1u);
    ray.origin = origin;
    ray.direction = d;
    ray.power = photonPower * (spotWeight(*this, d) / float(photon));
}
