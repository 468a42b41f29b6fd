// Time to bake a 2048 x 1024 sky image into the sky's cube and its
// distribution, on one thread and on two. The image is held in RGBE, as an
// HDR file loads: a gradient with a bright sun disc. Prints the best of a
// few runs for each thread count.
#include <omp.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "core/exponent.h"
#include "core/registry.h"
#include "lights/sky_light.h"
#include "core/images.h"

namespace {

constexpr int kWidth = 2048, kHeight = 1024;

void makeSky(ImageRecord& image) {
    SizeImage(image, kWidth, kHeight, 3, 32, true);
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) {
            const float u = (float(x) + 0.5f) / kWidth, v = (float(y) + 0.5f) / kHeight;
            const float du = u - 0.3f, dv = v - 0.3f;
            const float sun = du * du + dv * dv < 1e-4f ? 500.0f : 0.0f;
            image.rgbeStore[size_t(y) * kWidth + x] =
                packRgbe({0.2f + 0.6f * v + sun, 0.4f + 0.4f * v + sun, 1.0f - 0.5f * v + sun});
        }
    image.name = "sky";
    image.loaded = 1;
}

// Processor time of the whole process, all threads, in seconds.
double processorSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

struct Timing {
    double wall = 1e30;        // best run
    double processor = 1e30;   // processor time of that run; on a busy machine
                               // it shows the work that the wall time hides
};

Timing best(int threads, int runs) {
    omp_set_num_threads(threads);
    Timing t;
    for (int r = 0; r < runs; ++r) {
        const double cpu = processorSeconds();
        const auto start = std::chrono::steady_clock::now();
        bakeSkyCube();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        if (elapsed.count() < t.wall) t = {elapsed.count(), processorSeconds() - cpu};
        releaseSkyCube();
    }
    return t;
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
    fillExponentTable();
    makeSky(registry.skyLight.image);

    const Timing one = best(1, runs);
    const Timing two = best(2, runs);
    std::printf("sky bake %dx%d -> 6 x 256 x 256 texels, 16 samples each (best of %d)\n", kWidth, kHeight, runs);
    std::printf("  1 thread   %8.3f s wall %8.3f s processor\n", one.wall, one.processor);
    std::printf("  2 threads  %8.3f s wall %8.3f s processor   speed-up %.2f\n", two.wall, two.processor,
                one.wall / two.wall);
    return 0;
}
