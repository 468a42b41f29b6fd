// The lumivane host, run as a user would run it.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace {

struct HostRun {
    int status;
    std::string out, err;
};

std::string quoted(const std::string& s) { return "'" + s + "'"; }

std::string slurp(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

HostRun runHost(const fs::path& work, const std::string& arguments) {
    const fs::path out = work / "stdout.txt", err = work / "stderr.txt";
    const int status = std::system(
        (quoted(LUMIVANE_EXE) + " " + arguments + " >" + quoted(out) + " 2>" + quoted(err)).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
}

}  // namespace

TEST(LumivaneCli, RendersTheExampleSceneAndRefusesBadUse) {
    const fs::path work = fs::temp_directory_path() / ("lv_cli_" + std::to_string(::getpid()));
    const fs::path scene = work / "cornell";
    fs::create_directories(work);
    fs::copy(fs::path(LV_SOURCE_DIR) / "examples/cornell", scene, fs::copy_options::recursive);

    HostRun r = runHost(work, quoted(scene.string()));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_NE(r.out.find("\nscene parsing "), std::string::npos);
    EXPECT_NE(r.out.find("\ncamera sensor width               256 [ pixels ]\n"), std::string::npos);
    EXPECT_NE(r.out.find("\nperformance "), std::string::npos);
    EXPECT_TRUE(fs::exists(scene / "beauty.hdr"));
    EXPECT_TRUE(fs::exists(scene / "beauty.png"));

    r = runHost(work, "--help");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("usage: lumivane", 0), 0u);
    r = runHost(work, "--version");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("lumivane ", 0), 0u);

    std::ofstream(work / "plain.txt") << "x";
    for (const std::string& arguments : {quoted((work / "no such scene").string()), "--bogus " + quoted(scene.string()),
                                        std::string(), quoted((work / "plain.txt").string()),
                                        quoted(scene.string()) + " " + quoted(scene.string())}) {
        r = runHost(work, arguments);
        EXPECT_EQ(r.status, 2) << arguments;
        EXPECT_EQ(r.out, "") << arguments;
        EXPECT_EQ(r.err.rfind("lumivane: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    }
    fs::remove_all(work);
}
