#include "core/registry.h"

void resetRendererValues() {
    registry.photon_depth = 8;
    registry.ray_depth = 8;
    registry.rendererSample = 64;
    registry.final_gather_mode = false;
    registry.elapsedMicroseconds = 0;
    registry.rayCount = 0;
    registry.shadowRayCount = 0;
}

void resetGeometryLightValues() { registry.geometryLight = GeometryLightValues{}; }

void resetSkyLightValues() { registry.skyLight = SkyLightValues{}; }
