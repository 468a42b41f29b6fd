// How fast a render's error falls with its frames, and what that costs.
//
// The scene directory (the Cornell example by default) is rendered at 128 x
// 128 with 16, 64, 256 and 1024 frames, the renderer's sample equal to the
// frames (one ray of each lobe a frame at the first hit), twice: with direct
// light only (bounce 1) and with the scene's own bounce. Each render's RMSE
// is taken against a reference, over the pixels that neither see an emitter
// nor border one, and with the reference's own noise taken out (estimated
// from the difference of its two halves). The reference is the mean of many
// short independent runs, so that its noise is independent of the runs it
// judges; it is built once and cached under build/convergence/.
//
// Prints the RMSE, the exponent fitted to it over the frames, and the wall
// time of the frames that reach the 64- and 256-frame RMSE of the code
// before its samples were Owen-scrambled Sobol points (kBefore, measured on
// this machine then).
//
// With `blender` on the path it also writes a lambertian box of separate
// OBJ objects, renders it with both lumivane and Cycles (a box filter of
// width 1, no denoising, no adaptive sampling, no clamping, bounces
// matched), and prints the time each needs to reach the error of Cycles at
// 256 samples against Cycles' own long render of 16384 samples. lumivane's
// errors there hold whatever the two renderers differ by, too.
//
//   convergence [SCENE_DIR] [--runs N] [--rebuild] [--no-peer]
//
// --runs: the short runs of a new reference (64); --rebuild: a new reference
// even where one is cached; --no-peer: no Cycles.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench_scene.h"
#include "core/registry.h"
#include "lv.h"
#include "render/frame.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kSize = 128;
constexpr int kFrames[] = {16, 64, 256, 1024};
constexpr int kReferenceFrames = 256;

// The code before the samples became Owen-scrambled Sobol points, at 64 and
// 256 frames: RMSE and wall seconds, direct light only and with the scene's
// bounce, measured by this benchmark on this machine (2 threads) against the
// same references.
struct Before {
    const char* scene;
    int frames;
    double rmse[2];
    double seconds[2];
};
constexpr Before kBefore[] = {
    {"cornell", 64, {0.010987, 0.012117}, {1.30, 3.67}},
    {"cornell", 256, {0.008741, 0.009038}, {5.23, 15.14}},
    {"spotlight", 64, {0.002260, 0.006105}, {0.51, 0.56}},
    {"spotlight", 256, {0.000987, 0.002453}, {1.79, 2.22}},
};

struct Image {
    std::vector<float> rgb;   // r, g, b per pixel, the top row first
    double seconds = 0.0;     // wall time of the frames alone
};

// Renders the scene of the working directory for `frames` frames with
// `bounce` (the scene's own when 0).
Image render(int frames, int bounce, uint64_t seed) {
    bench::CapturedReport report;
    bench::readScene(seed, "");
    if (bounce > 0) registry.bounce = bounce;
    registry.rendererSample = frames;
    Camera& camera = registry.cameras[0];
    camera.width = camera.height = kSize;
    camera.regionLeft = camera.regionTop = 0;
    camera.regionRight = camera.regionBottom = kSize;
    camera.sample = frames;
    for (Aov& aov : camera.aovs) aov.image.name.clear();   // nothing is written
    lvInitialize();
    registry.frameCounter = 0;
    const auto start = Clock::now();
    for (int f = 0; f < frames; ++f) {
        renderFrame();
        report.clear();
    }
    Image image;
    image.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const ImageRecord& beauty = registry.cameras[0].aovs[0].image;
    image.rgb.assign(beauty.floatStore.begin(), beauty.floatStore.begin() + size_t(kSize) * kSize * 3);
    lvFinalize();
    lvShutdown();
    return image;
}

// The reference: two halves, each the mean of `runs` / 2 short runs.
struct Reference {
    std::vector<float> mean, half[2];
    int runs = 0;
    void takeMean() {
        mean.resize(half[0].size());
        for (size_t i = 0; i < mean.size(); ++i) mean[i] = 0.5f * (half[0][i] + half[1][i]);
    }
};

bool readReference(const fs::path& file, Reference& r) {
    std::ifstream in(file, std::ios::binary);
    const size_t n = size_t(kSize) * kSize * 3;
    r.half[0].resize(n);
    r.half[1].resize(n);
    int32_t header[2] = {0, 0};
    in.read(reinterpret_cast<char*>(header), sizeof header);
    if (!in || header[0] != kSize) return false;
    r.runs = header[1];
    for (auto& h : r.half) in.read(reinterpret_cast<char*>(h.data()), std::streamsize(n * sizeof(float)));
    if (!in) return false;
    r.takeMean();
    return true;
}

Reference buildReference(const fs::path& file, int runs, int bounce) {
    Reference r;
    const size_t n = size_t(kSize) * kSize * 3;
    r.runs = runs;
    const auto start = Clock::now();
    for (int h = 0; h < 2; ++h) {
        r.half[h].assign(n, 0.0f);
        for (int k = 0; k < runs / 2; ++k) {
            const Image image = render(kReferenceFrames, bounce, 100000u + uint64_t(h * runs + k));
            for (size_t i = 0; i < n; ++i) r.half[h][i] += image.rgb[i] / float(runs / 2);
        }
    }
    std::printf("  reference of %d runs of %d frames built in %.0f s\n", runs, kReferenceFrames,
                std::chrono::duration<double>(Clock::now() - start).count());
    fs::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    const int32_t header[2] = {kSize, runs};
    out.write(reinterpret_cast<const char*>(header), sizeof header);
    for (const auto& h : r.half) out.write(reinterpret_cast<const char*>(h.data()), std::streamsize(n * sizeof(float)));
    r.takeMean();
    return r;
}

// Pixels that see an emitter (a mean above 2 in the reference: lit walls stay
// below 1) or border one: there the pixel's own jitter across the emitter's
// edge makes the noise, whatever the light sampling does.
std::vector<char> emitterMask(const std::vector<float>& reference) {
    std::vector<char> mask(size_t(kSize) * kSize, 0);
    for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x) {
            const float* c = &reference[(size_t(y) * kSize + x) * 3];
            if ((c[0] + c[1] + c[2]) / 3.0f <= 2.0f) continue;
            for (int v = std::max(0, y - 1); v <= std::min(kSize - 1, y + 1); ++v)
                for (int u = std::max(0, x - 1); u <= std::min(kSize - 1, x + 1); ++u) mask[size_t(v) * kSize + u] = 1;
        }
    return mask;
}

double meanSquare(const std::vector<float>& a, const std::vector<float>& b, const std::vector<char>& mask) {
    double sum = 0.0;
    size_t n = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        if (mask[i / 3]) continue;
        const double d = double(a[i]) - double(b[i]);
        sum += d * d;
        ++n;
    }
    return n ? sum / double(n) : 0.0;
}

// Least squares of log error on log frames: error = exp(a) frames^b.
struct Fit {
    double a = 0.0, b = 0.0;
    double framesFor(double error) const { return std::exp((std::log(error) - a) / b); }
};
Fit fitPowerLaw(const std::vector<double>& frames, const std::vector<double>& errors) {
    double mx = 0.0, my = 0.0;
    const double n = double(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        mx += std::log(frames[i]) / n;
        my += std::log(errors[i]) / n;
    }
    double sxy = 0.0, sxx = 0.0;
    for (size_t i = 0; i < frames.size(); ++i) {
        sxy += (std::log(frames[i]) - mx) * (std::log(errors[i]) - my);
        sxx += (std::log(frames[i]) - mx) * (std::log(frames[i]) - mx);
    }
    Fit f;
    f.b = sxx > 0.0 ? sxy / sxx : 0.0;
    f.a = my - f.b * mx;
    return f;
}

struct Curve {
    std::vector<double> frames, rmse, seconds;
    Fit fit;
    double secondsPerFrame = 0.0;
};

// The four renders of one setting against its reference, noise taken out.
Curve measure(const Reference& reference, int bounce, const char* label) {
    const std::vector<char> mask = emitterMask(reference.mean);
    const double referenceNoise = meanSquare(reference.half[0], reference.half[1], mask) / 4.0;
    std::printf("  reference noise %.6f RMSE (%d runs), %ld pixels masked\n", std::sqrt(referenceNoise), reference.runs,
                long(std::count(mask.begin(), mask.end(), char(1))));
    Curve c;
    for (int frames : kFrames) {
        const Image image = render(frames, bounce, 7000u + uint64_t(frames));
        const double rmse = std::sqrt(std::max(meanSquare(image.rgb, reference.mean, mask) - referenceNoise, 1e-20));
        c.frames.push_back(frames);
        c.rmse.push_back(rmse);
        c.seconds.push_back(image.seconds);
        std::printf("  %-7s %5d frames  RMSE %.6f  %8.2f s\n", label, frames, rmse, image.seconds);
        std::fflush(stdout);
    }
    c.fit = fitPowerLaw(c.frames, c.rmse);
    c.secondsPerFrame = c.seconds.back() / c.frames.back();
    std::printf("  %-7s error falls as frames^%.3f\n", label, c.fit.b);
    return c;
}

void compareWithBefore(const std::string& scene, int mode, const Curve& c) {
    for (const Before& before : kBefore) {
        if (scene != before.scene) continue;
        const double frames = c.fit.framesFor(before.rmse[mode]);
        const double seconds = frames * c.secondsPerFrame;
        std::printf("  before, %d frames: RMSE %.6f in %.2f s; reached now in %.1f frames, %.2f s: %.1f x less time\n",
                    before.frames, before.rmse[mode], before.seconds[mode], frames, seconds,
                    before.seconds[mode] / seconds);
    }
}

// The lambertian box that both renderers can express: separate OBJ objects
// for the floor, the walls, a ceiling of four quads around a square hole,
// the lamp just below the hole facing down, and two blocks. The floor is the
// root object's own geometry and places the others as instances.
using Quad = std::array<std::array<float, 3>, 4>;
struct BoxObject {
    const char* name;
    const char* shader;
    std::vector<Quad> quads;
};

std::vector<BoxObject> boxObjects() {
    using Q = Quad;
    const float h = 0.25f, lamp = 2.0f - 0.001f;
    auto block = [](float cx, float cz, float width, float height, float angle) {
        const float c = std::cos(angle), s = std::sin(angle), a = width / 2.0f;
        auto at = [&](float x, float y, float z) { return std::array<float, 3>{cx + c * x - s * z, y, cz + s * x + c * z}; };
        const float corners[4][2] = {{-a, -a}, {a, -a}, {a, a}, {-a, a}};
        std::vector<Q> quads;
        for (int i = 0; i < 4; ++i) {
            const float* p = corners[i];
            const float* q = corners[(i + 1) % 4];
            quads.push_back({at(p[0], 0, p[1]), at(q[0], 0, q[1]), at(q[0], height, q[1]), at(p[0], height, p[1])});
        }
        quads.push_back({at(-a, height, -a), at(-a, height, a), at(a, height, a), at(a, height, -a)});
        return quads;
    };
    return {
        {"floor", "white", {Q{{{-1, 0, 1}, {1, 0, 1}, {1, 0, -1}, {-1, 0, -1}}}}},
        {"back", "white", {Q{{{-1, 0, -1}, {1, 0, -1}, {1, 2, -1}, {-1, 2, -1}}}}},
        {"left", "red", {Q{{{-1, 0, 1}, {-1, 0, -1}, {-1, 2, -1}, {-1, 2, 1}}}}},
        {"right", "green", {Q{{{1, 0, -1}, {1, 0, 1}, {1, 2, 1}, {1, 2, -1}}}}},
        {"ceiling",
         "white",
         {Q{{{-1, 2, -1}, {-1, 2, 1}, {-h, 2, 1}, {-h, 2, -1}}}, Q{{{h, 2, -1}, {h, 2, 1}, {1, 2, 1}, {1, 2, -1}}},
          Q{{{-h, 2, -1}, {-h, 2, -h}, {h, 2, -h}, {h, 2, -1}}}, Q{{{-h, 2, h}, {-h, 2, 1}, {h, 2, 1}, {h, 2, h}}}}},
        {"lamp", "lamp", {Q{{{-h, lamp, -h}, {h, lamp, -h}, {h, lamp, h}, {-h, lamp, h}}}}},
        {"tall", "white", block(-0.35f, -0.35f, 0.6f, 1.2f, 0.3f)},
        {"short", "white", block(0.35f, 0.35f, 0.6f, 0.6f, -0.3f)},
    };
}

// Albedos and the lamp's radiance, shared with the Cycles script.
constexpr float kWhite[3] = {0.73f, 0.73f, 0.73f}, kRed[3] = {0.63f, 0.065f, 0.05f}, kGreen[3] = {0.14f, 0.45f, 0.091f};
constexpr float kLamp[3] = {17.0f, 12.0f, 4.0f};

void writeFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

std::string colour(const float (&c)[3]) {
    char text[96];
    std::snprintf(text, sizeof text, "%g %g %g", double(c[0]), double(c[1]), double(c[2]));
    return text;
}

void writeBox(const fs::path& dir, int bounce) {
    std::string objects, instances;
    for (const BoxObject& o : boxObjects()) {
        fs::create_directories(dir / "geometry");
        std::ofstream out(dir / "geometry" / (std::string(o.name) + ".obj"));
        out << "usemtl " << o.shader << '\n';
        for (const Quad& q : o.quads) {
            for (const auto& v : q) out << "v " << v[0] << ' ' << v[1] << ' ' << v[2] << '\n';
            out << "f -4 -3 -2 -1\n";
        }
        if (std::string(o.name) == "floor") continue;
        objects += "object\n  name " + std::string(o.name) + "\n  obj \"geometry/" + o.name + ".obj\"\nend\n\n";
        instances += "  instance\n    object " + std::string(o.name) +
                     "\n    matrix 1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1\n  end\n";
    }
    writeFile(dir / "geometry" / "box.lv",
              objects + "object\n  name room\n  obj \"geometry/floor.obj\"\n" + instances + "end\n");
    std::string shaders, cycles;
    for (const auto& [name, c] : {std::pair{"white", &kWhite}, std::pair{"red", &kRed}, std::pair{"green", &kGreen}}) {
        shaders += "shader\n  name \"" + std::string(name) + "\"\n  surface_shader\n    lambertian\n      color " +
                   colour(*c) + "\n    end\n  end\nend\n";
        cycles += std::string(name) + " diffuse " + colour(*c) + "\n";
    }
    cycles += "lamp emission " + colour(kLamp) + "\n";
    writeFile(dir / "cycles.txt", cycles);
    shaders += "shader\n  name \"lamp\"\n  surface_shader\n    emissive\n      color " + colour(kLamp) +
               "\n    end\n    sideness \"face\"\n    virtual_light 1\n  end\nend\n";
    writeFile(dir / "shader" / "box.lv", shaders);
    writeFile(dir / "light" / "light.lv",
              "geometry_light\n  photon 0\n  sample 16\nend\nsky_light\n  color 0 0 0\n  photon 0\nend\n");
    writeFile(dir / "render" / "render.lv", "render\n  final_gather\n    ray_depth 8\n    sample 16\n    bounce " +
                                                std::to_string(bounce) + "\n    distance 0\n    resolution 0\n  end\nend\n");
    const std::string pose = "  pose\n    position 0 1 3.9\n    target 0 1 0\n    up_vector 0 1 0\n    field_of_view 38\n  end\n";
    writeFile(dir / "camera" / "camera.lv", "camera\n  name \"front\"\n  resolution 128 128\n  sample 16\n" + pose + pose +
                                                "end\n");
}

// Cycles' images of the box at `samples`, bottom row first, with each
// render's wall time; empty when Blender failed.
struct CyclesRun {
    std::vector<int> samples;
    std::vector<std::vector<float>> images;
    std::vector<double> seconds;
};

CyclesRun renderWithCycles(const fs::path& box, const fs::path& script, int bounce, const std::vector<int>& samples) {
    std::string list;
    for (int s : samples) list.append(" ").append(std::to_string(s));
    const fs::path out = box / "cycles";
    fs::create_directories(out);
    const std::string command = "blender -b --factory-startup --python '" + script.string() + "' -- '" + box.string() +
                                "' '" + out.string() + "' " + std::to_string(bounce) + list + " > '" +
                                (out / "blender.log").string() + "' 2>&1";
    CyclesRun run;
    if (std::system(command.c_str()) != 0) {
        std::printf("  Blender failed; its output is in %s\n", (out / "blender.log").c_str());
        return run;
    }
    std::ifstream times(out / "times.txt");
    for (int s : samples) {
        double seconds = 0.0;
        times >> seconds;
        std::vector<float> rgb(size_t(kSize) * kSize * 3);
        std::ifstream in(out / ("cycles-" + std::to_string(s) + ".raw"), std::ios::binary);
        in.read(reinterpret_cast<char*>(rgb.data()), std::streamsize(rgb.size() * sizeof(float)));
        if (!in || !times) {
            std::printf("  Cycles' image of %d samples is missing\n", s);
            return {};
        }
        run.samples.push_back(s);
        run.images.push_back(std::move(rgb));
        run.seconds.push_back(seconds);
    }
    return run;
}

void comparePeer(const fs::path& buildDir, const fs::path& source, int bounce) {
    const fs::path box = buildDir / "convergence" / "box";
    writeBox(box, bounce);
    std::printf("\nlambertian box against Cycles, bounce %d (Cycles: %d bounces)\n", bounce, bounce - 1);
    const std::vector<int> samples = {16, 64, 256, 1024, 16384};
    const CyclesRun cycles = renderWithCycles(box, source / "bench" / "cycles_box.py", bounce, samples);
    if (cycles.images.empty()) return;
    const std::vector<float>& reference = cycles.images.back();
    const std::vector<char> mask = emitterMask(reference);
    std::vector<double> frames, errors;
    for (size_t i = 0; i + 1 < cycles.samples.size(); ++i) {
        const double e = std::sqrt(meanSquare(cycles.images[i], reference, mask));
        frames.push_back(cycles.samples[i]);
        errors.push_back(e);
        std::printf("  Cycles   %5d samples RMSE %.6f  %8.2f s\n", cycles.samples[i], e, cycles.seconds[i]);
    }
    const double target = errors[2];   // Cycles at 256 samples
    const double cyclesSeconds = cycles.seconds[2];

    const fs::path saved = fs::current_path();
    fs::current_path(box);
    std::vector<double> ours;
    double perFrame = 0.0;
    for (int f : kFrames) {
        const Image image = render(f, bounce, 9000u + uint64_t(f));
        const double e = std::sqrt(meanSquare(image.rgb, reference, mask));
        ours.push_back(e);
        perFrame = image.seconds / f;
        std::printf("  lumivane %5d frames  RMSE %.6f  %8.2f s\n", f, e, image.seconds);
    }
    fs::current_path(saved);
    std::vector<double> ourFrames(std::begin(kFrames), std::end(kFrames));
    const Fit fit = fitPowerLaw(ourFrames, ours);
    if (ours.back() > target) {
        std::printf("  lumivane does not reach Cycles' 256-sample RMSE %.6f in %d frames (Cycles: %.2f s)\n", target,
                    kFrames[3], cyclesSeconds);
        return;
    }
    const double seconds = fit.framesFor(target) * perFrame;
    std::printf("  to RMSE %.6f (Cycles at 256 samples): Cycles %.2f s, lumivane %.2f s (%.2f x Cycles' time)\n", target,
                cyclesSeconds, seconds, seconds / cyclesSeconds);
}

}  // namespace

int main(int argc, char** argv) {
    const fs::path source = fs::path(__FILE__).parent_path().parent_path();
    const fs::path buildDir = LV_BUILD_DIR;
    std::string directory = (source / "examples" / "cornell").string();
    int runs = 64;
    bool rebuild = false, peer = true;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--runs" && i + 1 < argc) runs = std::max(2, std::atoi(argv[++i]) / 2 * 2);
        else if (a == "--rebuild") rebuild = true;
        else if (a == "--no-peer") peer = false;
        else directory = a;
    }
    if (chdir(directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot enter %s\n", directory.c_str());
        return 2;
    }
    const std::string name = fs::current_path().filename().string();
    const int threads = bench::useAllThreads();
    std::printf("%s: %d x %d pixels on %d threads, load average %s\n", name.c_str(), kSize, kSize, threads,
                bench::loadAverage().c_str());

    bench::readScene(1, "");
    const int sceneBounce = std::max(registry.bounce, 1);
    for (Camera& camera : registry.cameras)
        for (Aov& aov : camera.aovs) aov.image.name.clear();
    lvFinalize();
    lvShutdown();
    const int bounces[2] = {1, sceneBounce};
    const char* labels[2] = {"direct", "bounces"};
    for (int mode = 0; mode < 2; ++mode) {
        if (mode == 1 && sceneBounce == 1) break;
        std::printf("\n%s, bounce %d\n", mode == 0 ? "direct light only" : "the scene's bounce", bounces[mode]);
        const fs::path file = buildDir / "convergence" / (name + "-bounce" + std::to_string(bounces[mode]) + ".reference");
        Reference reference;
        if (rebuild || !readReference(file, reference) || reference.runs != runs)
            reference = buildReference(file, runs, bounces[mode]);
        const Curve c = measure(reference, bounces[mode], labels[mode]);
        compareWithBefore(name, mode, c);
    }
    if (!peer) return 0;
    if (std::system("command -v blender > /dev/null 2>&1") != 0) {
        std::printf("\nBlender is not installed: no comparison with Cycles\n");
        return 0;
    }
    for (int bounce : {1, 4}) comparePeer(buildDir, source, bounce);
    return 0;
}
