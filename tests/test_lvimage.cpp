// lvimage's comparison and summary modes, run as a user runs the tool.
#include <bit>
#include <cmath>
#include <limits>

#include "host_run.h"

namespace {

using Rows = std::vector<std::vector<Color>>;

// Writes a little-endian PFM by hand, rows in file order. FreeImage shows the
// file's first row at the top, as lvimage's converted pictures do.
void writePfm(const fs::path& path, const Rows& rows) {
    static_assert(std::endian::native == std::endian::little);
    std::ofstream file(path, std::ios::binary);
    file << "PF\n" << rows[0].size() << " " << rows.size() << "\n-1.0\n";
    for (const auto& row : rows)
        for (const Color& c : row) {
            const float rgb[3] = {c.x, c.y, c.z};
            file.write(reinterpret_cast<const char*>(rgb), sizeof rgb);
        }
}

HostRun lvimage(const fs::path& dir, const std::string& arguments) {
    return runCommand(dir, quoted(fs::path(LV_BINARY_DIR) / "lvimage") + " " + arguments);
}

TEST_F(SceneTest, LvimageDiffMeasuresAndLocatesDifferences) {
    Rows a(3, std::vector<Color>(4));
    for (size_t y = 0; y < 3; ++y)
        for (size_t x = 0; x < 4; ++x) a[y][x] = {0.125f * float(x), 0.25f * float(y), 3.0f};
    Rows b = a;
    b[2][2].y += 0.5f;
    writePfm(dir / "a.pfm", a);
    writePfm(dir / "b.pfm", b);
    writePfm(dir / "small.pfm", Rows(3, std::vector<Color>(3)));

    HostRun run = lvimage(dir, "--diff a.pfm a.pfm");
    EXPECT_EQ((std::pair{run.status, run.out}), (std::pair{0, std::string("rmse 0 max 0 at 0 0\n")}));

    // One channel of one of 12 pixels differs by 0.5: sqrt(0.25 / 36).
    run = lvimage(dir, "--diff a.pfm b.pfm diff.ppm");
    EXPECT_EQ((std::pair{run.status, run.out}), (std::pair{0, std::string("rmse 0.0833333 max 0.5 at 2 2\n")})) << run.err;
    // The byte picture of the difference, top row first, lights that pixel only.
    std::string expected = "P6\n4 3\n255\n" + std::string(4 * 3 * 3, '\0');
    expected[expected.size() - 4 * 3 * 3 + (2 * 4 + 2) * 3 + 1] = char(128);
    EXPECT_EQ(slurp(dir / "diff.ppm"), expected);

    // The float difference keeps its value: 0.5 in green at one pixel of 12.
    ASSERT_EQ(lvimage(dir, "--diff b.pfm a.pfm diff.pfm").status, 0);
    EXPECT_EQ(lvimage(dir, "--stats diff.pfm").out,
              "mean 0 0.0416667 0 variance 0 0.0190972 0 nan 0 inf 0\n");

    run = lvimage(dir, "--diff a.pfm small.pfm");
    EXPECT_EQ((std::tuple{run.status, run.out, run.err}),
              (std::tuple{2, std::string(), std::string("lvimage: a.pfm is 4x3 but small.pfm is 3x3\n")}));
    EXPECT_EQ(lvimage(dir, "--diff a.pfm").status, 2);
}

TEST_F(SceneTest, LvimageStatsSkipsAndCountsNonFiniteValues) {
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    writePfm(dir / "s.pfm", {{{1, nan, 2}, {3, 4, inf}}, {{5, 6, 7}, {-inf, 8, 9}}});
    const HostRun run = lvimage(dir, "--stats s.pfm");
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "mean 3 6 6 variance 2.66667 2.66667 8.66667 nan 1 inf 2\n");
    // The same NaNs and infinities in both images are no difference.
    EXPECT_EQ(lvimage(dir, "--diff s.pfm s.pfm").out, "rmse 0 max 0 at 0 0\n");
    EXPECT_EQ(lvimage(dir, "--stats --gamma 2 s.pfm").status, 2);
}

}  // namespace
