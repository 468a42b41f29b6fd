// The lumivane host, run as a user would run it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "host_run.h"
#include "core/images.h"

namespace {

using LumivaneCli = SceneTest;

}  // namespace

TEST_F(LumivaneCli, AnswersHelpAndVersionAndRefusesBadUse) {
    const fs::path scene = copyExample("cornell", dir / "cornell", {});
    HostRun r;
    for (const std::string option : {"--help", "--version"}) {
        r = runHost(dir, option);
        EXPECT_TRUE(r.status == 0 && r.out.rfind(option == "--help" ? "usage: lumivane" : "lumivane ", 0) == 0) << option;
    }

    writeFile(dir / "plain.txt", "x");
    std::vector<std::string> uses = {quoted(dir / "no such scene"), std::string(), quoted(dir / "plain.txt"),
                                     quoted(scene) + " " + quoted(scene)};
    for (const char* bad : {"--bogus", "--frames 0", "--frames", "--resolution 64", "--resolution 0x5", "--scale -1",
                            "--region 4 2 3 9", "--region 1 2 3", "-t 999", "-o noextension"})
        uses.push_back(std::string(bad) + " " + quoted(scene));
    for (const std::string& arguments : uses) {
        r = runHost(dir, arguments);
        EXPECT_EQ(r.status, 2) << arguments;
        EXPECT_EQ(r.out, "") << arguments;
        EXPECT_EQ(r.err.rfind("lumivane: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    }
}

// The options change the run and not the scene: a smaller float image under
// the name given, the frames asked for, the scene's files as they were, and
// each change noted in the report. Quiet, the report keeps its error lines
// alone. On a terminal a progress line is rewritten in place on standard
// error; in a pipe, standard error stays empty.
TEST_F(LumivaneCli, OptionsOverrideTheSceneForOneRun) {
    const fs::path scene = copyExample("cornell", dir / "cornell", {{"sample 256", "sample 4"}});
    const std::string camera = slurp(scene / "camera/camera.lv");
    HostRun r = runHost(dir, "--resolution 64x48 --frames 2 -o small.pfm -t 1 " + quoted(scene));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    for (const char* note : {"\nscene parsing ", "\nperformance ", "command line - resolution 64 x 48\n",
                             "command line - frames 2\n", "command line - threads 1\n"})
        EXPECT_NE(r.out.find(note), std::string::npos) << note;
    EXPECT_EQ(slurp(dir / "small.pfm").rfind("PF\n64 48\n", 0), 0u);   // three floats a pixel
    EXPECT_EQ(fs::file_size(dir / "small.pfm") / 32, 64u * 48 * 12 / 32);
    EXPECT_FALSE(fs::exists(scene / "beauty.hdr"));
    EXPECT_EQ(slurp(scene / "camera/camera.lv"), camera);

    // A scale of the scene's 256 x 256 and a region of it: light in those
    // pixels alone.
    r = runHost(dir, "--scale 0.125 --region 0 0 8 8 --frames 1 -o region.pfm " + quoted(scene));
    ImageRecord region;
    region.name = (dir / "region.pfm").string();
    region.wantsRgbe = false;
    LoadImage(region);
    ASSERT_EQ(region.width, 32);
    int lit = 0;
    for (int i = 0; i < 32 * 32; ++i) lit += storedPixel(region, i).x > 0.0f;
    EXPECT_TRUE(lit > 32 && lit <= 64) << lit;

    // Without options the images go beside the scene's folders.
    r = runHost(dir, "--quiet --resolution 16x16 --frames 1 " + quoted(scene));
    EXPECT_EQ((std::pair{r.status, r.out}), (std::pair{0, std::string()}));
    EXPECT_TRUE(fs::exists(scene / "beauty.hdr"));
    r = runCommand(dir, "script -qec " + ::quoted(std::string(LUMIVANE_EXE) + " --resolution 16x16 --frames 2 " +
                                                 scene.string()) + " /dev/null");
    EXPECT_NE(r.out.find("\rframe 1 of 2, "), std::string::npos) << r.out;
}
