#include "shading/media.h"

#include <cmath>

#include "core/registry.h"

Color attenuate(const RayState& ray, Color c) {
    const Camera* camera = registry.currentCameraRecord;
    const float cameraIor = camera ? camera->ior : 1.0f;
    const bool inside = std::fabs(cameraIor - ray.ior) >= 1e-8f;
    const Color& T = inside ? registry.shaders[ray.shader].volume.transmittance : registry.skyLight.medium.transmittance;
    // Clear air costs nothing.
    if (T == one) return c;
    return {c.x * std::pow(T.x, ray.t), c.y * std::pow(T.y, ray.t), c.z * std::pow(T.z, ray.t)};
}
