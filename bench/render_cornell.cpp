// Rendering speed on the Cornell example: the scene directory read as lvGo
// reads it, then rendered at 512 x 512 with fixed settings, once on every
// thread of the runtime and once on one. Prints the wall time, the rays and
// frames per second of the report's own "performance" lines, and the speed-up.
//
//   render_cornell [SCENE_DIR] [FRAMES]
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>

#include "core/random.h"
#include "core/registry.h"
#include "lv.h"
#include "render/frame.h"
#include "scene/directory_walk.h"

namespace {

constexpr int kSize = 512;
constexpr int kRendererSample = 64;
constexpr int kBounce = 2;

struct Result {
    double seconds = 0.0;          // wall time of the frames alone
    double raysPerSecond = 0.0;    // mean of the report's lines, in M rays/second
    double framesPerSecond = 0.0;
    int lines = 0;
};

// Reads the scene, fixes the settings and renders `frames` frames with the
// report captured; the preparation is not timed.
Result render(int threads, int frames) {
    omp_set_num_threads(threads);
    std::ostringstream report;
    std::streambuf* saved = std::cout.rdbuf(report.rdbuf());
    lvStartup();
    seedHardwareRandom(1);
    registry.imagePaths = {"./image", "./", ""};
    for (const char* sub : {"/shader", "/render", "/light", "/camera", "/geometry"}) walkSceneDirectory(std::string(".") + sub);
    registry.rendererSample = kRendererSample;
    registry.bounce = kBounce;
    if (registry.cameras.empty()) {
        std::cout.rdbuf(saved);
        return {};
    }
    Camera& camera = registry.cameras[0];
    camera.width = camera.height = kSize;
    camera.sample = frames;
    for (Aov& aov : camera.aovs) aov.image.name.clear();   // nothing is written
    lvInitialize();
    report.str("");
    registry.frameCounter = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < frames; ++i) renderFrame();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    const std::string text = report.str();
    lvFinalize();
    lvShutdown();
    std::cout.rdbuf(saved);

    Result r;
    r.seconds = elapsed.count();
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        double rays = 0.0, fps = 0.0;
        if (std::sscanf(line.c_str(), "performance %lf [ M rays/second ] %lf [ frames/second ]", &rays, &fps) == 2) {
            r.raysPerSecond += rays;
            r.framesPerSecond += fps;
            ++r.lines;
        }
    }
    if (r.lines > 0) {
        r.raysPerSecond /= r.lines;
        r.framesPerSecond /= r.lines;
    }
    return r;
}

void print(const char* name, int threads, const Result& r) {
    std::printf("%-12s %3d threads %9.3f s wall %10.3f M rays/s %9.3f frames/s  (%d report lines)\n", name, threads,
                r.seconds, r.raysPerSecond, r.framesPerSecond, r.lines);
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path source = std::filesystem::path(__FILE__).parent_path().parent_path();
    const std::string directory = argc > 1 ? argv[1] : (source / "examples" / "cornell").string();
    const int frames = argc > 2 ? std::max(1, std::atoi(argv[2])) : 4;
    if (chdir(directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot enter %s\n", directory.c_str());
        return 2;
    }
    const int all = std::min(omp_get_max_threads(), kMaxThreads);
    std::printf("cornell: %d x %d pixels, %d frames, renderer sample %d, bounce %d\n", kSize, kSize, frames,
                kRendererSample, kBounce);
    const Result many = render(all, frames);
    print("all threads", all, many);
    const Result one = render(1, frames);
    print("one thread", 1, one);
    if (many.seconds > 0.0)
        std::printf("speed-up     %.2f x wall time, %.2f x rays/second on %d threads\n", one.seconds / many.seconds,
                    one.raysPerSecond > 0.0 ? many.raysPerSecond / one.raysPerSecond : 0.0, all);
    return 0;
}
