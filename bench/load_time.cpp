// Smoothing and displacement throughput at load time: the shared terrain mesh
// (or a procedural wavy grid of 1 M triangles when the assets are absent, or
// with --procedural), smoothed, then displaced at levels 1, 4 and 8, on 1 and
// 2 threads. Prints triangles in and out per second of wall time and of
// processor time, and the memory per output triangle: stored, and at the
// peak of displacement and of the smoothing that follows it. --smooth-only
// stops after smoothing; --level n and --threads n keep one level and one
// team size; --repeat n smooths n times instead of 5 and keeps the fastest;
// --digest adds a hash of every result, so that a faster version can be
// checked to give the same arrays.
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/registry.h"
#include "geometry/load_time.h"
#include "scene/geometry_reader.h"
#include "shading/shader.h"

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Processor time of all threads of the process, in seconds: on a shared
// machine the share of the processors that the run actually had.
double cpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// A value of /proc/self/status in bytes, 0 where there is none.
double statusBytes(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind(key, 0) == 0) return std::atof(line.c_str() + std::strlen(key)) * 1024.0;
    return 0.0;
}

// Starts a new peak of the resident set, where the kernel allows it.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

size_t partBytes(const Part& part) {
    size_t bytes = part.positions.size() * sizeof(Vector) + part.normals.size() * 3 + part.tangents.size() * 3 +
                   part.triangles.size() * sizeof(Triangle) + part.tetragons.size() * sizeof(Tetragon);
    for (const auto& c : part.uvChannels) bytes += c.elements.size() * sizeof(UV);
    for (const auto& c : part.scalarChannels) bytes += c.elements.size() * sizeof(float);
    for (const auto& c : part.vectorChannels) bytes += c.elements.size() * sizeof(Vector);
    return bytes;
}

// FNV-1a over the bytes of all of a part's arrays that smoothing and
// displacement write.
uint64_t digest(const Part& part) {
    uint64_t h = 14695981039346656037ull;
    auto bytes = [&h](const auto& elements) {
        const auto* p = reinterpret_cast<const unsigned char*>(elements.data());
        for (size_t i = 0; i < elements.size() * sizeof(elements[0]); ++i) h = (h ^ p[i]) * 1099511628211ull;
        h = (h ^ elements.size()) * 1099511628211ull;
    };
    bytes(part.positions), bytes(part.normals), bytes(part.tangents), bytes(part.triangles), bytes(part.tetragons);
    for (const auto& c : part.uvChannels) bytes(c.elements);
    for (const auto& c : part.scalarChannels) bytes(c.elements);
    for (const auto& c : part.vectorChannels) bytes(c.elements);
    return h;
}

struct Options {
    bool smoothOnly = false, digests = false;
    int level = 0, threads = 0;   // 0: all
    int repeat = 5;
};

size_t faceCount(const Part& part) { return part.triangles.size() + 2 * part.tetragons.size(); }

// A height field over a square of n x n cells of size 1, two triangles each.
// (Faces much smaller than 0.01 would have normals shorter than unit by the
// guarded normalisation, and would not smooth.)
Part wavyGrid(int n) {
    Part part;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            const float x = float(i), y = float(j);
            part.positions.push_back({x, y, 2.0f * std::sin(0.05f * x) * std::cos(0.043f * y)});
        }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const uint32_t a = uint32_t(j * (n + 1) + i), b = a + 1, c = a + uint32_t(n) + 2, d = a + uint32_t(n) + 1;
            part.triangles.push_back({a, b, c, 0});
            part.triangles.push_back({a, c, d, 0});
        }
    return part;
}

Part withShader(Part part, uint32_t shader) {
    for (Triangle& t : part.triangles) t.shader = shader;
    for (Tetragon& q : part.tetragons) q.shader = shader;
    return part;
}

void run(const std::string& name, const Part& mesh, uint32_t smoothShader, const uint32_t displaceShaders[3],
         const Options& options) {
    const size_t input = faceCount(mesh);
    std::printf("%s: %zu triangles, %zu vertices\n", name.c_str(), input, mesh.positions.size());
    for (int threads : {1, 2}) {
        if (options.threads != 0 && threads != options.threads) continue;
        omp_set_num_threads(threads);
        uint64_t hash = 0;
        double fastest = 1e30, leastCpu = 1e30;
        size_t vertices = 0;
        for (int k = 0; k < options.repeat; ++k) {
            Part part = withShader(mesh, smoothShader);
            const auto t0 = std::chrono::steady_clock::now();
            const double c0 = cpuSeconds();
            smooth(part);
            fastest = std::min(fastest, seconds(t0));
            leastCpu = std::min(leastCpu, cpuSeconds() - c0);
            vertices = part.positions.size();
            if (options.digests) hash = digest(part);
        }
        std::printf("  smooth             %d thread%s %8.2f M triangles in/s  %6.2f M per processor second  "
                    "(%zu vertices out)\n",
                    threads, threads == 1 ? " " : "s", double(input) / fastest / 1e6, double(input) / leastCpu / 1e6,
                    vertices);
        if (options.digests) std::printf("    digest %016llx\n", (unsigned long long)hash);
    }
    if (options.smoothOnly) return;
    const int levels[3] = {1, 4, 8};
    for (int l = 0; l < 3; ++l)
        for (int threads : {1, 2}) {
            if ((options.level != 0 && levels[l] != options.level) ||
                (options.threads != 0 && threads != options.threads))
                continue;
            omp_set_num_threads(threads);
            Part part = withShader(mesh, displaceShaders[l]);
            const double before = statusBytes("VmRSS:");
            resetPeak();
            const auto t0 = std::chrono::steady_clock::now();
            const double c0 = cpuSeconds();
            displace(part);
            const double displaced = seconds(t0), displacedCpu = cpuSeconds() - c0;
            const size_t output = part.triangles.size();
            const double displacedPeak = statusBytes("VmHWM:") - before;
            const uint64_t displacedHash = options.digests ? digest(part) : 0;
            const auto t1 = std::chrono::steady_clock::now();
            smooth(part);   // as part preparation does after displacement
            const double smoothed = seconds(t1);
            const double peak = statusBytes("VmHWM:") - before;
            std::printf("  displace level %d  %d thread%s %8.2f M triangles out/s %7.3f M in/s  %6.2f M out per "
                        "processor second (%zu out), then smooth %6.2f M in/s; %5.1f bytes per output triangle "
                        "stored, %5.1f at the peak of displacement, %5.1f with the smoothing after\n",
                        levels[l], threads, threads == 1 ? " " : "s", double(output) / displaced / 1e6,
                        double(input) / displaced / 1e6, double(output) / displacedCpu / 1e6, output,
                        double(output) / smoothed / 1e6,
                        double(partBytes(part)) / double(output), displacedPeak / double(output),
                        peak / double(output));
            if (options.digests)
                std::printf("    digest %016llx, smoothed %016llx\n", (unsigned long long)displacedHash,
                            (unsigned long long)digest(part));
        }
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    bool procedural = false;
    Options options;
    for (int i = 1; i < argc; ++i) {
        procedural = procedural || std::strcmp(argv[i], "--procedural") == 0;
        options.smoothOnly = options.smoothOnly || std::strcmp(argv[i], "--smooth-only") == 0;
        options.digests = options.digests || std::strcmp(argv[i], "--digest") == 0;
        if (i + 1 < argc && std::strcmp(argv[i], "--level") == 0) options.level = std::atoi(argv[i + 1]);
        if (i + 1 < argc && std::strcmp(argv[i], "--threads") == 0) options.threads = std::atoi(argv[i + 1]);
        if (i + 1 < argc && std::strcmp(argv[i], "--repeat") == 0) options.repeat = std::max(1, std::atoi(argv[i + 1]));
    }
    registry.shaders.push_back(Shader{});
    Shader smoothing;
    smoothing.geometry.smooth_angle = 60.0f;
    registry.shaders.push_back(smoothing);
    uint32_t displacing[3];
    for (int level : {1, 4, 8}) {
        Shader shader = smoothing;
        SurfaceElement element;
        element.level = level;
        element.color = {0.0f, 0.0f, 0.002f};   // along the normal
        shader.geometry.vector.push_back(element);
        displacing[level == 1 ? 0 : level == 4 ? 1 : 2] = uint32_t(registry.shaders.size());
        registry.shaders.push_back(shader);
    }

    const std::string path = std::string(LV_SHARED_ASSETS) + "/terrain.obj";
    if (!procedural && std::filesystem::exists(path)) {
        Part part;
        GeometryReader reader;
        reader.part = &part;
        readObj(reader, path);
        compileReader(reader, path);
        run("terrain.obj", part, 1, displacing, options);
    } else {
        if (!procedural) std::printf("load_time: %s is absent, the procedural mesh stands in\n", path.c_str());
        run("procedural grid", wavyGrid(710), 1, displacing, options);
    }
    return 0;
}
