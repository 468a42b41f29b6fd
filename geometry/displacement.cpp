// Displacement at load time. Each triangle whose shader lists displacement
// elements becomes a curved patch of n² triangles built from its corner
// normals, and the patch's vertices move by a vector from an image or a
// constant. Elements are passes: pass d applies element d to what pass d - 1
// made, starting from smooth normals. The result is stored as plain
// triangles of the part, so every instance of the object shares it.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "core/clock.h"
#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"
#include "geometry/load_time.h"
#include "shading/images.h"
#include "shading/shader.h"

namespace {

// Barycentric weights are snapped to multiples of 1 / 22403, so that the
// patches on both sides of an edge make the same floats along it.
constexpr float kSnap = 22403.0f;
// Above this a patch would number its points past 32 bits in large parts.
constexpr int kMaxLevel = 4096;

struct EdgePoint {
    Vector p, n;
};

// A point on the cubic across an edge from a (x = 1) to b (x = 0).
Vector edgePoint(float x, Vector Pa, Vector Na, Vector Pb, Vector Nb, Vector& u, float& h) {
    const float y = 1.0f - x;
    u = normalized(Na * x + Nb * y);
    const Vector ab = Pa - Pb;
    const float d1 = dot(ab, Na), d2 = dot(ab, Nb);
    h = (-x * d1 + y * d2) * -x * y;
    return Pa * x + Pb * y + u * h;
}

// The same point with its normal: the part of the blended normal at right
// angles to the curve's direction.
EdgePoint edge(float x, Vector Pa, Vector Na, Vector Pb, Vector Nb) {
    Vector u;
    float h;
    const Vector p = edgePoint(x, Pa, Na, Pb, Nb, u, h);
    const float y = 1.0f - x;
    const Vector ab = Pa - Pb;
    const float d1 = dot(ab, Na), d2 = dot(ab, Nb);
    const float slope = (1.0f + (3.0f * y - 4.0f) * y) * d1 + (3.0f * y - 2.0f) * y * d2;
    const Vector G = normalized(u * slope + (Nb - Na) * h + (Pb - Pa));
    return {p, cross(G, cross(u, G))};
}

float blend(float x) { return x * x * (3.0f - 2.0f * x); }

float snapped(float x) { return std::trunc(kSnap * x) / kSnap; }

// The two edge curves out of a corner at weight b, towards the corner after
// it (X) and the one before it (Y).
struct CornerCurves {
    float b;
    EdgePoint X, Y;
};

// Curves by corner, reused across the points of a patch: the weight of
// corner 0 is fixed along a row, and those of corners 1 and 2 take about
// n + 1 values. An entry serves a point only when its weight is the same
// float, so the points are those of the plain construction.
struct PatchCurves {
    std::vector<CornerCurves> corner[3];
};

const CornerCurves& cornerCurves(std::vector<CornerCurves>& cache, size_t key, float b, Vector P, Vector N,
                                 Vector P1, Vector N1, Vector P2, Vector N2) {
    CornerCurves& entry = cache[key];
    if (!(entry.b == b)) entry = {b, edge(b, P, N, P1, N1), edge(b, P, N, P2, N2)};
    return entry;
}

// The construction from one corner: the curve between the points of its
// two edge curves, at q.
Vector cornerConstruction(const CornerCurves& curves, float q) {
    Vector u;
    float h;
    return edgePoint(q, curves.X.p, curves.X.n, curves.Y.p, curves.Y.n, u, h);
}

// The n² triangles of a level-n patch over the points in row order.
void patchTriangles(int n, std::vector<uint32_t>& triangles) {
    triangles.clear();
    auto row = [](int i) { return uint32_t(i) * uint32_t(i + 1) / 2; };
    for (int i = 1; i <= n; ++i)
        for (int k = 0; k < i; ++k) triangles.insert(triangles.end(), {row(i - 1) + k, row(i) + k, row(i) + k + 1});
    for (int i = 1; i < n; ++i)
        for (int k = 0; k < i; ++k) triangles.insert(triangles.end(), {row(i) + k, row(i + 1) + k + 1, row(i) + k + 1});
}

void patchPoints(const Vector P[3], const Vector N[3], int n, std::vector<PatchPoint>& points, PatchCurves& curves) {
    points.clear();
    const float unset = std::nanf("");
    for (auto& cache : curves.corner) cache.assign(size_t(n) + 1, CornerCurves{unset, {}, {}});
    for (int i = 0; i <= n; ++i) {
        const float r = float(n - i) / float(n);
        const float b0 = snapped(r), e = 1.0f - r;
        const CornerCurves& c0 = cornerCurves(curves.corner[0], size_t(i), b0, P[0], N[0], P[1], N[1], P[2], N[2]);
        for (int j = 0; j <= i; ++j) {
            const float t = i == 0 ? 0.0f : (j == 0 ? 1.0f : float(i - j) / float(i));
            const float b1 = snapped(e * t), b2 = snapped(e * (1.0f - t));
            const CornerCurves& c1 = cornerCurves(curves.corner[1], size_t(i - j), b1, P[1], N[1], P[2], N[2], P[0], N[0]);
            const CornerCurves& c2 = cornerCurves(curves.corner[2], size_t(j), b2, P[2], N[2], P[0], N[0], P[1], N[1]);
            const float f0 = blend(b0), f1 = blend(b1), f2 = blend(b2);
            const Vector E0 = cornerConstruction(c0, b1 == 0.0f ? 0.0f : b1 / (b1 + b2));
            const Vector E1 = cornerConstruction(c1, b2 == 0.0f ? 0.0f : b2 / (b0 + b2));
            const Vector E2 = cornerConstruction(c2, b0 == 0.0f ? 0.0f : b0 / (b0 + b1));
            points.push_back({{b0, b1, b2}, (E0 * f0 + E1 * f1 + E2 * f2) / (f0 + f1 + f2)});
        }
    }
}

// One thread's share of a pass: the triangles it keeps (indices of the
// part), and the vertices and triangles it makes (indices of its own).
struct alignas(64) DisplaceOutput {
    std::vector<Triangle> kept;
    std::vector<Triangle> made;
    std::vector<Vector> positions;
    std::vector<PackedDirection> normals;
    std::vector<PackedDirection> tangents;
    std::vector<std::vector<float>> scalars;
    std::vector<std::vector<UV>> uvs;
    std::vector<std::vector<Vector>> vectors;
    // Scratch: the points of one patch and the triangles of the last level.
    std::vector<PatchPoint> points;
    PatchCurves curves;
    std::vector<uint32_t> patch;
    int patchLevel = -1;
};

// The displacement elements of each shader; shaders past the list have none.
const std::vector<SurfaceElement>* elementsOf(uint32_t shader) {
    static const std::vector<SurfaceElement> none;
    return shader < registry.shaders.size() ? &registry.shaders[shader].geometry.vector : &none;
}

bool hasDirection(const Part& part, uint32_t v) {
    const PackedDirection zeroDirection{0, 0, 0};
    return v < part.positions.size() && v < part.normals.size() && v < part.tangents.size() &&
           !(part.normals[v] == zeroDirection) && !(part.tangents[v] == zeroDirection);
}

int levelOf(const SurfaceElement& element) { return std::clamp(element.level, 0, kMaxLevel); }

template <typename T>
void interpolateChannels(const std::vector<VertexChannel<T>>& channels, std::vector<std::vector<T>>& out,
                         const uint32_t v[3], const float b[3]) {
    for (size_t c = 0; c < channels.size(); ++c) {
        const auto& e = channels[c].elements;
        if (v[0] >= e.size() || v[1] >= e.size() || v[2] >= e.size()) continue;
        if constexpr (std::is_same_v<T, UV>)
            out[c].push_back({e[v[0]].u * b[0] + e[v[1]].u * b[1] + e[v[2]].u * b[2],
                              e[v[0]].v * b[0] + e[v[1]].v * b[1] + e[v[2]].v * b[2]});
        else
            out[c].push_back(e[v[0]] * b[0] + e[v[1]] * b[1] + e[v[2]] * b[2]);
    }
}

// The move of one new vertex by element d: the sampled vector in the
// vertex's own frame, or scaled per channel by the element's direction.
Vector displacementOffset(const SurfaceElement& element, const float uv[2], PackedDirection normal,
                          PackedDirection tangent) {
    const Vector s = elementVector(element, uv);
    if (!(element.direction == Vector{0.0f, 0.0f, 0.0f})) return element.direction * s;
    const Vector N = unpackDirection(normal), T = unpackDirection(tangent);
    const Vector B = cross(N, T);
    return T * s.x - B * s.y + N * s.z;
}

// Pass d on one triangle: kept as it is, or replaced by its moved patch.
void displaceTriangle(const Part& part, const Triangle& t, size_t d, DisplaceOutput& out) {
    const std::vector<SurfaceElement>& elements = *elementsOf(t.shader);
    const uint32_t v[3] = {t.a, t.b, t.c};
    if (d >= elements.size() || !hasDirection(part, v[0]) || !hasDirection(part, v[1]) || !hasDirection(part, v[2])) {
        out.kept.push_back(t);
        return;
    }
    const SurfaceElement& element = elements[d];
    const int n = levelOf(element);
    if (n == 0) return;   // a patch of no triangles: the face is gone
    if (n != out.patchLevel) {
        patchTriangles(n, out.patch);
        out.patchLevel = n;
    }
    const Vector P[3] = {part.positions[v[0]], part.positions[v[1]], part.positions[v[2]]};
    const Vector N[3] = {unpackDirection(part.normals[v[0]]), unpackDirection(part.normals[v[1]]),
                         unpackDirection(part.normals[v[2]])};
    const Vector T[3] = {unpackDirection(part.tangents[v[0]]), unpackDirection(part.tangents[v[1]]),
                         unpackDirection(part.tangents[v[2]])};
    patchPoints(P, N, n, out.points, out.curves);

    const uint32_t first = uint32_t(out.positions.size());
    const size_t uvCount = part.uvChannels.empty() ? 0 : part.uvChannels[0].elements.size();
    const bool hasUv = v[0] < uvCount && v[1] < uvCount && v[2] < uvCount;
    for (const PatchPoint& point : out.points) {
        const float* b = point.b;
        const Vector normal = N[0] * b[0] + N[1] * b[1] + N[2] * b[2];
        const Vector tangent = T[0] * b[0] + T[1] * b[1] + T[2] * b[2];
        const PackedDirection packedNormal = packDirection(normal.x, normal.y, normal.z);
        const PackedDirection packedTangent = packDirection(tangent.x, tangent.y, tangent.z);
        interpolateChannels(part.scalarChannels, out.scalars, v, b);
        interpolateChannels(part.uvChannels, out.uvs, v, b);
        interpolateChannels(part.vectorChannels, out.vectors, v, b);
        // Every point of a patch of level 1 and more is a corner of one of
        // its triangles, so each moves here, once, from its own values: the
        // uv just interpolated, or (0, 0) where the face has none.
        float uv[2] = {0.0f, 0.0f};
        if (hasUv) uv[0] = out.uvs[0].back().u, uv[1] = out.uvs[0].back().v;
        out.positions.push_back(point.p + displacementOffset(element, uv, packedNormal, packedTangent));
        out.normals.push_back(packedNormal);
        out.tangents.push_back(packedTangent);
    }
    for (size_t k = 0; k < out.patch.size(); k += 3)
        out.made.push_back({first + out.patch[k], first + out.patch[k + 1], first + out.patch[k + 2], t.shader});
}

// Room for what one thread will make from its triangles, so that the loop
// does not grow its arrays.
void reserveOutput(const Part& part, size_t begin, size_t end, size_t d, DisplaceOutput& out) {
    size_t kept = 0, points = 0, triangles = 0;
    for (size_t i = begin; i < end; ++i) {
        const std::vector<SurfaceElement>& elements = *elementsOf(part.triangles[i].shader);
        if (d >= elements.size()) {
            ++kept;
            continue;
        }
        const size_t n = size_t(levelOf(elements[d]));
        points += n == 0 ? 0 : (n + 1) * (n + 2) / 2;
        triangles += n * n;
    }
    out.kept.reserve(kept);
    out.made.reserve(triangles);
    out.positions.reserve(points);
    out.normals.reserve(points);
    out.tangents.reserve(points);
    auto reserveFilled = [points](const auto& channels, auto& lists) {
        for (size_t c = 0; c < channels.size(); ++c)
            if (!channels[c].elements.empty()) lists[c].reserve(points);
    };
    reserveFilled(part.scalarChannels, out.scalars);
    reserveFilled(part.uvChannels, out.uvs);
    reserveFilled(part.vectorChannels, out.vectors);
}

// Appends the threads' arrays to `target` in thread order, each thread
// copying its own share.
template <typename T, typename Select>
void appendInThreadOrder(std::vector<T>& target, std::vector<DisplaceOutput>& outputs, int threads, Select select) {
    std::vector<size_t> base(size_t(threads) + 1, target.size());
    for (int t = 0; t < threads; ++t) base[size_t(t) + 1] = base[size_t(t)] + select(outputs[size_t(t)]).size();
    target.resize(base[size_t(threads)]);
#pragma omp parallel for schedule(static) num_threads(threads)
    for (int t = 0; t < threads; ++t) {
        std::vector<T>& source = select(outputs[size_t(t)]);
        std::copy(source.begin(), source.end(), target.begin() + std::ptrdiff_t(base[size_t(t)]));
        std::vector<T>().swap(source);
    }
}

// Pass d over all triangles of the part, then the merge of the threads'
// arrays into the part.
void displacePass(Part& part, size_t d) {
    const int threads = std::clamp(omp_get_max_threads(), 1, kMaxThreads);
    std::vector<DisplaceOutput> outputs(kMaxThreads);
    for (int t = 0; t < threads; ++t) {
        outputs[size_t(t)].scalars.resize(part.scalarChannels.size());
        outputs[size_t(t)].uvs.resize(part.uvChannels.size());
        outputs[size_t(t)].vectors.resize(part.vectorChannels.size());
    }
    const size_t count = part.triangles.size();
#pragma omp parallel num_threads(threads)
    {
        // The static schedule by hand: thread t takes a contiguous run of
        // triangles, so that kept and made triangles stay in order.
        const int t = omp_get_thread_num(), team = omp_get_num_threads();
        const size_t begin = count * size_t(t) / size_t(team), end = count * size_t(t + 1) / size_t(team);
        DisplaceOutput& out = outputs[size_t(t)];
        reserveOutput(part, begin, end, d, out);
        for (size_t i = begin; i < end; ++i) displaceTriangle(part, part.triangles[i], d, out);
    }

    // Vertex indices of the made triangles: after the part's vertices and
    // those of the threads before.
    uint32_t base = uint32_t(part.positions.size());
    for (int t = 0; t < threads; ++t) {
        DisplaceOutput& out = outputs[size_t(t)];
        for (Triangle& tri : out.made) tri = {tri.a + base, tri.b + base, tri.c + base, tri.shader};
        base += uint32_t(out.positions.size());
    }
    part.triangles.clear();
    appendInThreadOrder(part.triangles, outputs, threads, [](DisplaceOutput& o) -> auto& { return o.kept; });
    appendInThreadOrder(part.triangles, outputs, threads, [](DisplaceOutput& o) -> auto& { return o.made; });
    appendInThreadOrder(part.positions, outputs, threads, [](DisplaceOutput& o) -> auto& { return o.positions; });
    for (size_t c = 0; c < part.scalarChannels.size(); ++c)
        appendInThreadOrder(part.scalarChannels[c].elements, outputs, threads,
                            [c](DisplaceOutput& o) -> auto& { return o.scalars[c]; });
    for (size_t c = 0; c < part.uvChannels.size(); ++c)
        appendInThreadOrder(part.uvChannels[c].elements, outputs, threads,
                            [c](DisplaceOutput& o) -> auto& { return o.uvs[c]; });
    for (size_t c = 0; c < part.vectorChannels.size(); ++c)
        appendInThreadOrder(part.vectorChannels[c].elements, outputs, threads,
                            [c](DisplaceOutput& o) -> auto& { return o.vectors[c]; });
    appendInThreadOrder(part.normals, outputs, threads, [](DisplaceOutput& o) -> auto& { return o.normals; });
    appendInThreadOrder(part.tangents, outputs, threads, [](DisplaceOutput& o) -> auto& { return o.tangents; });
}

}  // namespace

void subdividePatch(const Vector P[3], const Vector N[3], int level, std::vector<PatchPoint>& points,
                    std::vector<uint32_t>& triangles) {
    const int n = std::clamp(level, 0, kMaxLevel);
    points.clear();
    triangles.clear();
    if (n == 0) return;
    PatchCurves curves;
    patchPoints(P, N, n, points, curves);
    patchTriangles(n, triangles);
}

void displace(Part& part) {
    const uint64_t start = systemTime100ns();
    size_t passes = 0;
    for (const Triangle& t : part.triangles) passes = std::max(passes, elementsOf(t.shader)->size());
    for (const Tetragon& q : part.tetragons) passes = std::max(passes, elementsOf(q.shader)->size());
    if (passes > 0) {
        part.triangles.reserve(part.triangles.size() + 2 * part.tetragons.size());
        for (const Tetragon& q : part.tetragons) {
            part.triangles.push_back({q.a, q.b, q.c, q.shader});
            part.triangles.push_back({q.c, q.d, q.a, q.shader});
        }
        std::vector<Tetragon>().swap(part.tetragons);
    }
    for (size_t d = 0; d < passes; ++d) {
        smooth(part);
        if (part.normals.empty() || part.tangents.empty()) {
            if (part.normals.empty()) reportWarning("missing vertex normals for displacement mapping");
            if (part.tangents.empty()) reportWarning("missing vertex normals for displacement mapping");
            reportRule();
            break;
        }
        displacePass(part, d);
    }
    registry.displaceMilliseconds += uint32_t((systemTime100ns() - start) / 10000);
}
