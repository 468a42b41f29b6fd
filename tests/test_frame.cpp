// The frame loop: the running mean, the per-frame report, the end of render
// and the host-driven pass of lvRenderPixels.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>

#include "capture.h"
#include "core/registry.h"
#include "lv.h"
#include "registry_guard.h"
#include "render/frame.h"

namespace {

const std::string kRule(80, '_');
const int kWidth = 8, kHeight = 4;
// Every sample of these tests: a negative clamp pins it whatever the radiance.
const Color kSample{-1.0f, -2.0f, -3.0f};
const Color kFill{4.0f, 8.0f, 12.0f};

class FrameTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = std::filesystem::current_path();
        scratch_ = std::filesystem::temp_directory_path() / ("lv_frame_" + std::to_string(::getpid()));
        std::filesystem::create_directories(scratch_);
        std::filesystem::current_path(scratch_);   // the end of render writes the images here
        ReportCapture quiet;
        lvStartup();
    }
    void TearDown() override {
        {
            ReportCapture quiet;
            lvFinalize();
        }
        std::filesystem::current_path(previous_);
        std::filesystem::remove_all(scratch_);
    }

    static void prepare(int sample, int left = 0, int top = 0, int right = 1048576, int bottom = 1048576) {
        const int c = lvAddCamera();
        lvSetCameraResolution(c, kWidth, kHeight);
        lvSetCameraSample(c, sample);
        lvSetCameraRegion(c, left, top, right, bottom);
        for (float t : {0.0f, 1.0f}) {
            lvSetCameraTime(c, t);
            lvSetCameraTarget(c, 0, 0, -1);
            lvSetCameraUpVector(c, 0, 1, 0);
            lvSetCameraFOV(c, 60);
        }
        {
            ReportCapture quiet;
            lvInitialize();
        }
        // The preparation lifts a negative clamp to 0, so it is set afterwards.
        registry.clamp[0] = kSample.x;
        registry.clamp[1] = kSample.y;
        registry.clamp[2] = kSample.z;
    }
    static ImageRecord& beauty() { return registry.cameras[0].aovs[0].image; }
    static void fill(Color v) {
        for (int i = 0; i < kWidth * kHeight; ++i) StorePixel(beauty(), i, v);
    }
    // Every pixel inside [left, right) x [top, bottom) holds `inside`, every other one `outside`.
    static void expectImage(Color inside, Color outside, int left = 0, int top = 0, int right = kWidth,
                            int bottom = kHeight) {
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                const bool in = x >= left && x < right && y >= top && y < bottom;
                EXPECT_EQ(storedPixel(beauty(), y * kWidth + x), in ? inside : outside) << x << " " << y;
            }
    }

private:
    RegistryGuard guard_;   // puts back the clamp and the cameras
    std::filesystem::path previous_, scratch_;
};

// "performance", its 16-wide field and unit, then the four-blank label with its own.
void expectPerformanceLine(const std::string& line) {
    static const std::regex shape(
        "performance ( *(-?nan|-?inf|[0-9]+\\.[0-9]{4})) \\[ M rays/second \\]"
        "     ( *(-?nan|-?inf|[0-9]+\\.[0-9]{4})) \\[ frames/second \\]");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
    EXPECT_EQ(match[1].length(), 16) << line;
    EXPECT_EQ(match[3].length(), 16) << line;
}

std::vector<std::string> endOfRenderLines(const std::string& average, const std::string& variance) {
    return {kRule, "", "avgerage of beauty.hdr " + average + " [ n/a ]",
            "variance of beauty.hdr " + variance + " [ n/a ]", kRule, "",
            "            close the window to exit. happy rendering :) thank you!", kRule, ""};
}

}  // namespace

TEST_F(FrameTest, PassFoldsSamplesIntoARunningMean) {
    prepare(4, 2, 1, 6, 3);
    ReportCapture capture;
    fill(kFill);
    renderPixels(0);   // s = 0 overwrites whatever stood there
    expectImage(kSample, kFill, 2, 1, 6, 3);
    fill(kFill);
    renderPixels(1);   // (p + c) / 2
    expectImage({1.5f, 3.0f, 4.5f}, kFill, 2, 1, 6, 3);
    fill(kFill);
    renderPixels(3);   // (3 p + c) / 4
    expectImage({2.75f, 5.5f, 8.25f}, kFill, 2, 1, 6, 3);
    EXPECT_EQ(capture.text(), "");   // the pass itself reports nothing
}

TEST_F(FrameTest, RenderReportsEachFrameThenTheEnd) {
    prepare(3);
    fill(kFill);
    for (int run = 0; run < 2; ++run) {
        ReportCapture capture;
        lvRender();
        const auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 12u);
        for (int i = 0; i < 3; ++i) expectPerformanceLine(lines[size_t(i)]);
        // The variance takes the second moment from the largest channel, -1 here.
        const auto tail = endOfRenderLines("         -1.0000          -2.0000          -3.0000",
                                           "          0.0000          -3.0000          -8.0000");
        for (size_t i = 0; i < tail.size(); ++i) EXPECT_EQ(lines[3 + i], tail[i]) << i;
        EXPECT_EQ(registry.frameCounter, 3u);
        expectImage(kSample, kSample);
        fill(kFill);   // a second lvRender starts the mean over: frame 0 overwrites this
    }
    // Once the render has ended, a further frame does nothing.
    ReportCapture capture;
    renderFrame();
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(registry.frameCounter, 3u);
    expectImage(kFill, kFill);
}

TEST_F(FrameTest, EmptyRegionStillReportsAFrame) {
    prepare(1, 0, 2, kWidth, 2);
    fill(kFill);
    ReportCapture capture;
    lvRender();
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 10u);
    expectPerformanceLine(lines[0]);
    // Nothing rendered: the mean is the fill, the second moment 12 squared in every channel.
    const auto tail = endOfRenderLines("          4.0000           8.0000          12.0000",
                                       "        128.0000          80.0000           0.0000");
    for (size_t i = 0; i < tail.size(); ++i) EXPECT_EQ(lines[1 + i], tail[i]) << i;
    expectImage(kFill, kFill);
}

TEST_F(FrameTest, RenderPixelsAddsScaledSamplesAndKeepsCounters) {
    prepare(4, 2, 1, 6, 3);
    fill(kFill);
    registry.elapsedMicroseconds = 1000000000;
    registry.rayCount = 7;
    registry.frameCounter = 5;
    float rgb[30];
    std::fill(std::begin(rgb), std::end(rgb), 99.0f);
    ReportCapture capture;
    lvRenderPixels(8, rgb, 2);
    for (int i = 0; i < 8; ++i) EXPECT_EQ((Color{rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]}), kSample) << i;
    for (int i = 24; i < 30; ++i) EXPECT_EQ(rgb[i], 99.0f) << i;
    // c / sample count is added, not averaged in; only the region's pixels change.
    expectImage({3.75f, 7.5f, 11.25f}, kFill, 2, 1, 6, 3);
    EXPECT_GE(registry.elapsedMicroseconds, 1000000000u);
    EXPECT_GE(registry.rayCount, 7u);
    EXPECT_EQ(registry.frameCounter, 5u);
    EXPECT_EQ(registry.pass_index, 2);

    // Only `count` colours go back to the host.
    std::fill(std::begin(rgb), std::end(rgb), 99.0f);
    lvRenderPixels(3, rgb, 3);
    EXPECT_EQ(rgb[8], kSample.z);
    EXPECT_EQ(rgb[9], 99.0f);
    expectImage({3.5f, 7.0f, 10.5f}, kFill, 2, 1, 6, 3);
    EXPECT_EQ(capture.text(), "");
}
