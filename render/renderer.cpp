// The renderer stage: limits, the mode banner, the photon cast and its
// report, and the renderer's setters.
#include <cstring>

#include "core/clock.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"
#include "render/renderer.h"
#include "lv.h"
#include "photons/photon_cast.h"
#include "photons/photon_tree.h"
#include "shading/occlusion.h"

void prepareRenderer() {
    for (float& c : registry.clamp)
        if (c < 0.0f) c = 0.0f;
    registry.currentCameraRecord = registry.currentCamera < int(registry.cameras.size())
                                       ? &registry.cameras[size_t(registry.currentCamera)]
                                       : nullptr;
    std::memset(registry.threadRays, 0, sizeof registry.threadRays);
    std::memset(registry.threadShadowRays, 0, sizeof registry.threadShadowRays);
    // Shadow rays ask the shaders what each surface on the way lets through.
    shadowFactorHook = shadowFactor;

    if (registry.ray_depth < 2) registry.ray_depth = 1;
    if (registry.photon_depth < 2) registry.photon_depth = 1;
    if (registry.bounce < 2) registry.bounce = 1;
    registry.sequenceSeed = hardwareRandom();
    if (registry.processes.shareSeed) registry.processes.shareSeed(registry.sequenceSeed);

    if (registry.distance <= 0.0f || registry.resolution <= 0.0f) {
        reportMessage("unidirectional path tracing");
    } else {
        registry.final_gather_mode = true;
        reportMessage("progressive final gathering");
    }
    reportRule();

    uint64_t t0 = systemTime100ns();
    registry.photons.clear();
    castPhotons();
    if (registry.processes.gatherPhotons) registry.processes.gatherPhotons();
    uint64_t t1 = systemTime100ns();
    reportReal("photon cast   ", double(t1 - t0) / 10000000.0, "seconds");
    reportReal("photon radius ", registry.radius, "m");
    reportRule();

    buildPhotonTree();
    std::memset(registry.threadRays, 0, sizeof registry.threadRays);
    std::memset(registry.threadShadowRays, 0, sizeof registry.threadShadowRays);

    reportCount("renderer sample", registry.rendererSample, "n/a");
    reportRule();
}

void releaseRenderer() {
    // The photon arrays keep their capacity for the next scene.
    registry.photons.clear();
    registry.photonNodes.clear();
    registry.radius = 1.0f;
    registry.radius2 = 1.0f;
    registry.radius3 = 1.0f;
    resetRendererValues();
}

extern "C" {

LV_API void lvSetRendererBounce(int bounce) { registry.bounce = bounce; }
LV_API void lvSetRendererClamp(float r, float g, float b) {
    registry.clamp[0] = r;
    registry.clamp[1] = g;
    registry.clamp[2] = b;
}
LV_API void lvSetRendererDistance(float distance) { registry.distance = distance; }
LV_API void lvSetRendererPhotonDepth(int depth) { registry.photon_depth = depth; }
LV_API void lvSetRendererRadius(float radius) { registry.radius = radius; }
LV_API void lvSetRendererRayDepth(int depth) { registry.ray_depth = depth; }
LV_API void lvSetRendererResolution(float resolution) { registry.resolution = resolution; }
LV_API void lvSetRendererSample(int sample) { registry.rendererSample = sample; }
LV_API void lvSetDisplayGamma(float gamma) { registry.displayGamma = gamma; }
LV_API void lvSetPreviewWindow(bool on) { registry.previewWindow = on; }

}  // extern "C"
