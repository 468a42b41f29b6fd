// The one scene of the process: every record array and every single value
// that the exported functions, the scene files and the stages share.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/distribution.h"
#include "core/host_hooks.h"
#include "core/processes.h"
#include "core/records.h"
#include "core/shader_record.h"

// The records of the layers above, which own their definitions. A file
// completes the ones it reads by including their layer's header; the one
// definition of the registry stands where all of them are complete.
struct Object;
struct PointLight;
struct ParallelLight;
struct GeometryLightPoint;
struct Photon;
struct PhotonNode;

// A per-thread value alone on its cache line, so that threads writing at
// the same time do not pass one line back and forth. It reads and writes as
// the value it holds.
template <typename T>
struct alignas(64) ThreadSlot {
    T value;   // trivial, so the arrays may be cleared by memset

    operator T() const { return value; }
    ThreadSlot& operator=(T v) {
        value = v;
        return *this;
    }
    ThreadSlot& operator+=(T v) {
        value += v;
        return *this;
    }
    ThreadSlot& operator++() {
        ++value;
        return *this;
    }
};
using ThreadCounter = ThreadSlot<uint64_t>;

// Values of the geometry light that its stage puts back.
struct GeometryLightValues {
    int sample = 0;              // geometryLightSample
    int photon = 1000000;        // geometryLightPhoton
    float scale = 1.0f;          // emission scale
    Color photonPower{1.0f, 1.0f, 1.0f};
    float totalArea = 0.0f;
};

// Values of the sky light that its stage puts back.
struct SkyLightValues {
    Color color{0.75f, 0.75f, 0.75f};
    ImageRecord image;           // skyLightImage: the sky, multiplied by color; named by the scene, loaded at preparation
    ImageRecord backdrop;        // skyLightBackdrop: what camera rays see instead
    int photon = 1000000;
    int sample = 64;
    float thickness = 1000.0f;
    float frame[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};   // skyFrame: north in row 1, zenith in row 2, as given; row 0 computed
    float inverseFrame[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    float ior = 1.0f;
    Color photonPower{0.0f, 0.0f, 0.0f};
    VolumeShader medium;         // skyMedium: the scene's air
};

struct Registry {
    // Record arrays, addressed by int index.
    std::vector<Camera> cameras;
    std::vector<Shader> shaders;
    std::vector<Object> objects;
    std::vector<ImageRecord> textures;
    std::vector<std::string> imagePaths;
    std::vector<std::string> geometryPaths;
    std::vector<PointLight> pointLights;
    std::vector<ParallelLight> parallelLights;
    std::vector<Aov> skyLightAOVs;
    std::vector<Aov> geometryLightAOVs;
    ShaderLink skyLightLink;
    ShaderLink geometryLightLink;

    // Renderer values.
    int bounce = 1;
    int ray_depth = 8;
    int photon_depth = 8;
    int rendererSample = 64;
    float distance = 1.0f;
    float resolution = 1.0f;
    float radius = 1.0f;
    float clamp[3] = {3.4e38f, 3.4e38f, 3.4e38f};
    float displayGamma = 2.2f;
    float renderExposure = 0.0f;
    bool previewWindow = false;
    bool final_gather_mode = false;
    unsigned frameCounter = 0;
    uint16_t pass_index = 0;
    // The seed of this run's sample sequences, drawn when the renderer is
    // prepared; all processes of a group share rank 0's.
    uint32_t sequenceSeed = 0;
    int currentCamera = 0;
    Camera* currentCameraRecord = nullptr;
    int rootObject = 0;
    Vector sceneMin{0, 0, 0}, sceneMax{0, 0, 0}, sceneCenter{0, 0, 0};
    float sceneRadius = 0.0f;
    uint32_t displaceMilliseconds = 0;
    uint32_t smoothMilliseconds = 0;
    uint64_t elapsedMicroseconds = 0;
    uint64_t rayCount = 0;
    uint64_t shadowRayCount = 0;
    std::string sceneDirectory;
    // The processes that render this scene together; set by the host.
    ProcessGroup processes;
    // The host's own part in lvGo's run.
    HostHooks host;

    // Lights that exist once per scene.
    GeometryLightValues geometryLight;
    std::vector<GeometryLightPoint> geometryLightPoints;
    Distribution geometryLightDistribution;   // over geometryLightPoints, by power
    SkyLightValues skyLight;
    float skyLightTurbidity = 9.0f;
    float skyLightAlbedo = 0.2f;
    float skyLightStretch = 0.1f;
    Vector sunDirection{1.0f, 2.0f, 1.0f};

    // What the photons leave behind: the caustic photons and their tree.
    std::vector<Photon> photons;
    std::vector<PhotonNode> photonNodes;
    float photonBounds[6] = {};      // min x, y, z, max x, y, z of the photon positions
    float radius2 = 1.0f, radius3 = 1.0f;   // `radius` squared and cubed

    // Per-thread entries, indexed by the thread number a ray carries.
    ThreadCounter threadRays[kMaxThreads] = {};
    ThreadCounter threadShadowRays[kMaxThreads] = {};
    ThreadCounter threadStatistics[6][kMaxThreads] = {};   // 0..2 counted by occlusion, 3..5 only cleared
    uint64_t firstFrameTotals[3] = {};
    ThreadSlot<uint32_t> threadPixelIndex[kMaxThreads] = {};
    ThreadSlot<float> threadOffset[kMaxThreads] = {};      // terminator offset of the thread's photon
    ThreadSlot<uint32_t> threadPathCounters[2][kMaxThreads] = {};
    // The last full 32-nearest query of each thread, which bounds the next.
    ThreadSlot<Vector> lastQueryPosition[kMaxThreads] = {};
    ThreadSlot<float> lastQueryRadius2[kMaxThreads] = {};
};

extern Registry registry;

// The default renderer values that the renderer stage and lvStartup put back.
void resetRendererValues();
void resetGeometryLightValues();
void resetSkyLightValues();
