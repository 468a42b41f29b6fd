// Long runs in one process: resident memory must stay flat.
//
// First FRAMES frames of a scene directory (the spot-light example by
// default) at 64 x 64 pixels, then SCENES whole scenes in a row, each from
// lvStartup to lvShutdown: every other one through lvGo over a copy of the
// directory at 16 x 16 pixels and one frame, the others described through
// the exported functions (a lit glass ball on a floor, with photons). Prints
// the resident memory after the first frame and scene, in the middle and at
// the end, and the growth past the first scene, which should stay within
// 2 %. Built with the sanitizers, LeakSanitizer reports any leak at exit.
//
//   soak [SCENE_DIR] [FRAMES] [SCENES]
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "bench_scene.h"
#include "render/frame.h"

namespace {

// Resident memory of this process, in M bytes.
double residentMegabytes() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0, resident = 0;
    statm >> pages >> resident;
    return double(resident) * double(sysconf(_SC_PAGE_SIZE)) / (1024.0 * 1024.0);
}

void renderFrames(const std::string& directory, int frames) {
    const std::filesystem::path home = std::filesystem::current_path();
    std::filesystem::current_path(directory);
    bench::readScene(3, "");
    for (Camera& camera : registry.cameras) {
        camera.width = camera.height = 64;
        camera.sample = frames;
        for (Aov& aov : camera.aovs) aov.image.name.clear();
    }
    lvInitialize();
    for (int i = 0; i < frames; ++i) {
        renderFrame();
        if (i == 0 || i == frames / 2 || i == frames - 1)
            std::fprintf(stderr, "frame %5d: %8.1f M bytes resident\n", i + 1, residentMegabytes());
    }
    lvFinalize();
    lvShutdown();
    std::filesystem::current_path(home);
}

// A glass ball on a floor under a spot light with photons, in code.
void renderCodedScene() {
    lvStartup();
    lvSetRendererSample(4);
    lvSetRendererDistance(0.3f);
    lvSetRendererResolution(0.01f);
    const int floor = lvAddShader(), glass = lvAddShader();
    lvSetSurfaceColor(floor, lvAddSurfaceShader(floor), LV_ELEMENT_LAMBERTIAN, 0.7f, 0.7f, 0.7f);
    const int layer = lvAddSurfaceShader(glass);
    lvSetSurfaceColor(glass, layer, LV_ELEMENT_SPECULAR, 1, 1, 1);
    lvSetSurfaceColor(glass, layer, LV_ELEMENT_IOR, 1.5f, 1.5f, 1.5f);
    lvSetSurfaceMaterial(glass, layer, LV_MATERIAL_SOLID);
    const int object = lvAddObject();
    const int floorPart = lvAddPart(object), ballPart = lvAddPart(object);
    const float corners[] = {-2, 0, 2, 2, 0, 2, 2, 0, -2, -2, 0, -2}, centre[] = {0, 0.5f, 0}, radius = 0.5f;
    const int square[] = {0, 1, 2, 3}, particle = 0;
    lvAddPositions(object, floorPart, 4, corners);
    lvAddTetragons(object, floorPart, 1, square);
    lvSetShaderID(object, floorPart, floor);
    lvAddPositions(object, ballPart, 1, centre);
    lvAddRadii(object, ballPart, 1, &radius);
    lvAddParticles(object, ballPart, 1, &particle);
    lvSetShaderID(object, ballPart, glass);
    const int spot = lvAddPointLight();
    lvSetPointLightColor(spot, 10, 10, 10);
    lvSetPointLightPosition(spot, 0, 3, 0);
    lvSetPointLightDirection(spot, 0, -1, 0);
    lvSetPointLightOuterAngle(spot, 30);
    lvSetPointLightPhoton(spot, 20000);
    lvSetSkyLightPhoton(0);
    lvSetGeometryLightPhoton(0);
    const int camera = lvAddCamera();
    lvSetCameraResolution(camera, 16, 16);
    lvSetCameraSample(camera, 1);
    for (float t : {0.0f, 1.0f}) {
        lvSetCameraTime(camera, t);
        lvSetCameraPosition(camera, 0, 2, 3);
        lvSetCameraTarget(camera, 0, 0.3f, 0);
    }
    lvSetCameraAOVName(camera, 0, "");
    lvInitialize();
    lvRender();
    lvFinalize();
    lvShutdown();
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path examples = std::filesystem::path(__FILE__).parent_path().parent_path() / "examples";
    const std::string directory =
        std::filesystem::absolute(argc > 1 ? argv[1] : (examples / "spotlight").string()).string();
    const int frames = argc > 2 ? std::max(1, std::atoi(argv[2])) : 1000;
    const int scenes = argc > 3 ? std::max(2, std::atoi(argv[3])) : 200;

    std::ostringstream discarded;
    std::streambuf* const console = std::cout.rdbuf(discarded.rdbuf());
    std::fprintf(stderr, "soak: %d frames of %s, then %d scenes; load average %s\n", frames, directory.c_str(),
                 scenes, bench::loadAverage().c_str());
    std::fprintf(stderr, "start      %8.1f M bytes resident\n", residentMegabytes());
    renderFrames(directory, frames);
    discarded.str("");

    // The lvGo scenes render a copy at 16 x 16 pixels with one frame, whose
    // image lands in the copy.
    char pattern[] = "/tmp/lv-soak.XXXXXX";
    if (!mkdtemp(pattern)) return 1;
    const std::filesystem::path copy = std::filesystem::path(pattern) / "scene";
    std::filesystem::copy(directory, copy, std::filesystem::copy_options::recursive);
    std::filesystem::remove_all(copy / "camera");
    std::filesystem::create_directories(copy / "camera");
    std::ofstream(copy / "camera/soak.lv") << "camera\n  resolution 16 16\n  sample 1\n  pose\n    position 0 2 4\n"
                                               "    target 0 0.5 0\n  end\nend\n";

    double first = 0.0, last = 0.0;
    for (int i = 0; i < scenes; ++i) {
        if (i % 2 == 0) {
            const std::filesystem::path home = std::filesystem::current_path();
            std::filesystem::current_path(copy);
            lvGo("./");
            std::filesystem::current_path(home);
        } else {
            renderCodedScene();
        }
        discarded.str("");
        const double resident = residentMegabytes();
        if (i == 1) first = resident;
        last = resident;
        if (i == 1 || i == scenes / 2 || i == scenes - 1)
            std::fprintf(stderr, "scene %5d: %8.1f M bytes resident\n", i + 1, resident);
    }
    std::cout.rdbuf(console);
    std::filesystem::remove_all(pattern);
    std::fprintf(stderr, "growth from scene 2 to scene %d: %+.2f %%\n", scenes, 100.0 * (last - first) / first);
    return 0;
}
