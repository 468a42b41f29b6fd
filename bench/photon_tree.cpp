// Photon tree build time and 32-nearest queries per second on 1 M and 10 M
// random photons in a unit cube, queries near the photons on 2 threads,
// beside nanoflann's kd-tree over the same points when it is installed.
// The search cost grows with the photons inside the radius, which nanoflann
// does not have: the comparison uses a radius that holds the 32 nearest
// everywhere, and a second line shows ours with a tighter one, as the last
// query of a thread gives it in a render.
#include <omp.h>

#include <algorithm>
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

// What one side measured over its best round, and the sum of squared
// distances that each query found, so that the two sides can be compared.
struct Figures {
    double build = 1e30;    // s
    double queries = 0.0;   // M queries / s
    size_t found = 0;
    std::vector<float> sums;
};

template <typename Query>
void timeQueries(const std::vector<Vector>& at, Query&& query, Figures& figures) {
    std::vector<float> sums(at.size());
    size_t found = 0;
    const auto t0 = Clock::now();
#pragma omp parallel for schedule(dynamic, 4096) num_threads(kThreads) reduction(+ : found)
    for (size_t i = 0; i < at.size(); ++i) found += size_t(query(at[i], sums[i]));
    figures.queries = std::max(figures.queries, double(at.size()) / secondsSince(t0) * 1e-6);
    figures.found = found;
    figures.sums = std::move(sums);
}

void measureOurs(const std::vector<Photon>& photons, const std::vector<Vector>& at, float radius, Figures& wide,
                 float tightRadius, Figures& tight) {
    registry.photons = photons;
    registry.radius = radius;
    std::ostringstream sink;   // the build's report line
    std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
    const auto t0 = Clock::now();
    buildPhotonTree();
    wide.build = std::min(wide.build, secondsSince(t0));
    std::cout.rdbuf(saved);
    for (float r : {radius, tightRadius}) {
        const float r2 = r * r;
        timeQueries(at, [r2](Vector p, float& sum) {
            PhotonNeighbours list;
            const int found = nearestPhotons(p, {0, 0, 1}, r2, list);
            for (int k = 0; k < found; ++k) sum += list.distance2[k];
            return found;
        }, r == radius ? wide : tight);
    }
    registry.photons = {};
    registry.photonNodes = {};
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

void measureNanoflann(const std::vector<Photon>& photons, const std::vector<Vector>& at, Figures& figures) {
    PointCloud cloud;
    cloud.points.reserve(photons.size());
    for (const Photon& p : photons) cloud.points.push_back(p.position);
    const auto t0 = Clock::now();
    Tree tree(3, cloud, nanoflann::KDTreeSingleIndexAdaptorParams(10));
    figures.build = std::min(figures.build, secondsSince(t0));
    timeQueries(at, [&tree](Vector p, float& sum) {
        const float point[3] = {p.x, p.y, p.z};
        uint32_t index[32];
        float distance2[32];
        const size_t found = tree.knnSearch(point, 32, index, distance2);
        for (size_t k = 0; k < found; ++k) sum += distance2[k];
        return int(found);
    }, figures);
}

// Queries whose 32 distances add up differently on the two sides.
size_t differing(const Figures& a, const Figures& b) {
    size_t count = 0;
    for (size_t i = 0; i < a.sums.size(); ++i) count += std::fabs(a.sums[i] - b.sums[i]) > 1e-5f * b.sums[i];
    return count;
}
#endif

void run(size_t n, int rounds) {
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

    std::printf("\n%zu photons, radius %.4f, %zu queries near photons, %d threads, best of %d rounds\n", n, radius,
                kQueries, kThreads, rounds);
    Figures ours, tight, theirs;
    for (int round = 0; round < rounds; ++round) {
        measureOurs(photons, at, radius, ours, tightRadius, tight);
#ifdef LV_HAVE_NANOFLANN
        measureNanoflann(photons, at, theirs);
#endif
    }
#ifdef LV_HAVE_NANOFLANN
    std::printf("  %-26s %12s %12s   %s\n", "", "lumivane", "nanoflann", "ratio");
    std::printf("  %-26s %12.3f %12.3f   %5.2f x nanoflann's time\n", "build [s]", ours.build, theirs.build,
                ours.build / theirs.build);
    std::printf("  %-26s %12.3f %12.3f   %5.2f x nanoflann\n", "32-nearest [M queries/s]", ours.queries,
                theirs.queries, ours.queries / theirs.queries);
    std::printf("  %-26s %12zu %12zu\n", "photons found", ours.found, theirs.found);
    std::printf("  %-26s %12zu\n", "queries found otherwise", differing(ours, theirs));
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
    run(1000000, 3);
    run(10000000, 2);
    return 0;
}
