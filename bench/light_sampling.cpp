// What sampling the points of the geometry light buys at equal wall-clock
// time, on a scene directory (the Cornell example by default, whose lamp is
// a virtual light). A long render with the light sampled is the reference;
// then two renders of the same size each get the same budget of seconds,
// one with the light sampled (LIGHT_SAMPLE samples, 16 as the example has
// them, by default) and one without, where only the bounces find the lamp. Each renders frame after
// frame into the running mean until its budget is spent. Prints the frames
// done, the RMSE of each against the reference over all pixels and
// channels, and the ratio of the squared errors (without / with).
//
// The geometry light's photon count is set to 0 in all three renders: with
// photons asked for, the light's weights leave the caustic paths to them,
// and a path traced image (distance 0) has no photon estimate, so the two
// settings would converge to different images.
//
//   light_sampling [SCENE_DIR] [BUDGET_SECONDS] [REFERENCE_FRAMES] [LIGHT_SAMPLE]
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/random.h"
#include "core/records.h"
#include "core/registry.h"
#include "lv.h"
#include "render/frame.h"
#include "scene/directory_walk.h"

namespace {

constexpr int kSize = 128;
// Frames the timed renders may reach: the camera's sample count, large so
// that the running mean goes on.
constexpr int kCameraSample = 4096;
// The running mean and the sample indices keep 16 bits.
constexpr int kMaxFrames = 65535;

using Clock = std::chrono::steady_clock;

struct Settings {
    int rendererSample = 0;
    int bounce = 0;
    float clamp[3] = {0.0f, 0.0f, 0.0f};
    int sceneLightSample = 0;
    int scenePhoton = 0;
};

struct Run {
    bool ok = false;
    int frames = 0;
    double seconds = 0.0;
    std::vector<float> image;   // r, g, b per pixel, row by row
};

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return in ? a + " " + b + " " + c : std::string("unknown");
}

// Reads the scene in the working directory with its report captured, fixes
// the size, the light's sample count and the camera's frames, and prepares
// it. False when the scene has no camera.
bool prepare(uint64_t seed, int lightSample, int cameraSample, std::ostringstream& report, std::streambuf*& saved,
             Settings* settings) {
    saved = std::cout.rdbuf(report.rdbuf());
    lvStartup();
    seedHardwareRandom(seed);
    readSceneDirectory("./");
    if (settings) {
        settings->rendererSample = registry.rendererSample;
        settings->bounce = registry.bounce;
        for (int k = 0; k < 3; ++k) settings->clamp[k] = registry.clamp[k];
        settings->sceneLightSample = registry.geometryLight.sample;
        settings->scenePhoton = registry.geometryLight.photon;
    }
    registry.geometryLight.photon = 0;
    if (registry.cameras.empty()) {
        lvShutdown();
        std::cout.rdbuf(saved);
        return false;
    }
    Camera& camera = registry.cameras[0];
    // The first hit spreads its lobes' and the light's budgets over the
    // camera's frames. Both budgets grow with the frames here, so that each
    // frame spends what a frame of the scene's own camera spends, and the
    // weights see the scene's ratio of the two.
    const int scale = std::max(1, cameraSample / std::max(1, camera.sample));
    registry.rendererSample *= scale;
    registry.geometryLight.sample = lightSample * scale;
    camera.width = camera.height = kSize;
    camera.sample = cameraSample;
    for (Aov& aov : camera.aovs) aov.image.name.clear();   // nothing is written
    lvInitialize();
    registry.frameCounter = 0;
    // Preparation turns the light's samples off when it finds no emitting
    // area under the root object.
    if (lightSample > 0 && registry.geometryLight.sample == 0)
        std::fprintf(stderr, "warning: the geometry light found no emitting area under the root object; "
                             "nothing is sampled\n");
    return true;
}

// Renders until `frames` frames are done or `budget` seconds have gone by
// (a budget of 0 has no limit), and keeps the beauty image.
Run render(uint64_t seed, int lightSample, int cameraSample, int frames, double budget, Settings* settings = nullptr) {
    std::ostringstream report;
    std::streambuf* saved = nullptr;
    Run run;
    if (!prepare(seed, lightSample, cameraSample, report, saved, settings)) return run;
    const auto start = Clock::now();
    for (;;) {
        renderFrame();
        ++run.frames;
        const std::chrono::duration<double> elapsed = Clock::now() - start;
        run.seconds = elapsed.count();
        if (run.frames >= frames || (budget > 0.0 && run.seconds >= budget)) break;
        // Keep the captured report from growing without end.
        if (run.frames % 256 == 0) report.str("");
    }
    const ImageRecord& image = registry.cameras[0].aovs[0].image;
    const int pixels = image.width * image.height;
    run.image.resize(size_t(pixels) * 3);
    for (int i = 0; i < pixels; ++i) {
        const Color c = storedPixel(image, i);
        run.image[size_t(i) * 3 + 0] = c.x;
        run.image[size_t(i) * 3 + 1] = c.y;
        run.image[size_t(i) * 3 + 2] = c.z;
    }
    lvFinalize();
    lvShutdown();
    std::cout.rdbuf(saved);
    run.ok = true;
    return run;
}

double meanSquaredError(const std::vector<float>& a, const std::vector<float>& b) {
    double sum = 0.0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double d = double(a[i]) - double(b[i]);
        sum += d * d;
    }
    return a.empty() ? 0.0 : sum / double(a.size());
}

// Pixels that see an emitter, or lie next to one that does: there the
// pixel's own jitter across the emitter's edge makes most of the noise, and
// sampling a light does nothing for it. An emitter is a pixel whose
// reference mean over the channels passes kEmitterLevel (the lit walls stay
// below 1).
constexpr float kEmitterLevel = 2.0f;
std::vector<char> emitterMask(const std::vector<float>& reference) {
    std::vector<char> mask(size_t(kSize) * kSize, 0);
    for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x) {
            const float* c = &reference[(size_t(y) * kSize + x) * 3];
            if ((c[0] + c[1] + c[2]) / 3.0f <= kEmitterLevel) continue;
            for (int v = std::max(0, y - 1); v <= std::min(kSize - 1, y + 1); ++v)
                for (int u = std::max(0, x - 1); u <= std::min(kSize - 1, x + 1); ++u) mask[size_t(v) * kSize + u] = 1;
        }
    return mask;
}

// The squared error summed over the pixels inside the mask (inside true) or
// outside it, divided by all the values of the image.
double maskedSquaredError(const std::vector<float>& a, const std::vector<float>& b, const std::vector<char>& mask,
                          bool inside) {
    double sum = 0.0;
    for (size_t i = 0; i < a.size(); ++i) {
        if ((mask[i / 3] != 0) != inside) continue;
        const double d = double(a[i]) - double(b[i]);
        sum += d * d;
    }
    return a.empty() ? 0.0 : sum / double(a.size());
}

double meanValue(const std::vector<float>& a) {
    double sum = 0.0;
    for (float v : a) sum += v;
    return a.empty() ? 0.0 : sum / double(a.size());
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path source = std::filesystem::path(__FILE__).parent_path().parent_path();
    const std::string directory = argc > 1 ? argv[1] : (source / "examples" / "cornell").string();
    const double budget = argc > 2 ? std::max(0.1, std::atof(argv[2])) : 5.0;
    const int referenceFrames = argc > 3 ? std::clamp(std::atoi(argv[3]), 1, kMaxFrames - 1) : 600;
    // The light's samples per first hit over all frames, as a geometry_light block's `sample`.
    const int lightSample = argc > 4 ? std::max(1, std::atoi(argv[4])) : 16;
    if (chdir(directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot enter %s\n", directory.c_str());
        return 2;
    }
    const std::string name = std::filesystem::current_path().filename().string();
    const int threads = std::min(omp_get_max_threads(), kMaxThreads);
    omp_set_num_threads(threads);
    std::printf("%s: %d x %d pixels on %d threads, load average %s\n", name.c_str(), kSize, kSize, threads,
                loadAverage().c_str());

    Settings settings;
    const auto referenceStart = Clock::now();
    const Run reference =
        render(7, lightSample, std::max(kCameraSample, referenceFrames + 1), referenceFrames, 0.0, &settings);
    if (!reference.ok) {
        std::fprintf(stderr, "%s has no camera\n", name.c_str());
        return 2;
    }
    const std::chrono::duration<double> referenceElapsed = Clock::now() - referenceStart;
    std::printf("scene: renderer sample %d, bounce %d, clamp %g %g %g, geometry light sample %d, photon %d\n",
                settings.rendererSample, settings.bounce, settings.clamp[0], settings.clamp[1], settings.clamp[2],
                settings.sceneLightSample, settings.scenePhoton);
    std::printf("here: camera sample %d, with the renderer's and the light's samples scaled alike, so that a frame "
                "spends what a frame of the scene's camera spends; geometry light photon 0\n",
                kCameraSample);
    std::printf("reference   light sample %2d %6d frames %8.2f s (%.2f s with preparation), mean %.5f\n", lightSample,
                reference.frames, reference.seconds, referenceElapsed.count(), meanValue(reference.image));

    struct Case {
        const char* label;
        int lightSample;
        uint64_t seed;
        Run run;
        double mse = 0.0;
    };
    Case cases[2] = {{"sampled", lightSample, 11, {}}, {"bounces", 0, 13, {}}};
    for (Case& c : cases) {
        c.run = render(c.seed, c.lightSample, kCameraSample, kCameraSample, budget);
        c.mse = meanSquaredError(c.run.image, reference.image);
        std::printf("%-11s light sample %2d %6d frames %8.2f s %8.1f frames/s, mean %.5f, RMSE %.6f%s\n", c.label,
                    c.lightSample, c.run.frames, c.run.seconds, c.run.seconds > 0.0 ? c.run.frames / c.run.seconds : 0.0,
                    meanValue(c.run.image), std::sqrt(c.mse),
                    c.run.frames >= kCameraSample ? " (stopped at the camera's frames)" : "");
    }
    // The reference's own noise is in both errors: about the sampled error
    // scaled down by the ratio of frames.
    const double referenceNoise = cases[0].mse * double(cases[0].run.frames) / double(reference.frames);
    std::printf("reference noise (estimated) %.3g of squared error, %.1f%% of the sampled render's\n", referenceNoise,
                cases[0].mse > 0.0 ? 100.0 * referenceNoise / cases[0].mse : 0.0);
    const double ratio = cases[0].mse > 0.0 ? cases[1].mse / cases[0].mse : 0.0;
    const double time = (cases[1].run.frames > 0 && cases[0].run.frames > 0)
                            ? (cases[0].run.seconds / cases[0].run.frames) / (cases[1].run.seconds / cases[1].run.frames)
                            : 0.0;
    std::printf("squared error ratio (bounces / sampled) %.3f at equal time; a sampled frame costs %.2f bounce frames\n",
                ratio, time);
    // Where the error lies: the emitter's own pixels against the rest.
    const std::vector<char> mask = emitterMask(reference.image);
    const long edge = std::count(mask.begin(), mask.end(), char(1));
    const double inside[2] = {maskedSquaredError(cases[0].run.image, reference.image, mask, true),
                              maskedSquaredError(cases[1].run.image, reference.image, mask, true)};
    const double rest[2] = {cases[0].mse - inside[0], cases[1].mse - inside[1]};
    std::printf("pixels seeing an emitter or next to one: %ld of %d, with %.1f%% of the sampled render's squared "
                "error and %.1f%% of the bounces'; over the other pixels the ratio is %.3f\n",
                edge, kSize * kSize, cases[0].mse > 0.0 ? 100.0 * inside[0] / cases[0].mse : 0.0,
                cases[1].mse > 0.0 ? 100.0 * inside[1] / cases[1].mse : 0.0, rest[0] > 0.0 ? rest[1] / rest[0] : 0.0);
    std::printf("sampling the lamp %s the squared error by at least 4x (load average %s)\n",
                ratio >= 4.0 ? "cuts" : "does NOT cut", loadAverage().c_str());
    return ratio >= 4.0 ? 0 : 1;
}
