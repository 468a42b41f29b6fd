// Procedural meshes for the smoothing and displacement tests, and the comparisons they share.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <string_view>
#include <vector>

#include "geometry/object.h"

namespace meshes {

inline uint32_t addVertex(Part& part, Vector p) {
    part.positions.push_back(p);
    return uint32_t(part.positions.size()) - 1;
}

// A unit cube of six outward tetragons, each face with 4 vertices of its own.
inline Part cube(uint32_t shader) {
    Part part;
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces) {
        uint32_t v[4];
        for (int k = 0; k < 4; ++k) v[k] = addVertex(part, {float(f[k] & 1), float((f[k] >> 1) & 1), float((f[k] >> 2) & 1)});
        part.tetragons.push_back({v[0], v[1], v[2], v[3], shader});
    }
    return part;
}

// A sphere of `rings` bands and `segments` around, as triangles over shared
// vertices, with a single vertex at each pole.
inline Part sphere(int segments, int rings, float radius, uint32_t shader) {
    Part part;
    const float pi = 3.14159265f;
    addVertex(part, {0, 0, radius});
    for (int r = 1; r < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            const float theta = pi * float(r) / float(rings), phi = 2 * pi * float(s) / float(segments);
            addVertex(part, Vector{std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)} *
                                radius);
        }
    const uint32_t south = addVertex(part, {0, 0, -radius});
    auto at = [segments](int r, int s) { return uint32_t(1 + (r - 1) * segments + (s % segments)); };
    for (int s = 0; s < segments; ++s) {
        part.triangles.push_back({0, at(1, s), at(1, s + 1), shader});
        part.triangles.push_back({south, at(rings - 1, s + 1), at(rings - 1, s), shader});
        for (int r = 1; r + 1 < rings; ++r) {
            part.triangles.push_back({at(r, s), at(r + 1, s), at(r + 1, s + 1), shader});
            part.triangles.push_back({at(r, s), at(r + 1, s + 1), at(r, s + 1), shader});
        }
    }
    return part;
}

// The octahedron with its corners on the axes at distance `r`, faces outward.
inline Part octahedron(float r, uint32_t shader) {
    Part part;
    part.positions = {{r, 0, 0}, {-r, 0, 0}, {0, r, 0}, {0, -r, 0}, {0, 0, r}, {0, 0, -r}};
    const uint32_t faces[8][3] = {{0, 2, 4}, {0, 5, 2}, {0, 4, 3}, {0, 3, 5}, {1, 4, 2}, {1, 2, 5}, {1, 3, 4}, {1, 5, 3}};
    for (const auto& f : faces) part.triangles.push_back({f[0], f[1], f[2], shader});
    return part;
}

// A square [0, size]² in the z = 0 plane of n x n tetragons, with uv = xy / size.
inline Part grid(int n, float size, uint32_t shader) {
    Part part;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) {
            addVertex(part, {size * float(i) / float(n), size * float(j) / float(n), 0.0f});
            part.uvChannels[0].elements.push_back({float(i) / float(n), float(j) / float(n)});
        }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const uint32_t a = uint32_t(j * (n + 1) + i);
            part.tetragons.push_back({a, a + 1, a + uint32_t(n) + 2, a + uint32_t(n) + 1, shader});
        }
    return part;
}

inline float angleDegrees(Vector a, Vector b) {
    const float d = dot(normalized(a), normalized(b));
    return std::acos(std::fmin(std::fmax(d, -1.0f), 1.0f)) * 57.29578f;
}

// The bytes of every array of a part, channels included: equal parts hold the same floats to the bit.
inline std::vector<std::string_view> arrayBytes(const Part& p) {
    auto bytes = [](const auto& v) { return std::string_view(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(v[0])); };
    std::vector<std::string_view> out{bytes(p.positions), bytes(p.normals), bytes(p.tangents), bytes(p.triangles),
                                      bytes(p.tetragons)};
    for (const auto& c : p.uvChannels) out.push_back(bytes(c.elements));
    for (const auto& c : p.scalarChannels) out.push_back(bytes(c.elements));
    for (const auto& c : p.vectorChannels) out.push_back(bytes(c.elements));
    return out;
}

// What `make` returns on a team of one thread, checked to come out the same
// on each team size of `teams`; the runtime's team size is restored afterwards.
template <typename Make>
Part sameOnEveryTeam(std::initializer_list<int> teams, Make make) {
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const Part first = make();
    for (int team : teams) {
        omp_set_num_threads(team);
        EXPECT_TRUE(arrayBytes(make()) == arrayBytes(first)) << "team of " << team;
    }
    omp_set_num_threads(threads);
    return first;
}

}  // namespace meshes
