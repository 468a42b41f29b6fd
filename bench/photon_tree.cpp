// Photon tree build time and 32-nearest queries per second on 1 M and 10 M
// random photons in a unit cube, queries near the photons on 2 threads,
// beside nanoflann's kd-tree over the same points when it is installed.
// The search cost grows with the photons inside the radius, which nanoflann
// does not have: the comparison uses a radius that holds the 32 nearest
// everywhere, and a second line shows ours with a tighter one, as the last
// query of a thread gives it in a render.
#include <omp.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <random>
#include <sstream>
#include <vector>

#include "core/constants.h"
#include "core/registry.h"
#include "photons/photon_tree.h"

#ifdef LV_HAVE_NANOFLANN
#include <nanoflann.hpp>
#endif

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

constexpr int kThreads = 2;
constexpr size_t kQueries = 1000000;

// What one side measured, and a checksum of the distances it found so that
// the two sides can be seen to answer the same question.
struct Figures {
    double build = 0.0;
    double queries = 0.0;   // M queries / s
    double distanceSum = 0.0;
    size_t found = 0;
};

template <typename Query>
void timeQueries(const std::vector<Vector>& at, Query&& query, Figures& figures) {
    double sum = 0.0;
    size_t found = 0;
    const auto t0 = Clock::now();
#pragma omp parallel for schedule(dynamic, 4096) num_threads(kThreads) reduction(+ : sum, found)
    for (size_t i = 0; i < at.size(); ++i) {
        float distances = 0.0f;
        found += size_t(query(at[i], distances));
        sum += distances;
    }
    figures.queries = double(at.size()) / secondsSince(t0) * 1e-6;
    figures.distanceSum = sum;
    figures.found = found;
}

Figures measureOurs(const std::vector<Photon>& photons, const std::vector<Vector>& at, float radius,
                    float tightRadius, Figures& tight) {
    Figures figures;
    registry.photons = photons;
    registry.radius = radius;
    std::ostringstream sink;   // the build's report line
    std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
    const auto t0 = Clock::now();
    buildPhotonTree();
    figures.build = secondsSince(t0);
    std::cout.rdbuf(saved);
    for (float r : {radius, tightRadius}) {
        const float r2 = r * r;
        timeQueries(at, [r2](Vector p, float& distances) {
            PhotonNeighbours list;
            const int found = nearestPhotons(p, {0, 0, 1}, r2, list);
            for (int k = 0; k < found; ++k) distances += list.distance2[k];
            return found;
        }, r == radius ? figures : tight);
    }
    tight.build = figures.build;
    registry.photons = {};
    registry.photonNodes = {};
    return figures;
}

#ifdef LV_HAVE_NANOFLANN
struct PointCloud {
    std::vector<Vector> points;
    size_t kdtree_get_point_count() const { return points.size(); }
    float kdtree_get_pt(size_t i, size_t axis) const {
        return axis == 0 ? points[i].x : (axis == 1 ? points[i].y : points[i].z);
    }
    template <class Box>
    bool kdtree_get_bbox(Box&) const { return false; }
};
using Tree = nanoflann::KDTreeSingleIndexAdaptor<nanoflann::L2_Simple_Adaptor<float, PointCloud>, PointCloud, 3, uint32_t>;

Figures measureNanoflann(const std::vector<Photon>& photons, const std::vector<Vector>& at) {
    Figures figures;
    PointCloud cloud;
    cloud.points.reserve(photons.size());
    for (const Photon& p : photons) cloud.points.push_back(p.position);
    const auto t0 = Clock::now();
    Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    figures.build = secondsSince(t0);
    timeQueries(at, [&tree](Vector p, float& distances) {
        const float point[3] = {p.x, p.y, p.z};
        uint32_t index[32];
        float distance2[32];
        const size_t found = tree.knnSearch(point, 32, index, distance2);
        for (size_t k = 0; k < found; ++k) distances += distance2[k];
        return int(found);
    }, figures);
    return figures;
}
#endif

void run(size_t n) {
    std::mt19937 random(2024);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Photon> photons(n);
    const uint16_t up = packPhotonDirection({0, 0, 1});
    for (Photon& p : photons) p = {{unit(random), unit(random), unit(random)}, {unit(random), unit(random), 1.0f}, up, up};
    // The radius holds the 32 nearest everywhere in the cube (2.5 times
    // their mean distance inside it), so both sides answer the same question.
    const float spacing = std::cbrt(32.0f * 3.0f / (4.0f * kPi * float(n)));
    const float radius = 2.5f * spacing, tightRadius = 1.5f * spacing;
    std::normal_distribution<float> jitter(0.0f, 0.5f * spacing);
    std::uniform_int_distribution<size_t> pick(0, n - 1);
    std::vector<Vector> at(kQueries);
    for (Vector& p : at) {
        const Vector q = photons[pick(random)].position;
        p = {q.x + jitter(random), q.y + jitter(random), q.z + jitter(random)};
    }

    Figures tight;
    const Figures ours = measureOurs(photons, at, radius, tightRadius, tight);
    std::printf("\n%zu photons, radius %.4f, %zu queries near photons, %d threads\n", n, radius, kQueries, kThreads);
#ifdef LV_HAVE_NANOFLANN
    const Figures theirs = measureNanoflann(photons, at);
    std::printf("  %-26s %12s %12s   %s\n", "", "lumivane", "nanoflann", "ratio");
    std::printf("  %-26s %12.3f %12.3f   %5.2f x nanoflann's time\n", "build [s]", ours.build, theirs.build,
                ours.build / theirs.build);
    std::printf("  %-26s %12.3f %12.3f   %5.2f x nanoflann\n", "32-nearest [M queries/s]", ours.queries,
                theirs.queries, ours.queries / theirs.queries);
    std::printf("  %-26s %12zu %12zu\n", "photons found", ours.found, theirs.found);
    std::printf("  %-26s %12.6g %12.6g\n", "sum of squared distances", ours.distanceSum, theirs.distanceSum);
    std::printf("  radius %.4f: %.3f M queries/s (%.2f x nanoflann), %zu photons found\n", tightRadius, tight.queries,
                tight.queries / theirs.queries, tight.found);
#else
    std::printf("  build %.3f s, 32-nearest %.3f M queries/s, %zu photons found\n", ours.build, ours.queries,
                ours.found);
    std::printf("  radius %.4f: %.3f M queries/s, %zu photons found\n", tightRadius, tight.queries, tight.found);
    std::printf("  nanoflann not found: no comparison\n");
#endif
}

}  // namespace

int main() {
    run(1000000);
    run(10000000);
    return 0;
}
