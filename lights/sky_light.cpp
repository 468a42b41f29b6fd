// The sky light stage. Until the sky's map and distribution exist, release
// writes its AOVs and puts its values back.
#include "core/registry.h"
#include "core/stages.h"

void prepareSkyLight() {}

void releaseSkyLight() {
    writeAovs(registry.skyLightAOVs);
    resetSkyLightValues();
}
