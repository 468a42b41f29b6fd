#include "geometry/object.h"
// The exported surface as a whole: the library exports exactly the functions
// of lv.h, the stage functions run the preparation and the release one stage
// at a time, and the setters that no other test reaches store what they are
// given.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <set>
#include <string>

#include "scene_fixture.h"

namespace {

// Every function a host may call, by family, and nothing else.
const std::set<std::string> kExported = {
    // Lifecycle and stages.
    "lvStartup", "lvShutdown", "lvGo", "lvInitialize", "lvFinalize", "lvRender", "lvRenderPixels",
    "lvInitializeAccelerator", "lvInitializeCameras", "lvInitializeGaffer", "lvInitializeGeometryLight",
    "lvInitializeRenderer", "lvInitializeShaders", "lvInitializeSkyLight", "lvFinalizeAccelerator",
    "lvFinalizeCameras", "lvFinalizeGaffer", "lvFinalizeGeometryLight", "lvFinalizeRenderer", "lvFinalizeShaders",
    "lvFinalizeSkyLight",
    // Renderer.
    "lvSetRendererBounce", "lvSetRendererClamp", "lvSetRendererDistance", "lvSetRendererPhotonDepth",
    "lvSetRendererRadius", "lvSetRendererRayDepth", "lvSetRendererResolution", "lvSetRendererSample",
    "lvSetDisplayGamma", "lvSetPreviewWindow",
    // Cameras and their AOVs.
    "lvAddCamera", "lvSetCameraName", "lvSetCameraResolution", "lvSetCameraRegion", "lvSetCameraSample",
    "lvSetCameraExposure", "lvSetCameraProjection", "lvSetCameraAngleMeasure", "lvSetCameraTime",
    "lvSetCameraPosition", "lvSetCameraTarget", "lvSetCameraUpVector", "lvSetCameraBokeh", "lvSetCameraFOV",
    "lvAddCameraAOV", "lvSetCameraAOVChannel", "lvSetCameraAOVName", "lvSetCameraAOVUserData",
    // Objects.
    "lvAddObject", "lvSetObjectName", "lvAddPart", "lvSetShaderID", "lvAddInstance", "lvSetInstance",
    "lvAddPositions", "lvAddNormals", "lvAddTangents", "lvAddUVs", "lvAddRadii", "lvAddParticles",
    "lvAddCylinders", "lvAddTriangles", "lvAddTetragons", "lvAddVertexData",
    // Shaders.
    "lvAddShader", "lvSetShaderName", "lvSetShaderVisibility", "lvSetShaderSmoothAngle", "lvSetShaderRoundCorner",
    "lvSetShaderTime", "lvAddSurfaceShader", "lvSetSurfaceColor", "lvSetSurfaceImage", "lvSetSurfaceMaterial",
    "lvSetSurfaceSideness", "lvSetSurfaceVirtualLight", "lvAddDisplacementShader", "lvSetDisplacementImage",
    "lvSetDisplacementLevel", "lvSetDisplacementVector",
    // Point lights.
    "lvAddPointLight", "lvSetPointLightPosition", "lvSetPointLightDirection", "lvSetPointLightColor",
    "lvSetPointLightPhoton", "lvSetPointLightSample", "lvSetPointLightBlur", "lvSetPointLightOffset",
    "lvSetPointLightInnerAngle", "lvSetPointLightOuterAngle", "lvSetPointLightShaderLink", "lvAddPointLightAOV",
    "lvSetPointLightAOVChannel", "lvSetPointLightAOVName",
    // Parallel lights.
    "lvAddParallelLight", "lvSetParallelLightDirection", "lvSetParallelLightColor", "lvSetParallelLightPhoton",
    "lvSetParallelLightSample", "lvSetParallelLightBlur", "lvSetParallelLightOffset", "lvSetParallelLightShaderLink",
    "lvAddParallelLightAOV", "lvSetParallelLightAOVChannel", "lvSetParallelLightAOVName",
    // The geometry light.
    "lvSetGeometryLightSample", "lvSetGeometryLightPhoton", "lvSetGeometryLightShaderLink", "lvAddGeometryLightAOV",
    "lvSetGeometryLightAOVChannel", "lvSetGeometryLightAOVName", "lvSetGeometryLightAOVShaderName",
    // The sky light.
    "lvSetSkyLightColor", "lvSetSkyLightNorth", "lvSetSkyLightZenith", "lvSetSkyLightSample", "lvSetSkyLightPhoton",
    "lvSetSkyLightShaderLink", "lvSetSkyLightImage", "lvSetSkyLightBackdrop", "lvAddSkyLightAOV",
    "lvSetSkyLightAOVChannel", "lvSetSkyLightAOVName"};

// The names of the functions and data that the shared library defines for
// its loaders.
std::set<std::string> dynamicSymbols(const std::string& library) {
    std::set<std::string> names;
    const std::string command = "nm -D --defined-only '" + library + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) return names;
    char address[64], kind[8], name[512];
    while (std::fscanf(pipe.get(), "%63s %7s %511s", address, kind, name) == 3) names.insert(name);
    return names;
}

using ExportedSurfaceTest = SceneTest;

bool exists(const std::string& name) { return fs::exists(name); }

}  // namespace

TEST(ExportedSurface, LibraryDefinesExactlyTheInterface) {
    const std::set<std::string> exported = dynamicSymbols(LV_LIBRARY);
    ASSERT_FALSE(exported.empty()) << "nm found nothing in " << LV_LIBRARY;
    for (const std::string& name : kExported) EXPECT_TRUE(exported.count(name)) << name << " is not exported";
    for (const std::string& name : exported) EXPECT_TRUE(kExported.count(name)) << name << " should not be exported";
}

// A scene prepared and released stage by stage. The two geometry light stage
// functions are the sky's: its AOV is written by the release of either, the
// geometry light's only by lvFinalize.
TEST_F(ExportedSurfaceTest, StageFunctionsRunOneStageEach) {
    const int shader = lvAddShader();
    lvAddSurfaceShader(shader);
    const int object = lvAddObject();
    const int part = lvAddPart(object);
    lvSetShaderID(object, part, shader);
    const float corners[] = {-1, 0, -1, 1, 0, -1, 1, 0, 1, -1, 0, 1};
    const int quad[] = {0, 1, 2, 3};
    lvAddPositions(object, part, 4, corners);
    lvAddTetragons(object, part, 1, quad);
    lvSetRendererDistance(0);
    lvSetSkyLightPhoton(0);
    lvSetGeometryLightPhoton(0);
    lvSetSkyLightAOVName(lvAddSkyLightAOV(), "sky.pfm");
    lvSetGeometryLightAOVName(lvAddGeometryLightAOV(), "emission.pfm");
    const int camera = lvAddCamera();
    lvSetCameraResolution(camera, 4, 4);
    lvSetCameraSample(camera, 1);
    lvSetCameraAOVName(camera, 0, "camera.pfm");
    lvSetCameraPosition(camera, 0, 2, 3);

    auto firstLine = [](void (*stage)()) {
        const auto lines = reportedLines(stage);
        return lines.empty() ? std::string() : lines[0];
    };
    EXPECT_EQ(firstLine(lvInitializeCameras).rfind("camera sensor width ", 0), 0u);
    EXPECT_EQ(firstLine(lvInitializeShaders).rfind("shaders", 0), 0u);
    quietly(lvInitializeAccelerator);
    EXPECT_EQ(registry.objects[0].parts[0].tetragons.size(), 1u);
    const std::string sky = firstLine(lvInitializeSkyLight);
    EXPECT_EQ(sky.rfind("sky light", 0), 0u);
    EXPECT_EQ(firstLine(lvInitializeGeometryLight), sky);
    quietly(lvInitializeGaffer);
    EXPECT_EQ(firstLine(lvInitializeRenderer), "unidirectional path tracing");
    quietly(lvRender);

    quietly(lvFinalizeRenderer);
    quietly(lvFinalizeGaffer);
    fs::remove("sky.pfm");
    quietly(lvFinalizeGeometryLight);
    EXPECT_TRUE(exists("sky.pfm"));
    EXPECT_FALSE(exists("emission.pfm"));
    fs::remove("sky.pfm");
    quietly(lvFinalizeSkyLight);
    EXPECT_TRUE(exists("sky.pfm"));
    quietly(lvFinalizeAccelerator);
    EXPECT_TRUE(registry.objects.empty());
    fs::remove("camera.pfm");
    quietly(lvFinalizeCameras);
    EXPECT_TRUE(exists("camera.pfm"));
    EXPECT_TRUE(registry.cameras.empty());
    quietly(lvFinalizeShaders);
    EXPECT_TRUE(registry.shaders.empty());
    quietly(lvStartup);
}

// A camera's AOV channel replaces the set; a light's adds to it, over the
// beauty bit. A name may be given from a part of the one it replaces, and
// links gather every shader named.
TEST_F(ExportedSurfaceTest, CameraAndLightAovSetters) {
    const int camera = lvAddCamera();
    lvSetCameraName(camera, "front");
    const int aov = lvAddCameraAOV(camera);
    lvSetCameraAOVChannel(camera, aov, LV_CHANNEL_LAMBERTIAN);
    lvSetCameraAOVChannel(camera, aov, LV_CHANNEL_USER);
    const Camera& c = registry.cameras[0];
    lvSetCameraName(camera, c.name.c_str() + 2);
    EXPECT_EQ(c.name, "ont");
    EXPECT_EQ(aov, 1);
    EXPECT_EQ(c.aovs[1].channel, uint32_t(LV_CHANNEL_USER));

    const int geometry = lvAddGeometryLightAOV();
    lvSetGeometryLightAOVChannel(geometry, LV_CHANNEL_LAMBERTIAN);
    lvSetGeometryLightAOVChannel(geometry, LV_CHANNEL_GLOSSY);
    EXPECT_EQ(registry.geometryLightAOVs[size_t(geometry)].channel,
              uint32_t(LV_CHANNEL_BEAUTY | LV_CHANNEL_LAMBERTIAN | LV_CHANNEL_GLOSSY));
    lvSetGeometryLightShaderLink(2);
    lvSetGeometryLightShaderLink(5);
    EXPECT_EQ(registry.geometryLightLink.indices, (std::vector<int>{2, 5}));
}

// Directions are normalised and packed into bytes: a component of exactly 1
// reaches the limit of 127, a zero vector stays zero.
TEST_F(ExportedSurfaceTest, NormalsAndTangentsArePacked) {
    const int object = lvAddObject();
    const int part = lvAddPart(object);
    const float directions[] = {0, 0, 2, 0, 0, 0, 3, -3, 0};
    lvAddNormals(object, part, 3, directions);
    lvAddTangents(object, part, 3, directions);
    lvAddTangents(object, part, 0, directions);
    const Part& p = registry.objects[0].parts[0];
    ASSERT_EQ(p.tangents.size(), 3u);
    for (const auto* packed : {&p.normals, &p.tangents}) {
        EXPECT_EQ((*packed)[0], packDirection(0, 0, 1));
        EXPECT_EQ(int((*packed)[0].z), 127);
        EXPECT_EQ(int((*packed)[1].x) | int((*packed)[1].y) | int((*packed)[1].z), 0);
        EXPECT_EQ(int((*packed)[2].x), 90);   // 128 / sqrt(2), truncated
        EXPECT_EQ(int((*packed)[2].y), -90);
    }
}

// A displacement image given without matrices keeps the ones there; the
// shader time touches nothing, not even the shader it names.
TEST_F(ExportedSurfaceTest, DisplacementImageAndShaderTime) {
    const int shader = lvAddShader();
    const int displacement = lvAddDisplacementShader(shader);
    const float color[4][4] = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {0, 0, 0, 1}};
    const float uv[3][3] = {{1, 0, 0.5f}, {0, 1, 0}, {0, 0, 1}};
    lvSetDisplacementImage(shader, displacement, "heights.pgm", 1.5f, color, uv);
    lvSetDisplacementImage(shader, displacement, "other.pgm", 1.0f, nullptr, nullptr);
    const SurfaceElement& e = registry.shaders[size_t(shader)].geometry.vector[0];
    EXPECT_EQ(e.image, "other.pgm");
    EXPECT_EQ(e.sampler.color_matrix[0], 2.0f);
    EXPECT_EQ(e.sampler.uv_matrix[2], 0.5f);

    lvSetShaderTime(100000, 0.5f);   // far outside the shaders: nothing is written
    lvSetShaderTime(shader, 0.5f);
    EXPECT_EQ(registry.shaders.size(), size_t(shader) + 1);
}
