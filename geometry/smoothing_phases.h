// What the phases of smoothing share: the records that carry a part from its
// welded positions through the corners gathered at each of them to the new
// vertices, and the phases in the order smooth() runs them. Only the
// geometry/smoothing*.cpp files include this.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/constants.h"
#include "geometry/object.h"

namespace smoothing {

constexpr uint32_t kNone = 0xFFFFFFFFu;
// The code of a welded position whose corners were resolved one by one: each
// corner's new index is then found in its record. No encoded index takes
// this value, as a slot makes fewer than 2^24 - 1 vertices.
constexpr uint32_t kSplit = 0xFFFFFFFEu;

// The threads that the phases share their work among.
inline uint32_t teamSize() { return uint32_t(std::clamp(omp_get_max_threads(), 1, kMaxThreads)); }

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

inline bool withinLimit(float d, const AngleLimit& limit) {
    if (limit.mode != 2) return limit.mode == 1;
    d = d < -1.0f ? -1.0f : (d > 1.0f ? 1.0f : d);
    if (d > limit.cosine + 1e-5f) return true;
    if (d < limit.cosine - 1e-5f) return false;
    return std::acos(d) < limit.radians;
}

inline bool nearlyUnit(Vector v) {
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

inline const AngleLimit& limitOf(const SmoothInput& in, uint32_t shader) {
    return shader < in.shaderLimits.size() ? in.shaderLimits[shader] : in.keeps;
}

inline Vector positionAt(const Part& part, uint32_t v) {
    return v < part.positions.size() ? part.positions[v] : Vector{0.0f, 0.0f, 0.0f};
}

// Faces: smoothing_faces.cpp.

// The tangent of a face from uv channel 0, or from its normal when the uvs
// are missing or do not change across the face; N is 3 or 4.
template <int N>
Vector faceTangent(const SmoothInput& in, const uint32_t (&v)[N], Vector normal);

// Corners are numbered over all faces: three per triangle, then four per
// tetragon, in face order. Parts stay below 2^32 - 2 corners. The vertex of a
// corner, with its face's shader and vectors.
uint32_t cornerVertex(const Part& part, uint32_t corner, uint32_t& shader, FaceVectors& face, const SmoothInput& in);

// Whether two input vertices carry the same channel values, or the same
// position and channel values; a channel that either vertex lies beyond is
// not compared.
bool sameChannels(const Part& part, uint32_t a, uint32_t b);
bool sameValues(const Part& part, uint32_t a, uint32_t b);

// Welding: smoothing_weld.cpp.

// For each vertex the index of its unique position, numbered in order of
// first appearance; returns their number.
uint32_t weldPositions(const std::vector<Vector>& positions, std::vector<uint32_t>& weld);

// Gathering the corners: smoothing_corners.cpp.

// Every welded position's corners, gathered by a run of positions per thread.
struct GatheredCorners {
    std::vector<uint32_t> rangeBegin;      // the runs, and the end of the last
    std::vector<WeldState> states;         // by welded position
    std::vector<uint8_t> split;            // whether its corners are resolved one by one
    std::vector<uint64_t> rangeRecords;    // the first record of each run, and the end of the last
    std::unique_ptr<SplitCorner[]> records;   // the corners of split positions, a run per position
    uint64_t total = 0;                    // corners gathered
};

// Every welded position gathers its corners in face order: sums and whether
// they all agree; the positions whose corners do not all agree then list
// their corners.
GatheredCorners gatherCorners(const SmoothInput& in, const std::vector<uint32_t>& weld, uint32_t positions);

// Making the vertices: smoothing_vertices.cpp.

// Runs of welded positions, each resolved by one thread into an output of
// its own.
struct SlotPlan {
    uint32_t count = 0;
    std::vector<uint32_t> begin;      // the first welded position of each, and the end of the last
    std::vector<uint64_t> corners;    // about how many corners each holds
};

SlotPlan planSlots(const Part& part, const GatheredCorners& gathered, uint32_t positions);

// New vertices: one per welded position whose corners all agree, or as many
// as its corners need.
struct NewVertices {
    std::vector<SmoothOutput> outputs;   // by slot, kMaxThreads of them
    // By welded position: the encoded index of its vertex, (index << 8) +
    // slot, or kSplit where each corner's record holds its own.
    std::unique_ptr<uint32_t[]> code;
};

NewVertices makeVertices(const SmoothInput& in, GatheredCorners& gathered, const SlotPlan& slots);

// Merging: smoothing_merge.cpp.

// Replaces the part's vertex arrays by the slots' new vertices, in slot
// order; returns the index of each slot's first vertex, and the total after
// the last.
std::vector<uint64_t> mergeVertices(Part& part, const std::vector<SmoothOutput>& outputs, uint32_t slots);

// Rewrites every corner's vertex index: its welded position's, or where the
// corners were split, each listed corner's own. Indices past the old
// vertices are kept and reported.
void rewriteIndices(Part& part, const std::vector<uint32_t>& weld, const uint32_t* code,
                    const std::vector<uint64_t>& base, const SplitCorner* records, uint64_t recordCount);

}  // namespace smoothing
