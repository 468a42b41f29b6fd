// Rendering speed on a scene directory (the Cornell example by default): the
// directory read as lvGo reads it, then rendered at 512 x 512 with fixed
// settings, once on every thread of the runtime and once on one. Prints the
// wall time, the rays and frames per second of the report's own
// "performance" lines, the rays per second counting shadow rays, and the
// speed-up; then the share of the wall time that the caustic photons'
// estimate takes, from a third render on every thread with the stored
// photons dropped after the cast. Then, on one thread, the cost of a shadow ray against that of a
// closest-hit ray: the camera rays of one pass traced to their closest hits,
// and from every hit one shadow ray to each point and parallel light.
//
//   render_scene [SCENE_DIR] [FRAMES]
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "geometry/traversal.h"
#include "lights/lights.h"
#include "lv.h"
#include "render/camera.h"
#include "render/frame.h"
#include "shading/occlusion.h"
#include "scene/directory_walk.h"
#include "shading/hit_shading.h"
#include "photons/photon_tree.h"

namespace {

constexpr int kSize = 512;
constexpr int kRendererSample = 64;
constexpr int kBounce = 2;
constexpr int kCostRepeats = 5;

using Clock = std::chrono::steady_clock;

struct Result {
    double seconds = 0.0;          // wall time of the frames alone
    double raysPerSecond = 0.0;    // mean of the report's lines, in M rays/second
    double framesPerSecond = 0.0;
    double allRaysPerSecond = 0.0;   // camera, path and shadow rays of all frames, in M rays/second
    int lines = 0;
};

// Reads the scene in the working directory on `threads` threads, fixes the
// settings and prepares it, with the report going to `report`. False when
// the scene has no camera.
bool prepare(int threads, int frames, std::ostringstream& report, std::streambuf*& saved) {
    omp_set_num_threads(threads);
    saved = std::cout.rdbuf(report.rdbuf());
    lvStartup();
    seedHardwareRandom(1);
    readSceneDirectory("./");
    registry.rendererSample = kRendererSample;
    registry.bounce = kBounce;
    if (registry.cameras.empty()) {
        lvShutdown();
        std::cout.rdbuf(saved);
        return false;
    }
    Camera& camera = registry.cameras[0];
    camera.width = camera.height = kSize;
    camera.sample = frames;
    for (Aov& aov : camera.aovs) aov.image.name.clear();   // nothing is written
    lvInitialize();
    report.str("");
    return true;
}

void finish(std::streambuf* saved) {
    lvFinalize();
    lvShutdown();
    std::cout.rdbuf(saved);
}

// Renders `frames` frames with the report captured; the preparation is not
// timed. The frame loop clears the ray counters at the start of every frame,
// so they are summed frame by frame. Without `caustics`, the stored photons
// are dropped after the cast, so that no lobe runs the caustic estimate.
Result render(int threads, int frames, bool caustics = true) {
    std::ostringstream report;
    std::streambuf* saved = nullptr;
    if (!prepare(threads, frames, report, saved)) return {};
    if (!caustics) registry.photons.clear();
    registry.frameCounter = 0;
    uint64_t rays = 0, micro = 0;
    const auto start = Clock::now();
    for (int i = 0; i < frames; ++i) {
        renderFrame();
        rays += registry.rayCount + registry.shadowRayCount;
        micro += registry.elapsedMicroseconds;
    }
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    const std::string text = report.str();
    finish(saved);

    Result r;
    r.seconds = elapsed.count();
    r.allRaysPerSecond = micro > 0 ? double(rays) / double(micro) : 0.0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        double perSecond = 0.0, fps = 0.0;
        if (std::sscanf(line.c_str(), "performance %lf [ M rays/second ] %lf [ frames/second ]", &perSecond, &fps) == 2) {
            r.raysPerSecond += perSecond;
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
    std::printf("%-12s %3d threads %9.3f s wall %10.3f M rays/s (%.3f with shadow rays) %9.3f frames/s  (%d report lines)\n",
                name, threads, r.seconds, r.raysPerSecond, r.allRaysPerSecond, r.framesPerSecond, r.lines);
}

// The best of a few runs of `trace` over fresh copies of `rays`, in
// nanoseconds per ray; the copies are made outside the clock.
template <typename Trace>
double nanosecondsPerRay(const std::vector<RayState>& rays, Trace trace) {
    double best = 0.0;
    std::vector<RayState> work;
    for (int k = 0; k < kCostRepeats; ++k) {
        work = rays;
        const auto start = Clock::now();
        for (RayState& ray : work) trace(ray);
        const std::chrono::duration<double, std::nano> elapsed = Clock::now() - start;
        const double perRay = elapsed.count() / double(std::max<size_t>(1, rays.size()));
        best = k == 0 ? perRay : std::min(best, perRay);
    }
    return best;
}

// The cost of shadow rays against closest-hit rays on one thread.
void compareCosts(int frames) {
    std::ostringstream report;
    std::streambuf* saved = nullptr;
    if (!prepare(1, frames, report, saved)) return;
    const Camera& camera = *registry.currentCameraRecord;

    std::vector<RayState> cameraRays;
    cameraRays.reserve(size_t(kSize) * kSize);
    for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x) {
            RayState ray = freshRay();
            generateRay(camera, ray, x, y, 0);
            cameraRays.push_back(ray);
        }

    // Shadow rays as direct lighting makes them: from each hit to the centre
    // of every point light whose cone holds the hit, and along every parallel
    // light.
    std::vector<RayState> shadowRays;
    std::vector<float> lengths;
    for (RayState ray : cameraRays) {
        if (!intersectClosest(ray)) continue;
        HitRecord hit{};
        shadeHit(ray, hit);
        if (!hit.layer) continue;
        for (const PointLight& light : registry.pointLights) {
            const Vector v = light.position - hit.position;
            const float t = std::sqrt(dot(v, v));
            if (!(t > 0.0f) || spotWeight(light, -v / t) == 0.0f) continue;
            RayState shadow = shadowRay(ray, hit);
            shadow.direction = v / t;
            shadowRays.push_back(shadow);
            lengths.push_back(t);
        }
        for (const ParallelLight& light : registry.parallelLights) {
            RayState shadow = shadowRay(ray, hit);
            shadow.direction = -light.axis();
            shadowRays.push_back(shadow);
            lengths.push_back(kInfinity);
        }
    }

    size_t hits = 0;
    const double closest = nanosecondsPerRay(cameraRays, [&](RayState& ray) { hits += intersectClosest(ray); });
    std::printf("closest hit  %9.1f ns/ray over %zu camera rays (%zu hits in %d runs)\n", closest, cameraRays.size(), hits,
                kCostRepeats);
    if (shadowRays.empty()) {
        finish(saved);
        std::printf("shadow       no point or parallel light to send shadow rays to\n");
        return;
    }
    size_t index = 0;
    double passed = 0.0;
    const double shadow = nanosecondsPerRay(shadowRays, [&](RayState& ray) {
        const Color T = occlusion(ray, lengths[index]);
        passed += T.x + T.y + T.z;
        index = (index + 1) % lengths.size();
    });
    finish(saved);
    std::printf("shadow       %9.1f ns/ray over %zu shadow rays (mean transmittance %.3f)\n", shadow, shadowRays.size(),
                passed / (3.0 * kCostRepeats * double(shadowRays.size())));
    if (closest > 0.0)
        std::printf("cost ratio   %.2f x: a shadow ray costs that many closest-hit rays, on one thread\n", shadow / closest);
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
    const std::string name = std::filesystem::current_path().filename().string();
    const int all = std::min(omp_get_max_threads(), kMaxThreads);
    std::printf("%s: %d x %d pixels, %d frames, renderer sample %d, bounce %d\n", name.c_str(), kSize, kSize, frames,
                kRendererSample, kBounce);
    const Result many = render(all, frames);
    print("all threads", all, many);
    const Result one = render(1, frames);
    print("one thread", 1, one);
    // The same render without the caustic photons' estimate: what the
    // estimate costs. The image differs only in those photons' light.
    const Result plain = render(all, frames, false);
    print("no caustics", all, plain);
    if (many.seconds > 0.0)
        std::printf("caustic est.  %.1f %% of the wall time on %d threads (%.2f s of %.2f s)\n",
                    100.0 * std::max(0.0, many.seconds - plain.seconds) / many.seconds, all,
                    std::max(0.0, many.seconds - plain.seconds), many.seconds);
    if (many.seconds > 0.0)
        std::printf("speed-up     %.2f x wall time, %.2f x rays/second, %.2f x with shadow rays on %d threads\n",
                    one.seconds / many.seconds, one.raysPerSecond > 0.0 ? many.raysPerSecond / one.raysPerSecond : 0.0,
                    one.allRaysPerSecond > 0.0 ? many.allRaysPerSecond / one.allRaysPerSecond : 0.0, all);
    compareCosts(frames);
    return 0;
}
