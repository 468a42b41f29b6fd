// Vertex normals and tangents by angle. Every point in space collects the
// corners of the faces that meet there; each corner averages the faces that
// lie within its shader's smoothing angle, and the vertex is split wherever
// corners end up with different values. The part's vertex arrays are rebuilt
// and the primitives' indices rewritten.
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <type_traits>
#include <vector>

#include "core/clock.h"
#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"
#include "geometry/load_time.h"
#include "shading/shader.h"

namespace {

constexpr int kWeldBucketBits = 18;   // 262144 buckets at least
constexpr uint32_t kNone = 0xFFFFFFFFu;
// A corner whose vertex lies past the positions keeps its index as it was.
constexpr uint32_t kKeepIndex = 0xFFFFFFFFu;
// New vertex indices travel as (index << 8) + slot until the merge, so a slot
// may make at most 2^24 vertices; the work is cut into enough slots for that.
constexpr uint64_t kSlotCorners = uint64_t(1) << 23;

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

// For each vertex the index of its unique position; returns their number.
// The table has 262144 buckets, and more for parts of more than 131072
// vertices, so that chains stay short: which positions weld depends only on
// their equality, never on the table's size.
uint32_t weldPositions(const std::vector<Vector>& positions, std::vector<uint32_t>& weld) {
    int bits = kWeldBucketBits;
    while (bits < 30 && (size_t(1) << bits) < 2 * positions.size()) ++bits;
    struct Entry {
        Vector p;
        uint32_t next;
    };
    std::vector<uint32_t> head(size_t(1) << bits, kNone);
    std::vector<Entry> unique;
    unique.reserve(positions.size() / 2 + 16);
    weld.resize(positions.size());
    // Large parts miss the cache on every bucket and entry: the bucket of a
    // vertex 16 ahead and the first entry of one 8 ahead are fetched early.
    const size_t count = positions.size();
    for (size_t v = 0; v < count; ++v) {
        if (v + 16 < count) __builtin_prefetch(&head[weldBucket(positions[v + 16], bits)]);
        if (v + 8 < count) {
            const uint32_t ahead = head[weldBucket(positions[v + 8], bits)];
            if (ahead != kNone) __builtin_prefetch(&unique[ahead]);
        }
        const Vector p = positions[v];
        uint32_t& first = head[weldBucket(p, bits)];
        uint32_t found = first;
        while (found != kNone && !(unique[found].p == p)) found = unique[found].next;
        if (found == kNone) {
            found = uint32_t(unique.size());
            unique.push_back({p, first});
            first = found;
        }
        weld[v] = found;
    }
    return uint32_t(unique.size());
}

struct Corner {
    uint32_t primitive;
    uint8_t kind;     // kTriangle or kTetragon
    uint8_t corner;
};

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

// What one slot of the welded positions produces: for each new vertex the
// input vertex whose values it copies, and its new normal and tangent. The
// scratch arrays hold the faces of one welded position.
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

// The read-only view of the part during the corner loop.
struct SmoothInput {
    const Part& part;
    const std::vector<AngleLimit>& shaderLimits;   // by shader index
    bool uvTangents;                               // tangents and uv channel 0 both exist
    const std::vector<FaceVectors>& faces;         // triangles, then tetragons
};

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

// The vertex and shader of the primitive behind a corner, and its face
// vectors, which are made once per face before the corners are visited.
uint32_t cornerFace(const SmoothInput& in, const Corner& c, Vector& normal, Vector& tangent, uint32_t& shader) {
    const size_t triangleCount = in.part.triangles.size();
    const FaceVectors& face = in.faces[c.kind == kTriangle ? c.primitive : triangleCount + c.primitive];
    normal = face.normal, tangent = face.tangent;
    if (c.kind == kTriangle) {
        const Triangle& t = in.part.triangles[c.primitive];
        shader = t.shader;
        return c.corner == 0 ? t.a : c.corner == 1 ? t.b : t.c;
    }
    const Tetragon& q = in.part.tetragons[c.primitive];
    shader = q.shader;
    return c.corner == 0 ? q.a : c.corner == 1 ? q.b : c.corner == 2 ? q.c : q.d;
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

bool sameValues(const Part& part, uint32_t a, uint32_t b) {
    if (a == b) return true;
    return part.positions[a] == part.positions[b] && sameInChannels(part.vectorChannels, a, b) &&
           sameInChannels(part.uvChannels, a, b) && sameInChannels(part.scalarChannels, a, b);
}

uint32_t& cornerSlot(std::vector<Triangle>& triangles, std::vector<Tetragon>& tetragons, const Corner& c) {
    if (c.kind == kTriangle) {
        Triangle& t = triangles[c.primitive];
        return c.corner == 0 ? t.a : c.corner == 1 ? t.b : t.c;
    }
    Tetragon& q = tetragons[c.primitive];
    return c.corner == 0 ? q.a : c.corner == 1 ? q.b : c.corner == 2 ? q.c : q.d;
}

// All corners at one welded position: new values per corner, new or reused
// vertices in the slot's output, and their encoded indices in the copies.
void smoothWelded(const SmoothInput& in, const Corner* corners, uint32_t m, uint32_t slot, SmoothOutput& out,
                  std::vector<Triangle>& triangles, std::vector<Tetragon>& tetragons) {
    if (m == 0) return;   // a position that no face uses any more
    out.faceNormal.resize(m);
    out.faceTangent.resize(m);
    out.limit.resize(m);
    out.vertex.resize(m);
    for (uint32_t j = 0; j < m; ++j) {
        uint32_t shader = 0;
        out.vertex[j] = cornerFace(in, corners[j], out.faceNormal[j], out.faceTangent[j], shader);
        out.limit[j] = shader < in.shaderLimits.size() ? in.shaderLimits[shader] : angleLimit(-kDegree);
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
        cornerSlot(triangles, tetragons, corners[i]) = (made << 8) + slot;
    }
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

// Calls visit(corner, vertex) for every corner of the part: triangles first,
// then tetragons, each in rising index.
template <typename Visit>
void forEachCorner(const Part& part, Visit visit) {
    for (uint32_t i = 0; i < part.triangles.size(); ++i) {
        const Triangle& t = part.triangles[i];
        const uint32_t v[3] = {t.a, t.b, t.c};
        for (uint8_t k = 0; k < 3; ++k) visit(Corner{i, kTriangle, k}, v[k]);
    }
    for (uint32_t i = 0; i < part.tetragons.size(); ++i) {
        const Tetragon& q = part.tetragons[i];
        const uint32_t v[4] = {q.a, q.b, q.c, q.d};
        for (uint8_t k = 0; k < 4; ++k) visit(Corner{i, kTetragon, k}, v[k]);
    }
}

uint32_t decode(uint32_t encoded, uint32_t original, const std::vector<uint64_t>& base) {
    return encoded == kKeepIndex ? original : uint32_t((encoded >> 8) + base[encoded & 255]);
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

        // Corner lists: a run per welded position, triangles first, then
        // tetragons, each in rising index. Corners whose vertex has no
        // position belong to no run, and keep their index.
        std::vector<uint32_t> offsets(size_t(W) + 1, 0);
        forEachCorner(part, [&](Corner, uint32_t v) {
            if (v < vertexCount) ++offsets[weld[v] + 1];
        });
        for (uint32_t w = 0; w < W; ++w) offsets[w + 1] += offsets[w];
        std::vector<Corner> corners(offsets[W]);
        std::vector<uint32_t> cursor(offsets.begin(), offsets.end() - 1);
        std::vector<Triangle> triangles = part.triangles;
        std::vector<Tetragon> tetragons = part.tetragons;
        size_t outOfRange = 0;
        forEachCorner(part, [&](Corner c, uint32_t v) {
            if (v < vertexCount) {
                corners[cursor[weld[v]]++] = c;
            } else {
                ++outOfRange;
                cornerSlot(triangles, tetragons, c) = kKeepIndex;
            }
        });
        for (size_t i = 0; i < outOfRange; ++i) reportError("smoothing out of range");
        std::vector<uint32_t>().swap(cursor);
        std::vector<uint32_t>().swap(weld);

        // Slots: contiguous runs of welded positions with about equal numbers
        // of corners, one per thread, or more when a mesh is so large that a
        // slot's vertex count would not fit its 24 bits.
        const uint64_t cornerCount = offsets[W];
        const uint32_t threads = uint32_t(std::clamp(omp_get_max_threads(), 1, kMaxThreads));
        const uint64_t needed = (cornerCount + kSlotCorners - 1) / kSlotCorners;
        const uint32_t slots = uint32_t(std::min<uint64_t>(W, std::clamp<uint64_t>(needed, threads, kMaxThreads)));
        std::vector<uint32_t> slotBegin(size_t(slots) + 1, W);
        for (uint32_t s = 0; s < slots; ++s)
            slotBegin[s] = uint32_t(std::lower_bound(offsets.begin(), offsets.end() - 1, cornerCount * s / slots) -
                                    offsets.begin());
        slotBegin[0] = 0;

        std::vector<SmoothOutput> outputs(kMaxThreads);
        std::vector<AngleLimit> limits;
        for (float radians : angles) limits.push_back(angleLimit(radians));
        std::vector<FaceVectors> faces(part.triangles.size() + part.tetragons.size());
        const SmoothInput in{part, limits,
                             !part.tangents.empty() && !part.uvChannels.empty() && !part.uvChannels[0].elements.empty(),
                             faces};
        const int64_t triangleTotal = int64_t(part.triangles.size()), faceTotal = int64_t(faces.size());
#pragma omp parallel for schedule(static)
        for (int64_t f = 0; f < faceTotal; ++f)
            faces[size_t(f)] = f < triangleTotal ? triangleVectors(in, part.triangles[size_t(f)])
                                                 : tetragonVectors(in, part.tetragons[size_t(f - triangleTotal)]);
#pragma omp parallel for schedule(static)
        for (uint32_t s = 0; s < slots; ++s) {
            SmoothOutput& out = outputs[s];
            const uint32_t begin = slotBegin[s], end = std::max(begin, slotBegin[s + 1]);
            // Every vertex of the slot is at most a corner; most meshes make
            // about as many vertices as a sixth of their corners and more.
            const size_t expected = (offsets[end] - offsets[begin]) / 4 + 16;
            out.source.reserve(expected);
            out.normals.reserve(expected);
            out.tangents.reserve(expected);
            for (uint32_t w = begin; w < end; ++w)
                smoothWelded(in, &corners[offsets[w]], offsets[w + 1] - offsets[w], s, out, triangles, tetragons);
        }
        std::vector<Corner>().swap(corners);
        std::vector<FaceVectors>().swap(faces);

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

        const int64_t triangleCount = int64_t(triangles.size()), tetragonCount = int64_t(tetragons.size());
#pragma omp parallel for schedule(static)
        for (int64_t i = 0; i < triangleCount; ++i) {
            Triangle& t = triangles[size_t(i)];
            const Triangle& o = part.triangles[size_t(i)];
            t = {decode(t.a, o.a, base), decode(t.b, o.b, base), decode(t.c, o.c, base), t.shader};
        }
#pragma omp parallel for schedule(static)
        for (int64_t i = 0; i < tetragonCount; ++i) {
            Tetragon& q = tetragons[size_t(i)];
            const Tetragon& o = part.tetragons[size_t(i)];
            q = {decode(q.a, o.a, base), decode(q.b, o.b, base), decode(q.c, o.c, base), decode(q.d, o.d, base),
                 q.shader};
        }
        part.triangles.swap(triangles);
        part.tetragons.swap(tetragons);
    }
    registry.smoothMilliseconds += uint32_t((systemTime100ns() - start) / 10000);
}
