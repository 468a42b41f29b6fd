// Gathering the corners for smoothing: every welded position sums the
// vectors of the faces that meet there, in face order, and learns whether one
// vertex serves all of its corners; the corners of the positions where it
// does not are listed for smoothSplit.
#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

#include "geometry/lanes.h"
#include "geometry/smoothing_phases.h"

namespace smoothing {

namespace {

// Whether every corner of a welded position takes in all of its faces and
// all their vertices carry the same values: then one vertex, a copy of the
// first corner's, with the packed sums serves them all. Where all faces lie
// within half the limit of the first one, every pair lies within the limit
// (see kReferenceMargin in smoothing.cpp); other cases are left to the pair
// tests of smoothSplit.
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
uint64_t gatherRange(const SmoothInput& in, const std::vector<uint32_t>& weld, uint32_t begin, uint32_t end,
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

}  // namespace

// Each thread walks all faces for a run of welded positions of its own, so
// that each sum keeps its order; then, in a second walk, lists the corners
// of its positions that split.
GatheredCorners gatherCorners(const SmoothInput& in, const std::vector<uint32_t>& weld, uint32_t W) {
    const uint32_t ranges = std::max<uint32_t>(1, std::min(teamSize(), W));
    GatheredCorners g;
    g.rangeBegin.resize(size_t(ranges) + 1);
    for (uint32_t r = 0; r <= ranges; ++r) g.rangeBegin[r] = uint32_t(uint64_t(W) * r / ranges);
    g.states.resize(W);
    g.split.resize(W);
    g.rangeRecords.assign(size_t(ranges) + 1, 0);
    std::vector<uint64_t> rangeCorners(ranges);
    std::vector<FaceSpan> spans(ranges);
#pragma omp parallel for schedule(static)
    for (uint32_t r = 0; r < ranges; ++r) {
        rangeCorners[r] = gatherRange(in, weld, g.rangeBegin[r], g.rangeBegin[r + 1], g.states, spans[r]);
        g.rangeRecords[r + 1] = markSplits(in, g.rangeBegin[r], g.rangeBegin[r + 1], g.states, g.split);
    }
    for (uint32_t r = 0; r < ranges; ++r) g.rangeRecords[r + 1] += g.rangeRecords[r];
    g.records = std::make_unique_for_overwrite<SplitCorner[]>(g.rangeRecords[ranges]);
#pragma omp parallel for schedule(static)
    for (uint32_t r = 0; r < ranges; ++r)
        if (g.rangeRecords[r + 1] > g.rangeRecords[r])
            listSplitCorners(in.part, weld, g.split, g.rangeBegin[r], g.rangeBegin[r + 1], spans[r], g.states,
                             &g.records[g.rangeRecords[r]]);
    for (uint64_t c : rangeCorners) g.total += c;
    return g;
}

}  // namespace smoothing
