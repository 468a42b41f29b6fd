// The geometry light stage: emissive primitives as one light.
#include "core/registry.h"
#include "core/stages.h"

void prepareGeometryLight() {}

void releaseGeometryLight() {
    writeAovs(registry.geometryLightAOVs);
    resetGeometryLightValues();
}
