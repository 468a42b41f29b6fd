// The frame loop: the running mean, the per-frame report, the end of render
// and the host-driven pass of lvRenderPixels.
#include <string>

#include "render/frame.h"
#include "scene_fixture.h"

namespace {

const int kWidth = 8, kHeight = 4;
// Every sample of these tests: a negative clamp pins it whatever the radiance.
const Color kSample{-1.0f, -2.0f, -3.0f};
const Color kFill{4.0f, 8.0f, 12.0f};

class FrameTest : public SceneTest {
protected:
    static void prepare(int sample, int left = 0, int top = 0, int right = 1048576, int bottom = 1048576) {
        const int c = lvAddCamera();
        lvSetCameraResolution(c, kWidth, kHeight), lvSetCameraSample(c, sample);
        lvSetCameraRegion(c, left, top, right, bottom);
        for (float t : {0.0f, 1.0f})
            lvSetCameraTime(c, t), lvSetCameraTarget(c, 0, 0, -1), lvSetCameraUpVector(c, 0, 1, 0), lvSetCameraFOV(c, 60);
        quietly(lvInitialize);
        // The preparation lifts a negative clamp to 0, so it is set afterwards.
        registry.clamp[0] = kSample.x, registry.clamp[1] = kSample.y, registry.clamp[2] = kSample.z;
    }
    static ImageRecord& beauty() { return registry.cameras[0].aovs[0].image; }
    static void fill(Color v) { for (int i = 0; i < kWidth * kHeight; ++i) StorePixel(beauty(), i, v); }
    // Every pixel inside the region [2, 6) x [1, 3) holds `inside`, every other one `outside`;
    // without `inRegion`, every pixel holds `inside`.
    static void expectImage(Color inside, Color outside = kFill, bool inRegion = true) {
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const bool in = !inRegion || (x >= 2 && x < 6 && y >= 1 && y < 3);
                EXPECT_EQ(storedPixel(beauty(), y * kWidth + x), in ? inside : outside) << x << " " << y;
            }
    }
};

}  // namespace

TEST_F(FrameTest, PassFoldsSamplesIntoARunningMean) {
    prepare(4, 2, 1, 6, 3);
    ReportCapture capture;
    // s = 0 overwrites whatever stood there, s = 1 gives (p + c) / 2, s = 3 (3 p + c) / 4.
    const std::pair<int, Color> passes[] = {{0, kSample}, {1, {1.5f, 3.0f, 4.5f}}, {3, {2.75f, 5.5f, 8.25f}}};
    for (const auto& [pass, mean] : passes) {
        fill(kFill);
        renderPixels(pass);
        expectImage(mean);
    }
    EXPECT_EQ(capture.text(), "");   // the pass itself reports nothing
}

TEST_F(FrameTest, RenderReportsEachFrameThenTheEnd) {
    prepare(3);
    fill(kFill);
    for (int run = 0; run < 2; ++run) {
        // A performance line per frame, then the end of render. The variance
        // takes the second moment from the largest channel, -1 here.
        const std::vector<std::string> lines = reportedLines(lvRender);
        ASSERT_EQ(lines.size(), 12u);
        for (size_t i = 0; i < 3; ++i) EXPECT_EQ(lines[i].rfind("performance ", 0), 0u) << lines[i];
        EXPECT_EQ(std::vector<std::string>(lines.begin() + 3, lines.end()),
                  (std::vector<std::string>{
                      kRule, "", "avgerage of beauty.hdr          -1.0000          -2.0000          -3.0000 [ n/a ]",
                      "variance of beauty.hdr           0.0000          -3.0000          -8.0000 [ n/a ]", kRule, "",
                      "            close the window to exit. happy rendering :) thank you!", kRule, ""}));
        EXPECT_EQ(registry.frameCounter, 3u);
        expectImage(kSample, kSample, false);
        fill(kFill);   // a second lvRender starts the mean over: frame 0 overwrites this
    }
    // Once the render has ended, a further frame does nothing.
    EXPECT_TRUE(reportedLines(renderFrame).empty());
    EXPECT_EQ(registry.frameCounter, 3u);
    expectImage(kFill, kFill, false);
}

TEST_F(FrameTest, RenderPixelsAddsScaledSamplesAndKeepsCounters) {
    prepare(4, 2, 1, 6, 3);
    fill(kFill);
    registry.frameCounter = 5;
    float rgb[30];
    std::fill(std::begin(rgb), std::end(rgb), 99.0f);
    ReportCapture capture;
    lvRenderPixels(8, rgb, 2);
    for (int i = 0; i < 8; ++i) EXPECT_EQ((Color{rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]}), kSample) << i;
    for (int i = 24; i < 30; ++i) EXPECT_EQ(rgb[i], 99.0f) << i;
    // c / sample count is added, not averaged in; only the region's pixels change.
    expectImage({3.75f, 7.5f, 11.25f});
    EXPECT_EQ(registry.frameCounter, 5u);
    EXPECT_EQ(registry.pass_index, 2);

    // Only `count` colours go back to the host.
    std::fill(std::begin(rgb), std::end(rgb), 99.0f);
    lvRenderPixels(3, rgb, 3);
    EXPECT_EQ(rgb[8], kSample.z);
    EXPECT_EQ(rgb[9], 99.0f);
    expectImage({3.5f, 7.0f, 10.5f});
    EXPECT_EQ(capture.text(), "");
}
