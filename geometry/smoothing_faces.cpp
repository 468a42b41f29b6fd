// Faces and corners as smoothing sees them: a face's normal and tangent, the
// vertex and face of a numbered corner, and whether two vertices carry the
// same values.
#include <algorithm>
#include <cmath>
#include <type_traits>

#include "geometry/smoothing_phases.h"

namespace smoothing {

namespace {

Vector fallbackTangent(Vector n) {
    if (n.z < -0.9999999f) return {0.0f, -1.0f, 0.0f};
    const float k = 1.0f / (1.0f + n.z);
    return {1.0f - k * n.x * n.x, -k * n.x * n.y, -n.x};
}

}  // namespace

template <int N>
Vector faceTangent(const SmoothInput& in, const uint32_t (&v)[N], Vector normal) {
    if (in.uvTangents) {
        const auto& uv = in.part.uvChannels[0].elements;
        const size_t limit = std::min(uv.size(), in.part.tangents.size());
        bool inside = true;
        for (int i = 0; i < N; ++i) inside = inside && v[i] < limit;
        if (inside) {
            const float du1 = uv[v[1]].u - uv[v[0]].u, dv1 = uv[v[1]].v - uv[v[0]].v;
            const float du2 = uv[v[2]].u - uv[v[0]].u, dv2 = uv[v[2]].v - uv[v[0]].v;
            const bool flat = std::fabs(du1) < 1e-8f && std::fabs(dv1) < 1e-8f && std::fabs(du2) < 1e-8f &&
                              std::fabs(dv2) < 1e-8f;
            if (!flat) {
                const Vector a = positionAt(in.part, v[0]);
                return normalized((positionAt(in.part, v[1]) - a) * dv2 - (positionAt(in.part, v[2]) - a) * dv1);
            }
        }
    }
    return fallbackTangent(normal);
}

template Vector faceTangent<3>(const SmoothInput&, const uint32_t (&)[3], Vector);
template Vector faceTangent<4>(const SmoothInput&, const uint32_t (&)[4], Vector);

namespace {

FaceVectors triangleVectors(const SmoothInput& in, const Triangle& t) {
    const uint32_t v[3] = {t.a, t.b, t.c};
    const Vector a = positionAt(in.part, v[0]);
    const Vector normal = normalized(cross(positionAt(in.part, v[1]) - a, positionAt(in.part, v[2]) - a));
    return {normal, faceTangent(in, v, normal)};
}

FaceVectors tetragonVectors(const SmoothInput& in, const Tetragon& q) {
    const uint32_t v[4] = {q.a, q.b, q.c, q.d};
    const Vector normal = normalized(cross(positionAt(in.part, v[2]) - positionAt(in.part, v[0]),
                                           positionAt(in.part, v[3]) - positionAt(in.part, v[1])));
    return {normal, faceTangent(in, v, normal)};
}

// Channels that either vertex lies beyond are not compared.
template <typename T>
bool sameInChannels(const std::vector<VertexChannel<T>>& channels, uint32_t a, uint32_t b) {
    for (const auto& channel : channels) {
        const auto& e = channel.elements;
        if (a >= e.size() || b >= e.size()) continue;
        if constexpr (std::is_same_v<T, UV>) {
            if (!(e[a].u == e[b].u && e[a].v == e[b].v)) return false;
        } else {
            if (!(e[a] == e[b])) return false;
        }
    }
    return true;
}

}  // namespace

uint32_t cornerVertex(const Part& part, uint32_t corner, uint32_t& shader, FaceVectors& face, const SmoothInput& in) {
    const size_t triangleCorners = 3 * part.triangles.size();
    if (corner < triangleCorners) {
        const Triangle& t = part.triangles[corner / 3];
        shader = t.shader;
        face = triangleVectors(in, t);
        return corner % 3 == 0 ? t.a : corner % 3 == 1 ? t.b : t.c;
    }
    const Tetragon& q = part.tetragons[(corner - triangleCorners) / 4];
    shader = q.shader;
    face = tetragonVectors(in, q);
    const uint32_t k = uint32_t((corner - triangleCorners) % 4);
    return k == 0 ? q.a : k == 1 ? q.b : k == 2 ? q.c : q.d;
}

bool sameChannels(const Part& part, uint32_t a, uint32_t b) {
    return sameInChannels(part.vectorChannels, a, b) && sameInChannels(part.uvChannels, a, b) &&
           sameInChannels(part.scalarChannels, a, b);
}

bool sameValues(const Part& part, uint32_t a, uint32_t b) {
    if (a == b) return true;
    return part.positions[a] == part.positions[b] && sameChannels(part, a, b);
}

}  // namespace smoothing
