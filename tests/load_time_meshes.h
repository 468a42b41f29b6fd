// Procedural meshes for the smoothing and displacement tests, built straight
// into a Part, and the comparisons they share.
#pragma once

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "geometry/object.h"

namespace meshes {

inline uint32_t addVertex(Part& part, Vector p) {
    part.positions.push_back(p);
    return uint32_t(part.positions.size()) - 1;
}

// A unit cube of six outward tetragons, over 8 shared corners or with 24
// vertices of its own per face.
inline Part cube(uint32_t shader, bool ownVertices) {
    Part part;
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    auto corner = [](int i) { return Vector{float(i & 1), float((i >> 1) & 1), float((i >> 2) & 1)}; };
    if (!ownVertices)
        for (int i = 0; i < 8; ++i) addVertex(part, corner(i));
    for (const auto& f : faces) {
        uint32_t v[4];
        for (int k = 0; k < 4; ++k) v[k] = ownVertices ? addVertex(part, corner(f[k])) : uint32_t(f[k]);
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

// The octahedron with its corners on the axes at distance `radius`.
inline Part octahedron(float radius, uint32_t shader) {
    Part part;
    const Vector axes[6] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    for (Vector a : axes) addVertex(part, a * radius);
    for (uint32_t x : {0u, 1u})
        for (uint32_t y : {2u, 3u})
            for (uint32_t z : {4u, 5u}) {
                const bool outward = (x == 0) == (y == 2) ? z == 4 : z == 5;
                part.triangles.push_back(outward ? Triangle{x, y, z, shader} : Triangle{x, z, y, shader});
            }
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

// The corners of a part's faces, as (position, normal) in face order: what
// smoothing must keep whatever vertex order it chooses.
struct CornerValue {
    Vector position;
    PackedDirection normal;
};

inline std::vector<CornerValue> cornerValues(const Part& part) {
    std::vector<CornerValue> corners;
    auto add = [&](uint32_t v) {
        corners.push_back({part.positions[v], v < part.normals.size() ? part.normals[v] : PackedDirection{0, 0, 0}});
    };
    for (const Triangle& t : part.triangles)
        for (uint32_t v : {t.a, t.b, t.c}) add(v);
    for (const Tetragon& q : part.tetragons)
        for (uint32_t v : {q.a, q.b, q.c, q.d}) add(v);
    return corners;
}

// Whether two arrays hold the same bytes: the same floats to the bit.
template <typename T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// Whether two parts hold the same faces, vertices and channel values.
inline bool sameArrays(const Part& a, const Part& b) {
    bool same = sameBytes(a.positions, b.positions) && sameBytes(a.normals, b.normals) &&
                sameBytes(a.tangents, b.tangents) && sameBytes(a.triangles, b.triangles) &&
                sameBytes(a.tetragons, b.tetragons) && a.uvChannels.size() == b.uvChannels.size() &&
                a.scalarChannels.size() == b.scalarChannels.size() &&
                a.vectorChannels.size() == b.vectorChannels.size();
    for (size_t c = 0; same && c < a.uvChannels.size(); ++c)
        same = sameBytes(a.uvChannels[c].elements, b.uvChannels[c].elements);
    for (size_t c = 0; same && c < a.scalarChannels.size(); ++c)
        same = sameBytes(a.scalarChannels[c].elements, b.scalarChannels[c].elements);
    for (size_t c = 0; same && c < a.vectorChannels.size(); ++c)
        same = sameBytes(a.vectorChannels[c].elements, b.vectorChannels[c].elements);
    return same;
}

// What `make` returns on each team size of `teams`; the runtime's team size
// is restored afterwards.
template <typename Make>
std::vector<Part> onTeams(std::initializer_list<int> teams, Make make) {
    const int threads = omp_get_max_threads();
    std::vector<Part> parts;
    for (int team : teams) {
        omp_set_num_threads(team);
        parts.push_back(make());
    }
    omp_set_num_threads(threads);
    return parts;
}

}  // namespace meshes
