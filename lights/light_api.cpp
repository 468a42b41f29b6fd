// The exported families of point and parallel lights. They store what they
// are given; the gaffer stage derives everything else. AOV channels are added
// to what the AOV has, unlike the camera's, which replace it.
#include <string>

#include "core/registry.h"
#include "lights/lights.h"
#include "lv.h"

namespace {

PointLight& pointLight(int light) { return registry.pointLights[size_t(light)]; }
ParallelLight& parallelLight(int light) { return registry.parallelLights[size_t(light)]; }

int addAov(std::vector<Aov>& aovs) {
    aovs.emplace_back();
    return int(aovs.size()) - 1;
}

}  // namespace

extern "C" {

LV_API int lvAddPointLight(void) {
    registry.pointLights.emplace_back();
    return int(registry.pointLights.size()) - 1;
}
LV_API void lvSetPointLightPosition(int light, float x, float y, float z) { pointLight(light).position = {x, y, z}; }
LV_API void lvSetPointLightDirection(int light, float x, float y, float z) { pointLight(light).direction = {x, y, z}; }
LV_API void lvSetPointLightColor(int light, float x, float y, float z) { pointLight(light).color = {x, y, z}; }
LV_API void lvSetPointLightPhoton(int light, int photon) { pointLight(light).photon = photon; }
LV_API void lvSetPointLightSample(int light, int sample) { pointLight(light).sample = sample; }
LV_API void lvSetPointLightBlur(int light, float blur) { pointLight(light).blur = blur; }
LV_API void lvSetPointLightOffset(int light, float offset) { pointLight(light).offset = offset; }
LV_API void lvSetPointLightInnerAngle(int light, float degrees) { pointLight(light).innerAngle = degrees; }
LV_API void lvSetPointLightOuterAngle(int light, float degrees) { pointLight(light).outerAngle = degrees; }
LV_API void lvSetPointLightShaderLink(int light, int shader) { pointLight(light).link.indices.push_back(shader); }
LV_API int lvAddPointLightAOV(int light) { return addAov(pointLight(light).aovs); }
LV_API void lvSetPointLightAOVChannel(int light, int aov, Channel channel) {
    pointLight(light).aovs[size_t(aov)].channel |= uint32_t(channel);
}
LV_API void lvSetPointLightAOVName(int light, int aov, const char* name) {
    pointLight(light).aovs[size_t(aov)].image.name.assign(std::string(name));
}

LV_API int lvAddParallelLight(void) {
    registry.parallelLights.emplace_back();
    return int(registry.parallelLights.size()) - 1;
}
// The direction is the third vector of the light's frame.
LV_API void lvSetParallelLightDirection(int light, float x, float y, float z) {
    float* axis = parallelLight(light).frame + 6;
    axis[0] = x, axis[1] = y, axis[2] = z;
}
LV_API void lvSetParallelLightColor(int light, float x, float y, float z) { parallelLight(light).color = {x, y, z}; }
LV_API void lvSetParallelLightPhoton(int light, int photon) { parallelLight(light).photon = photon; }
LV_API void lvSetParallelLightSample(int light, int sample) { parallelLight(light).sample = sample; }
LV_API void lvSetParallelLightBlur(int light, float degrees) { parallelLight(light).blur = degrees; }
LV_API void lvSetParallelLightOffset(int light, float offset) { parallelLight(light).offset = offset; }
LV_API void lvSetParallelLightShaderLink(int light, int shader) { parallelLight(light).link.indices.push_back(shader); }
LV_API int lvAddParallelLightAOV(int light) { return addAov(parallelLight(light).aovs); }
LV_API void lvSetParallelLightAOVChannel(int light, int aov, Channel channel) {
    parallelLight(light).aovs[size_t(aov)].channel |= uint32_t(channel);
}
LV_API void lvSetParallelLightAOVName(int light, int aov, const char* name) {
    parallelLight(light).aovs[size_t(aov)].image.name.assign(std::string(name));
}

}  // extern "C"
