// Throughput of primary ray generation: a moving perspective camera at full
// HD, all pixels per pass, on every thread of the runtime and then on one.
// Prints rays per second in total and per thread.
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <vector>

#include "core/random.h"
#include "core/registry.h"
#include "lv.h"
#include "render/camera.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

struct Result {
    double seconds;
    double checksum;   // keeps the rays from being optimised away
};

Result run(const Camera& camera, int threads, int passes) {
    std::vector<double> sums(size_t(kMaxThreads), 0.0);
    const auto start = std::chrono::steady_clock::now();
    for (int pass = 0; pass < passes; ++pass) {
#pragma omp parallel for schedule(dynamic, 1) num_threads(threads)
        for (int y = 0; y < kHeight; ++y) {
            double sum = 0.0;
            for (int x = 0; x < kWidth; ++x) {
                RayState ray = freshRay();
                generateRay(camera, ray, x, y, unsigned(pass));
                sum += double(ray.direction.x) + double(ray.origin.z);
            }
            sums[size_t(omp_get_thread_num())] += sum;
        }
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    double checksum = 0.0;
    for (double s : sums) checksum += s;
    return {elapsed.count(), checksum};
}

void print(const char* name, int threads, int passes, const Result& r) {
    const double rays = double(kWidth) * kHeight * passes;
    std::printf("%-12s %3d threads %10.2f M rays/s %10.2f M rays/s per thread   (%.3f s, checksum %.3f)\n", name,
                threads, rays / r.seconds * 1e-6, rays / r.seconds * 1e-6 / threads, r.seconds, r.checksum);
}

}  // namespace

int main(int argc, char** argv) {
    const int passes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 4;

    // The library's preparation report is not part of the measurement.
    std::ostringstream quiet;
    std::streambuf* saved = std::cout.rdbuf(quiet.rdbuf());
    lvStartup();
    seedHardwareRandom(1);
    const int c = lvAddCamera();
    lvSetCameraResolution(c, kWidth, kHeight);
    lvSetCameraSample(c, passes);
    lvSetCameraTime(c, 0.0f);
    lvSetCameraPosition(c, 0, 1, 5);
    lvSetCameraTarget(c, 0, 1, 0);
    lvSetCameraUpVector(c, 0, 1, 0);
    lvSetCameraFOV(c, 50);
    lvSetCameraTime(c, 1.0f);
    lvSetCameraPosition(c, 0.5f, 1, 5);
    lvSetCameraTarget(c, 0, 1.2f, 0);
    lvSetCameraUpVector(c, 0.1f, 1, 0);
    lvSetCameraFOV(c, 45);
    lvInitializeCameras();
    std::cout.rdbuf(saved);

    const Camera& camera = registry.cameras[size_t(c)];
    const int all = std::min(omp_get_max_threads(), kMaxThreads);
    std::printf("camera rays: %d x %d pixels, %d passes, moving perspective camera\n", kWidth, kHeight, passes);
    run(camera, all, 1);   // warm up the threads and their generators
    print("all threads", all, passes, run(camera, all, passes));
    print("one thread", 1, passes, run(camera, 1, passes));

    registry.cameras.clear();
    lvShutdown();
    return 0;
}
