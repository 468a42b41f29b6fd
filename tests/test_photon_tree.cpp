// The photon tree: packed directions, the build's leaves and partitions, the
// 32-nearest search beside brute force, and the density estimate.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "capture.h"
#include "core/constants.h"
#include "core/registry.h"
#include "photons/photon_tree.h"
#include "registry_guard.h"

namespace {

float axisOf(const Vector& v, int axis) { return axis == 0 ? v.x : (axis == 1 ? v.y : v.z); }

Photon photonAt(Vector position, float id = 0.0f, Vector out = {0, 0, 1}) {
    return Photon{position, {id, 1.0f, 1.0f}, packPhotonDirection(out), packPhotonDirection({0, 0, 1})};
}

// Builds over `photons` with `radius` and returns the report it printed.
std::string build(std::vector<Photon> photons, float radius) {
    registry.photons = std::move(photons), registry.radius = radius;
    ReportCapture capture;
    buildPhotonTree();
    return capture.text();
}

// Packing keeps a direction within 3.6 degrees and on its side of every axis
// plane: random ones, axes, and ties between the largest components.
TEST(PhotonTreePack, RoundTripStaysClose) {
    std::mt19937 random(11);
    std::normal_distribution<float> gauss;
    std::vector<Vector> directions{{1, 0, 0}, {0, -1, 0}, {0.6f, 0.6f, 0.6f}, {-0.6f, 0.6f, 0}, {0.1f, -0.7f, 0.7f}};
    for (int i = 0; i < 2000; ++i) directions.push_back({gauss(random), gauss(random), gauss(random)});
    for (Vector d : directions) {
        d = normalized(d);
        const Vector u = unpackPhotonDirection(packPhotonDirection(d));
        EXPECT_NEAR(dot(u, u), 1.0f, 1e-5f);
        EXPECT_GT(dot(u, d), 0.998f) << d.x << " " << d.y << " " << d.z;
        EXPECT_TRUE(u.x * d.x >= 0 && u.y * d.y >= 0 && u.z * d.z >= 0);
    }
}

// Walks the subtree of `index`, whose photons belong in the box [lo, hi), and
// returns its photon range. Checks that two children cover adjacent ranges,
// that every low side lies below its split, and that a high side holds at
// most one photon below it (the range's last, which the sort leaves in place).
// Marks in `lost` the photons outside their leaf's box: the search may miss them.
using Box = std::array<float, 3>;
std::pair<uint32_t, uint32_t> walk(uint32_t index, std::vector<bool>& lost, size_t& nodes, int depth = 0,
                                   Box lo = {-kInfinity, -kInfinity, -kInfinity},
                                   Box hi = {kInfinity, kInfinity, kInfinity}) {
    const PhotonNode node = registry.photonNodes[index];
    ++nodes;
    EXPECT_LE(depth, 31);
    if (node.children == 0) {
        for (uint32_t i = node.first; i < node.first + uint32_t(node.count); ++i)
            for (int a = 0; a < 3; ++a) {
                const float x = axisOf(registry.photons[i].position, a);
                if (x < lo[size_t(a)] || x >= hi[size_t(a)]) lost[i] = true;
            }
        return {node.first, node.first + uint32_t(node.count)};
    }
    std::pair<uint32_t, uint32_t> range[2];
    for (int side = 0; side < 2; ++side) {
        if (!(node.children & (1 << side))) continue;
        Box l = lo, h = hi;
        (side ? l : h)[size_t(node.axis)] = node.split;
        range[side] = walk(node.first + (side && node.children == 3), lost, nodes, depth + 1, l, h);
    }
    if (node.children != 3) return range[node.children - 1];
    EXPECT_EQ(range[0].second, range[1].first);
    int wrongSide = 0;
    for (uint32_t i = range[0].first; i < range[1].second; ++i) {
        const bool below = axisOf(registry.photons[i].position, node.axis) < node.split;
        EXPECT_TRUE(below || i >= range[0].second);
        wrongSide += below && i >= range[0].second;
    }
    EXPECT_LE(wrongSide, 1);
    return {range[0].first, range[1].second};
}

// Every photon kept once; photons at one point cannot be split, whatever the
// radius; no photons make an empty tree.
TEST(PhotonTreeBuild, ThreadedBuildKeepsEveryPhotonOnceAndUnsplittableSetsMakeOneLeaf) {
    RegistryGuard guard;
    std::mt19937 random(5);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Photon> photons;
    const uint32_t n = 200000;
    for (uint32_t i = 0; i < n; ++i) photons.push_back(photonAt({unit(random), unit(random), unit(random)}, float(i)));
    build(photons, 0.001f);

    size_t nodes = 0;
    std::vector<bool> lost(n, false);
    EXPECT_EQ(walk(0, lost, nodes), (std::pair<uint32_t, uint32_t>{0, n}));
    EXPECT_EQ(nodes, registry.photonNodes.size());
    std::vector<bool> seen(n, false);
    for (const Photon& p : registry.photons) seen[uint32_t(p.power.x)] = true;
    EXPECT_EQ(std::count(seen.begin(), seen.end(), true), n);
    EXPECT_EQ(registry.photons.back().power.x, float(n - 1));   // never sorted, never moved

    build(std::vector<Photon>(500, photonAt({1, 2, 3})), 0.0f);
    EXPECT_TRUE(registry.photonNodes[0].children == 0 && registry.photonNodes[0].count == 500);
    EXPECT_EQ(build({}, 2.0f), "photons                0           0.0000 [ M bytes ]\n");
}

// Random sets of several sizes, on a coarse lattice so that distances tie,
// with random directions and normals so that about half face away; each once
// in one block and once in two unequal blocks far apart, whose boxes of
// mostly empty space make nodes with one child. A query whose eligible
// photons all sit where their splits say must match brute force exactly;
// the others may miss only photons that the sort left on the wrong side.
TEST(PhotonTreeSearch, AgreesWithBruteForce) {
    RegistryGuard guard;
    std::mt19937 random(7);
    std::uniform_int_distribution<int> lattice(0, 12);
    std::normal_distribution<float> gauss;
    auto direction = [&] { return normalized({gauss(random), gauss(random), gauss(random)}); };
    long exact = 0, queries = 0, oneChild = 0;
    for (int n : {1, 20, 40, 33, 500, 3000}) for (float gap : {0.0f, 20.0f}) {
        std::vector<Photon> photons;
        for (int i = 0; i < n; ++i) {
            const float x = lattice(random) * 0.1f + float(3 * i >= 2 * n) * gap;
            photons.push_back(photonAt({x, lattice(random) * 0.1f, lattice(random) * 0.1f}, 0, direction()));
        }
        build(photons, 0.3f);
        std::vector<bool> lost(size_t(n), false);
        size_t nodes = 0;
        walk(0, lost, nodes);
        oneChild += std::ranges::count_if(registry.photonNodes, [](const PhotonNode& n) { return n.children == 1 || n.children == 2; });
        for (int q = 0; q < 200; ++q, ++queries) {
            const Vector at{lattice(random) * 0.1f + float(q % 4 / 2) * gap, lattice(random) * 0.1f, lattice(random) * 0.05f};
            const Vector normal = direction();
            const float r2 = q % 2 ? 0.09f : 1.0f;
            PhotonNeighbours list;
            const int found = nearestPhotons(at, normal, r2, list);
            ASSERT_EQ(found, list.count);
            std::vector<float> tree(list.distance2, list.distance2 + found), brute;
            std::vector<bool> held(n, false);
            for (int k = 0; k < found; ++k) held[list.photon[k]] = true;
            const float bound = found == kPhotonNeighbours ? list.farthestDistance2 : r2;
            EXPECT_TRUE(!found || list.farthestDistance2 == *std::max_element(tree.begin(), tree.end()));
            bool clean = true;
            for (int i = 0; i < n; ++i) {
                const Photon& p = registry.photons[i];
                const Vector d = p.position - at;
                const float s = dot(d, d);
                const bool eligible = s < r2 && dot(unpackPhotonDirection(p.out_direction), normal) >= 0.0f;
                EXPECT_TRUE(eligible || !held[i]);
                if (!eligible) continue;
                brute.push_back(s);
                // Nothing that the walk must reach is left out: every
                // photon in its place and nearer than the final bound.
                EXPECT_TRUE(s >= bound || held[i] || lost[i]) << n << " " << q;
                clean = clean && !lost[i];
            }
            std::ranges::sort(tree), std::ranges::sort(brute);
            brute.resize(std::min<size_t>(brute.size(), kPhotonNeighbours));
            EXPECT_TRUE(!clean || tree == brute) << n << " " << q;
            exact += tree == brute;
        }
    }
    EXPECT_GT(exact, queries * 9 / 10);   // wrong sides are rare
    EXPECT_GT(oneChild, 0);
}

TEST(PhotonTreeEstimate, PowerOverTheDiscOfTheFarthest) {
    RegistryGuard guard;
    RayState ray{};
    ray.depth = 1, ray.thread = 3;
    HitRecord hit{};
    hit.geometric_normal = {0, 0, 1};
    build({photonAt({-0.1f, 0, 0}, 2.0f)}, 1.0f);
    EXPECT_EQ(densityEstimate(ray, hit), zero);   // one photon spans no disc

    build({photonAt({-0.1f, 0, 0}, 2.0f), photonAt({0.3f, 0, 0}, 4.0f)}, 1.0f);
    const Color two = densityEstimate(ray, hit);
    EXPECT_FLOAT_EQ(two.x, 6.0f / (kPi * 0.09f));
    EXPECT_FLOAT_EQ(two.y, 2.0f / (kPi * 0.09f));
    hit.position = {0, 0.01f, 0};   // outside the flat bounds
    EXPECT_EQ(densityEstimate(ray, hit), zero);

    // At depth 0 the last full query bounds the ball: 0.05 + 0.15 reaches
    // only the nearer photon.
    hit.position = zero, ray.depth = 0;
    registry.lastQueryPosition[3] = Vector{0.05f, 0, 0}, registry.lastQueryRadius2[3] = 0.0225f;
    EXPECT_EQ(densityEstimate(ray, hit), zero);
    registry.lastQueryRadius2[3] = 1.0f;
    EXPECT_FLOAT_EQ(densityEstimate(ray, hit).x, two.x);

    // A full list leaves its point and its farthest squared distance.
    std::vector<Photon> line;
    for (int i = 0; i < 40; ++i) line.push_back(photonAt({0.01f * float(i - 20), 0, 0}));
    build(line, 1.0f);
    densityEstimate(ray, hit);
    EXPECT_EQ(registry.lastQueryPosition[3].value, zero);
    EXPECT_FLOAT_EQ(registry.lastQueryRadius2[3], 0.0256f);
}

}  // namespace
