// Hair: the time to build one hair shader's table, on every thread of the
// runtime and on one; closest-hit throughput on a procedural hair file of
// 100k strands, read by the hair reader and prepared as a scene prepares
// it; and the render speed of the hair example at its own settings.
//
//   hair [STRANDS]
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "../tests/hair_file_writer.h"
#include "bench_scene.h"
#include "geometry/object.h"
#include "geometry/prepare.h"
#include "geometry/traversal.h"
#include "render/frame.h"
#include "scene/geometry_reader.h"
#include "shading/hair_scattering.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

constexpr int kRounds = 3;

// The best of kRounds table builds of a default hair block.
double tableSeconds(int threads) {
    omp_set_num_threads(threads);
    double best = 0.0;
    for (int round = 0; round < kRounds; ++round) {
        HairBlock block;
        bench::CapturedReport quiet;
        const auto start = Clock::now();
        InitializeBcsdf(block);
        const double seconds = secondsSince(start);
        best = round == 0 ? seconds : std::min(best, seconds);
    }
    return best;
}

// A patch of hair on a square of 200 x 200 units: strands of 10 segments of
// about one unit, rising and curving in random directions, 0.05 thick.
HairFileData hairPatch(int strands) {
    HairFileData d;
    d.strandCount = uint32_t(strands);
    d.defaultThickness = 0.05f;
    auto uniform = [] { return hardwareRandomFloat(); };
    for (int s = 0; s < strands; ++s) {
        Vector p{200.0f * uniform() - 100.0f, 0.0f, 200.0f * uniform() - 100.0f};
        Vector dir = normalized({uniform() - 0.5f, 2.0f, uniform() - 0.5f});
        d.segments.push_back(10);
        for (int k = 0; k <= 10; ++k) {
            d.points.push_back(p);
            p += dir;
            dir = normalized(dir + Vector{uniform() - 0.5f, uniform() - 0.6f, uniform() - 0.5f} * 0.4f);
        }
    }
    return d;
}

// Rays towards the patch: a grid of parallel rays from above at a slant, as
// a camera far away sends them, and rays between random points in and over
// the patch.
std::vector<RayState> patchRays(bool coherent, int count) {
    std::vector<RayState> rays;
    const int side = int(std::sqrt(double(count)));
    for (int i = 0; i < count; ++i) {
        RayState ray = freshRay();
        if (coherent) {
            const float x = -100.0f + 200.0f * (float(i % side) + 0.5f) / float(side);
            const float z = -100.0f + 200.0f * (float(i / side) + 0.5f) / float(side);
            ray.origin = {x - 20.0f, 40.0f, z};
            ray.direction = normalized({0.5f, -1.0f, 0.0f});
        } else {
            const Vector from{200.0f * hardwareRandomFloat() - 100.0f, 30.0f * hardwareRandomFloat(),
                              200.0f * hardwareRandomFloat() - 100.0f};
            const Vector to{200.0f * hardwareRandomFloat() - 100.0f, 12.0f * hardwareRandomFloat(),
                            200.0f * hardwareRandomFloat() - 100.0f};
            ray.origin = from;
            ray.direction = normalized(to - from);
        }
        rays.push_back(ray);
    }
    return rays;
}

// Closest hits of all rays on `threads` threads: the best of kRounds, in M
// rays per second, and the hits.
double closestHits(const std::vector<RayState>& rays, int threads, size_t& hits) {
    omp_set_num_threads(threads);
    double best = 0.0;
    const int n = int(rays.size());
    for (int round = 0; round < kRounds; ++round) {
        size_t count = 0;
        const auto start = Clock::now();
#pragma omp parallel for schedule(dynamic, 64) reduction(+ : count)
        for (int i = 0; i < n; ++i) {
            RayState ray = rays[size_t(i)];
            ray.thread = uint8_t(omp_get_thread_num());
            count += intersectClosest(ray);
        }
        const double rate = double(n) / secondsSince(start) * 1e-6;
        best = std::max(best, rate);
        hits = count;
    }
    return best;
}

void hairThroughput(int strands, int threads) {
    const std::string path = (std::filesystem::temp_directory_path() / "lumivane-bench-patch.hair").string();
    writeBytes(path, hairFileBytes(hairPatch(strands)));
    Object object;
    object.name = "patch";
    object.parts.emplace_back();
    GeometryReader reader;
    reader.part = &object.parts.back();
    auto start = Clock::now();
    readHair(reader, path);
    const double read = secondsSince(start);
    std::filesystem::remove(path);
    start = Clock::now();
    {
        bench::CapturedReport quiet;
        preparePart(object.parts[0]);
        buildHierarchy(object);
        updateHierarchy(object);
        satOrder(object);
    }
    const double build = secondsSince(start);
    const size_t segments = object.parts[0].cylinders.size();
    registry.objects.push_back(std::move(object));
    registry.rootObject = int(registry.objects.size()) - 1;

    std::printf("\nhair patch: %d strands, %zu segments; read %.3f s, prepared and built %.3f s\n", strands, segments,
                read, build);
    for (bool coherent : {true, false}) {
        const std::vector<RayState> rays = patchRays(coherent, coherent ? 1 << 20 : 1 << 18);
        for (int t : {threads, 1}) {
            size_t hits = 0;
            const double rate = closestHits(rays, t, hits);
            std::printf("  %-11s closest hit %3d threads %8.3f M rays/s  (%zu of %zu rays hit)\n",
                        coherent ? "coherent" : "incoherent", t, rate, hits, rays.size());
        }
    }
    registry.objects.clear();
}

// The hair example rendered at its own settings; false without its hair
// file, which scripts/make-hair.py writes.
bool exampleSpeed(const std::filesystem::path& directory, int threads) {
    if (!std::filesystem::exists(directory / "geometry" / "ball.hair")) {
        std::printf("\nhair example: no geometry/ball.hair; run python3 scripts/make-hair.py first\n");
        return false;
    }
    const std::filesystem::path home = std::filesystem::current_path();
    if (chdir(directory.c_str()) != 0) return false;
    omp_set_num_threads(threads);
    uint64_t rays = 0, shadowRays = 0, micro = 0;
    int frames = 0, width = 0, height = 0;
    double prepare = 0.0;
    {
        bench::CapturedReport quiet;
        bench::readScene(1, "");
        Camera& camera = registry.cameras[0];
        for (Aov& aov : camera.aovs) aov.image.name.clear();   // nothing is written
        frames = camera.sample, width = camera.width, height = camera.height;
        const auto start = Clock::now();
        lvInitialize();
        prepare = secondsSince(start);
        registry.frameCounter = 0;
        for (int i = 0; i < frames; ++i) {
            renderFrame();
            rays += registry.rayCount;
            shadowRays += registry.shadowRayCount;
            micro += registry.elapsedMicroseconds;
        }
        lvFinalize();
        lvShutdown();
    }
    std::filesystem::current_path(home);
    const double seconds = double(micro) * 1e-6;
    std::printf("\nhair example: %d x %d, %d frames on %d threads; preparation %.2f s, frames %.2f s\n", width, height,
                frames, threads, prepare, seconds);
    std::printf("  %.3f M rays/s (%.3f counting shadow rays), %.3f frames/s\n", double(rays) / double(micro),
                double(rays + shadowRays) / double(micro), double(frames) / seconds);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const int strands = argc > 1 ? std::max(1, std::atoi(argv[1])) : 100000;
    const int threads = bench::useAllThreads();
    std::printf("hair benchmark, load average %s\n", bench::loadAverage().c_str());
    seedHardwareRandom(3);
    lvStartup();
    const double many = tableSeconds(threads), one = tableSeconds(1);
    std::printf("\nhair table (128 x 128 texels, 128 steps across the fibre), best of %d:\n", kRounds);
    std::printf("  %.3f s on %d threads, %.3f s on one thread (%.2f x)\n", many, threads, one, one / many);
    hairThroughput(strands, threads);
    lvShutdown();
    const std::filesystem::path source = std::filesystem::path(__FILE__).parent_path().parent_path();
    exampleSpeed(source / "examples" / "hair", threads);
    return 0;
}
