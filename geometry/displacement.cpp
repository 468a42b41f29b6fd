// Displacement at load time. Each triangle whose shader lists displacement
// elements becomes a curved patch of n² triangles built from its corner
// normals, and the patch's vertices move by a vector from an image or a
// constant. Elements are passes: pass d applies element d to what pass d - 1
// made, starting from smooth normals. The result is stored as plain
// triangles of the part, so every instance of the object shares it.
#include <omp.h>
#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "core/clock.h"
#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"
#include "geometry/lanes.h"
#include "geometry/load_time.h"
#include "core/images.h"
#include "core/shader_record.h"

namespace {

// Barycentric weights are snapped to multiples of 1 / 22403, so that the
// patches on both sides of an edge make the same floats along it.
constexpr float kSnap = 22403.0f;
// Above this a patch would number its points past 32 bits in large parts.
constexpr int kMaxLevel = 4096;

float blend(float x) { return x * x * (3.0f - 2.0f * x); }

float snapped(float x) { return std::trunc(kSnap * x) / kSnap; }

// Everything about a patch of level n that depends on n alone: for each
// point its snapped weights, the blend weights and where each corner's
// construction crosses between its two curves, and the triangles. The curves
// out of a corner depend on the triangle and on the corner's weight alone,
// and the weights of a corner take few values, so each distinct one gets its
// curves once per triangle: each curve is an edge job, a weight with the
// corner it leaves and the corner it goes to. Points and jobs are kept in
// runs of kLanes, the last run filled up with copies of the last entry.
struct PatchTable {
    int level = 0;
    size_t count = 0;                                    // points
    std::vector<float> b[3], f[3], sum, q[3];            // per point
    std::vector<uint32_t> curve[3];                      // the curves of corner c at b[c]
    size_t curves = 0;                                   // pairs of curves, one per corner and weight
    size_t jobs = 0;
    std::vector<float> jobWeight;
    std::vector<uint32_t> jobCurve;                      // the pair it makes
    std::vector<uint8_t> jobFrom, jobTo, jobSecond;      // corners; whether it is the pair's second curve
    std::vector<uint32_t> triangles;                     // n² index triples
};

size_t paddedLength(size_t n) { return (n + kLanes - 1) / kLanes * kLanes; }

template <typename T>
void padWithLast(std::vector<T>& v) {
    if (!v.empty()) v.resize(paddedLength(v.size()), v.back());
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
            const float b[3] = {b0, b1, b2}, f[3] = {blend(b0), blend(b1), blend(b2)};
            for (int c = 0; c < 3; ++c) table.b[c].push_back(b[c]), table.f[c].push_back(f[c]);
            table.sum.push_back(f[0] + f[1] + f[2]);
            table.q[0].push_back(b1 == 0.0f ? 0.0f : b1 / (b1 + b2));
            table.q[1].push_back(b2 == 0.0f ? 0.0f : b2 / (b0 + b2));
            table.q[2].push_back(b0 == 0.0f ? 0.0f : b0 / (b0 + b1));
        }
    }
    table.count = table.sum.size();
    // Snapped weights are never negative, so equal weights have equal bits.
    for (int c = 0; c < 3; ++c) {
        std::vector<float> weights = table.b[c];
        std::sort(weights.begin(), weights.end());
        weights.erase(std::unique(weights.begin(), weights.end()), weights.end());
        const uint32_t first = uint32_t(table.curves);
        for (float b : table.b[c])
            table.curve[c].push_back(first +
                                     uint32_t(std::lower_bound(weights.begin(), weights.end(), b) - weights.begin()));
        for (size_t k = 0; k < weights.size(); ++k)
            for (int second = 0; second < 2; ++second) {
                table.jobWeight.push_back(weights[k]);
                table.jobCurve.push_back(first + uint32_t(k));
                table.jobFrom.push_back(uint8_t(c));
                table.jobTo.push_back(uint8_t((c + (second ? 2 : 1)) % 3));
                table.jobSecond.push_back(uint8_t(second));
            }
        table.curves += weights.size();
        padWithLast(table.b[c]), padWithLast(table.f[c]), padWithLast(table.q[c]), padWithLast(table.curve[c]);
    }
    table.jobs = table.jobWeight.size();
    padWithLast(table.jobWeight), padWithLast(table.jobCurve), padWithLast(table.jobFrom), padWithLast(table.jobTo);
    padWithLast(table.jobSecond);
    padWithLast(table.sum);
    patchTriangles(n, table.triangles);
    return table;
}

// A point on the cubic across an edge from a (x = 1) to b (x = 0), on each
// lane: the unit blend of the normals u, the height h over the chord, and the
// point.
[[gnu::always_inline]] inline LaneVector edgePoint(Lanes x, const LaneVector& Pa, const LaneVector& Na,
                                                   const LaneVector& Pb, const LaneVector& Nb, LaneVector& u,
                                                   Lanes& h) {
    const Lanes y = 1.0f - x;
    u = normalized(Na * x + Nb * y);
    const LaneVector ab = Pa - Pb;
    const Lanes d1 = dot(ab, Na), d2 = dot(ab, Nb);
    h = (-x * d1 + y * d2) * -x * y;
    return Pa * x + Pb * y + u * h;
}

// The same point with its normal: the part of the blended normal at right
// angles to the curve's direction.
[[gnu::always_inline]] inline void edge(Lanes x, const LaneVector& Pa, const LaneVector& Na, const LaneVector& Pb,
                                        const LaneVector& Nb, LaneVector& p, LaneVector& n) {
    LaneVector u;
    Lanes h;
    p = edgePoint(x, Pa, Na, Pb, Nb, u, h);
    const Lanes y = 1.0f - x;
    const LaneVector ab = Pa - Pb;
    const Lanes d1 = dot(ab, Na), d2 = dot(ab, Nb);
    const Lanes slope = (1.0f + (3.0f * y - 4.0f) * y) * d1 + (3.0f * y - 2.0f) * y * d2;
    const LaneVector G = normalized(u * slope + (Nb - Na) * h + (Pb - Pa));
    n = cross(G, cross(u, G));
}

// The two edge curves out of a corner at one of its weights, towards the
// corner after it (X) and the one before it (Y): points and normals.
struct CornerCurves {
    Vector Xp, Xn, Yp, Yn;
};

// The curves of each corner of one triangle with unit corner normals, at
// each of the corner's weights, kLanes edge jobs at a time.
void cornerCurves(const PatchTable& table, const Vector P[3], const Vector N[3], std::vector<CornerCurves>& curves) {
    curves.resize(table.curves);
    for (size_t k = 0; k < table.jobs; k += kLanes) {
        // The corners of each lane's job: Pa, Na, Pb, Nb.
        LaneVector ends[4];
        gather(
            [&](int i, Vector (&values)[4]) {
                const int from = table.jobFrom[k + size_t(i)], to = table.jobTo[k + size_t(i)];
                values[0] = P[from], values[1] = N[from], values[2] = P[to], values[3] = N[to];
            },
            ends);
        LaneVector p, n;
        edge(load(&table.jobWeight[k]), ends[0], ends[1], ends[2], ends[3], p, n);
        for (int i = 0; i < kLanes; ++i) {
            CornerCurves& pair = curves[table.jobCurve[k + size_t(i)]];
            if (table.jobSecond[k + size_t(i)]) pair.Yp = lane(p, i), pair.Yn = lane(n, i);
            else pair.Xp = lane(p, i), pair.Xn = lane(n, i);
        }
    }
}

// Points k to k + kLanes - 1 of the patch: each corner's construction
// between its two curves, blended.
[[gnu::always_inline]] inline LaneVector patchPoints(const PatchTable& table, const std::vector<CornerCurves>& curves,
                                                     size_t k) {
    LaneVector E[3];
    for (int c = 0; c < 3; ++c) {
        // The curves of each lane's weight: Xp, Xn, Yp, Yn.
        LaneVector curve[4];
        gather(
            [&](int i, Vector (&values)[4]) {
                const CornerCurves& pair = curves[table.curve[c][k + size_t(i)]];
                values[0] = pair.Xp, values[1] = pair.Xn, values[2] = pair.Yp, values[3] = pair.Yn;
            },
            curve);
        LaneVector u;
        Lanes h;
        E[c] = edgePoint(load(&table.q[c][k]), curve[0], curve[1], curve[2], curve[3], u, h);
    }
    return (E[0] * load(&table.f[0][k]) + E[1] * load(&table.f[1][k]) + E[2] * load(&table.f[2][k])) /
           load(&table.sum[k]);
}

// packDirection of object.h on every lane.
struct LaneDirections {
    LaneInts x, y, z;
};

[[gnu::always_inline]] inline LaneDirections packDirections(const LaneVector& v) {
    const Lanes s = dot(v, v);
    const Lanes length = s > 1e-10f ? squareRoot(s) : broadcast(1e-5f);
    const Lanes scale = s == 0.0f ? broadcast(1.0f) : 1.0f / length;
    auto component = [&scale](Lanes c) {
        const LaneInts top = LaneInts{} + 127, bottom = LaneInts{} - 127;
        const LaneInts v = __builtin_convertvector(c * 128.0f * scale, LaneInts);
        const LaneInts below = v > top ? top : v;
        return below < bottom ? bottom : below;
    };
    return {component(v.x), component(v.y), component(v.z)};
}

// unpackDirection of object.h on every lane.
[[gnu::always_inline]] inline LaneVector unpackDirections(const LaneDirections& d) {
    return normalized(LaneVector{__builtin_convertvector(d.x, Lanes), __builtin_convertvector(d.y, Lanes),
                                 __builtin_convertvector(d.z, Lanes)});
}

// The displacement elements of each shader; shaders past the list have none.
const std::vector<SurfaceElement>* elementsOf(uint32_t shader) {
    static const std::vector<SurfaceElement> none;
    return shader < registry.shaders.size() ? &registry.shaders[shader].geometry.vector : &none;
}

int levelOf(const SurfaceElement& element) { return std::clamp(element.level, 0, kMaxLevel); }

size_t pointCount(int n) { return n == 0 ? 0 : size_t(n + 1) * size_t(n + 2) / 2; }

// What a pass reads of the part, with the lengths its arrays had before the
// pass grew them. The channels of all three kinds share one numbering:
// scalar channels, then uv channels, then vector channels.
struct PassInput {
    size_t d;
    size_t positions, normals, tangents;
    std::vector<size_t> channels;
};

PassInput passInput(const Part& part, size_t d) {
    PassInput in{d, part.positions.size(), part.normals.size(), part.tangents.size(), {}};
    for (const auto& c : part.scalarChannels) in.channels.push_back(c.elements.size());
    for (const auto& c : part.uvChannels) in.channels.push_back(c.elements.size());
    for (const auto& c : part.vectorChannels) in.channels.push_back(c.elements.size());
    return in;
}

bool hasDirection(const PassInput& in, const Part& part, uint32_t v) {
    const PackedDirection zeroDirection{0, 0, 0};
    return v < in.positions && v < in.normals && v < in.tangents && !(part.normals[v] == zeroDirection) &&
           !(part.tangents[v] == zeroDirection);
}

// The element that the pass applies to a triangle, or null where the
// triangle is kept as it is.
const SurfaceElement* passElement(const PassInput& in, const Part& part, const Triangle& t) {
    const std::vector<SurfaceElement>& elements = *elementsOf(t.shader);
    if (in.d >= elements.size() || !hasDirection(in, part, t.a) || !hasDirection(in, part, t.b) ||
        !hasDirection(in, part, t.c))
        return nullptr;
    return &elements[in.d];
}

// Whether the corners of a triangle lie within channel c.
bool within(const PassInput& in, size_t c, const uint32_t v[3]) {
    return v[0] < in.channels[c] && v[1] < in.channels[c] && v[2] < in.channels[c];
}

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
    std::vector<CornerCurves> curves;
};

void countShare(const Part& part, const PassInput& in, DisplaceShare& share) {
    share.channelPoints.assign(in.channels.size(), 0);
    int lastLevel = -1;
    for (size_t i = share.begin; i < share.end; ++i) {
        const Triangle& t = part.triangles[i];
        const SurfaceElement* element = passElement(in, part, t);
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
            if (within(in, c, v)) share.channelPoints[c] += points;
    }
}

// Writes the interpolated values of the channels of one kind for the points
// of a patch, where the triangle's corners lie within the channel.
template <typename T>
void writeChannels(std::vector<VertexChannel<T>>& channels, size_t first, const PassInput& in, DisplaceShare& share,
                   const uint32_t v[3], const PatchTable& table) {
    for (size_t c = 0; c < channels.size(); ++c) {
        if (!within(in, first + c, v)) continue;
        std::vector<T>& e = channels[c].elements;
        size_t& at = share.channelAt[first + c];
        for (size_t k = 0; k < table.count; ++k) {
            const float b[3] = {table.b[0][k], table.b[1][k], table.b[2][k]};
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
    const SurfaceElement* element = passElement(in, part, t);
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
    cornerCurves(table, P, N, share.curves);

    // Every point of a patch is a corner of one of its triangles, so each
    // moves here, once, from its own values: the uv interpolated from uv
    // channel 0, or (0, 0) where the face has none there.
    const size_t uvChannel = part.scalarChannels.size();
    const bool hasUv = !part.uvChannels.empty() && within(in, uvChannel, v);
    const bool sampled = element->imageIndex >= 0;
    const bool alongFrame = element->direction == Vector{0.0f, 0.0f, 0.0f};
    const float noUv[2] = {0.0f, 0.0f};
    const Vector constant = sampled ? Vector{0.0f, 0.0f, 0.0f} : elementVector(*element, noUv);
    const LaneVector N0 = broadcast(N[0]), N1 = broadcast(N[1]), N2 = broadcast(N[2]);
    const LaneVector T0 = broadcast(T[0]), T1 = broadcast(T[1]), T2 = broadcast(T[2]);
    for (size_t k = 0; k < table.count; k += kLanes) {
        const Lanes b0 = load(&table.b[0][k]), b1 = load(&table.b[1][k]), b2 = load(&table.b[2][k]);
        const LaneVector point = patchPoints(table, share.curves, k);
        const LaneDirections normal = packDirections(N0 * b0 + N1 * b1 + N2 * b2);
        const LaneDirections tangent = packDirections(T0 * b0 + T1 * b1 + T2 * b2);
        LaneVector s = broadcast(constant);
        if (sampled)
            for (int i = 0; i < kLanes; ++i) {
                float uv[2] = {0.0f, 0.0f};
                if (hasUv) {
                    const std::vector<UV>& e = part.uvChannels[0].elements;
                    uv[0] = e[v[0]].u * b0[i] + e[v[1]].u * b1[i] + e[v[2]].u * b2[i];
                    uv[1] = e[v[0]].v * b0[i] + e[v[1]].v * b1[i] + e[v[2]].v * b2[i];
                }
                const Vector sample = elementVector(*element, uv);
                s.x[i] = sample.x, s.y[i] = sample.y, s.z[i] = sample.z;
            }
        // The sampled vector in the vertex's own frame, or scaled per
        // channel by the element's direction.
        LaneVector offset;
        if (alongFrame) {
            const LaneVector Nv = unpackDirections(normal), Tv = unpackDirections(tangent);
            const LaneVector B = cross(Nv, Tv);
            offset = Tv * s.x - B * s.y + Nv * s.z;
        } else {
            const LaneVector direction = broadcast(element->direction);
            offset = {direction.x * s.x, direction.y * s.y, direction.z * s.z};
        }
        const LaneVector moved = point + offset;
        const int valid = int(std::min<size_t>(kLanes, table.count - k));
        for (int i = 0; i < valid; ++i) {
            part.positions[share.pointsAt + k + size_t(i)] = lane(moved, i);
            part.normals[share.normalsAt + k + size_t(i)] = {int8_t(normal.x[i]), int8_t(normal.y[i]),
                                                             int8_t(normal.z[i])};
            part.tangents[share.tangentsAt + k + size_t(i)] = {int8_t(tangent.x[i]), int8_t(tangent.y[i]),
                                                               int8_t(tangent.z[i])};
        }
    }
    writeChannels(part.scalarChannels, 0, in, share, v, table);
    writeChannels(part.uvChannels, uvChannel, in, share, v, table);
    writeChannels(part.vectorChannels, uvChannel + part.uvChannels.size(), in, share, v, table);

    const uint32_t first = uint32_t(share.pointsAt);
    for (size_t k = 0; k < table.triangles.size(); k += 3)
        triangles[share.madeAt++] = {first + table.triangles[k], first + table.triangles[k + 1],
                                     first + table.triangles[k + 2], t.shader};
    share.pointsAt += table.count;
    share.normalsAt += table.count;
    share.tangentsAt += table.count;
}

// Grows an array to n elements. Fresh memory costs a page fault at the first
// touch of every page, far more than the writes; asking the system to
// supply all pages of the new part at once saves most of that.
template <typename T>
void grow(std::vector<T>& elements, size_t n) {
    if (n <= elements.size()) return;
    const size_t old = elements.size();
    elements.reserve(n);
#ifdef MADV_POPULATE_WRITE
    const size_t page = 4096;
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(elements.data() + old) + page - 1) / page * page;
    const uintptr_t end = reinterpret_cast<uintptr_t>(elements.data() + n) / page * page;
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_POPULATE_WRITE);
#endif
    elements.resize(n);
}

// Pass d over all triangles of the part: each thread counts what its run of
// triangles keeps and makes, the part's arrays grow once to hold it all, and
// each thread writes its share in place.
void displacePass(Part& part, size_t d) {
    const int threads = std::clamp(omp_get_max_threads(), 1, kMaxThreads);
    std::vector<DisplaceShare> shares(kMaxThreads);
    const PassInput in = passInput(part, d);
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
            if (a == 0) grow(triangles, total[a]);
            else if (a == 1) grow(part.positions, total[a]);
            else if (a == 2) grow(part.normals, total[a]);
            else if (a == 3) grow(part.tangents, total[a]);
            else if (a - 4 < scalars) grow(part.scalarChannels[a - 4].elements, total[a]);
            else if (a - 4 < scalars + uvs) grow(part.uvChannels[a - 4 - scalars].elements, total[a]);
            else grow(part.vectorChannels[a - 4 - scalars - uvs].elements, total[a]);
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
    std::vector<CornerCurves> curves;
    cornerCurves(table, P, N, curves);
    points.clear();
    for (size_t k = 0; k < table.count; k += kLanes) {
        const LaneVector point = patchPoints(table, curves, k);
        for (size_t i = 0; i < kLanes && k + i < table.count; ++i)
            points.push_back({{table.b[0][k + i], table.b[1][k + i], table.b[2][k + i]}, lane(point, int(i))});
    }
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
