// The render, camera, pose and aov blocks, and a whole lvGo run over a scene
// directory made on the spot.
#include <gtest/gtest.h>

#include <regex>

#include "host_run.h"

namespace {

using Ints = std::vector<int>;
using Floats = std::vector<float>;
using SceneBlocks = SceneTest;

const Camera& onlyCamera(const std::string& body) {
    registry.cameras.clear();
    readScene("camera\n" + body + "end\n");
    return registry.cameras.at(0);
}

}  // namespace

TEST_F(SceneBlocks, RenderKeywordsSetTheRendererValues) {
    readScene(
        "render\n clamp 1 x 3\n gamma 1.8\n exposure 2\n image_path \"textures/a b\"\n"
        " final_gather\n  ray_depth 3\n  photon_depth 4\n  sample 5\n  bounce 6\n"
        "  distance 0.5\n  resolution 0.25\n  radius 0.125\n end\nend\n"
        "render\n image_path \"second\"\nend\n");
    EXPECT_EQ((Floats{registry.clamp[0], registry.clamp[2], registry.displayGamma, registry.renderExposure}),
              (Floats{1.0f, 3.4e38f, 1.8f, 2.0f}));
    EXPECT_EQ((Ints{registry.ray_depth, registry.photon_depth, registry.rendererSample, registry.bounce}), (Ints{3, 4, 5, 6}));
    EXPECT_EQ((Floats{registry.distance, registry.resolution, registry.radius}), (Floats{0.5f, 0.25f, 0.125f}));
    EXPECT_EQ(registry.imagePaths, (std::vector<std::string>{"", "textures/a b", "second"}));
}

TEST_F(SceneBlocks, CameraKeywordsPosesAndAovs) {
    const Camera& c = onlyCamera(
        "name \"main view\"\nresolution 320 200\nregion 1 2 3 4\nsample 9\nior 1.33\nexposure 2 3 4\n"
        "projection \"panorama\"\n"
        "pose\n position 1 2 3\n target 4 5 6\n up_vector 0 1 0\n bokeh 0.5\n field_of_view 45\nend\n"
        "pose\n position 7 8 9\nend\n"
        "pose\n position 1 1 1\n sample 3\nend\n"  // a third pose is not served: this end closes the camera
        "sample 99\n");
    EXPECT_EQ(c.name, "main view");
    EXPECT_EQ((Ints{c.width, c.height, c.regionLeft, c.regionTop, c.regionRight, c.regionBottom}),
              (Ints{320, 200, 1, 2, 3, 4}));
    EXPECT_EQ((Ints{c.sample, c.projection, c.poseCount}), (Ints{3, 1, 2}));
    EXPECT_EQ((Floats{c.ior, c.exposure[2]}), (Floats{1.33f, 4.0f}));
    EXPECT_EQ(c.poses[0].target, (Vector{4, 5, 6}));
    EXPECT_EQ((Floats{c.poses[0].bokeh, c.poses[0].fieldOfView}), (Floats{0.5f, 45.0f}));
    EXPECT_EQ(c.poses[1].position, (Vector{7, 8, 9}));
    EXPECT_EQ(c.poses[1].upVector, (Vector{0, 0, 0}));
    EXPECT_EQ(onlyCamera("projection \"spherical\"\nprojection \"pinhole\"\n").projection, 0);
    EXPECT_EQ(onlyCamera("projection \"spherical\"\nprojection pinhole\n").projection, 1);

    const Camera& a = onlyCamera(
        "aov\n image \"n.hdr\"\n shader \"glass\"\n type \"normal\"\nend\n"
        "aov\n type \"lambertian\"\n type \"glossy_color\"\n type \"light_path\"\nend\n"
        "aov\n type \"normal\"\n type \"wetness\"\nend\n"
        "aov\n type \"wetness\"\n type \"depth\"\nend\n"
        "aov\n image \"plain.hdr\"\nend\n");
    ASSERT_EQ(a.aovs.size(), 6u);
    EXPECT_EQ(a.aovs[0].image.name, "beauty.hdr");
    EXPECT_EQ((std::vector<std::string>{a.aovs[1].image.name, a.aovs[1].shaderFilter, a.aovs[1].userData}),
              (std::vector<std::string>{"n.hdr", "glass", "undefined"}));
    // The first known word replaces the start value; a block without a type
    // keeps it.
    EXPECT_EQ((std::vector<uint32_t>{a.aovs[1].channel, a.aovs[2].channel, a.aovs[3].channel, a.aovs[4].channel,
                                     a.aovs[5].channel}),
              (std::vector<uint32_t>{2048, 4 + 128 + 2, 32768, 32768 + 16384, 1}));
    EXPECT_EQ(a.aovs[3].userData, "wetness");
}

// A scene directory made on the spot, read and rendered by lvGo: its whole
// report is tests/golden/lvgo_report.txt, with what varies from run to run
// or with the thread count masked (the date, times, rates and the image's
// mean and variance). LV_UPDATE_GOLDEN=1 writes the file anew.
TEST_F(SceneBlocks, LvGoReadsRendersAndReports) {
    const std::string pose = " pose\n  position 0 0 5\n  target 0 0 0\n  up_vector 0 1 0\n  field_of_view 40\n end\n";
    writeFile(dir / "render/b.lv", "render\n image_path \"second\"\nend\n");
    writeFile(dir / "render/a.lv", "render\n image_path \"first\"\n final_gather\n  sample 2\n  radius 0.25\n"
                                   "  distance 0.5\n  resolution 2\n end\nend\n");
    writeFile(dir / "camera/camera.lv", "# the view\ncamera\n resolution 8 6\n sample 3\n" + pose + pose +
                                            " aov\n  image \"normal.hdr\"\n  type \"normal\"\n end\nend\n"
                                            "camera\n name \"side\"\n resolution 4 2\n sample 1\n" + pose + "end\n");
    writeFile(dir / "shader/grey.lv", "shader\n name \"grey\"\n surface_shader\n  lambertian\n  end\n end\nend\n");
    writeFile(dir / "light/lamp.lv", "point_light\n position 0 4 0\n photon 1000\nend\n"
                                     "sky_light\n photon 0\nend\ngeometry_light\n photon 0\nend\n");
    writeFile(dir / "geometry/quad.obj", "v -1 -1 0\nv 1 -1 0\nv 1 1 0\nv -1 1 0\nf 1 2 3 4\n");
    writeFile(dir / "geometry/quad.lv", "object\n name quad\n shader \"grey\"\n obj \"" + path("geometry/quad.obj") +
                                            "\"\nend\n");
    writeFile(dir / "camera/notes.txt", "camera\nend\n");  // only *.lv files are read
    fs::create_directories(dir / "camera/folder.lv");       // and read as nothing
    const std::string argument = dir.string() + "/";
    std::string report;
    for (std::string line : reportedLines([&] { lvGo(argument.c_str()); })) {
        line = line.substr(line.rfind('\r') + 1);   // a progress line as a terminal leaves it
        if (std::regex_search(line, std::regex("^            lumivane |second|^avgerage of |^variance of ")))
            line = std::regex_replace(line, std::regex("( *[A-Z][a-z]{2})? +[0-9]+(\\.[0-9]+)?"), " #");
        report += line + "\n";
    }
    const fs::path golden = fs::path(LV_SOURCE_DIR) / "tests/golden/lvgo_report.txt";
    if (std::getenv("LV_UPDATE_GOLDEN")) std::ofstream(golden) << report;
    EXPECT_EQ(report, slurp(golden));

    // a.lv is read before b.lv, whatever order the directory lists them in.
    EXPECT_EQ(registry.imagePaths, (std::vector<std::string>{argument + "image", argument, "", "first", "second"}));
    EXPECT_EQ(registry.geometryPaths, (std::vector<std::string>{argument + "geometry", argument, ""}));
    EXPECT_TRUE(registry.cameras.empty());
    EXPECT_TRUE(fs::exists(dir / "beauty.hdr"));   // in the working directory
    EXPECT_TRUE(fs::exists(dir / "normal.hdr"));

    // Without a camera nothing is rendered; without a trailing separator the
    // search list glues "image" to the name.
    const fs::path empty = dir / "empty";
    fs::create_directories(empty);
    for (const std::string& line : reportedLines([&] { lvGo(empty.c_str()); })) EXPECT_NE(line.rfind("performance", 0), 0u);
    EXPECT_EQ(registry.imagePaths.front(), empty.string() + "image");
}
