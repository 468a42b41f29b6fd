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

// Everything about a patch of level n that depends on n alone: for each
// point its snapped weights, the blend weights and the crossing of each
// corner's construction, and the triangles. The curves out of a corner
// depend on the triangle and on the corner's weight alone, and the weights
// of a corner take few values, so each distinct one gets its curves once
// per triangle.
struct PatchWeights {
    float b[3];          // barycentric weights, snapped
    float f[3];          // blend weights
    float sum;           // f0 + f1 + f2
    float q[3];          // where each corner's construction lies between its two curves
    uint32_t curve[3];   // index of b[c] among the weights of corner c
};

struct PatchTable {
    int level = 0;
    std::vector<PatchWeights> points;
    std::vector<float> weights[3];   // distinct weights of each corner, rising
    std::vector<uint32_t> triangles;
};

// The n² triangles of a level-n patch over the points in row order.
void patchTriangles(int n, std::vector<uint32_t>& triangles) {
    triangles.clear();
    auto row = [](int i) { return uint32_t(i) * uint32_t(i + 1) / 2; };
    for (int i = 1; i <= n; ++i)
        for (int k = 0; k < i; ++k) triangles.insert(triangles.end(), {row(i - 1) + k, row(i) + k, row(i) + k + 1});
    for (int i = 1; i < n; ++i)
        for (int k = 0; k < i; ++k) triangles.insert(triangles.end(), {row(i) + k, row(i + 1) + k + 1, row(i) + k + 1});
}

PatchTable makePatchTable(int n) {
    PatchTable table;
    table.level = n;
    if (n == 0) return table;
    for (int i = 0; i <= n; ++i) {
        const float r = float(n - i) / float(n);
        const float b0 = snapped(r), e = 1.0f - r;
        for (int j = 0; j <= i; ++j) {
            const float t = i == 0 ? 0.0f : (j == 0 ? 1.0f : float(i - j) / float(i));
            const float b1 = snapped(e * t), b2 = snapped(e * (1.0f - t));
            const float f0 = blend(b0), f1 = blend(b1), f2 = blend(b2);
            table.points.push_back({{b0, b1, b2},
                                    {f0, f1, f2},
                                    f0 + f1 + f2,
                                    {b1 == 0.0f ? 0.0f : b1 / (b1 + b2), b2 == 0.0f ? 0.0f : b2 / (b0 + b2),
                                     b0 == 0.0f ? 0.0f : b0 / (b0 + b1)},
                                    {0, 0, 0}});
        }
    }
    // Snapped weights are never negative, so equal weights have equal bits.
    for (int c = 0; c < 3; ++c) {
        std::vector<float>& weights = table.weights[c];
        for (const PatchWeights& point : table.points) weights.push_back(point.b[c]);
        std::sort(weights.begin(), weights.end());
        weights.erase(std::unique(weights.begin(), weights.end()), weights.end());
        for (PatchWeights& point : table.points)
            point.curve[c] = uint32_t(std::lower_bound(weights.begin(), weights.end(), point.b[c]) - weights.begin());
    }
    patchTriangles(n, table.triangles);
    return table;
}

// The two edge curves out of a corner at one of its weights, towards the
// corner after it (X) and the one before it (Y).
struct CornerCurves {
    EdgePoint X, Y;
};

// The points of a patch over one triangle with unit corner normals, into
// `points`; `curves` is scratch.
void patchPoints(const PatchTable& table, const Vector P[3], const Vector N[3], std::vector<CornerCurves> curves[3],
                 Vector* points) {
    for (int c = 0; c < 3; ++c) {
        const int next = (c + 1) % 3, previous = (c + 2) % 3;
        curves[c].resize(table.weights[c].size());
        for (size_t k = 0; k < table.weights[c].size(); ++k) {
            const float b = table.weights[c][k];
            curves[c][k] = {edge(b, P[c], N[c], P[next], N[next]), edge(b, P[c], N[c], P[previous], N[previous])};
        }
    }
    const size_t count = table.points.size();
    for (size_t k = 0; k < count; ++k) {
        const PatchWeights& w = table.points[k];
        Vector E[3];
        for (int c = 0; c < 3; ++c) {
            const CornerCurves& curve = curves[c][w.curve[c]];
            Vector u;
            float h;
            E[c] = edgePoint(w.q[c], curve.X.p, curve.X.n, curve.Y.p, curve.Y.n, u, h);
        }
        points[k] = (E[0] * w.f[0] + E[1] * w.f[1] + E[2] * w.f[2]) / w.sum;
    }
}

// The displacement elements of each shader; shaders past the list have none.
const std::vector<SurfaceElement>* elementsOf(uint32_t shader) {
    static const std::vector<SurfaceElement> none;
    return shader < registry.shaders.size() ? &registry.shaders[shader].geometry.vector : &none;
}

int levelOf(const SurfaceElement& element) { return std::clamp(element.level, 0, kMaxLevel); }

size_t pointCount(int n) { return n == 0 ? 0 : size_t(n + 1) * size_t(n + 2) / 2; }

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

// What a pass reads of the part, with the lengths its arrays had before the
// pass grew them. The channels of all three kinds share one numbering:
// scalar channels, then uv channels, then vector channels.
struct PassInput {
    size_t d;
    size_t positions, normals, tangents;
    std::vector<size_t> channels;

    PassInput(const Part& part, size_t pass)
        : d(pass), positions(part.positions.size()), normals(part.normals.size()), tangents(part.tangents.size()) {
        for (const auto& c : part.scalarChannels) channels.push_back(c.elements.size());
        for (const auto& c : part.uvChannels) channels.push_back(c.elements.size());
        for (const auto& c : part.vectorChannels) channels.push_back(c.elements.size());
    }

    bool hasDirection(const Part& part, uint32_t v) const {
        const PackedDirection zeroDirection{0, 0, 0};
        return v < positions && v < normals && v < tangents && !(part.normals[v] == zeroDirection) &&
               !(part.tangents[v] == zeroDirection);
    }

    // The element that this pass applies to a triangle, or null where the
    // triangle is kept as it is.
    const SurfaceElement* element(const Part& part, const Triangle& t) const {
        const std::vector<SurfaceElement>& elements = *elementsOf(t.shader);
        if (d >= elements.size() || !hasDirection(part, t.a) || !hasDirection(part, t.b) || !hasDirection(part, t.c))
            return nullptr;
        return &elements[d];
    }

    // Whether the corners of a triangle lie within channel c.
    bool within(size_t c, const uint32_t v[3]) const {
        return v[0] < channels[c] && v[1] < channels[c] && v[2] < channels[c];
    }
};

// One thread's share of a pass: a run of the part's triangles, what it keeps
// and makes from them, and where that goes in the part's arrays, which are
// sized for all threads before any of them writes. Kept triangles go first
// in thread order, then made ones; new vertices follow the part's own.
struct alignas(64) DisplaceShare {
    size_t begin = 0, end = 0;
    size_t kept = 0, made = 0, points = 0;
    std::vector<size_t> channelPoints;   // values added to each channel
    std::vector<int> levels;             // the patch levels it uses
    size_t keptAt = 0, madeAt = 0, pointsAt = 0, normalsAt = 0, tangentsAt = 0;
    std::vector<size_t> channelAt;
    // Scratch for one patch.
    std::vector<CornerCurves> curves[3];
    std::vector<Vector> patch;
};

void countShare(const Part& part, const PassInput& in, DisplaceShare& share) {
    share.channelPoints.assign(in.channels.size(), 0);
    int lastLevel = -1;
    for (size_t i = share.begin; i < share.end; ++i) {
        const Triangle& t = part.triangles[i];
        const SurfaceElement* element = in.element(part, t);
        if (!element) {
            ++share.kept;
            continue;
        }
        const int n = levelOf(*element);
        if (n == 0) continue;   // a patch of no triangles: the face is gone
        if (n != lastLevel && std::find(share.levels.begin(), share.levels.end(), n) == share.levels.end())
            share.levels.push_back(n);
        lastLevel = n;
        const size_t points = pointCount(n);
        share.points += points;
        share.made += size_t(n) * size_t(n);
        const uint32_t v[3] = {t.a, t.b, t.c};
        for (size_t c = 0; c < in.channels.size(); ++c)
            if (in.within(c, v)) share.channelPoints[c] += points;
    }
}

// Writes the interpolated values of the channels of one kind for the points
// of a patch, where the triangle's corners lie within the channel.
template <typename T>
void writeChannels(std::vector<VertexChannel<T>>& channels, size_t first, const PassInput& in, DisplaceShare& share,
                   const uint32_t v[3], const PatchTable& table) {
    for (size_t c = 0; c < channels.size(); ++c) {
        if (!in.within(first + c, v)) continue;
        std::vector<T>& e = channels[c].elements;
        size_t& at = share.channelAt[first + c];
        for (const PatchWeights& point : table.points) {
            const float* b = point.b;
            if constexpr (std::is_same_v<T, UV>)
                e[at++] = {e[v[0]].u * b[0] + e[v[1]].u * b[1] + e[v[2]].u * b[2],
                           e[v[0]].v * b[0] + e[v[1]].v * b[1] + e[v[2]].v * b[2]};
            else
                e[at++] = e[v[0]] * b[0] + e[v[1]] * b[1] + e[v[2]] * b[2];
        }
    }
}

// Pass d on one triangle: kept as it is, or replaced by its moved patch,
// written where the share's counters point.
void displaceTriangle(Part& part, const PassInput& in, const Triangle& t, const std::vector<const PatchTable*>& tables,
                      std::vector<Triangle>& triangles, DisplaceShare& share) {
    const SurfaceElement* element = in.element(part, t);
    if (!element) {
        triangles[share.keptAt++] = t;
        return;
    }
    const int n = levelOf(*element);
    if (n == 0) return;
    const PatchTable& table = *tables[size_t(n)];
    const uint32_t v[3] = {t.a, t.b, t.c};
    const Vector P[3] = {part.positions[v[0]], part.positions[v[1]], part.positions[v[2]]};
    const Vector N[3] = {unpackDirection(part.normals[v[0]]), unpackDirection(part.normals[v[1]]),
                         unpackDirection(part.normals[v[2]])};
    const Vector T[3] = {unpackDirection(part.tangents[v[0]]), unpackDirection(part.tangents[v[1]]),
                         unpackDirection(part.tangents[v[2]])};
    const size_t count = table.points.size();
    share.patch.resize(count);
    patchPoints(table, P, N, share.curves, share.patch.data());

    // Every point of a patch is a corner of one of its triangles, so each
    // moves here, once, from its own values: the uv interpolated from uv
    // channel 0, or (0, 0) where the face has none there.
    const size_t uvChannel = part.scalarChannels.size();
    const bool hasUv = !part.uvChannels.empty() && in.within(uvChannel, v);
    for (size_t k = 0; k < count; ++k) {
        const float* b = table.points[k].b;
        const Vector normal = N[0] * b[0] + N[1] * b[1] + N[2] * b[2];
        const Vector tangent = T[0] * b[0] + T[1] * b[1] + T[2] * b[2];
        const PackedDirection packedNormal = packDirection(normal.x, normal.y, normal.z);
        const PackedDirection packedTangent = packDirection(tangent.x, tangent.y, tangent.z);
        float uv[2] = {0.0f, 0.0f};
        if (hasUv) {
            const std::vector<UV>& e = part.uvChannels[0].elements;
            uv[0] = e[v[0]].u * b[0] + e[v[1]].u * b[1] + e[v[2]].u * b[2];
            uv[1] = e[v[0]].v * b[0] + e[v[1]].v * b[1] + e[v[2]].v * b[2];
        }
        part.positions[share.pointsAt + k] =
            share.patch[k] + displacementOffset(*element, uv, packedNormal, packedTangent);
        part.normals[share.normalsAt + k] = packedNormal;
        part.tangents[share.tangentsAt + k] = packedTangent;
    }
    writeChannels(part.scalarChannels, 0, in, share, v, table);
    writeChannels(part.uvChannels, uvChannel, in, share, v, table);
    writeChannels(part.vectorChannels, uvChannel + part.uvChannels.size(), in, share, v, table);

    const uint32_t first = uint32_t(share.pointsAt);
    for (size_t k = 0; k < table.triangles.size(); k += 3)
        triangles[share.madeAt++] = {first + table.triangles[k], first + table.triangles[k + 1],
                                     first + table.triangles[k + 2], t.shader};
    share.pointsAt += count;
    share.normalsAt += count;
    share.tangentsAt += count;
}

// Pass d over all triangles of the part: each thread counts what its run of
// triangles keeps and makes, the part's arrays grow once to hold it all, and
// each thread writes its share in place.
void displacePass(Part& part, size_t d) {
    const int threads = std::clamp(omp_get_max_threads(), 1, kMaxThreads);
    std::vector<DisplaceShare> shares(kMaxThreads);
    const PassInput in(part, d);
    const size_t count = part.triangles.size();
    std::vector<Triangle> triangles;
    std::vector<PatchTable> tables;
    std::vector<const PatchTable*> tableOfLevel(kMaxLevel + 1, nullptr);
    std::vector<size_t> total;   // the new length of each array
#pragma omp parallel num_threads(threads)
    {
        // The static schedule by hand: thread t takes a contiguous run of
        // triangles, so that kept and made triangles stay in order.
        const int t = omp_get_thread_num(), team = omp_get_num_threads();
        DisplaceShare& share = shares[size_t(t)];
        share.begin = count * size_t(t) / size_t(team), share.end = count * size_t(t + 1) / size_t(team);
        countShare(part, in, share);
#pragma omp barrier
#pragma omp single
        {
            size_t kept = 0;
            for (int s = 0; s < team; ++s) kept += shares[size_t(s)].kept;
            size_t keptAt = 0, madeAt = kept, points = 0;
            std::vector<size_t> channelPoints(in.channels.size(), 0);
            std::vector<int> levels;
            for (int s = 0; s < team; ++s) {
                DisplaceShare& other = shares[size_t(s)];
                other.keptAt = keptAt, other.madeAt = madeAt;
                keptAt += other.kept, madeAt += other.made;
                other.pointsAt = in.positions + points;
                other.normalsAt = in.normals + points;
                other.tangentsAt = in.tangents + points;
                points += other.points;
                other.channelAt.resize(in.channels.size());
                for (size_t c = 0; c < in.channels.size(); ++c) {
                    other.channelAt[c] = in.channels[c] + channelPoints[c];
                    channelPoints[c] += other.channelPoints[c];
                }
                for (int level : other.levels)
                    if (std::find(levels.begin(), levels.end(), level) == levels.end()) levels.push_back(level);
            }
            tables.reserve(levels.size());
            for (int level : levels) {
                tables.push_back(makePatchTable(level));
                tableOfLevel[size_t(level)] = &tables.back();
            }
            total = {madeAt, in.positions + points, in.normals + points, in.tangents + points};
            for (size_t c = 0; c < in.channels.size(); ++c) total.push_back(in.channels[c] + channelPoints[c]);
        }
        // The arrays grow on all threads at once: the first touch of new
        // memory, which the growth makes, costs more than the writes after.
        const size_t scalars = part.scalarChannels.size(), uvs = part.uvChannels.size();
#pragma omp for schedule(dynamic)
        for (size_t a = 0; a < total.size(); ++a) {
            if (a == 0) triangles.resize(total[a]);
            else if (a == 1) part.positions.resize(total[a]);
            else if (a == 2) part.normals.resize(total[a]);
            else if (a == 3) part.tangents.resize(total[a]);
            else if (a - 4 < scalars) part.scalarChannels[a - 4].elements.resize(total[a]);
            else if (a - 4 < scalars + uvs) part.uvChannels[a - 4 - scalars].elements.resize(total[a]);
            else part.vectorChannels[a - 4 - scalars - uvs].elements.resize(total[a]);
        }
        for (size_t i = share.begin; i < share.end; ++i)
            displaceTriangle(part, in, part.triangles[i], tableOfLevel, triangles, share);
    }
    part.triangles.swap(triangles);
}

}  // namespace

void subdividePatch(const Vector P[3], const Vector N[3], int level, std::vector<PatchPoint>& points,
                    std::vector<uint32_t>& triangles) {
    const PatchTable table = makePatchTable(std::clamp(level, 0, kMaxLevel));
    std::vector<CornerCurves> curves[3];
    std::vector<Vector> patch(table.points.size());
    patchPoints(table, P, N, curves, patch.data());
    points.clear();
    for (size_t k = 0; k < patch.size(); ++k)
        points.push_back({{table.points[k].b[0], table.points[k].b[1], table.points[k].b[2]}, patch[k]});
    triangles = table.triangles;
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
