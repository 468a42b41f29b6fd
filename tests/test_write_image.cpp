// Saving images: float and byte targets, and how a name picks the format.
#include <FreeImage.h>
#include <gtest/gtest.h>

#include "output/write_image.h"
#include "scene_fixture.h"
#include "core/images.h"

namespace {

using Rows = std::vector<Color>;
const Color kBottom{0.5f, 0.25f, 2.0f}, kTop{1.0f, 0.125f, 4.0f};

// The images are saved and read back by name in the working directory.
class WriteImageTest : public SceneTest {
protected:
    // Saves a camera-style raster of one column, rows given from row 0 up.
    int save(const std::string& name, const Rows& rows = {kBottom, kTop}) {
        ImageRecord image;
        SizeImage(image, 1, int(rows.size()), 3, 32, false);
        for (size_t y = 0; y < rows.size(); ++y) StorePixel(image, int(y), rows[y]);
        image.name = path(name);
        return saveImage(image);
    }
    ImageRecord reread(const std::string& name, bool wantsRgbe = false) {
        ImageRecord image;
        image.name = name;
        image.wantsRgbe = wantsRgbe;
        EXPECT_EQ(LoadImage(image), 1) << name;
        return image;
    }
    Rows rereadRows(const std::string& name, bool wantsRgbe = false) {
        const ImageRecord image = reread(name, wantsRgbe);
        return {FetchPixel(image, 0), FetchPixel(image, 1)};
    }
    FREE_IMAGE_FORMAT formatOf(const std::string& name) { return FreeImage_GetFileType(path(name).c_str(), 0); }
};

// The float formats come back as written, each in its row order.
TEST_F(WriteImageTest, NamesChooseRouteAndFormatAndFloatTargetsRoundTrip) {
    // Every matching row of the table is tried in its order until one saves.
    const std::pair<std::string, FREE_IMAGE_FORMAT> cases[] = {
        {"a.hdr", FIF_HDR}, {"b.pfm", FIF_PFM}, {"c.exr", FIF_EXR}, {"e.tga.png", FIF_PNG},
        {"f.pcd.tga", FIF_TARGA},   // PCD cannot be written
        {"g.hdr.png", FIF_HDR},     // a substring, not a suffix
        {"h.Exr.bmp", FIF_BMP}};    // only the listed case forms are float names
    for (const auto& [name, format] : cases) {
        ASSERT_EQ(save(name), 1) << name;
        EXPECT_EQ(formatOf(name), format) << name;
    }
    EXPECT_EQ(save("j.abc") + save("k.gif") + saveImage(ImageRecord{}), 0);   // GIF takes no 24-bit bitmap
    EXPECT_FALSE(fs::exists(dir / "j.abc"));
    // Radiance is flipped on writing and again on reading, unless the name lacks ".hdr".
    EXPECT_EQ(rereadRows("a.hdr", true), (Rows{kBottom, kTop}));
    fs::copy_file(dir / "a.hdr", dir / "a.rad");
    EXPECT_EQ(rereadRows("a.rad"), (Rows{kTop, kBottom}));
    // PFM is written unflipped and keeps its rows bottom-up; EXR is flipped on writing only.
    EXPECT_EQ(rereadRows("b.pfm"), (Rows{kBottom, kTop}));
    EXPECT_EQ(rereadRows("c.exr"), (Rows{kTop, kBottom}));
}

TEST_F(WriteImageTest, ByteTargetsClipTruncateAndWrap) {
    for (const char* name : {"d.png", "d.tga", "d.bmp"}) {
        ASSERT_EQ(save(name, {{1.5f, 1.0f, 0.999f}, {-0.5f, 0.0f, 0.5f}}), 1) << name;
        // Flipped on writing, read as stored: row 0 of the record comes back last.
        EXPECT_EQ(reread(name).byteStore, (std::vector<uint8_t>{129, 0, 127, 255, 255, 254})) << name;
    }
}

}  // namespace
