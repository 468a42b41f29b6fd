// AOVs against what the scene fixes: light AOVs that add up to the beauty
// image where only those lights shine, the sky's AOV where the sky alone
// lights, the photons' light paths seen by the camera, and AOVs asked for in
// scene files, filtered by shader, written as files.
#include <cmath>

#include "radiance_scene.h"
#include "render/frame.h"
#include "core/images.h"
#include "lights/lights.h"

namespace {

class AovTest : public RadianceScene {
protected:
    // Renders every pass without the end of the render, which would write
    // and release the lights with their AOVs.
    static const ImageRecord& renderPasses() {
        quietly([] {
            lvInitialize();
            for (int i = 0; i < registry.currentCameraRecord->sample; ++i) renderPixels(unsigned(i));
        });
        return registry.cameras[0].aovs[0].image;
    }
    static Color pixel(const ImageRecord& image, int x, int y) { return FetchPixel(image, y * image.width + x); }
    static std::vector<Color> pixels(const ImageRecord& image) {
        std::vector<Color> p(size_t(image.width) * size_t(image.height));
        for (size_t i = 0; i < p.size(); ++i) p[i] = FetchPixel(image, int(i));
        return p;
    }
    static float sum(const ImageRecord& image) { float s = 0.0f; for (Color c : pixels(image)) s += c.x + c.y + c.z; return s; }
    // Every pixel of the sum of `parts` equals that of `whole` within `relative` of the larger.
    static void expectSumIs(std::initializer_list<const ImageRecord*> parts, const ImageRecord& whole, float relative) {
        const std::vector<Color> q = pixels(whole);
        ASSERT_FALSE(q.empty());
        std::vector<Color> p(q.size(), zero);
        for (const ImageRecord* part : parts) {
            ASSERT_EQ(pixels(*part).size(), q.size());
            for (size_t i = 0; i < p.size(); ++i) p[i] += FetchPixel(*part, int(i));
        }
        for (size_t i = 0; i < p.size(); ++i)
            for (float Color::*k : {&Color::x, &Color::y, &Color::z})
                ASSERT_NEAR(p[i].*k, q[i].*k, relative * std::max(p[i].*k, q[i].*k) + 1e-7f) << "pixel " << i;
    }
};

// Two point lights over a lambertian floor under a black sky: each light's
// lambertian AOV holds its own light, the two differ from pixel to pixel,
// and together they are the beauty image (whose bounces find nothing).
TEST_F(AovTest, TwoPointLightsSplitTheBeauty) {
    square(0.0f, 20.0f, shader({0.5f, 0.25f, 1.0f}));
    camera({0, 0, 4}, {0, 0, 0}, 60.0f, 8, 3);
    int aov[2];
    for (int k = 0; k < 2; ++k) {
        const int light = pointLight({k ? 2.0f : -2.0f, 0.0f, 1.0f}, one * 3.0f);
        aov[k] = lvAddPointLightAOV(light);
        lvSetPointLightAOVChannel(light, aov[k], LV_CHANNEL_LAMBERTIAN);
    }
    const ImageRecord& beauty = renderPasses();
    const ImageRecord& left = registry.pointLights[0].aovs[size_t(aov[0])].image;
    const ImageRecord& right = registry.pointLights[1].aovs[size_t(aov[1])].image;
    expectSumIs({&left, &right}, beauty, 1e-5f);
    EXPECT_GT(pixel(left, 1, 4).x, 3.0f * pixel(right, 1, 4).x);
    EXPECT_GT(pixel(right, 6, 4).x, 3.0f * pixel(left, 6, 4).x);
}

// With the sky alone lighting the floor, the sky's AOV gathers its samples
// and the bounces that found it, and the pixels that see only the sky: the
// beauty image again.
TEST_F(AovTest, SkyAloneLightsAndItsAovIsTheBeauty) {
    registry.skyLight.color = {0.5f, 0.75f, 1.0f};
    lvSetSkyLightSample(8), lvSetRendererRayDepth(2);
    square(0.0f, 1.0f, shader({0.5f, 0.5f, 0.5f}));
    camera({0, 0, 4}, {0, 0, 0}, 40.0f, 8, 4);
    const int sky = lvAddSkyLightAOV();
    lvSetSkyLightAOVChannel(sky, LV_CHANNEL_LAMBERTIAN);
    const ImageRecord& beauty = renderPasses();
    const ImageRecord& aov = registry.skyLightAOVs[size_t(sky)].image;
    expectSumIs({&aov}, beauty, 1e-5f);
    EXPECT_NEAR(pixel(aov, 0, 0).z, 1.0f, 1e-6f);   // the sky itself, seen past the floor
    EXPECT_GT(pixel(aov, 4, 4).x, 0.1f);
}

// A glossy floor under a point light that casts photons: the photons that
// leave the floor towards the camera land in its light-path AOV, only in
// pixels that see the floor, and only in AOVs of that exact channel. With a
// Fresnel weight of nearly 1 they estimate the same light as the glossy
// direct term of the beauty image, which path tracing finds.
TEST_F(AovTest, PhotonsSeenByTheCameraMatchTheGlossyLight) {
    const int floor = shader(zero);
    glossy(floor, 0.5f, 0.3f, 1000.0f);
    square(0.0f, 1.0f, floor);
    const int c = camera({0, -2, 2}, {0, 0, 0}, 60.0f, 16, 16);
    const int paths = lvAddCameraAOV(c), mixed = lvAddCameraAOV(c);
    lvSetCameraAOVChannel(c, paths, LV_CHANNEL_LIGHT_PATH);
    lvSetCameraAOVChannel(c, mixed, Channel(LV_CHANNEL_LIGHT_PATH | LV_CHANNEL_NORMAL));
    lvSetPointLightPhoton(pointLight({0, 1, 1}, one), 400000);
    const ImageRecord& beauty = renderPasses();
    const ImageRecord& image = registry.cameras[0].aovs[size_t(paths)].image;
    EXPECT_NEAR(sum(image), sum(beauty), 0.03f * sum(beauty));
    EXPECT_EQ(sum(registry.cameras[0].aovs[size_t(mixed)].image), 0.0f);
    // The top rows look past the floor's far edge.
    for (int x = 0; x < 16; ++x) EXPECT_EQ(pixel(image, x, 0).x, 0.0f);
}

// A scene directory asks for AOVs in its files: camera AOVs of normal, depth
// and lambertian colour over a floor, and geometry-light AOVs of the lambertian
// lobe filtered by the shader of the lamp that the bounce found. The filtered
// AOVs share out the unfiltered one, a filter that names no shader filters
// nothing, and with nothing but the lamps shining that is the beauty image.
TEST_F(AovTest, SceneFilesAskForAovsByType) {
    const std::string pose = " pose\n  position 0 0 4\n  target 0 0 0\n  up_vector 0 1 0\n  field_of_view 30\n end\n";
    writeFile(dir / "render/render.lv", "render\n sample 4\nend\n");
    const auto aov = [](const std::string& image, const std::string& type, const std::string& shader = "") {
        return " aov\n  image \"" + image + "\"\n  type \"" + type + "\"\n" +
               (shader.empty() ? "" : "  shader \"" + shader + "\"\n") + " end\n";
    };
    writeFile(dir / "camera/camera.lv", "camera\n resolution 8 8\n sample 4\n" + pose + pose +
                                            aov("normal.pfm", "normal") + aov("depth.pfm", "depth") +
                                            aov("color.pfm", "lambertian_color") + "end\n");
    const auto emitter = [](const char* name, const char* power) {
        return std::string("shader\n name \"") + name + "\"\n surface_shader\n  emissive\n   color " + power +
               "\n  end\n end\nend\n";
    };
    writeFile(dir / "shader/shaders.lv",
              "shader\n name \"floor\"\n surface_shader\n  lambertian\n   color 0.25 0.5 0.75\n  end\n end\nend\n" +
                  emitter("lampA", "4 4 4") + emitter("lampB", "1 1 1"));
    writeFile(dir / "light/lamps.lv", "sky_light\n color 0 0 0\n photon 0\nend\ngeometry_light\n sample 0\n photon 0\n" +
                                          aov("a.pfm", "lambertian", "lampA") + aov("b.pfm", "lambertian", "lampB") +
                                          aov("none.pfm", "lambertian", "no such shader") +
                                          aov("all.pfm", "lambertian") + "end\n");
    // The floor, and a lamp on each side above it, facing down, out of view.
    writeFile(dir / "geometry/scene.obj",
              "v -20 -20 0\nv 20 -20 0\nv 20 20 0\nv -20 20 0\n"
              "v 2 -1 3\nv 2 1 3\nv 4 1 3\nv 4 -1 3\n"
              "v -4 -1 3\nv -4 1 3\nv -2 1 3\nv -2 -1 3\n"
              "usemtl floor\nf 1 2 3 4\nusemtl lampA\nf 5 6 7 8\nusemtl lampB\nf 9 10 11 12\n");
    writeFile(dir / "geometry/scene.lv", "object\n name room\n shader \"floor\"\n obj \"geometry/scene.obj\"\nend\n");
    const std::string argument = dir.string() + "/";
    quietly([&] { lvGo(argument.c_str()); });

    const auto read = [](const std::string& name) {
        ImageRecord image;
        image.name = name;
        EXPECT_EQ(LoadImage(image), 1) << name;
        return image;
    };
    const ImageRecord normal = read("normal.pfm"), depth = read("depth.pfm"), color = read("color.pfm");
    EXPECT_EQ(pixels(normal), std::vector<Color>(64, Color{0.5f, 0.5f, 1.0f}));
    EXPECT_EQ(pixels(color), std::vector<Color>(64, Color{0.25f, 0.5f, 0.75f}));
    // The centre pixels look nearly straight down, 4 away.
    EXPECT_NEAR(FetchPixel(depth, 3 * 8 + 3).x, 4.0f, 0.02f);
    EXPECT_GT(FetchPixel(depth, 0).x, FetchPixel(depth, 3 * 8 + 3).x);

    const ImageRecord a = read("a.pfm"), b = read("b.pfm"), none = read("none.pfm"), all = read("all.pfm");
    const ImageRecord beauty = read("beauty.hdr");
    expectSumIs({&a, &b}, all, 1e-5f);
    expectSumIs({&none}, all, 0.0f);
    EXPECT_GT(sum(a), 2.5f * sum(b));
    EXPECT_LT(sum(a), 6.0f * sum(b));
    // The beauty image went through shared-exponent bytes.
    for (int i = 0; i < 64; ++i) EXPECT_NEAR(FetchPixel(beauty, i).y, FetchPixel(all, i).y, 0.01f * FetchPixel(all, i).y);
}

}  // namespace
