// How loading grows with the size of a mesh. For each size (in millions of
// triangles, --sizes 1,10 by default; --sizes 1 for a quick run) a smooth
// height field is written as an OBJ file of `v` and `f` lines, cached under
// the build directory and reused, then measured in child processes of their
// own, so that each peak resident set belongs to one size and one task:
//   - readObj, compileReader and the hierarchy build (as object preparation
//     runs it), one after the other, and their peak memory;
//   - the time to the first pixel: the field as one lambertian object under a
//     plain sky (no photons), 256 x 256, one frame, run by lvGo from a scene
//     directory, up to the end of its first frame; and the peak of that run;
//   - when found at configure time, tinyobjloader's read of the same file and
//     Embree 3's build (medium quality) of the same triangles.
// Then the growth from the smallest size to the largest of the triangles per
// second of reading and of the hierarchy build: 1.0 is linear.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bench_scene.h"
#include "core/registry.h"
#include "geometry/object.h"
#include "scene/geometry_reader.h"

#ifdef LV_HAVE_TINYOBJ
#include <tiny_obj_loader.h>
#endif
#ifdef LV_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

// What one child process sends back; each fills the fields of its task, the
// others stay negative.
struct Figures {
    double read = -1.0, compile = -1.0, build = -1.0, firstPixel = -1.0;
    uint64_t triangles = 0, vertices = 0;
};

// What the kernel counted of one child process: its peak resident set, and
// its processor seconds over its wall seconds, the threads it had on average.
struct Usage {
    double peakBytes = 0.0, threads = 0.0;
};

// Runs `measure` in a child process and returns what it sent back through a
// pipe; `usage` stays zero when the child failed.
template <typename Measure>
Figures inChild(Measure measure, Usage& usage) {
    usage = {};
    std::fflush(stdout);
    int channel[2];
    if (pipe(channel) != 0) return {};
    const auto t0 = Clock::now();
    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        const Figures figures = measure();
        const bool sent = write(channel[1], &figures, sizeof figures) == ssize_t(sizeof figures);
        _exit(sent ? 0 : 1);
    }
    close(channel[1]);
    Figures figures;
    const bool received = child > 0 && read(channel[0], &figures, sizeof figures) == ssize_t(sizeof figures);
    close(channel[0]);
    int status = 0;
    rusage counted{};
    if (child > 0) wait4(child, &status, 0, &counted);
    if (!received) return {};
    const double wall = secondsSince(t0);
    const double processor = double(counted.ru_utime.tv_sec + counted.ru_stime.tv_sec) +
                             1e-6 * double(counted.ru_utime.tv_usec + counted.ru_stime.tv_usec);
    usage = {double(counted.ru_maxrss) * 1024.0, processor / wall};
    return figures;
}

// A square grid of n x n cells over [-1, 1]^2, two triangles a cell, its
// height a sum of a few waves of fixed random directions and phases.
void writeField(const std::string& path, int n) {
    struct Wave {
        float x, y, phase, amplitude;
    };
    std::mt19937 random(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Wave> waves;
    for (int k = 0; k < 6; ++k) {
        const float angle = 6.2831853f * unit(random), frequency = 2.0f + 3.0f * float(k);
        waves.push_back({frequency * std::cos(angle), frequency * std::sin(angle), 6.2831853f * unit(random),
                         0.12f / (1.0f + float(k))});
    }
    const std::string partial = path + ".partial";
    std::FILE* file = std::fopen(partial.c_str(), "wb");
    if (!file) return;
    std::vector<char> buffer(size_t(1) << 22);
    std::setvbuf(file, buffer.data(), _IOFBF, buffer.size());
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            const float x = -1.0f + 2.0f * float(i) / float(n), y = -1.0f + 2.0f * float(j) / float(n);
            float z = 0.0f;
            for (const Wave& w : waves) z += w.amplitude * std::sin(w.x * x + w.y * y + w.phase);
            std::fprintf(file, "v %.6f %.6f %.6f\n", x, y, z);
        }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const long a = long(j) * (n + 1) + i + 1, b = a + 1, c = a + n + 1, d = c + 1;
            std::fprintf(file, "f %ld %ld %ld\nf %ld %ld %ld\n", a, b, d, a, d, c);
        }
    const bool written = std::fclose(file) == 0;
    if (written) std::filesystem::rename(partial, path);
}

// The file's triangles as a part, read and compiled, with both times.
Part loadField(const std::string& path, Figures& figures) {
    Part part;
    GeometryReader reader;
    reader.part = &part;
    const auto t0 = Clock::now();
    readObj(reader, path);
    figures.read = secondsSince(t0);
    const auto t1 = Clock::now();
    compileReader(reader, path);
    figures.compile = secondsSince(t1);
    figures.triangles = part.triangles.size() + 2 * part.tetragons.size();
    figures.vertices = part.positions.size();
    return part;
}

Figures measureLumivane(const std::string& path) {
    bench::CapturedReport quiet;
    registry.shaders.push_back(Shader{});
    Figures figures;
    Object object;
    object.parts.push_back(loadField(path, figures));
    registry.objects.push_back(std::move(object));
    registry.rootObject = 0;
    Object& root = registry.objects[0];
    const auto t0 = Clock::now();
    buildHierarchy(root);
    updateHierarchy(root);
    satOrder(root);
    figures.build = secondsSince(t0);
    return figures;
}

Clock::time_point firstPixelStart;
double firstPixelSeconds = -1.0;

void frameDone() {
    if (firstPixelSeconds < 0.0) firstPixelSeconds = secondsSince(firstPixelStart);
}

// A scene directory with the five folders around the cached OBJ file.
void writeScene(const std::string& directory, const std::string& obj) {
    const std::pair<const char*, std::string> files[] = {
        {"shader", "shader\n  name \"field\"\n  surface_shader\n    lambertian\n      color 0.6 0.55 0.5\n"
                   "    end\n  end\nend\n"},
        {"render", "render\n  final_gather\n    sample 16\n    bounce 1\n    distance 0\n    resolution 0\n"
                   "  end\nend\n"},
        {"light", "sky_light\n  color 1 1 1\n  sample 16\n  photon 0\nend\n"},
        {"camera", "camera\n  name \"view\"\n  resolution 256 256\n  sample 1\n  projection \"perspective\"\n"
                   "  pose\n    position 0 -2.4 1.4\n    target 0 0 0\n    up_vector 0 0 1\n"
                   "    field_of_view 45\n  end\nend\n"},
        {"geometry", "object\n  name field\n  shader \"field\"\n  obj \"" + obj + "\"\nend\n"},
    };
    for (const auto& [folder, text] : files) {
        std::filesystem::create_directories(directory + folder);
        std::ofstream(directory + folder + "/scene.lv") << text;
    }
}

Figures measureFirstPixel(const std::string& directory) {
    bench::CapturedReport quiet;
    registry.host.quiet = true;
    registry.host.frameDone = frameDone;
    firstPixelStart = Clock::now();
    lvGo(directory.c_str());
    Figures figures;
    figures.firstPixel = firstPixelSeconds;
    return figures;
}

#ifdef LV_HAVE_TINYOBJ
Figures measureTinyobj(const std::string& path) {
    tinyobj::attrib_t attrib;
    std::vector<tinyobj::shape_t> shapes;
    std::vector<tinyobj::material_t> materials;
    std::string warn, err;
    Figures figures;
    const auto t0 = Clock::now();
    tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str(), nullptr, true);
    figures.read = secondsSince(t0);
    for (const auto& shape : shapes) figures.triangles += shape.mesh.num_face_vertices.size();
    return figures;
}
#endif

#ifdef LV_HAVE_EMBREE
// The triangles as our reader gives them, then timed: Embree's scene commit.
Figures measureEmbree(const std::string& path) {
    bench::CapturedReport quiet;
    registry.shaders.push_back(Shader{});
    Figures loaded;
    const Part part = loadField(path, loaded);
    RTCDevice device = rtcNewDevice(nullptr);
    RTCScene scene = rtcNewScene(device);
    rtcSetSceneBuildQuality(scene, RTC_BUILD_QUALITY_MEDIUM);
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* vertices = static_cast<float*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0,
                                                                 RTC_FORMAT_FLOAT3, 12, part.positions.size()));
    for (const Vector& p : part.positions) *vertices++ = p.x, *vertices++ = p.y, *vertices++ = p.z;
    auto* indices = static_cast<unsigned*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0,
                                                                   RTC_FORMAT_UINT3, 12, loaded.triangles));
    for (const Triangle& t : part.triangles) *indices++ = t.a, *indices++ = t.b, *indices++ = t.c;
    for (const Tetragon& q : part.tetragons)
        *indices++ = q.a, *indices++ = q.b, *indices++ = q.c, *indices++ = q.c, *indices++ = q.d, *indices++ = q.a;
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(scene, geometry);
    rtcReleaseGeometry(geometry);
    Figures figures;
    const auto t0 = Clock::now();
    rtcCommitScene(scene);
    figures.build = secondsSince(t0);
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);
    return figures;
}
#endif

void printPeer(const char* name, double ours, double theirs) {
    if (theirs > 0.0) std::printf("   %s %8.3f s   ratio %5.2f", name, theirs, ours / theirs);
    std::printf("\n");
}

std::string megabytes(double bytes, uint64_t triangles) {
    char text[64];
    std::snprintf(text, sizeof text, "%7.1f MB (%5.1f bytes/triangle)", bytes / 1e6,
                  bytes / double(std::max<uint64_t>(triangles, 1)));
    return text;
}

struct Growth {
    double millions = 0.0, readRate = 0.0, buildRate = 0.0;
};

Growth measureSize(double millions, const std::string& cache) {
    char label[32];
    std::snprintf(label, sizeof label, "%gM", millions);
    const std::string path = cache + "/field-" + label + ".obj";
    const int n = std::max(1, int(std::lround(std::sqrt(millions * 1e6 / 2.0))));
    if (!std::filesystem::exists(path)) {
        const auto t0 = Clock::now();
        writeField(path, n);
        std::printf("wrote %s in %.1f s\n", path.c_str(), secondsSince(t0));
    }
    if (!std::filesystem::exists(path)) return {};

    Usage stages, render, tinyobjUsage, embreeUsage;
    const Figures ours = inChild([&] { return measureLumivane(path); }, stages);
    const std::string scene = cache + "/scene-" + label + "/";
    writeScene(scene, std::filesystem::absolute(path).string());
    const Figures run = inChild([&] { return measureFirstPixel(scene); }, render);
    std::filesystem::remove_all(scene);
    const uint64_t triangles = ours.triangles;
    std::printf("\n%s: %llu triangles, %llu vertices, %.1f MB of OBJ text\n", label, (unsigned long long)triangles,
                (unsigned long long)ours.vertices, double(std::filesystem::file_size(path)) / 1e6);
    if (stages.peakBytes == 0.0) {
        std::printf("  the measuring process failed\n");
        return {};
    }
    Figures tinyobj, embree;
#ifdef LV_HAVE_TINYOBJ
    tinyobj = inChild([&] { return measureTinyobj(path); }, tinyobjUsage);
#endif
#ifdef LV_HAVE_EMBREE
    embree = inChild([&] { return measureEmbree(path); }, embreeUsage);
#endif
    const double loaded = ours.read + ours.compile;
    std::printf("  read            %8.3f s  %6.2f M triangles/s\n", ours.read, double(triangles) / ours.read / 1e6);
    std::printf("  compile         %8.3f s\n", ours.compile);
    std::printf("  read + compile  %8.3f s", loaded);
    printPeer("tinyobjloader", loaded, tinyobj.read);
    std::printf("  hierarchy       %8.3f s  %6.2f M triangles/s", ours.build, double(triangles) / ours.build / 1e6);
    printPeer("Embree 3      ", ours.build, embree.build);
    std::printf("  first pixel     %8.3f s  (lvGo: read, prepare, one frame)", run.firstPixel);
    printPeer("read + build  ", run.firstPixel, tinyobj.read > 0.0 && embree.build > 0.0 ? tinyobj.read + embree.build : -1.0);
    std::printf("  peak memory     read to hierarchy %s\n", megabytes(stages.peakBytes, triangles).c_str());
    std::printf("                  first pixel       %s\n", megabytes(render.peakBytes, triangles).c_str());
    if (tinyobjUsage.peakBytes > 0.0)
        std::printf("                  tinyobjloader     %s  ratio %.2f\n",
                    megabytes(tinyobjUsage.peakBytes, triangles).c_str(), stages.peakBytes / tinyobjUsage.peakBytes);
    // On a shared machine the threads each process actually had.
    std::printf("  threads had     %.2f read to hierarchy, %.2f first pixel", stages.threads, render.threads);
    if (tinyobjUsage.threads > 0.0) std::printf(", %.2f tinyobjloader", tinyobjUsage.threads);
    if (embreeUsage.threads > 0.0) std::printf(", %.2f Embree 3 (with its load)", embreeUsage.threads);
    std::printf("\n");
    return {millions, double(triangles) / ours.read, double(triangles) / ours.build};
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<double> sizes = {1.0, 10.0};
    for (int i = 1; i + 1 < argc; ++i)
        if (std::string(argv[i]) == "--sizes") {
            sizes.clear();
            std::istringstream list(argv[i + 1]);
            for (std::string item; std::getline(list, item, ',');)
                if (std::atof(item.c_str()) > 0.0) sizes.push_back(std::atof(item.c_str()));
        }
    std::sort(sizes.begin(), sizes.end());
    const std::string cache = std::string(LV_BUILD_DIR) + "/bench-cache";
    std::filesystem::create_directories(cache);

    std::printf("scale: seconds to read, compile, build the hierarchy and reach the first pixel of a height field\n"
                "of N triangles, peak memory of each child process; ratios are lumivane / peer (below 1: ours\n"
                "is faster or smaller). %u hardware threads, load average %s\n",
                std::thread::hardware_concurrency(), bench::loadAverage().c_str());
#ifndef LV_HAVE_TINYOBJ
    std::printf("tinyobjloader not found at configure time: no read comparison\n");
#endif
#ifndef LV_HAVE_EMBREE
    std::printf("Embree 3 not found at configure time: no build comparison\n");
#endif
    std::vector<Growth> growth;
    for (double millions : sizes) {
        const Growth g = measureSize(millions, cache);
        if (g.readRate > 0.0) growth.push_back(g);
    }
    if (growth.size() < 2) return 0;
    const Growth& small = growth.front();
    const Growth& large = growth.back();
    std::printf("\ngrowth %gM -> %gM (triangles/s at the largest over the smallest; 1.0 is linear):\n"
                "  read %.2f   hierarchy %.2f\n",
                small.millions, large.millions, large.readRate / small.readRate, large.buildRate / small.buildRate);
    return 0;
}
