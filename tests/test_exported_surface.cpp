// The exported surface as a whole: the library exports exactly the functions
// of lv.h, the Python package declares them as lv.h does, the stage functions
// run the preparation and the release one stage at a time, and the setters
// that no other test reaches store what they are given.
#include <gtest/gtest.h>

#include <cctype>
#include <set>
#include <string>

#include "host_run.h"

namespace {

// The declarations of lv.h, each on one line without LV_API and its
// semicolon, white space folded: the form that the Python package keeps.
std::vector<std::string> headerDeclarations() {
    const std::string header = slurp(fs::path(LV_SOURCE_DIR) / "include/lv.h");
    std::vector<std::string> declarations;
    for (size_t at = header.find("\nLV_API "); at != std::string::npos; at = header.find("\nLV_API ", at + 1)) {
        std::string folded;
        for (char c : header.substr(at + 8, header.find(';', at) - at - 8))
            if (!std::isspace(static_cast<unsigned char>(c))) folded += c;
            else if (folded.empty() || folded.back() != ' ') folded += ' ';
        declarations.push_back(folded);
    }
    return declarations;
}

using ExportedSurfaceTest = SceneTest;

}  // namespace

TEST_F(ExportedSurfaceTest, LibraryAndPythonPackageHaveExactlyTheFunctionsOfTheHeader) {
    const std::vector<std::string> declarations = headerDeclarations();
    ASSERT_GT(declarations.size(), 100u);
    std::set<std::string> declared, defined;
    for (const std::string& d : declarations) declared.insert(d.substr(d.find(' ') + 1, d.find('(') - d.find(' ') - 1));
    // The functions and data that the shared library defines for its loaders.
    std::istringstream symbols(runCommand(dir, "nm -D --defined-only " + quoted(LV_LIBRARY)).out);
    for (std::string address, kind, name; symbols >> address >> kind >> name;) defined.insert(name);
    EXPECT_EQ(defined, declared);

    // python/lumivane/surface.py writes its copy anew when run.
    const std::string python = slurp(fs::path(LV_SOURCE_DIR) / "python/lumivane/surface.py");
    const size_t begin = python.find("DECLARATIONS = \"\"\"\n") + 19;
    std::istringstream lines(python.substr(begin, python.find("\"\"\"", begin) - begin));
    std::vector<std::string> copied;
    for (std::string line; std::getline(lines, line);) copied.push_back(line);
    EXPECT_EQ(copied, declarations) << "run python3 python/lumivane/surface.py after a change to lv.h";
}

// A scene prepared and released stage by stage. The two geometry light stage
// functions are the sky's: its AOV is written by the release of either, the
// geometry light's only by lvFinalize.
TEST_F(ExportedSurfaceTest, StageFunctionsRunOneStageEach) {
    const int object = lvAddObject(), part = lvAddPart(object);
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

    // Runs a release stage; whether it wrote `image` anew.
    auto writes = [](void (*stage)(), const char* image) {
        fs::remove(image);
        quietly(stage);
        return fs::exists(image);
    };
    quietly(lvFinalizeRenderer);
    quietly(lvFinalizeGaffer);
    EXPECT_TRUE(writes(lvFinalizeGeometryLight, "sky.pfm"));
    EXPECT_FALSE(fs::exists("emission.pfm"));
    EXPECT_TRUE(writes(lvFinalizeSkyLight, "sky.pfm"));
    quietly(lvFinalizeAccelerator);
    EXPECT_TRUE(registry.objects.empty());
    EXPECT_TRUE(writes(lvFinalizeCameras, "camera.pfm"));
    quietly(lvFinalizeShaders);
    EXPECT_TRUE(registry.cameras.empty() && registry.shaders.empty());
    quietly(lvStartup);
}

// A camera's AOV channel replaces the set; a light's adds to it, over the
// beauty bit. Links gather every shader named. A displacement image given without
// matrices keeps the ones there.
TEST_F(ExportedSurfaceTest, AovLinkAndDisplacementSetters) {
    const int camera = lvAddCamera();
    const int aov = lvAddCameraAOV(camera);
    lvSetCameraAOVChannel(camera, aov, LV_CHANNEL_LAMBERTIAN);
    lvSetCameraAOVChannel(camera, aov, LV_CHANNEL_USER);
    const Camera& c = registry.cameras[0];
    EXPECT_EQ(c.aovs[size_t(aov)].channel, uint32_t(LV_CHANNEL_USER));
    const int geometry = lvAddGeometryLightAOV();
    lvSetGeometryLightAOVChannel(geometry, LV_CHANNEL_LAMBERTIAN);
    lvSetGeometryLightAOVChannel(geometry, LV_CHANNEL_GLOSSY);
    EXPECT_EQ(registry.geometryLightAOVs[size_t(geometry)].channel,
              uint32_t(LV_CHANNEL_BEAUTY | LV_CHANNEL_LAMBERTIAN | LV_CHANNEL_GLOSSY));
    lvSetGeometryLightShaderLink(2);
    lvSetGeometryLightShaderLink(5);
    EXPECT_EQ(registry.geometryLightLink.indices, (std::vector<int>{2, 5}));

    const int shader = lvAddShader();
    const int displacement = lvAddDisplacementShader(shader);
    const float color[4][4] = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {0, 0, 0, 1}};
    const float uv[3][3] = {{1, 0, 0.5f}, {0, 1, 0}, {0, 0, 1}};
    lvSetDisplacementImage(shader, displacement, "heights.pgm", 1.5f, color, uv);
    lvSetDisplacementImage(shader, displacement, "other.pgm", 1.0f, nullptr, nullptr);
    const SurfaceElement& e = registry.shaders[size_t(shader)].geometry.vector[0];
    EXPECT_EQ(e.image, "other.pgm");
    EXPECT_TRUE(e.sampler.color_matrix[0] == 2.0f && e.sampler.uv_matrix[2] == 0.5f);
}
