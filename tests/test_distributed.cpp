// The host on several processes started by mpirun: the same images and
// report as one process renders, the same photons on every process, and a
// whole job that ends when one of its processes cannot go on.
#include <FreeImage.h>

#include <algorithm>
#include <cmath>
#include <regex>

#include "host_run.h"

namespace {

// Each process on one thread, so that two of them share this machine's two
// cores; as root too, as the CI runs.
const std::string kMpirun = std::string("OMP_NUM_THREADS=1 OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 ") +
                            LV_MPIEXEC + " --oversubscribe ";

#define SKIP_WITHOUT_MPI()                                                                 \
    if (!LV_MPI) GTEST_SKIP() << "lumivane was built without Open MPI: no run on several processes"

// The means of an image file's 4 x 4 tiles, channel by channel.
std::vector<double> tileMeans(const fs::path& path) {
    std::vector<double> means(4 * 4 * 3, 0.0);
    FIBITMAP* dib = FreeImage_Load(FIF_HDR, path.c_str(), 0);
    if (!dib) return {};
    const int width = int(FreeImage_GetWidth(dib)), height = int(FreeImage_GetHeight(dib));
    for (int y = 0; y < height; ++y) {
        const float* row = reinterpret_cast<const float*>(FreeImage_GetScanLine(dib, y));
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c)
                means[size_t(((y * 4 / height) * 4 + x * 4 / width) * 3 + c)] += row[3 * x + c] * 16.0 / (width * height);
    }
    FreeImage_Unload(dib);
    return means;
}

// The report with its figures blanked and without progress and frame lines.
std::vector<std::string> reportForm(const std::string& report, int& frameLines) {
    std::vector<std::string> form;
    std::istringstream lines(report);
    frameLines = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.find('\r') != std::string::npos) line = line.substr(line.rfind('\r') + 1);
        if (line.rfind("performance", 0) == 0 && ++frameLines) continue;
        form.push_back(std::regex_replace(line, std::regex("-?[0-9]+(\\.[0-9]+)?(e[-+][0-9]+)?"), "#"));
    }
    return form;
}

// Renders an example twice on one process and once on two. The tiles of
// every image must differ between one and two processes by no more in all
// than the two renders on one process differ by noise (times 3, plus a
// little of the brightest tile for images that hardly differ); the reports
// must have the same lines.
void compareRenders(const std::string& example, const std::vector<std::pair<std::string, std::string>>& edits) {
    const fs::path work = fs::temp_directory_path() / ("lv-distributed-" + example);
    const fs::path one = copyExample(example, work / "one", edits), again = copyExample(example, work / "again", edits),
                   two = copyExample(example, work / "two", edits);
    const std::string host = "OMP_NUM_THREADS=1 " + quoted(LUMIVANE_EXE) + " ";
    const HostRun alone = runCommand(work, host + quoted(one));
    runCommand(work, host + quoted(again));
    const HostRun pair = runCommand(work, kMpirun + "-np 2 " + quoted(LUMIVANE_EXE) + " " + quoted(two));
    ASSERT_EQ(alone.status, 0) << alone.err;
    ASSERT_EQ(pair.status, 0) << pair.err;

    int framesAlone = 0, framesPair = 0;
    EXPECT_EQ(reportForm(alone.out, framesAlone), reportForm(pair.out, framesPair));
    EXPECT_EQ(framesAlone, 16);
    EXPECT_EQ(framesPair, 8);   // rank 0's own passes

    int images = 0;
    for (const fs::path& file : fs::directory_iterator(one)) {
        if (file.extension() != ".hdr") continue;
        ++images;
        const std::vector<double> a = tileMeans(file), a2 = tileMeans(again / file.filename()),
                                  b = tileMeans(two / file.filename());
        ASSERT_EQ(a.size(), b.size()) << file;
        double noise = 0.0, apart = 0.0;
        for (size_t i = 0; i < a.size(); ++i) noise += std::abs(a[i] - a2[i]), apart += std::abs(a[i] - b[i]);
        const double brightest = *std::max_element(a.begin(), a.end());
        EXPECT_LE(apart, 3.0 * noise + 0.002 * brightest * double(a.size()) + 1e-6) << file.filename();
    }
    EXPECT_GE(images, 4);
    fs::remove_all(work);
}

}  // namespace

// The Cornell box with camera AOVs that a first hit fills, the light-path
// AOV that the photons fill and an AOV of the lamp; the spot-light stage
// with AOVs of both lights and the sky. Two processes render half the passes
// each and cast half the photons.
TEST(Distributed, ImagesAndReportMatchOneProcess) {
    SKIP_WITHOUT_MPI();
    std::string cameraAovs = "resolution 64 64\n";
    for (const std::string type : {"normal", "depth", "lambertian", "glossy", "emissive", "light_path"})
        cameraAovs += "  aov\n    image \"" + type + ".hdr\"\n    type \"" + type + "\"\n  end\n";
    compareRenders("cornell",
                   {{"resolution 256 256\n", cameraAovs},
                    {"photon 200000\n", "photon 20000\n  aov\n    image \"lamp.hdr\"\n    type \"lambertian\"\n  end\n"}});
    compareRenders("spotlight",
                   {{"resolution 640 480\n", cameraAovs},
                    {"inner_angle 16\n", "inner_angle 16\n  aov\n    image \"spot.hdr\"\n    type \"lambertian\"\n  end\n"},
                    {"blur 0.35\n", "blur 0.35\n  aov\n    image \"blur.hdr\"\n    type \"glossy\"\n  end\n"},
                    {"photon 0\n", "photon 0\n  aov\n    image \"sky.hdr\"\n  end\n"}});
}

// The Cornell box by final gathering, with fewer photons: the caustic
// photons, their tree and the cells are the same on both processes, and as
// many and as bright as one process casts.
TEST(Distributed, PhotonsTreeAndCellsMatchOneProcess) {
    SKIP_WITHOUT_MPI();
    const fs::path work = fs::temp_directory_path() / "lv-distributed-photons";
    const std::vector<std::pair<std::string, std::string>> edits{
        {"resolution 256 256", "resolution 8 8"}, {"photon 1000000", "photon 30000"}, {"sample 16\n", "sample 2\n"}};
    const fs::path scene = copyExample("cornell", work / "scene", edits);
    for (const fs::path& file : fs::recursive_directory_iterator(scene / "gather"))
        if (file.extension() == ".lv") fs::copy_file(file, scene / fs::relative(file, scene / "gather"),
                                                     fs::copy_options::overwrite_existing);
    const std::string check = quoted(LV_PHOTON_CHECK) + " " + quoted(scene);
    const HostRun alone = runCommand(work, "OMP_NUM_THREADS=1 " + check);
    const HostRun pair = runCommand(work, kMpirun + "-np 2 " + check);
    ASSERT_EQ(alone.status, 0);
    ASSERT_EQ(pair.status, 0) << pair.err;

    // The figures of the check's line (mpirun may have warned before it):
    // photons, their power (3), tree nodes, cells, the cells' sum (3), same.
    std::vector<double> one, two;
    for (auto [run, figures] : {std::pair{&alone, &one}, std::pair{&pair, &two}}) {
        const size_t at = std::min(run->err.find("photons "), run->err.size());
        std::istringstream line(run->err.substr(at, run->err.find('\n', at) - at));
        for (std::string word; line >> word;)
            if (word[0] < 'a' || word[0] > 'z') figures->push_back(std::stod(word));
        ASSERT_EQ(figures->size(), 10u) << run->err;
    }
    EXPECT_EQ(two[9], 1.0);
    EXPECT_GT(one[0], 100.0);
    EXPECT_GT(one[5], 1000.0);
    EXPECT_TRUE(two[0] == one[0] && two[5] == one[5]) << "photons and cells";
    for (int i : {1, 2, 3, 6, 7, 8}) EXPECT_NEAR(two[i], one[i], 1e-4 * one[i]) << i;
    for (int i : {6, 7, 8}) EXPECT_GT(one[i], 0.0) << i;
    fs::remove_all(work);
}

// A process that cannot read its scene, and a process killed while the
// passes run: the job ends with the report's error line and a failing exit
// status, and no image is written.
TEST(Distributed, FailingProcessEndsTheJob) {
    SKIP_WITHOUT_MPI();
    const fs::path work = fs::temp_directory_path() / "lv-distributed-failure";
    const fs::path scene = copyExample("cornell", work / "scene", {{"resolution 256 256", "resolution 64 64"}});
    const std::string host = quoted(LUMIVANE_EXE);

    const HostRun missing = runCommand(work, kMpirun + "-np 1 " + host + " " + quoted(scene) + " : -np 1 " + host +
                                              " " + quoted(work / "nowhere"));
    EXPECT_NE(missing.status, 0);
    EXPECT_NE(missing.out.find("error :( \tlumivane - process 1 of 2: cannot read scene directory"),
              std::string::npos) << missing.out;
    EXPECT_FALSE(fs::exists(scene / "beauty.hdr"));

    // Rank 1 is killed two seconds in, while the 64 passes run.
    const fs::path slow = copyExample("cornell", work / "slow", {{"sample 16\n", "sample 64\n"}});
    const std::string killer = "if [ \"$OMPI_COMM_WORLD_RANK\" = 1 ]; then (sleep 2; kill -9 $$) & fi; exec \"" +
                               std::string(LUMIVANE_EXE) + "\" \"" + slow.string() + "\"";
    const HostRun killed = runCommand(work, kMpirun + "-np 2 sh -c '" + killer + "'");
    EXPECT_NE(killed.status, 0);
    EXPECT_NE(killed.out.find("error :( \tlumivane - another process of the job failed or was stopped"),
              std::string::npos) << killed.out;
    EXPECT_EQ(killed.out.find("avgerage of"), std::string::npos);
    EXPECT_FALSE(fs::exists(slow / "beauty.hdr"));
    fs::remove_all(work);
}
