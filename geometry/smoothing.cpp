// Vertex normals and tangents by angle. Every point in space collects the
// corners of the faces that meet there; each corner averages the faces that
// lie within its shader's smoothing angle, and the vertex is split wherever
// corners end up with different values. The part's vertex arrays are rebuilt
// and the primitives' indices rewritten.
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "core/clock.h"
#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"
#include "geometry/lanes.h"
#include "geometry/load_time.h"
#include "core/shader_record.h"

namespace {

constexpr int kWeldBucketBits = 18;   // 262144 buckets at least
constexpr uint32_t kNone = 0xFFFFFFFFu;
// The code of a welded position whose corners were resolved one by one: each
// corner's new index is then found in its record. No encoded index takes
// this value, as a slot makes fewer than 2^24 - 1 vertices.
constexpr uint32_t kSplit = 0xFFFFFFFEu;
// New vertex indices travel as (index << 8) + slot until the merge, so a slot
// may make at most 2^24 vertices; the work is cut into enough slots for that.
constexpr uint64_t kSlotCorners = uint64_t(1) << 23;
constexpr uint32_t kSlotsPerThread = 8;

// The bit pattern of a coordinate, with -0 taken as +0: positions that are
// equal as floats must meet in one bucket.
uint32_t bitsOf(float f) { return f == 0.0f ? 0u : std::bit_cast<uint32_t>(f); }

// The bucket of a position among 2^bits, from the bit patterns of its
// floats. The prime sum alone would be decided by the low mantissa bits,
// which are zero for coordinates on a grid or read from short decimals, so
// that a flat region would fill a few buckets; the top bits of the mixed sum
// spread them.
uint32_t weldBucket(Vector p, int bits) {
    const uint32_t sum = bitsOf(p.x) * 15485843u + bitsOf(p.y) * 15485849u + bitsOf(p.z) * 15485857u;
    return (sum * 0x9E3779B1u) >> (32 - bits);
}

// For each vertex the index of its unique position, numbered in order of
// first appearance; returns their number. The table has 262144 buckets, and
// more for parts of more than 131072 vertices, so that it stays at most half
// full: which positions weld depends only on their equality, never on the
// table's size. A bucket holds the first vertex of its position, and a full
// bucket passes the search on to the next one.
uint32_t weldPositions(const std::vector<Vector>& positions, std::vector<uint32_t>& weld) {
    const size_t count = positions.size();
    int bits = kWeldBucketBits;
    while (bits < 31 && (size_t(1) << bits) < 2 * count) ++bits;
    const uint32_t mask = uint32_t((size_t(1) << bits) - 1);
    std::vector<uint32_t> table(size_t(1) << bits, kNone);
    weld.resize(count);
    // Large parts miss the cache on every bucket and on the vertex it names:
    // the bucket of a vertex 16 ahead, and the vertex in the bucket of one 8
    // ahead, are fetched early. Buckets wait in a ring until their turn.
    constexpr size_t kAhead = 16;
    uint32_t ring[kAhead];
    for (size_t v = 0; v < std::min(count, kAhead); ++v) ring[v] = weldBucket(positions[v], bits);
    uint32_t unique = 0;
    for (size_t v = 0; v < count; ++v) {
        uint32_t bucket = ring[v % kAhead];
        if (v + kAhead < count) {
            ring[v % kAhead] = weldBucket(positions[v + kAhead], bits);
            __builtin_prefetch(&table[ring[v % kAhead]]);
        }
        if (v + kAhead / 2 < count) {
            const uint32_t ahead = table[ring[(v + kAhead / 2) % kAhead]];
            if (ahead != kNone) __builtin_prefetch(&positions[ahead]), __builtin_prefetch(&weld[ahead]);
        }
        const Vector p = positions[v];
        for (;;) {
            const uint32_t first = table[bucket];
            if (first == kNone) {
                table[bucket] = uint32_t(v);
                weld[v] = unique++;
                break;
            }
            if (positions[first] == p) {
                weld[v] = weld[first];
                break;
            }
            bucket = (bucket + 1) & mask;
        }
    }
    return unique;
}

// Whether an angle between two unit vectors, arccos of their clamped dot
// product, lies below a corner's limit. The cosine decides away from the
// boundary; near it the arccos itself does, so the outcome is the one of the
// plain comparison.
struct AngleLimit {
    float radians;
    float cosine;
    uint8_t mode;          // 0 never, 1 always, 2 by the cosine
    bool byReference;      // halfCosine may stand in for tests of all pairs
    float halfCosine;      // cos(radians / 2 - kReferenceMargin)
};

// Unit faces that all lie within half the limit, less this margin, of one
// face lie within the limit of each other, by the triangle inequality of
// angles. The margin outweighs the rounding of lengths and dot products for
// limits between 0.1 and pi - 0.1. Faces too small for the guarded
// normalisation to make them unit take the test of all pairs.
constexpr float kReferenceMargin = 1e-3f;

AngleLimit angleLimit(float radians) {
    static const float largestAngle = std::acos(-1.0f);
    if (!(radians > 0.0f)) return {radians, 1.0f, 0, false, 1.0f};
    if (radians > largestAngle) return {radians, -1.0f, 1, false, -1.0f};
    const bool byReference = radians >= 0.1f && radians <= largestAngle - 0.1f;
    return {radians, std::cos(radians), 2, byReference, std::cos(radians / 2.0f - kReferenceMargin)};
}

bool withinLimit(float d, const AngleLimit& limit) {
    if (limit.mode != 2) return limit.mode == 1;
    d = d < -1.0f ? -1.0f : (d > 1.0f ? 1.0f : d);
    if (d > limit.cosine + 1e-5f) return true;
    if (d < limit.cosine - 1e-5f) return false;
    return std::acos(d) < limit.radians;
}

bool nearlyUnit(Vector v) {
    const float length = dot(v, v);
    return length > 1.0f - 2e-5f && length < 1.0f + 2e-5f;
}

// What one welded position gathers from its corners as the faces are walked
// in order: the sums that serve every corner when all faces lie within one
// limit of each other, and what it takes to know that they do. One cache
// line each.
struct alignas(64) WeldState {
    Vector sumN, sumG;       // all face normals and tangents, in corner order
    Vector firstN, firstG;   // the first corner's; NaN once a face lies too far from them
    uint32_t vertex;         // the first corner's vertex, or kNone once another's values differ from it
    uint32_t shader;         // the shader of every corner, or kNone once two differ
    uint32_t record;         // where its corners' records go, once it is known to split
    uint32_t count;          // corners
};

// A corner of a welded position whose corners are resolved one by one, and
// the encoded index it gets.
struct SplitCorner {
    uint32_t corner, encoded;
};

// What one slot of the welded positions produces: for each new vertex the
// input vertex whose values it copies, and its new normal and tangent. The
// scratch arrays hold the corners of one split position.
struct alignas(64) SmoothOutput {
    std::vector<uint32_t> source;
    std::vector<PackedDirection> normals;
    std::vector<PackedDirection> tangents;
    std::vector<Vector> faceNormal, faceTangent;
    std::vector<AngleLimit> limit;
    std::vector<uint32_t> vertex;
    std::vector<uint64_t> takesN, takesG;
};

// A face's normal and tangent.
struct FaceVectors {
    Vector normal, tangent;
};

// The read-only view of the part while smoothing.
struct SmoothInput {
    const Part& part;
    const std::vector<AngleLimit>& shaderLimits;   // by shader index
    bool uvTangents;                               // tangents and uv channel 0 both exist
    AngleLimit keeps;                              // the limit of shaders past the list
};

const AngleLimit& limitOf(const SmoothInput& in, uint32_t shader) {
    return shader < in.shaderLimits.size() ? in.shaderLimits[shader] : in.keeps;
}

Vector positionAt(const Part& part, uint32_t v) {
    return v < part.positions.size() ? part.positions[v] : Vector{0.0f, 0.0f, 0.0f};
}

Vector fallbackTangent(Vector n) {
    if (n.z < -0.9999999f) return {0.0f, -1.0f, 0.0f};
    const float k = 1.0f / (1.0f + n.z);
    return {1.0f - k * n.x * n.x, -k * n.x * n.y, -n.x};
}

// The tangent of a face from uv channel 0, or from its normal when the uvs
// are missing or do not change across the face.
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

// Corners are numbered over all faces: three per triangle, then four per
// tetragon, in face order. Parts stay below 2^32 - 2 corners.
uint32_t cornerVertex(const Part& part, uint32_t corner, uint32_t& shader, FaceVectors& face,
                      const SmoothInput& in) {
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

// The vertex index of a corner in its face.
uint32_t& cornerIndex(Part& part, uint32_t corner) {
    const size_t triangleCorners = 3 * part.triangles.size();
    if (corner < triangleCorners) {
        Triangle& t = part.triangles[corner / 3];
        return corner % 3 == 0 ? t.a : corner % 3 == 1 ? t.b : t.c;
    }
    Tetragon& q = part.tetragons[(corner - triangleCorners) / 4];
    const uint32_t k = uint32_t((corner - triangleCorners) % 4);
    return k == 0 ? q.a : k == 1 ? q.b : k == 2 ? q.c : q.d;
}

// Whether two input vertices carry the same position and channel values; a
// channel that either vertex lies beyond is not compared.
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

bool sameChannels(const Part& part, uint32_t a, uint32_t b) {
    return sameInChannels(part.vectorChannels, a, b) && sameInChannels(part.uvChannels, a, b) &&
           sameInChannels(part.scalarChannels, a, b);
}

bool sameValues(const Part& part, uint32_t a, uint32_t b) {
    if (a == b) return true;
    return part.positions[a] == part.positions[b] && sameChannels(part, a, b);
}

// The m corners of one welded position one by one, where they may not all
// share one vertex with the sums of all faces: new values per corner, new or
// reused vertices in the slot's output, and each corner's encoded index in
// its record.
void smoothSplit(const SmoothInput& in, SplitCorner* corners, uint32_t m, uint32_t slot, SmoothOutput& out) {
    out.faceNormal.resize(m);
    out.faceTangent.resize(m);
    out.limit.resize(m);
    out.vertex.resize(m);
    for (uint32_t j = 0; j < m; ++j) {
        uint32_t shader = 0;
        FaceVectors face;
        out.vertex[j] = cornerVertex(in.part, corners[j].corner, shader, face, in);
        out.faceNormal[j] = face.normal, out.faceTangent[j] = face.tangent;
        out.limit[j] = limitOf(in, shader);
    }
    // Where every corner has the same limit and every pair of faces lies
    // clearly within it, each corner takes in all faces, and one sum serves
    // them all. Smooth regions of a mesh are this case.
    auto allWithin = [&](const std::vector<Vector>& faces) {
        const AngleLimit& limit = out.limit[0];
        for (uint32_t j = 1; j < m; ++j)
            if (out.limit[j].mode != limit.mode || !(out.limit[j].cosine == limit.cosine)) return false;
        if (limit.mode != 2) return limit.mode == 1;
        if (limit.byReference) {
            bool near = true;
            for (uint32_t j = 0; j < m; ++j) {
                const float length = dot(faces[j], faces[j]);
                near = near && length > 1.0f - 2e-5f && length < 1.0f + 2e-5f &&
                       dot(faces[0], faces[j]) > limit.halfCosine;
            }
            if (near) return true;
        }
        const float threshold = limit.cosine + 1e-5f;
        for (uint32_t i = 0; i < m; ++i)
            for (uint32_t j = i + 1; j < m; ++j)
                if (!(dot(faces[i], faces[j]) > threshold)) return false;
        return true;
    };
    const bool allN = allWithin(out.faceNormal), allG = allWithin(out.faceTangent);

    // Otherwise, which faces each corner takes in, as a row of bits per
    // corner: the dot product of a pair is made once and tested against both
    // limits.
    const uint32_t words = (m + 63) / 64;
    auto mark = [words](std::vector<uint64_t>& takes, uint32_t row, uint32_t column) {
        takes[size_t(row) * words + column / 64] |= uint64_t(1) << (column % 64);
    };
    auto markRows = [&](const std::vector<Vector>& faces, std::vector<uint64_t>& takes) {
        takes.assign(size_t(m) * words, 0);
        for (uint32_t i = 0; i < m; ++i)
            for (uint32_t j = i; j < m; ++j) {
                const bool same = faces[j] == faces[i];
                const float d = dot(faces[i], faces[j]);
                if (same || withinLimit(d, out.limit[i])) mark(takes, i, j);
                if (j != i && (same || withinLimit(d, out.limit[j]))) mark(takes, j, i);
            }
    };
    if (!allN) markRows(out.faceNormal, out.takesN);
    if (!allG) markRows(out.faceTangent, out.takesG);

    // The packed sum of the faces of a row, reused while rows repeat.
    auto packedSum = [&](bool all, const std::vector<uint64_t>& takes, const std::vector<Vector>& faces,
                         uint32_t row, uint32_t& lastRow, PackedDirection& last) {
        if (lastRow != kNone) {
            bool repeats = all;
            for (uint32_t w = 0; !all && w < words; ++w) {
                repeats = takes[size_t(row) * words + w] == takes[size_t(lastRow) * words + w];
                if (!repeats) break;
            }
            if (repeats) return last;
        }
        Vector sum{0.0f, 0.0f, 0.0f};
        for (uint32_t j = 0; j < m; ++j)
            if (all || ((takes[size_t(row) * words + j / 64] >> (j % 64)) & 1)) sum += faces[j];
        lastRow = row;
        last = packDirection(sum.x, sum.y, sum.z);
        return last;
    };
    uint32_t lastRowN = kNone, lastRowG = kNone;
    PackedDirection lastN{0, 0, 0}, lastG{0, 0, 0};

    const Part& part = in.part;
    const uint32_t firstMade = uint32_t(out.source.size());
    for (uint32_t i = 0; i < m; ++i) {
        const uint32_t v = out.vertex[i];
        const AngleLimit& limit = out.limit[i];
        PackedDirection normal{0, 0, 0}, tangent{0, 0, 0};
        if (limit.radians != 0.0f) {
            const bool keeps = limit.radians < 0.0f;
            if (keeps && v < part.normals.size() && !(part.normals[v] == PackedDirection{0, 0, 0}))
                normal = part.normals[v];
            else
                normal = packedSum(allN, out.takesN, out.faceNormal, i, lastRowN, lastN);
            if (keeps && v < part.tangents.size() && !(part.tangents[v] == PackedDirection{0, 0, 0}))
                tangent = part.tangents[v];
            else
                tangent = packedSum(allG, out.takesG, out.faceTangent, i, lastRowG, lastG);
        }

        uint32_t made = firstMade;
        const uint32_t count = uint32_t(out.source.size());
        while (made < count && !(out.normals[made] == normal && out.tangents[made] == tangent &&
                                 sameValues(part, out.source[made], v)))
            ++made;
        if (made == count) {
            out.source.push_back(v);
            out.normals.push_back(normal);
            out.tangents.push_back(tangent);
        }
        corners[i].encoded = (made << 8) + slot;
    }
}

// Whether every corner of a welded position takes in all of its faces and
// all their vertices carry the same values: then one vertex, a copy of the
// first corner's, with the packed sums serves them all. Where all faces lie within half the limit of the first one,
// every pair lies within the limit (see kReferenceMargin); other cases are
// left to the pair tests of smoothSplit.
bool allAlike(const SmoothInput& in, const WeldState& state) {
    if (state.vertex == kNone || state.shader == kNone) return false;
    const AngleLimit& limit = limitOf(in, state.shader);
    if (limit.mode == 1) return true;
    return limit.mode == 2 && limit.byReference && !std::isnan(state.firstN.x) && !std::isnan(state.firstG.x);
}

// A block of faces whose vectors are made together: the positions are
// fetched first, and the arithmetic of triangleVectors and tetragonVectors
// then runs on kLanes faces at a time.
constexpr uint32_t kFaceBlock = 64;
struct FaceBlock {
    // The two vectors whose cross product is the face's normal.
    float ux[kFaceBlock], uy[kFaceBlock], uz[kFaceBlock], vx[kFaceBlock], vy[kFaceBlock], vz[kFaceBlock];
    float nx[kFaceBlock], ny[kFaceBlock], nz[kFaceBlock], tx[kFaceBlock], ty[kFaceBlock], tz[kFaceBlock];
    uint32_t face[kFaceBlock];      // index among the faces of its family
    uint32_t weld[kFaceBlock][4];   // welded position of each corner, or kNone
    uint32_t count = 0;
};
static_assert(kFaceBlock % kLanes == 0);

void faceNormalsAndFallbacks(FaceBlock& b) {
    for (uint32_t i = 0; i < b.count; i += kLanes) {
        const LaneVector u{load(&b.ux[i]), load(&b.uy[i]), load(&b.uz[i])};
        const LaneVector v{load(&b.vx[i]), load(&b.vy[i]), load(&b.vz[i])};
        const LaneVector n = normalized(cross(u, v));
        store(n.x, &b.nx[i]), store(n.y, &b.ny[i]), store(n.z, &b.nz[i]);
        // fallbackTangent() on every lane.
        const LaneInts down = n.z < -0.9999999f;
        const Lanes k = 1.0f / (1.0f + n.z);
        store(down ? broadcast(0.0f) : 1.0f - k * n.x * n.x, &b.tx[i]);
        store(down ? broadcast(-1.0f) : -k * n.x * n.y, &b.ty[i]);
        store(down ? broadcast(0.0f) : -n.x, &b.tz[i]);
    }
}

// A face's vertices, the fourth kNone for a triangle.
template <typename Face>
void faceVertices(const Face& face, uint32_t (&v)[4]) {
    v[0] = face.a, v[1] = face.b, v[2] = face.c;
    if constexpr (std::is_same_v<Face, Tetragon>) v[3] = face.d;
    else v[3] = kNone;
}

// Adds one corner of a face to the state of its welded position.
inline void addCorner(const Part& part, WeldState& state, uint32_t vertex, uint32_t shader, const FaceVectors& face,
                      bool unitN, bool unitG, float halfCosine) {
    if (state.count == 0) {
        state.sumN = Vector{0.0f, 0.0f, 0.0f} + face.normal;
        state.sumG = Vector{0.0f, 0.0f, 0.0f} + face.tangent;
        state.firstN = face.normal, state.firstG = face.tangent;
        state.vertex = vertex, state.shader = shader;
    } else {
        state.sumN += face.normal;
        state.sumG += face.tangent;
        // Vertices at one welded position have equal positions, so the
        // first one stands for another with the same channel values.
        if (state.vertex != kNone && vertex != state.vertex && !sameChannels(part, state.vertex, vertex))
            state.vertex = kNone;
        if (shader != state.shader) state.shader = kNone;
    }
    const float nan = std::numeric_limits<float>::quiet_NaN();
    if (!(unitN && dot(state.firstN, face.normal) > halfCosine)) state.firstN.x = nan;
    if (!(unitG && dot(state.firstG, face.tangent) > halfCosine)) state.firstG.x = nan;
    ++state.count;
}

// The faces of each family that have a corner in a run of welded
// positions lie in [first, last).
struct FaceSpan {
    uint32_t first[2] = {0xFFFFFFFFu, 0xFFFFFFFFu}, last[2] = {0, 0};   // triangles, tetragons
};

// Walks all faces in order and adds the corners whose welded position lies
// in [begin, end) to their states. Corners whose vertex has no position
// belong to no welded position.
uint64_t gatherCorners(const SmoothInput& in, const std::vector<uint32_t>& weld, uint32_t begin, uint32_t end,
                       std::vector<WeldState>& states, FaceSpan& span) {
    const Part& part = in.part;
    const uint32_t vertexCount = uint32_t(weld.size());
    const uint32_t positions = end - begin;
    uint64_t added = 0;
    FaceBlock block{};   // lanes past the count hold old faces, never read
    // One family of faces, K corners each, in blocks.
    auto walk = [&]<int K>(const auto& faces) {
        const uint32_t count = uint32_t(faces.size());
        for (uint32_t first = 0; first < count; first += kFaceBlock) {
            block.count = 0;
            const uint32_t last = std::min(count, first + kFaceBlock);
            for (uint32_t f = first; f < last; ++f) {
                uint32_t v[4];
                faceVertices(faces[f], v);
                bool any = false;
                uint32_t* w = block.weld[block.count];
                for (int k = 0; k < K; ++k) {
                    w[k] = v[k] < vertexCount ? weld[v[k]] : kNone;
                    const bool mine = w[k] - begin < positions;
                    // The states are wanted once the block's vectors are made.
                    if (mine) __builtin_prefetch(&states[w[k]], 1);
                    any = any || mine;
                }
                if (!any) continue;
                span.first[K - 3] = std::min(span.first[K - 3], f), span.last[K - 3] = f + 1;
                Vector u, t;
                if constexpr (K == 3) {
                    const Vector a = positionAt(part, v[0]);
                    u = positionAt(part, v[1]) - a, t = positionAt(part, v[2]) - a;
                } else {
                    u = positionAt(part, v[2]) - positionAt(part, v[0]);
                    t = positionAt(part, v[3]) - positionAt(part, v[1]);
                }
                const uint32_t i = block.count++;
                block.ux[i] = u.x, block.uy[i] = u.y, block.uz[i] = u.z;
                block.vx[i] = t.x, block.vy[i] = t.y, block.vz[i] = t.z;
                block.face[i] = f;
            }
            faceNormalsAndFallbacks(block);
            for (uint32_t i = 0; i < block.count; ++i) {
                const auto& face = faces[block.face[i]];
                uint32_t v[4];
                faceVertices(face, v);
                FaceVectors vectors{{block.nx[i], block.ny[i], block.nz[i]}, {block.tx[i], block.ty[i], block.tz[i]}};
                if (in.uvTangents) {
                    uint32_t vertices[K];
                    for (int k = 0; k < K; ++k) vertices[k] = v[k];
                    vectors.tangent = faceTangent(in, vertices, vectors.normal);
                }
                const bool unitN = nearlyUnit(vectors.normal), unitG = nearlyUnit(vectors.tangent);
                const float halfCosine = limitOf(in, face.shader).halfCosine;
                for (int k = 0; k < K; ++k) {
                    const uint32_t w = block.weld[i][k];
                    if (w - begin >= positions) continue;
                    addCorner(part, states[w], v[k], face.shader, vectors, unitN, unitG, halfCosine);
                    ++added;
                }
            }
        }
    };
    walk.template operator()<3>(part.triangles);
    walk.template operator()<4>(part.tetragons);
    return added;
}

// Marks the welded positions of [begin, end) whose corners must be resolved
// one by one, and gives each its first record among those of the run;
// returns the number of their corners.
uint64_t markSplits(const SmoothInput& in, uint32_t begin, uint32_t end, std::vector<WeldState>& states,
                    std::vector<uint8_t>& split) {
    uint64_t corners = 0;
    for (uint32_t w = begin; w < end; ++w) {
        WeldState& state = states[w];
        split[w] = state.count > 0 && !allAlike(in, state);
        if (!split[w]) continue;
        state.record = uint32_t(corners);
        corners += state.count;
    }
    return corners;
}

// Walks the faces of the run in order again and lists the corners of the
// split positions of [begin, end), each position's in a run of its own, in
// corner order. Afterwards a state's record is the end of its run.
void listSplitCorners(const Part& part, const std::vector<uint32_t>& weld, const std::vector<uint8_t>& split,
                      uint32_t begin, uint32_t end, const FaceSpan& faceSpan, std::vector<WeldState>& states,
                      SplitCorner* records) {
    const size_t vertexCount = weld.size();
    const uint32_t span = end - begin;
    auto walk = [&]<int K>(const auto& faces, uint32_t firstCorner) {
        for (uint32_t f = faceSpan.first[K - 3]; f < faceSpan.last[K - 3]; ++f) {
            uint32_t v[4];
            faceVertices(faces[f], v);
            for (int k = 0; k < K; ++k) {
                if (v[k] >= vertexCount) continue;
                const uint32_t w = weld[v[k]];
                if (w - begin < span && split[w])
                    records[states[w].record++] = {firstCorner + uint32_t(K) * f + uint32_t(k), 0};
            }
        }
    };
    walk.template operator()<3>(part.triangles, 0);
    walk.template operator()<4>(part.tetragons, 3 * uint32_t(part.triangles.size()));
}

// Channel c of the output: the values of each new vertex's source, where the
// source lies within the channel.
template <typename T>
void gatherChannel(std::vector<T>& elements, const std::vector<SmoothOutput>& outputs, uint32_t slots,
                   const std::vector<uint64_t>& base, size_t vertexCount) {
    if (elements.empty()) return;
    std::vector<T> gathered;
    if (elements.size() >= vertexCount) {
        gathered.resize(base[slots]);
#pragma omp parallel for schedule(static)
        for (uint32_t s = 0; s < slots; ++s) {
            const auto& source = outputs[s].source;
            for (size_t k = 0; k < source.size(); ++k) gathered[base[s] + k] = elements[source[k]];
        }
    } else {
        for (uint32_t s = 0; s < slots; ++s)
            for (uint32_t v : outputs[s].source)
                if (v < elements.size()) gathered.push_back(elements[v]);
    }
    elements.swap(gathered);
}

template <typename T>
void gatherChannels(std::vector<VertexChannel<T>>& channels, const std::vector<SmoothOutput>& outputs,
                    uint32_t slots, const std::vector<uint64_t>& base, size_t vertexCount) {
    for (auto& channel : channels) gatherChannel(channel.elements, outputs, slots, base, vertexCount);
}

// The smoothing angle of every shader in radians; shaders past the list are
// taken as keeping what they were given.
std::vector<float> shaderAnglesInRadians() {
    std::vector<float> angles;
    angles.reserve(registry.shaders.size());
    for (const Shader& shader : registry.shaders) angles.push_back(shader.geometry.smooth_angle * kDegree);
    return angles;
}

float angleOf(const std::vector<float>& angles, uint32_t shader) {
    return shader < angles.size() ? angles[shader] : -kDegree;
}

}  // namespace

void smooth(Part& part) {
    const uint64_t start = systemTime100ns();
    const std::vector<float> angles = shaderAnglesInRadians();
    bool any = false;
    for (const Triangle& t : part.triangles) any = any || angleOf(angles, t.shader) >= 0.0f;
    for (const Tetragon& q : part.tetragons) any = any || angleOf(angles, q.shader) >= 0.0f;
    if (any) {
        std::vector<uint32_t> weld;
        const uint32_t W = weldPositions(part.positions, weld);
        const size_t vertexCount = part.positions.size();
        const uint32_t triangleCount = uint32_t(part.triangles.size());
        const uint32_t tetragonCount = uint32_t(part.tetragons.size());
        const uint64_t cornerTotal = 3 * uint64_t(triangleCount) + 4 * uint64_t(tetragonCount);

        std::vector<AngleLimit> limits;
        for (float radians : angles) limits.push_back(angleLimit(radians));
        const SmoothInput in{part, limits,
                             !part.tangents.empty() && !part.uvChannels.empty() && !part.uvChannels[0].elements.empty(),
                             angleLimit(-kDegree)};

        // Every welded position gathers its corners in face order: sums and
        // whether they all agree. Each thread walks all faces for a run of
        // welded positions of its own, so that each sum keeps its order. The
        // positions whose corners do not all agree then list their corners,
        // in a second walk.
        const uint32_t threads = uint32_t(std::clamp(omp_get_max_threads(), 1, kMaxThreads));
        const uint32_t ranges = std::max<uint32_t>(1, std::min(threads, W));
        std::vector<uint32_t> rangeBegin(size_t(ranges) + 1);
        for (uint32_t r = 0; r <= ranges; ++r) rangeBegin[r] = uint32_t(uint64_t(W) * r / ranges);
        std::vector<WeldState> states(W);
        std::vector<uint8_t> split(W);
        std::vector<uint64_t> rangeCorners(ranges), rangeRecords(size_t(ranges) + 1, 0);
        std::vector<FaceSpan> spans(ranges);
#pragma omp parallel for schedule(static)
        for (uint32_t r = 0; r < ranges; ++r) {
            rangeCorners[r] = gatherCorners(in, weld, rangeBegin[r], rangeBegin[r + 1], states, spans[r]);
            rangeRecords[r + 1] = markSplits(in, rangeBegin[r], rangeBegin[r + 1], states, split);
        }
        for (uint32_t r = 0; r < ranges; ++r) rangeRecords[r + 1] += rangeRecords[r];
        const auto records = std::make_unique_for_overwrite<SplitCorner[]>(rangeRecords[ranges]);
#pragma omp parallel for schedule(static)
        for (uint32_t r = 0; r < ranges; ++r)
            if (rangeRecords[r + 1] > rangeRecords[r])
                listSplitCorners(part, weld, split, rangeBegin[r], rangeBegin[r + 1], spans[r], states,
                                 &records[rangeRecords[r]]);

        // Slots: runs of welded positions, each resolved by one thread into
        // arrays of its own and merged in order, so that their number never
        // changes the result. There are several per thread, taken as threads
        // finish, because positions that split cost more and come in
        // clusters. A part so large that a slot's vertex count might not fit
        // its 24 bits gets more runs, with about equal numbers of corners.
        uint64_t gathered = 0;
        for (uint64_t c : rangeCorners) gathered += c;
        uint32_t slots = std::max<uint32_t>(1, std::min({W, threads == 1 ? 1 : kSlotsPerThread * threads,
                                                         uint32_t(kMaxThreads)}));
        std::vector<uint32_t> slotBegin(size_t(slots) + 1);
        for (uint32_t s = 0; s <= slots; ++s) slotBegin[s] = uint32_t(uint64_t(W) * s / slots);
        std::vector<uint64_t> slotCorners(slots, gathered / slots);
        if (cornerTotal >= (uint64_t(1) << 24) - 1) {
            const uint64_t needed = (gathered + kSlotCorners - 1) / kSlotCorners;
            slots = uint32_t(std::min<uint64_t>(W, std::clamp<uint64_t>(needed, slots, kMaxThreads)));
            slotBegin.assign(size_t(slots) + 1, W);
            slotCorners.assign(slots, 0);
            slotBegin[0] = 0;
            uint64_t seen = 0;
            uint32_t s = 1;
            for (uint32_t w = 0; w < W; ++w) {
                while (s < slots && seen >= gathered * s / slots) slotBegin[s++] = w;
                slotCorners[s - 1] += states[w].count;
                seen += states[w].count;
            }
        }

        // New vertices: one per welded position whose corners all agree, or
        // as many as its corners need.
        std::vector<SmoothOutput> outputs(kMaxThreads);
        const auto code = std::make_unique_for_overwrite<uint32_t[]>(W);
#pragma omp parallel for schedule(dynamic)
        for (uint32_t s = 0; s < slots; ++s) {
            SmoothOutput& out = outputs[s];
            // Every vertex of the slot is at most a corner; most meshes make
            // about as many vertices as a sixth of their corners and more.
            const size_t expected = slotCorners[s] / 4 + 16;
            out.source.reserve(expected);
            out.normals.reserve(expected);
            out.tangents.reserve(expected);
            uint32_t r =
                uint32_t(std::upper_bound(rangeBegin.begin(), rangeBegin.end(), slotBegin[s]) - rangeBegin.begin()) - 1;
            for (uint32_t w = slotBegin[s]; w < slotBegin[s + 1]; ++w) {
                while (w >= rangeBegin[r + 1]) ++r;
                const WeldState& state = states[w];
                if (state.count == 0) continue;   // a position that no face uses any more
                if (!split[w]) {
                    code[w] = (uint32_t(out.source.size()) << 8) + s;
                    out.source.push_back(state.vertex);
                    out.normals.push_back(packDirection(state.sumN.x, state.sumN.y, state.sumN.z));
                    out.tangents.push_back(packDirection(state.sumG.x, state.sumG.y, state.sumG.z));
                } else {
                    smoothSplit(in, &records[rangeRecords[r] + state.record - state.count], state.count, s, out);
                    code[w] = kSplit;
                }
            }
        }
        std::vector<WeldState>().swap(states);

        std::vector<uint64_t> base(kMaxThreads + 1, 0);
        for (uint32_t s = 0; s < slots; ++s) base[s + 1] = base[s] + outputs[s].source.size();
        const uint64_t total = base[slots];

        std::vector<Vector> positions(total);
        std::vector<PackedDirection> normals(total), tangents(total);
#pragma omp parallel for schedule(static)
        for (uint32_t s = 0; s < slots; ++s) {
            const SmoothOutput& out = outputs[s];
            for (size_t k = 0; k < out.source.size(); ++k) {
                positions[base[s] + k] = part.positions[out.source[k]];
                normals[base[s] + k] = out.normals[k];
                tangents[base[s] + k] = out.tangents[k];
            }
        }
        gatherChannels(part.vectorChannels, outputs, slots, base, vertexCount);
        gatherChannels(part.uvChannels, outputs, slots, base, vertexCount);
        gatherChannels(part.scalarChannels, outputs, slots, base, vertexCount);
        part.positions.swap(positions);
        part.normals.swap(normals);
        part.tangents.swap(tangents);
        std::vector<SmoothOutput>().swap(outputs);

        // Each corner's new index: its welded position's, decoded from slot
        // and index in the slot; then, where the corners were split, each
        // listed corner's own.
        auto decode = [&base](uint32_t encoded) { return uint32_t((encoded >> 8) + base[encoded & 255]); };
        uint64_t outOfRange = 0;
        auto newIndex = [&](uint32_t v, uint64_t& missing) {
            if (v >= vertexCount) {
                ++missing;
                return v;
            }
            const uint32_t encoded = code[weld[v]];
            return encoded == kSplit ? v : decode(encoded);
        };
#pragma omp parallel for schedule(static) reduction(+ : outOfRange)
        for (uint32_t i = 0; i < triangleCount; ++i) {
            Triangle& t = part.triangles[i];
            t = {newIndex(t.a, outOfRange), newIndex(t.b, outOfRange), newIndex(t.c, outOfRange), t.shader};
        }
#pragma omp parallel for schedule(static) reduction(+ : outOfRange)
        for (uint32_t i = 0; i < tetragonCount; ++i) {
            Tetragon& q = part.tetragons[i];
            q = {newIndex(q.a, outOfRange), newIndex(q.b, outOfRange), newIndex(q.c, outOfRange),
                 newIndex(q.d, outOfRange), q.shader};
        }
        const int64_t recordCount = int64_t(rangeRecords[ranges]);
#pragma omp parallel for schedule(static)
        for (int64_t i = 0; i < recordCount; ++i)
            cornerIndex(part, records[size_t(i)].corner) = decode(records[size_t(i)].encoded);
        for (uint64_t i = 0; i < outOfRange; ++i) reportError("smoothing out of range");
    }
    registry.smoothMilliseconds += uint32_t((systemTime100ns() - start) / 10000);
}
