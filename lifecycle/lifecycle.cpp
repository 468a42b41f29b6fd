// Start-up, the preparation stages in their fixed order, release and shutdown.
#include <FreeImage.h>

#include <algorithm>

#include "core/exponent.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"
#include "core/images.h"
#include "geometry/object.h"
#include "geometry/prepare.h"
#include "lights/geometry_light.h"
#include "lights/lights.h"
#include "lights/sky_light.h"
#include "photons/density_estimator.h"
#include "photons/photon_tree.h"
#include "render/camera.h"
#include "render/renderer.h"
#include "shading/hair_table.h"
#include "lv.h"
#include "shading/shader.h"

// The one scene of the process, defined here where every record it holds is
// complete.
Registry registry;

namespace {

void addDefaultShader();

// The accelerator stage: the objects and the root, then what needs the
// finished scene: the cells of the density estimator and the hair tables.
void prepareAcceleratorStage() {
    prepareAccelerator();
    if (registry.objects.empty()) return;
    prepareDensityEstimators();
    reportSceneBounds();
    prepareHairTables();
}

}  // namespace

extern "C" {

LV_API void lvStartup(void) {
    fillExponentTable();
    FreeImage_Initialise(0);
    if (std::find(registry.imagePaths.begin(), registry.imagePaths.end(), "") == registry.imagePaths.end())
        registry.imagePaths.push_back("");
    initializeRandomTables();
    resetGeometryLightValues();
    resetSkyLightValues();
    resetRendererValues();
    addDefaultShader();
}

LV_API void lvShutdown(void) {
    releaseRandomTables();
    FreeImage_DeInitialise();
}

LV_API void lvInitializeCameras(void) { prepareCameras(); }
LV_API void lvInitializeShaders(void) { prepareShaders(); }
LV_API void lvInitializeAccelerator(void) { prepareAcceleratorStage(); }
LV_API void lvInitializeSkyLight(void) { prepareSkyLight(); }
// The geometry light stage is reachable only through lvInitialize; this entry
// runs the sky light stage, as the exported surface has always done.
LV_API void lvInitializeGeometryLight(void) { prepareSkyLight(); }
LV_API void lvInitializeGaffer(void) { prepareGaffer(); }
LV_API void lvInitializeRenderer(void) { prepareRenderer(); }

LV_API void lvInitialize(void) {
    prepareCameras();
    prepareTextures();
    prepareShaders();
    prepareAcceleratorStage();
    prepareSkyLight();
    prepareGeometryLight();
    prepareGaffer();
    prepareRenderer();
}

LV_API void lvFinalizeRenderer(void) { releaseRenderer(); }
LV_API void lvFinalizeGaffer(void) { releaseGaffer(); }
LV_API void lvFinalizeSkyLight(void) { releaseSkyLight(); }
LV_API void lvFinalizeGeometryLight(void) { releaseSkyLight(); }
LV_API void lvFinalizeAccelerator(void) { releaseAccelerator(); }
LV_API void lvFinalizeCameras(void) { releaseCameras(); }
LV_API void lvFinalizeShaders(void) {
    releaseShaders();
    releaseTextures();
}

LV_API void lvFinalize(void) {
    releaseRenderer();
    releaseGaffer();
    releaseGeometryLight();
    releaseSkyLight();
    releaseAccelerator();
    releaseCameras();
    releaseShaders();
    releaseTextures();
}

}  // extern "C"

namespace {

// The grey diffuse default that every unresolved shader reference falls back to.
void addDefaultShader() {
    const int index = FindShader("undefined");
    Shader& shader = registry.shaders[size_t(index)];
    shader = Shader{};
    shader.layers.emplace_back();
    shader.layers[0].elements[0].color = {0.85f, 0.85f, 0.85f};
    shader.layers[0].elements[12].color = {1.0f, 1.0f, 1.0f};
}

}  // namespace
