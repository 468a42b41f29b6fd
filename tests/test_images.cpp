// Image search and loading, RGBE packing, and texture lookups.
#include <FreeImage.h>
#include <gtest/gtest.h>

#include "core/random.h"
#include "output/write_image.h"
#include "scene_fixture.h"
#include "core/images.h"

namespace {

// Images live in a folder of the scratch directory, found through the
// search list's first entry.
class ImagesTest : public SceneTest {
protected:
    void SetUp() override {
        SceneTest::SetUp();
        fs::create_directories(dir / "lib/sub");
        registry.imagePaths = {path("lib"), ""};
    }
};

// A one-row, one-channel 8-bit image.
ImageRecord byteRow(const std::vector<uint8_t>& values) {
    ImageRecord image;
    SizeImage(image, int(values.size()), 1, 1, 8, false);
    image.byteStore = values;
    return image;
}

Color lookup(const ImageRecord& image, const Sampler& sampler, float u) {
    SurfaceElement element;
    element.sampler = sampler;
    const float uv[2] = {u, 0.5f};
    Color c;
    LookupTexture(image, c, uv, element);
    return c;
}
constexpr Sampler kNearest{.pixel_sampler = kSamplerNearest}, kBilinear{};
constexpr Sampler kClamped{.wrapU = kWrapClamp, .wrapV = kWrapClamp};

TEST_F(ImagesTest, SearchListAndTexturesReport) {
    ImageRecord source;
    SizeImage(source, 2, 2, 3, 32, false);
    source.name = path("lib/sub/tex.png");
    ASSERT_EQ(saveImage(source), 1);

    EXPECT_EQ(FindImage("sub\\tex.png"), 0);   // through the directory entry, backslash as separator
    EXPECT_EQ(FindImage(path("lib/sub/tex.png")), 1);   // through the empty entry
    EXPECT_EQ(FindImage("gone.png"), 2);
    EXPECT_EQ(FindImage("sub\\tex.png"), 0);
    EXPECT_EQ(reportedLines(prepareTextures),
              (std::vector<std::string>{"error :( \timage - gone.png\tcannot be found", kRule, "", kRule, "",
                                        "textures                3           0.0000 [ M bytes ]", kRule, ""}));
    EXPECT_EQ(registry.textures[0].loaded + registry.textures[1].loaded + registry.textures[2].loaded, 2);
}

TEST_F(ImagesTest, PaletteReadsIndicesAndSixteenBitsScaleBy255) {
    FIBITMAP* palette = FreeImage_Allocate(1, 1, 8);
    FreeImage_GetPalette(palette)[200] = RGBQUAD{0, 255, 0, 0};
    FreeImage_GetScanLine(palette, 0)[0] = 200;
    FIBITMAP* deep = FreeImage_AllocateT(FIT_UINT16, 1, 1, 16);
    reinterpret_cast<uint16_t*>(FreeImage_GetScanLine(deep, 0))[0] = 1000;
    ASSERT_TRUE(FreeImage_Save(FIF_PNG, palette, path("lib/palette.png").c_str(), 0));
    ASSERT_TRUE(FreeImage_Save(FIF_PNG, deep, path("lib/deep.png").c_str(), 0));
    FreeImage_Unload(palette);
    FreeImage_Unload(deep);

    ImageRecord a, b;
    a.name = "palette.png";
    b.name = "deep.png";
    ASSERT_EQ(LoadImage(a) + LoadImage(b), 2);
    const float index = 200 * 0.0039215684f;
    EXPECT_EQ(FetchPixel(a, 0), (Color{index, index, index}));
    EXPECT_FLOAT_EQ(FetchPixel(b, 0).z, 1000 * 0.0039215684f);
}

TEST_F(ImagesTest, RgbePackingAndFetching) {
    const uint32_t packed = packRgbe({1.0f, 0.5f, 0.25f});   // 1.0 = 0.5 * 2^1
    EXPECT_EQ(packed, 128u | 64u << 8 | 32u << 16 | 129u << 24);
    EXPECT_EQ(packRgbe({1e-33f, 0.0f, 0.0f}), 0u);
    ImageRecord image;
    SizeImage(image, 4, 1, 3, 32, true);
    image.rgbeStore = {packed, packRgbe({3.0f, 0.1234f, 0.0f}), 0x00FFFFFFu, packRgbe({0.999f, 0.0f, 0.0f})};
    EXPECT_EQ(FetchPixel(image, 0), (Color{1.0f, 0.5f, 0.25f}));
    // Within half a step of 3 / 192, which truncation would miss, and a
    // largest channel that rounds up moves to the next exponent.
    EXPECT_NEAR(FetchPixel(image, 1).y, 0.1234f, 0.5f / 64.0f);
    EXPECT_EQ(FetchPixel(image, 2), zero);   // exponent byte 0: black whatever the mantissas
    EXPECT_EQ(FetchPixel(image, 3), (Color{1.0f, 0.0f, 0.0f}));
}

TEST_F(ImagesTest, FiltersWrapsGammaAndColourMatrix) {
    const ImageRecord image = byteRow({0, 51, 102, 204});   // about 0, 0.2, 0.4, 0.8
    const float t1 = FetchPixel(image, 1).x, t3 = FetchPixel(image, 3).x;
    EXPECT_EQ(lookup(image, kNearest, 0.3f).x, t1);
    EXPECT_EQ(lookup(image, kNearest, -0.1f).x, t3);
    EXPECT_EQ(lookup(image, kBilinear, 1.0f).x, 0.0f);   // texels 4 and 5 repeat as 0 and 1
    EXPECT_NEAR(lookup(image, kBilinear, 1.1f).x, 0.4f * t1, 1e-6f);
    EXPECT_NEAR(lookup(image, kBilinear, -0.1f).x, 0.4f * t3, 1e-6f);   // 0.4 of texel 3, 0.6 of texel 0
    EXPECT_EQ(lookup(image, kClamped, -0.1f).x, 0.0f);
    EXPECT_EQ(lookup(image, kClamped, 1.0f).x, t3);

    // Stochastic: one of the two neighbours, averaging to their blend.
    seedHardwareRandom(11);
    double sum = 0.0;
    for (int i = 0; i < 20000; ++i) {
        const float value = lookup(image, {.pixel_sampler = kSamplerStochastic}, -0.1f).x;
        ASSERT_TRUE(value == 0.0f || value == t3);
        sum += value;
    }
    EXPECT_NEAR(sum / 20000.0, 0.4 * t3, 0.01);

    EXPECT_NEAR(lookup(byteRow({128}), {.gamma = 2.2f, .pixel_sampler = kSamplerNearest}, 0.5f).x, 0.2195f, 1e-4f);
    // Gamma goes on each texel before the blend (0.25 if it came after).
    EXPECT_FLOAT_EQ(lookup(byteRow({0, 255}), {.gamma = 2.0f}, 0.25f).x, 0.5f);

    ImageRecord rgb;
    SizeImage(rgb, 1, 1, 3, 32, false);
    rgb.floatStore = {0.5f, 0.25f, 1.0f};
    // m14 = 1 makes the divisor (m13 + m14) g + m15 = 1.25: blue has no part in it.
    const Sampler matrix{.color_matrix = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 1, 1}, .colorMatrixIdentity = false};
    EXPECT_EQ(lookup(rgb, matrix, 0.5f), (Color{0.4f, 0.2f, 0.8f}));
}

}  // namespace
