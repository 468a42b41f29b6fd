// Photon casting speed of each light kind on the example scenes: the
// geometry light (the lamp) of the Cornell example, the two point lights of
// the spot-light example (the spot, then the blurred point light, each cast
// alone) and the sky image of the outdoor example. The last two cast no
// photons of their own and are given PHOTONS here. Each scene is prepared as
// lvGo prepares it, and then that one source is cast again REPEATS times on
// its own, in both modes of the renderer:
//
//   path tracing     photons end at their first diffuse hit; only the
//                    paths through mirrors and refraction go on, to be
//                    stored as caustics;
//   final gathering  every diffuse hit also fills the hit face's cell and
//                    bounces on, up to the photon depth.
//
// Prints, per source and mode, the median wall time of a cast, the photons
// cast per second (all of them, and those that carry power and are traced:
// a spot light's photons outside its cone, or a sky texel of no probability,
// are emitted but not traced), the cast's own "M rays/second" line, the rays
// per traced photon and the caustic photons stored per cast.
//
//   photon_cast [CORNELL_DIR] [SPOTLIGHT_DIR] [SKY_DIR] [PHOTONS] [REPEATS]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "bench_scene.h"
#include "photons/photon_cast.h"
#include "lights/lights.h"
#include "photons/photon_tree.h"

namespace {

using Clock = std::chrono::steady_clock;

// A scene's cell area when it asks for none and is cast in final gathering.
constexpr float kCellArea = 0.01f;

enum class Source { Geometry, Point, Sky };

const char* sourceName(Source s) {
    switch (s) {
    case Source::Geometry: return "geometry light";
    case Source::Point: return "point lights";
    case Source::Sky: return "sky";
    }
    return "";
}

struct Case {
    Source source;
    std::string directory;
    int photons = 0;   // above 0: the source's photon count is set to it
    size_t light = 0;  // of point lights, the one cast; the others cast none
};

struct Result {
    bool ok = false;
    uint64_t photons = 0;   // emitted per cast
    uint64_t traced = 0;    // of which carry power
    double seconds = 0.0;   // median wall time of one cast
    double raysPerSecond = 0.0;   // median of the cast's report line, in M rays/second
    size_t stored = 0;      // caustic photons stored by one cast
};

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// The photons of the source and how many of them carry power.
void countPhotons(Source source, Result& r) {
    std::vector<std::function<void(RayState&, uint64_t)>> emitters;
    std::vector<uint64_t> counts;
    if (source == Source::Point) {
        for (const PointLight& light : registry.pointLights) {
            counts.push_back(uint64_t(std::max<int64_t>(0, light.photon)));
            emitters.push_back([&light](RayState& ray, uint64_t i) { light.emitPhoton(ray, i); });
        }
    } else if (source == Source::Geometry) {
        const uint64_t n = uint64_t(std::max(0, registry.geometryLight.photon));
        counts.push_back(n);
        emitters.push_back([n](RayState& ray, uint64_t i) { emitGeometryLightPhoton(ray, i, n); });
    } else {
        counts.push_back(uint64_t(std::max(0, registry.skyLight.photon)));
        emitters.push_back([](RayState& ray, uint64_t i) { emitSkyPhoton(ray, i); });
    }
    for (size_t k = 0; k < counts.size(); ++k) {
        uint64_t traced = 0;
#pragma omp parallel for schedule(static) reduction(+ : traced)
        for (int64_t i = 0; i < int64_t(counts[k]); ++i) {
            RayState ray = freshRay();
            emitters[k](ray, uint64_t(i));
            if (largestChannel(ray.power) > 0.0f) ++traced;
        }
        r.photons += counts[k];
        r.traced += traced;
    }
}

void castOnce(Source source) {
    switch (source) {
    case Source::Geometry: CastPhotonsFromGeometryLight(0); break;
    case Source::Point: CastPhotonsFromPointLights(0); break;
    case Source::Sky: CastPhotonsFromSky(0); break;
    }
}

// Prepares the scene of `c` in the given mode and times `repeats` casts of
// its source.
Result measure(const Case& c, bool gather, int repeats) {
    Result r;
    const std::filesystem::path home = std::filesystem::current_path();
    if (chdir(c.directory.c_str()) != 0) {
        std::fprintf(stderr, "cannot enter %s\n", c.directory.c_str());
        return r;
    }
    {
        bench::CapturedReport report;
        bench::readScene(5, "");
        if (c.photons > 0 && c.source == Source::Sky) registry.skyLight.photon = c.photons;
        if (c.source == Source::Point)
            for (size_t j = 0; j < registry.pointLights.size(); ++j)
                registry.pointLights[j].photon = j == c.light ? c.photons : 0;
        if (gather) {
            if (registry.distance <= 0.0f) registry.distance = 1.0f;
            if (registry.resolution <= 0.0f) registry.resolution = kCellArea;
        } else {
            registry.distance = 0.0f;
        }
        // Nothing is rendered: a small image keeps the preparation short.
        for (Camera& camera : registry.cameras) {
            camera.width = camera.height = 16;
            for (Aov& aov : camera.aovs) aov.image.name.clear();
        }
        lvInitialize();
        countPhotons(c.source, r);
        std::vector<double> seconds, rates;
        for (int k = 0; k < repeats; ++k) {
            report.clear();
            const size_t before = registry.photons.size();
            const auto start = Clock::now();
            castOnce(c.source);
            const std::chrono::duration<double> elapsed = Clock::now() - start;
            seconds.push_back(elapsed.count());
            rates.push_back(bench::reportedValue(report.text(), "photon cast", "M rays/second"));
            r.stored = registry.photons.size() - before;
        }
        r.seconds = median(seconds);
        r.raysPerSecond = median(rates);
        r.ok = r.photons > 0;
        lvFinalize();
        lvShutdown();
    }
    std::filesystem::current_path(home);
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path examples = std::filesystem::path(__FILE__).parent_path().parent_path() / "examples";
    auto absolute = [](const std::string& p) { return std::filesystem::absolute(p).string(); };
    const std::string cornell = absolute(argc > 1 ? argv[1] : (examples / "cornell").string());
    const std::string spotlight = absolute(argc > 2 ? argv[2] : (examples / "spotlight").string());
    const std::string sky = absolute(argc > 3 ? argv[3] : (examples / "outdoor").string());
    const int photons = argc > 4 ? std::max(1, std::atoi(argv[4])) : 1000000;
    const int repeats = argc > 5 ? std::max(1, std::atoi(argv[5])) : 3;

    const int threads = bench::useAllThreads();
    std::printf("photon casts on %d threads, median of %d casts each, load average %s\n", threads, repeats,
                bench::loadAverage().c_str());
    std::printf("%-15s %-15s %-16s %10s %10s %8s %10s %10s %9s %8s %9s\n", "source", "scene", "mode", "photons",
                "traced", "seconds", "M ph/s", "M traced/s", "M rays/s", "rays/ph", "caustics");

    const Case cases[] = {{Source::Geometry, cornell, 0}, {Source::Point, spotlight, photons, 0},
                           {Source::Point, spotlight, photons, 1}, {Source::Sky, sky, photons}};
    for (const Case& c : cases) {
        for (bool gather : {false, true}) {
            const Result r = measure(c, gather, repeats);
            std::string scene = std::filesystem::path(c.directory).filename().string();
            if (c.source == Source::Point) scene += c.light == 0 ? " spot" : " blur";
            if (!r.ok) {
                std::printf("%-15s %-15s %-16s no photons to cast\n", sourceName(c.source), scene.c_str(),
                            gather ? "final gathering" : "path tracing");
                continue;
            }
            const double perSecond = r.seconds > 0.0 ? 1e-6 / r.seconds : 0.0;
            const double raysPerPhoton =
                r.traced > 0 ? r.raysPerSecond * 1e6 * r.seconds / double(r.traced) : 0.0;
            std::printf("%-15s %-15s %-16s %10llu %10llu %8.3f %10.2f %10.2f %9.2f %8.2f %9zu\n",
                        sourceName(c.source), scene.c_str(), gather ? "final gathering" : "path tracing",
                        (unsigned long long)r.photons, (unsigned long long)r.traced, r.seconds,
                        double(r.photons) * perSecond, double(r.traced) * perSecond, r.raysPerSecond, raysPerPhoton,
                        r.stored);
        }
    }
    std::printf("(rays/ph: the cast's ray rate times its time over the traced photons; load average %s)\n",
                bench::loadAverage().c_str());
    return 0;
}
