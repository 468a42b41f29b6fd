// What progressive final gathering buys against path tracing at equal
// wall-clock time, on a scene directory and a variant folder that turns it
// into final gathering (the Cornell example and its "gather" folder by
// default, laid over the scene as scripts/render-example.sh lays it).
//
// Both modes render the scene with the variant's settings (its photons, its
// gather rays per pixel, its photon tree radius); path tracing then has
// distance 0 and PATH_BOUNCE diffuse or glossy bounces (8 by default, the
// photons' own depth), so that both converge to the same image but for the
// cells' bias: a cell holds the light of every bounce the photons make,
// which a path tracer with the example's 2 bounces would not reach.
//
// A long path traced render is the reference. Then each mode gets the same
// budget of seconds, counted from the start of the preparation, so that the
// photon cast, the tree and the cells are in the final gathering's budget,
// and renders frame after frame into the running mean until the budget is
// spent. After every frame the RMSE against the reference (over all pixels
// and channels) is noted with the time. Prints the frames done, the RMSE of
// each and their ratio at equal time, and the time that final gathering
// took to reach the error that path tracing had at the end of its budget.
// Last, the bias of each mode against the reference: the difference of the
// image means, and of the means of blocks of 32 x 32 pixels, in per cent.
// bench/scenes/separate_box with its "gather" folder is a box whose walls,
// blocks and lamp are objects of their own, placed as instances.
// With IMAGE_DIR, the three images are written there as reference.pfm,
// path.pfm and gathering.pfm, to see where the two modes differ.
//
//   final_gathering [SCENE_DIR] [VARIANT_DIR] [BUDGET_SECONDS] [REFERENCE_FRAMES] [PATH_BOUNCE] [IMAGE_DIR]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "bench_scene.h"
#include "render/frame.h"
#include "lights/lights.h"

namespace {

constexpr int kSize = 128;
// Frames the renders may reach: the camera's sample count, large so that
// the running mean goes on.
constexpr int kCameraSample = 4096;
// The running mean and the sample indices keep 16 bits.
constexpr int kMaxFrames = 65535;

using Clock = std::chrono::steady_clock;
using Pixels = std::vector<Color>;

struct Mode {
    const char* label;
    bool gather;
    int pathBounce;
};

struct Point {
    double seconds;   // since the start of the preparation
    double mse;
};

struct Run {
    bool ok = false;
    int frames = 0;
    double seconds = 0.0;        // preparation and frames
    double preparation = 0.0;    // lvInitialize alone
    double castSeconds = 0.0;    // the photon cast, from the report
    Pixels image;                // the bottom row first
    std::vector<Point> trace;    // error after each frame, when a reference is given
    double mse = 0.0;            // the last error noted
};

struct Settings {
    float distance = 0.0f, resolution = 0.0f, radius = 0.0f;
    int bounce = 0, rendererSample = 0, cameraSample = 0, lightSample = 0;
    int geometryPhoton = 0, skyPhoton = 0;
    int64_t pointPhoton = 0;
};

// The beauty image being rendered.
Pixels beautyPixels() {
    const ImageRecord& image = registry.cameras[0].aovs[0].image;
    Pixels out(size_t(image.width) * size_t(image.height));
    for (size_t i = 0; i < out.size(); ++i) out[i] = storedPixel(image, int(i));
    return out;
}

// The squared difference of the beauty image being rendered from
// `reference`, averaged over all pixels and channels.
double errorAgainst(const Pixels& reference) {
    const ImageRecord& image = registry.cameras[0].aovs[0].image;
    double sum = 0.0;
    for (size_t i = 0; i < reference.size(); ++i) {
        const Color d = storedPixel(image, int(i)) - reference[i];
        sum += double(d.x) * d.x + double(d.y) * d.y + double(d.z) * d.z;
    }
    return reference.empty() ? 0.0 : sum / (3.0 * double(reference.size()));
}

double channelMean(const Pixels& pixels) {
    const double sum = std::accumulate(pixels.begin(), pixels.end(), 0.0, [](double a, Color c) {
        return a + double(c.x) + double(c.y) + double(c.z);
    });
    return pixels.empty() ? 0.0 : sum / (3.0 * double(pixels.size()));
}

// How far `image` lies from `reference` in the mean of all channels and in
// the means of its blocks of 32 x 32 pixels, relative to the reference's,
// in per cent. Averaging a block takes most of the noise away, so that what
// is left of a converged render is its bias.
struct Bias {
    double mean = 0.0, largest = 0.0, rms = 0.0;
    int largestX = 0, largestY = 0;
};
Bias biasAgainst(const Pixels& image, const Pixels& reference) {
    constexpr int kBlock = 32, kBlocks = kSize / kBlock;
    Bias bias;
    const double m = channelMean(reference);
    bias.mean = m > 0.0 ? 100.0 * (channelMean(image) / m - 1.0) : 0.0;
    for (int by = 0; by < kBlocks; ++by)
        for (int bx = 0; bx < kBlocks; ++bx) {
            double a = 0.0, b = 0.0;
            for (int y = by * kBlock; y < (by + 1) * kBlock; ++y)
                for (int x = bx * kBlock; x < (bx + 1) * kBlock; ++x) {
                    const Color p = image[size_t(y * kSize + x)], q = reference[size_t(y * kSize + x)];
                    a += double(p.x) + p.y + p.z, b += double(q.x) + q.y + q.z;
                }
            const double e = b > 0.0 ? 100.0 * (a / b - 1.0) : 0.0;
            bias.rms += e * e / (kBlocks * kBlocks);
            if (std::fabs(e) > std::fabs(bias.largest)) bias.largest = e, bias.largestX = bx, bias.largestY = by;
        }
    bias.rms = std::sqrt(bias.rms);
    return bias;
}

// Reads the scene with the variant over it and sets the mode. False when
// the scene has no camera.
bool readInMode(uint64_t seed, const std::string& variant, const Mode& mode, int cameraSample, Settings* settings) {
    bench::readScene(seed, variant);
    if (settings) {
        settings->distance = registry.distance;
        settings->resolution = registry.resolution;
        settings->radius = registry.radius;
        settings->bounce = registry.bounce;
        settings->rendererSample = registry.rendererSample;
        settings->lightSample = registry.geometryLight.sample;
        settings->geometryPhoton = registry.geometryLight.photon;
        settings->skyPhoton = registry.skyLight.photon;
        for (const PointLight& light : registry.pointLights) settings->pointPhoton += light.photon;
        settings->cameraSample = registry.cameras.empty() ? 0 : registry.cameras[0].sample;
    }
    if (!mode.gather) {
        registry.distance = 0.0f;
        registry.resolution = 0.0f;
        registry.bounce = mode.pathBounce;
    }
    if (registry.cameras.empty()) return false;
    Camera& camera = registry.cameras[0];
    // The first hit spreads its lobes' and the light's budgets over the
    // camera's frames. Both budgets grow with the frames here, so that each
    // frame spends what a frame of the scene's own camera spends.
    const int scale = std::max(1, cameraSample / std::max(1, camera.sample));
    registry.rendererSample *= scale;
    registry.geometryLight.sample *= scale;
    registry.skyLight.sample *= scale;
    for (PointLight& light : registry.pointLights) light.sample *= scale;
    camera.width = camera.height = kSize;
    camera.sample = cameraSample;
    for (Aov& aov : camera.aovs) aov.image.name.clear();   // nothing is written
    return true;
}

// Renders until `frames` frames are done or `budget` seconds have gone by
// since the start of the preparation (a budget of 0 has no limit). With a
// reference, notes the error after every frame.
Run render(uint64_t seed, const std::string& variant, const Mode& mode, int cameraSample, int frames, double budget,
           const Pixels* reference, Settings* settings = nullptr) {
    Run run;
    bench::CapturedReport report;
    if (!readInMode(seed, variant, mode, cameraSample, settings)) {
        lvShutdown();
        return run;
    }
    const auto start = Clock::now();
    lvInitialize();
    registry.frameCounter = 0;
    run.preparation = std::chrono::duration<double>(Clock::now() - start).count();
    run.castSeconds = bench::reportedValue(report.text(), "photon cast", "seconds");
    for (;;) {
        renderFrame();
        ++run.frames;
        run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (reference) {
            run.mse = errorAgainst(*reference);
            run.trace.push_back({run.seconds, run.mse});
        }
        if (run.frames >= frames || (budget > 0.0 && run.seconds >= budget)) break;
        // Keep the captured report from growing without end.
        if (run.frames % 256 == 0) report.clear();
    }
    run.image = beautyPixels();
    lvFinalize();
    lvShutdown();
    run.ok = true;
    return run;
}

// A portable float map of an image of kSize x kSize pixels. Both keep the
// bottom row first.
void writeFloatMap(const std::string& path, const Pixels& image) {
    static_assert(sizeof(Color) == 3 * sizeof(float));
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (!out) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        return;
    }
    std::fprintf(out, "PF\n%d %d\n-1.0\n", kSize, kSize);
    std::fwrite(image.data(), sizeof(Color), image.size(), out);
    std::fclose(out);
}

// The time of the first frame whose error is at most `mse`, or -1.
double timeToReach(const Run& run, double mse) {
    for (const Point& p : run.trace)
        if (p.mse <= mse) return p.seconds;
    return -1.0;
}

// The error noted last at or before `seconds`, or the first one.
double errorAt(const Run& run, double seconds) {
    double mse = run.trace.empty() ? 0.0 : run.trace.front().mse;
    for (const Point& p : run.trace)
        if (p.seconds <= seconds) mse = p.mse;
    return mse;
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path examples = std::filesystem::path(__FILE__).parent_path().parent_path() / "examples";
    const std::string directory = argc > 1 ? argv[1] : (examples / "cornell").string();
    const std::string variant =
        std::filesystem::absolute(argc > 2 ? argv[2] : (examples / "cornell" / "gather").string()).string();
    const double budget = argc > 3 ? std::max(0.5, std::atof(argv[3])) : 30.0;
    const int referenceFrames = argc > 4 ? std::clamp(std::atoi(argv[4]), 1, kMaxFrames - 1) : 300;
    const int pathBounce = argc > 5 ? std::max(1, std::atoi(argv[5])) : 8;
    const std::string imageDirectory = argc > 6 ? std::filesystem::absolute(argv[6]).string() : "";
    if (!std::filesystem::is_directory(variant)) {
        std::fprintf(stderr, "no variant folder %s\n", variant.c_str());
        return 2;
    }
    if (chdir(directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot enter %s\n", directory.c_str());
        return 2;
    }
    const std::string name = std::filesystem::current_path().filename().string();
    const int threads = bench::useAllThreads();
    std::printf("%s with %s: %d x %d pixels on %d threads, load average %s\n", name.c_str(), variant.c_str(), kSize,
                kSize, threads, bench::loadAverage().c_str());

    const Mode path{"path tracing", false, pathBounce};
    const Mode gather{"gathering", true, 0};
    Settings settings;
    const Run reference = render(7, variant, path, std::max(kCameraSample, referenceFrames + 1), referenceFrames, 0.0,
                                 nullptr, &settings);
    if (!reference.ok) {
        std::fprintf(stderr, "%s has no camera\n", name.c_str());
        return 2;
    }
    std::printf("variant: distance %g, resolution %g, bounce %d, radius %g, renderer sample %d over the camera's %d "
                "frames, light sample %d; photons: geometry light %d, point lights %lld, sky %d\n",
                settings.distance, settings.resolution, settings.bounce, settings.radius, settings.rendererSample,
                settings.cameraSample, settings.lightSample, settings.geometryPhoton,
                (long long)settings.pointPhoton, settings.skyPhoton);
    std::printf("path tracing: the same with distance 0 and bounce %d; here the camera has %d frames, with the "
                "renderer's and the lights' samples scaled alike\n",
                pathBounce, kCameraSample);
    std::printf("reference   %-12s %6d frames %8.2f s, mean %.5f\n", path.label, reference.frames, reference.seconds,
                channelMean(reference.image));

    struct Entry {
        const Mode* mode;
        uint64_t seed;
        Run run;
        double mse = 0.0;
    };
    Entry entries[2] = {{&path, 11, {}}, {&gather, 13, {}}};
    for (Entry& e : entries) {
        e.run = render(e.seed, variant, *e.mode, kCameraSample, kCameraSample, budget, &reference.image);
        e.mse = e.run.mse;
        const double frameSeconds = e.run.seconds - e.run.preparation;
        std::printf("%-12s %6d frames %8.2f s (preparation %.2f s, photon cast %.2f s) %7.2f frames/s, mean %.5f, "
                    "RMSE %.6f%s\n",
                    e.mode->label, e.run.frames, e.run.seconds, e.run.preparation, e.run.castSeconds,
                    frameSeconds > 0.0 ? e.run.frames / frameSeconds : 0.0, channelMean(e.run.image), std::sqrt(e.mse),
                    e.run.frames >= kCameraSample ? " (stopped at the camera's frames)" : "");
    }
    const Run& pt = entries[0].run;
    const Run& fg = entries[1].run;
    std::printf("RMSE at a quarter, half and all of the budget: path tracing %.6f %.6f %.6f, gathering %.6f %.6f %.6f\n",
                std::sqrt(errorAt(pt, budget / 4)), std::sqrt(errorAt(pt, budget / 2)), std::sqrt(entries[0].mse),
                std::sqrt(errorAt(fg, budget / 4)), std::sqrt(errorAt(fg, budget / 2)), std::sqrt(entries[1].mse));

    // The reference's own noise is in both errors: about the path traced
    // error scaled down by the ratio of frames.
    const double referenceNoise = entries[0].mse * double(pt.frames) / double(reference.frames);
    std::printf("reference noise (estimated) %.3g of squared error, %.1f%% of the path traced render's\n",
                referenceNoise, entries[0].mse > 0.0 ? 100.0 * referenceNoise / entries[0].mse : 0.0);
    // The gathered error as bias plus noise that falls with the frames,
    // from the errors at half and at all of its frames.
    if (fg.trace.size() >= 4) {
        const Point& half = fg.trace[fg.trace.size() / 2 - 1];
        const double f1 = double(fg.trace.size() / 2), f2 = double(fg.trace.size());
        const double noise = (half.mse - entries[1].mse) / (1.0 / f1 - 1.0 / f2);
        const double bias = std::max(0.0, entries[1].mse - noise / f2 - referenceNoise);
        std::printf("gathering's error as bias and noise (estimated): bias RMSE %.6f, noise RMSE at the end %.6f\n",
                    std::sqrt(bias), std::sqrt(std::max(0.0, noise / f2)));
    }
    // Path tracing's own line shows how much of the difference noise makes
    // at its frames.
    for (const Entry& e : entries) {
        const Bias b = biasAgainst(e.run.image, reference.image);
        std::printf("%-12s against the reference: mean %+.2f %%, 32 x 32 blocks %.2f %% RMS, largest %+.2f %% "
                    "(block %d, %d from the bottom left)\n",
                    e.mode->label, b.mean, b.rms, b.largest, b.largestX, b.largestY);
    }
    const double ratio = entries[1].mse > 0.0 ? entries[0].mse / entries[1].mse : 0.0;
    std::printf("squared error ratio (path tracing / gathering) %.3f at equal time, RMSE ratio %.3f\n", ratio,
                std::sqrt(ratio));
    const double reach = timeToReach(fg, entries[0].mse);
    if (reach > 0.0)
        std::printf("gathering reached path tracing's final RMSE %.6f after %.2f s (preparation included): %.2f x less "
                    "wall time than path tracing's %.2f s\n",
                    std::sqrt(entries[0].mse), reach, pt.seconds / reach, pt.seconds);
    else
        std::printf("gathering did not reach path tracing's final RMSE %.6f within its %.2f s\n",
                    std::sqrt(entries[0].mse), fg.seconds);
    const double back = timeToReach(pt, entries[1].mse);
    if (back > 0.0)
        std::printf("path tracing reached gathering's final RMSE %.6f after %.2f s\n", std::sqrt(entries[1].mse), back);
    if (!imageDirectory.empty()) {
        writeFloatMap(imageDirectory + "/reference.pfm", reference.image);
        writeFloatMap(imageDirectory + "/path.pfm", pt.image);
        writeFloatMap(imageDirectory + "/gathering.pfm", fg.image);
    }
    std::printf("load average %s\n", bench::loadAverage().c_str());
    return 0;
}
