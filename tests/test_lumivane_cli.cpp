// The lumivane host, run as a user would run it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "host_run.h"

namespace {

using LumivaneCli = SceneTest;

}  // namespace

TEST_F(LumivaneCli, RendersTheExampleSceneAndRefusesBadUse) {
    const fs::path scene = dir / "cornell";
    fs::copy(fs::path(LV_SOURCE_DIR) / "examples/cornell", scene, fs::copy_options::recursive);
    fs::remove(scene / "beauty.hdr");   // left by a render of the example in the source tree
    // The example's own passes, with fewer gather rays: the run checks the
    // host, not the picture.
    writeFile(scene / "render/render.lv", "render\n  final_gather\n    sample 16\n    distance 0\n  end\nend\n");

    HostRun r = runHost(dir, quoted(scene));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("\nscene parsing "), std::string::npos);
    EXPECT_NE(r.out.find("\ncamera sensor width               256 [ pixels ]\n"), std::string::npos);
    EXPECT_NE(r.out.find("\nperformance "), std::string::npos);
    EXPECT_TRUE(fs::exists(scene / "beauty.hdr"));
    for (const std::string option : {"--help", "--version"}) {
        r = runHost(dir, option);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind(option == "--help" ? "usage: lumivane" : "lumivane ", 0), 0u) << option;
    }

    writeFile(dir / "plain.txt", "x");
    for (const std::string& arguments : {quoted(dir / "no such scene"), "--bogus " + quoted(scene), std::string(),
                                        quoted(dir / "plain.txt"), quoted(scene) + " " + quoted(scene)}) {
        r = runHost(dir, arguments);
        EXPECT_EQ(r.status, 2) << arguments;
        EXPECT_EQ(r.out, "") << arguments;
        EXPECT_EQ(r.err.rfind("lumivane: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    }
}
