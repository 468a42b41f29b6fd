// The exported family of the sky light. The setters store what they are
// given; the sky light stage derives the frame, the power and the cube. AOV
// channels are added to what the AOV has.
#include <string>

#include "core/registry.h"
#include "lv.h"

extern "C" {

LV_API void lvSetSkyLightColor(float x, float y, float z) { registry.skyLight.color = {x, y, z}; }
// North and zenith are rows 1 and 2 of the sky's frame, kept as given.
LV_API void lvSetSkyLightNorth(float x, float y, float z) {
    float* north = registry.skyLight.frame + 3;
    north[0] = x, north[1] = y, north[2] = z;
}
LV_API void lvSetSkyLightZenith(float x, float y, float z) {
    float* zenith = registry.skyLight.frame + 6;
    zenith[0] = x, zenith[1] = y, zenith[2] = z;
}
LV_API void lvSetSkyLightSample(int sample) { registry.skyLight.sample = sample; }
LV_API void lvSetSkyLightPhoton(int photon) { registry.skyLight.photon = photon; }
LV_API void lvSetSkyLightShaderLink(int shader) { registry.skyLightLink.indices.push_back(shader); }
LV_API void lvSetSkyLightImage(const char* file) { registry.skyLight.image.name.assign(std::string(file)); }
LV_API void lvSetSkyLightBackdrop(const char* file) { registry.skyLight.backdrop.name.assign(std::string(file)); }
LV_API int lvAddSkyLightAOV(void) {
    registry.skyLightAOVs.emplace_back();
    return int(registry.skyLightAOVs.size()) - 1;
}
LV_API void lvSetSkyLightAOVChannel(int aov, Channel channel) {
    registry.skyLightAOVs[size_t(aov)].channel |= uint32_t(channel);
}
LV_API void lvSetSkyLightAOVName(int aov, const char* name) {
    registry.skyLightAOVs[size_t(aov)].image.name.assign(std::string(name));
}

}  // extern "C"
