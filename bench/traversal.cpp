// Hierarchy build and ray throughput on the shared meshes and on a procedural
// mesh of two million triangles, beside Embree 3 on the same triangles and
// the same rays when it is installed.
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "core/registry.h"
#include "geometry/object.h"
#include "geometry/traversal.h"
#include "scene/geometry_reader.h"

#ifdef LV_HAVE_EMBREE
#include <embree3/rtcore.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

struct Ray {
    Vector origin, direction;
};

struct Mesh {
    std::string name;
    std::vector<Vector> positions;
    std::vector<uint32_t> indices;   // three per triangle
    size_t triangles() const { return indices.size() / 3; }
};

struct Figures {
    double build = 0.0;
    double primary = 0.0, closest = 0.0, occlusion = 0.0;   // M rays / s
    size_t primaryHits = 0, closestHits = 0, occluded = 0;
    double bytesPerTriangle = 0.0;
};

Mesh loadObj(const std::string& path, const std::string& name) {
    Part part;
    GeometryReader reader;
    reader.part = &part;
    readObj(reader, path);
    compileReader(reader, path);
    Mesh mesh{name, part.positions, {}};
    for (const Triangle& t : part.triangles) mesh.indices.insert(mesh.indices.end(), {t.a, t.b, t.c});
    for (const Tetragon& q : part.tetragons) mesh.indices.insert(mesh.indices.end(), {q.a, q.b, q.c, q.c, q.d, q.a});
    return mesh;
}

// A rolling height field of 1024 x 1024 cells with ridges and a few hundred
// steep bumps: 2,097,152 triangles of varied size and slope.
Mesh proceduralMesh() {
    const int n = 1024;
    Mesh mesh{"procedural height field", {}, {}};
    mesh.positions.reserve(size_t(n + 1) * (n + 1));
    std::mt19937 random(7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    struct Bump {
        float x, y, r, h;
    };
    std::vector<Bump> bumps(300);
    for (Bump& b : bumps) b = {unit(random) * n, unit(random) * n, 3 + 20 * unit(random), 5 + 40 * unit(random)};
    for (int y = 0; y <= n; ++y)
        for (int x = 0; x <= n; ++x) {
            float h = 8.0f * std::sin(x * 0.021f) * std::cos(y * 0.017f) + 3.0f * std::sin((x + 2 * y) * 0.09f);
            for (const Bump& b : bumps) {
                const float dx = x - b.x, dy = y - b.y, d2 = (dx * dx + dy * dy) / (b.r * b.r);
                if (d2 < 4.0f) h += b.h * std::exp(-d2 * 2.0f);
            }
            mesh.positions.push_back({float(x), float(y), h});
        }
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            const uint32_t a = uint32_t(y * (n + 1) + x), b = a + 1, c = a + uint32_t(n + 1), d = c + 1;
            mesh.indices.insert(mesh.indices.end(), {a, b, d, a, d, c});
        }
    return mesh;
}

void meshBox(const Mesh& mesh, Vector& low, Vector& high) {
    low = {kInfinity, kInfinity, kInfinity};
    high = {-kInfinity, -kInfinity, -kInfinity};
    for (const Vector& p : mesh.positions) {
        low = {std::min(low.x, p.x), std::min(low.y, p.y), std::min(low.z, p.z)};
        high = {std::max(high.x, p.x), std::max(high.y, p.y), std::max(high.z, p.z)};
    }
}

// A pinhole camera at centre + (0, -0.9, 0.5) x diagonal, looking at the
// centre with 60 degrees across, z up.
std::vector<Ray> primaryRays(const Mesh& mesh, int size) {
    Vector low, high;
    meshBox(mesh, low, high);
    const Vector centre = (low + high) * 0.5f;
    const Vector span = high - low;
    const float diagonal = std::sqrt(dot(span, span));
    const Vector eye = centre + Vector{0.0f, -0.9f, 0.5f} * diagonal;
    const Vector forward = normalized(centre - eye);
    const Vector right = normalized(cross(forward, Vector{0, 0, 1}));
    const Vector up = cross(right, forward);
    const float half = std::tan(30.0f * 3.14159265f / 180.0f);
    std::vector<Ray> rays;
    rays.reserve(size_t(size) * size);
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) {
            const float u = (2.0f * (x + 0.5f) / size - 1.0f) * half;
            const float v = (1.0f - 2.0f * (y + 0.5f) / size) * half;
            rays.push_back({eye, normalized(forward + right * u + up * v)});
        }
    return rays;
}

// Uniform points of uniformly chosen triangles, lifted off the face along its
// normal, with cosine-distributed directions about that normal.
std::vector<Ray> incoherentRays(const Mesh& mesh, size_t count) {
    Vector low, high;
    meshBox(mesh, low, high);
    const Vector span = high - low;
    const float lift = 1e-4f * std::sqrt(dot(span, span));
    std::mt19937 random(20240611);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::uniform_int_distribution<size_t> pick(0, mesh.triangles() - 1);
    std::vector<Ray> rays;
    rays.reserve(count);
    while (rays.size() < count) {
        const size_t t = pick(random);
        const Vector a = mesh.positions[mesh.indices[3 * t]], b = mesh.positions[mesh.indices[3 * t + 1]],
                     c = mesh.positions[mesh.indices[3 * t + 2]];
        const Vector n = cross(b - a, c - a);
        if (dot(n, n) == 0.0f) continue;
        const Vector normal = normalized(n);
        float s = unit(random), r = unit(random);
        if (s + r > 1.0f) s = 1.0f - s, r = 1.0f - r;
        const Vector p = a + (b - a) * s + (c - a) * r + normal * lift;
        const Vector tangent = normalized(std::abs(normal.x) > 0.5f ? cross(normal, Vector{0, 1, 0})
                                                                    : cross(normal, Vector{1, 0, 0}));
        const Vector bitangent = cross(normal, tangent);
        const float u1 = unit(random), u2 = unit(random);
        const float radius = std::sqrt(u1), phi = 2.0f * 3.14159265f * u2;
        const Vector d = tangent * (radius * std::cos(phi)) + bitangent * (radius * std::sin(phi)) +
                         normal * std::sqrt(std::max(0.0f, 1.0f - u1));
        rays.push_back({p, normalized(d)});
    }
    return rays;
}

// One pass of `trace` over all rays in the common loop: its seconds, and the
// count of true answers.
template <typename Trace>
double timedPass(const std::vector<Ray>& rays, size_t& positives, Trace trace) {
    size_t count = 0;
    const auto t0 = Clock::now();
    const long long n = (long long)rays.size();
#pragma omp parallel for schedule(dynamic, 64) reduction(+ : count)
    for (long long i = 0; i < n; ++i) count += trace(rays[size_t(i)], omp_get_thread_num()) ? 1 : 0;
    positives = count;
    return secondsSince(t0);
}

// The machine is shared: both systems take turns, and each keeps its best of
// five passes.
template <typename Ours, typename Theirs>
void race(const std::vector<Ray>& rays, Ours ours, Theirs theirs, double& ourRate, double& theirRate,
          size_t& ourCount, size_t& theirCount) {
    double ourBest = 1e30, theirBest = 1e30;
    for (int run = 0; run < 5; ++run) {
        ourBest = std::min(ourBest, timedPass(rays, ourCount, ours));
        theirBest = std::min(theirBest, timedPass(rays, theirCount, theirs));
    }
    ourRate = double(rays.size()) / ourBest / 1e6;
    theirRate = double(rays.size()) / theirBest / 1e6;
}

// The mesh as the root object, built as object preparation builds it; returns seconds.
double buildLumivane(const Mesh& mesh, double& bytesPerTriangle) {
    registry.objects.clear();
    Object object;
    object.name = mesh.name;
    Part part;
    part.positions = mesh.positions;
    for (size_t t = 0; t < mesh.triangles(); ++t)
        part.triangles.push_back({mesh.indices[3 * t], mesh.indices[3 * t + 1], mesh.indices[3 * t + 2], 0});
    object.parts.push_back(std::move(part));
    registry.objects.push_back(std::move(object));
    registry.rootObject = 0;
    Object& root = registry.objects[0];

    // The build's report lines are not part of the figures.
    std::ostringstream sink;
    std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
    const auto t0 = Clock::now();
    buildHierarchy(root);
    updateHierarchy(root);
    satOrder(root);
    const double seconds = secondsSince(t0);
    std::cout.rdbuf(saved);
    bytesPerTriangle = double(root.wideNodes.size() * sizeof(WideNode) +
                              root.primitiveRefs.size() * sizeof(PrimitiveRef) +
                              root.leafRecords.size() * sizeof(LeafRecord) + root.leafRuns.size() * sizeof(LeafRun)) /
                             double(mesh.triangles());
    return seconds;
}

bool lumivaneClosest(const Ray& r, int thread) {
    RayState ray = freshRay();
    ray.origin = r.origin;
    ray.direction = r.direction;
    ray.previous_kind = 0;
    ray.thread = uint8_t(thread);
    return intersectClosest(ray);
}

// A shadow ray of unlimited length against opaque surfaces.
bool lumivaneOccluded(const Ray& r, int thread) {
    RayState ray = freshRay();
    ray.origin = r.origin;
    ray.direction = r.direction;
    ray.thread = uint8_t(thread);
    ray.depth = 0;
    ray.photon_path = 1;
    ray.kind = 0;
    ray.previous_kind = 0;
    ray.t = kInfinity;
    return transmittanceQuery(registry.objects[0], ray);
}

#ifdef LV_HAVE_EMBREE
std::atomic<long long> embreeBytes{0};

bool countBytes(void*, ssize_t bytes, bool) {
    embreeBytes += bytes;
    return true;
}

// The same triangles as one geometry of a new scene; returns seconds.
double buildEmbree(RTCDevice device, const Mesh& mesh, RTCScene& scene, double& bytesPerTriangle) {
    scene = rtcNewScene(device);
    RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
    float* vertices = static_cast<float*>(rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0,
                                                                  RTC_FORMAT_FLOAT3, 12, mesh.positions.size()));
    std::copy(&mesh.positions[0].x, &mesh.positions[0].x + 3 * mesh.positions.size(), vertices);
    unsigned* indices = static_cast<unsigned*>(
        rtcSetNewGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, mesh.triangles()));
    std::copy(mesh.indices.begin(), mesh.indices.end(), indices);
    rtcCommitGeometry(geometry);
    rtcAttachGeometry(scene, geometry);
    rtcReleaseGeometry(geometry);
    const long long before = embreeBytes.load();
    const auto t0 = Clock::now();
    rtcCommitScene(scene);
    const double seconds = secondsSince(t0);
    bytesPerTriangle = double(embreeBytes.load() - before) / double(mesh.triangles());
    return seconds;
}

RTCRay embreeRay(const Ray& r) {
    return {r.origin.x, r.origin.y, r.origin.z, 0.0f, r.direction.x, r.direction.y, r.direction.z,
            0.0f, std::numeric_limits<float>::infinity(), 0xFFFFFFFFu, 0, 0};
}
#endif

[[maybe_unused]] void agreement(const char* label, size_t ours, size_t theirs) {
    const double difference = 100.0 * std::abs(double(ours) - double(theirs)) / double(std::max<size_t>(theirs, 1));
    std::printf("  %-30s %12zu %12zu   %6.3f %%  %s\n", label, ours, theirs, difference,
                difference <= 0.1 ? "agree" : "DIFFER");
}

void run(const Mesh& mesh) {
    std::printf("\n%s: %zu triangles, %zu vertices, %d threads\n", mesh.name.c_str(), mesh.triangles(),
                mesh.positions.size(), omp_get_max_threads());
    const std::vector<Ray> primary = primaryRays(mesh, 1024);
    const std::vector<Ray> incoherent = incoherentRays(mesh, size_t(1) << 20);
    Figures ours, theirs;
    [[maybe_unused]] auto keepBest = [](double& best, double seconds) { best = best == 0.0 ? seconds : std::min(best, seconds); };
#ifdef LV_HAVE_EMBREE
    RTCDevice device = rtcNewDevice(nullptr);
    rtcSetDeviceMemoryMonitorFunction(device, countBytes, nullptr);
    RTCScene scene = nullptr;
    for (int run = 0; run < 3; ++run) {
        keepBest(ours.build, buildLumivane(mesh, ours.bytesPerTriangle));
        if (scene) rtcReleaseScene(scene);
        keepBest(theirs.build, buildEmbree(device, mesh, scene, theirs.bytesPerTriangle));
    }
    auto embreeClosest = [scene](const Ray& r, int) {
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        RTCRayHit hit;
        hit.ray = embreeRay(r);
        hit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(scene, &context, &hit);
        return hit.hit.geomID != RTC_INVALID_GEOMETRY_ID;
    };
    auto embreeOccluded = [scene](const Ray& r, int) {
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        RTCRay ray = embreeRay(r);
        rtcOccluded1(scene, &context, &ray);
        return ray.tfar < 0.0f;
    };
    race(primary, lumivaneClosest, embreeClosest, ours.primary, theirs.primary, ours.primaryHits,
         theirs.primaryHits);
    race(incoherent, lumivaneClosest, embreeClosest, ours.closest, theirs.closest, ours.closestHits,
         theirs.closestHits);
    shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return zero; };
    race(incoherent, lumivaneOccluded, embreeOccluded, ours.occlusion, theirs.occlusion, ours.occluded,
         theirs.occluded);
    shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return one; };
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);

    std::printf("  %-30s %12s %12s   %s\n", "", "lumivane", "embree 3", "ratio");
    std::printf("  %-30s %12.3f %12.3f   %5.2f x embree's time\n", "build [s]", ours.build, theirs.build,
                ours.build / theirs.build);
    std::printf("  %-30s %12.2f %12.2f   %5.2f x embree\n", "primary closest [Mrays/s]", ours.primary,
                theirs.primary, ours.primary / theirs.primary);
    std::printf("  %-30s %12.2f %12.2f   %5.2f x embree\n", "incoherent closest [Mrays/s]", ours.closest,
                theirs.closest, ours.closest / theirs.closest);
    std::printf("  %-30s %12.2f %12.2f   %5.2f x embree\n", "incoherent occluded [Mrays/s]", ours.occlusion,
                theirs.occlusion, ours.occlusion / theirs.occlusion);
    std::printf("  %-30s %12.1f %12.1f\n", "hierarchy bytes / triangle", ours.bytesPerTriangle,
                theirs.bytesPerTriangle);
    std::printf("  %-30s %12s %12s\n", "hits", "lumivane", "embree 3");
    agreement("primary closest", ours.primaryHits, theirs.primaryHits);
    agreement("incoherent closest", ours.closestHits, theirs.closestHits);
    agreement("incoherent occluded", ours.occluded, theirs.occluded);
#else
    ours.build = buildLumivane(mesh, ours.bytesPerTriangle);
    auto rate = [](const std::vector<Ray>& rays, auto trace, size_t& count) {
        double best = 1e30;
        for (int run = 0; run < 5; ++run) best = std::min(best, timedPass(rays, count, trace));
        return double(rays.size()) / best / 1e6;
    };
    ours.primary = rate(primary, lumivaneClosest, ours.primaryHits);
    ours.closest = rate(incoherent, lumivaneClosest, ours.closestHits);
    shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return zero; };
    ours.occlusion = rate(incoherent, lumivaneOccluded, ours.occluded);
    shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return one; };
    std::printf("  build %.3f s, primary %.2f, incoherent %.2f, occluded %.2f M rays/s, %.1f bytes/triangle\n",
                ours.build, ours.primary, ours.closest, ours.occlusion, ours.bytesPerTriangle);
    std::printf("  hits: primary %zu, incoherent %zu, occluded %zu (Embree 3 not found: no comparison)\n",
                ours.primaryHits, ours.closestHits, ours.occluded);
#endif
    registry.objects.clear();
}

}  // namespace

int main(int argc, char** argv) {
    registry.shaders.push_back(Shader{});
    const std::string assets = LV_SHARED_ASSETS;
    // --assets-only skips the procedural mesh; --only NAME runs one mesh.
    const std::string option = argc > 1 ? argv[1] : "", only = argc > 2 ? argv[2] : "";
    const bool quick = option == "--assets-only" || (option == "--only" && only != "procedural");
    for (const char* name : {"bunny.obj", "terrain.obj"}) {
        if (option == "--only" && only != name) continue;
        const std::string path = assets + "/" + name;
        if (!std::filesystem::exists(path)) {
            std::printf("traversal: %s is absent, skipped\n", path.c_str());
            continue;
        }
        std::ostringstream sink;
        std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
        const Mesh mesh = loadObj(path, name);
        std::cout.rdbuf(saved);
        run(mesh);
    }
    if (!quick) run(proceduralMesh());
    return 0;
}
