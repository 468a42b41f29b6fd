// The exported family of the geometry light. It stores what it is given; the
// geometry light stage derives the rest. AOV channels are added to what the
// AOV has, as for the other lights.
#include <string>

#include "core/registry.h"
#include "lv.h"

namespace {

Aov& geometryLightAov(int aov) { return registry.geometryLightAOVs[size_t(aov)]; }

}  // namespace

extern "C" {

LV_API void lvSetGeometryLightSample(int sample) { registry.geometryLight.sample = sample; }
LV_API void lvSetGeometryLightPhoton(int photon) { registry.geometryLight.photon = photon; }
LV_API void lvSetGeometryLightShaderLink(int shader) { registry.geometryLightLink.indices.push_back(shader); }
LV_API int lvAddGeometryLightAOV(void) {
    registry.geometryLightAOVs.emplace_back();
    return int(registry.geometryLightAOVs.size()) - 1;
}
LV_API void lvSetGeometryLightAOVChannel(int aov, Channel channel) { geometryLightAov(aov).channel |= uint32_t(channel); }
LV_API void lvSetGeometryLightAOVName(int aov, const char* name) {
    geometryLightAov(aov).image.name.assign(std::string(name));
}
LV_API void lvSetGeometryLightAOVShaderName(int aov, const char* name) {
    geometryLightAov(aov).shaderFilter.assign(std::string(name));
}

}  // extern "C"
