// Making the vertices for smoothing: the welded positions are cut into slots,
// and each slot makes the new vertices of its positions, one where all
// corners agree and as many as needed where they split.
#include <algorithm>

#include "geometry/smoothing_phases.h"

namespace smoothing {

namespace {

// New vertex indices travel as (index << 8) + slot until the merge, so a slot
// may make at most 2^24 vertices; the work is cut into enough slots for that.
constexpr uint64_t kSlotCorners = uint64_t(1) << 23;
constexpr uint32_t kSlotsPerThread = 8;

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

}  // namespace

// Slots: runs of welded positions, each resolved by one thread into arrays of
// its own and merged in order, so that their number never changes the
// result. There are several per thread, taken as threads finish, because
// positions that split cost more and come in clusters. A part so large that
// a slot's vertex count might not fit its 24 bits gets more runs, with about
// equal numbers of corners.
SlotPlan planSlots(const Part& part, const GatheredCorners& gathered, uint32_t W) {
    const uint32_t threads = teamSize();
    const uint64_t cornerTotal = 3 * uint64_t(part.triangles.size()) + 4 * uint64_t(part.tetragons.size());
    const uint64_t total = gathered.total;
    SlotPlan plan;
    plan.count = std::max<uint32_t>(1, std::min({W, threads == 1 ? 1 : kSlotsPerThread * threads,
                                                 uint32_t(kMaxThreads)}));
    plan.begin.resize(size_t(plan.count) + 1);
    for (uint32_t s = 0; s <= plan.count; ++s) plan.begin[s] = uint32_t(uint64_t(W) * s / plan.count);
    plan.corners.assign(plan.count, total / plan.count);
    if (cornerTotal >= (uint64_t(1) << 24) - 1) {
        const uint64_t needed = (total + kSlotCorners - 1) / kSlotCorners;
        plan.count = uint32_t(std::min<uint64_t>(W, std::clamp<uint64_t>(needed, plan.count, kMaxThreads)));
        plan.begin.assign(size_t(plan.count) + 1, W);
        plan.corners.assign(plan.count, 0);
        plan.begin[0] = 0;
        uint64_t seen = 0;
        uint32_t s = 1;
        for (uint32_t w = 0; w < W; ++w) {
            while (s < plan.count && seen >= total * s / plan.count) plan.begin[s++] = w;
            plan.corners[s - 1] += gathered.states[w].count;
            seen += gathered.states[w].count;
        }
    }
    return plan;
}

NewVertices makeVertices(const SmoothInput& in, GatheredCorners& gathered, const SlotPlan& plan) {
    const uint32_t W = uint32_t(gathered.states.size());
    const std::vector<uint32_t>& rangeBegin = gathered.rangeBegin;
    NewVertices made{std::vector<SmoothOutput>(kMaxThreads), std::make_unique_for_overwrite<uint32_t[]>(W)};
#pragma omp parallel for schedule(dynamic)
    for (uint32_t s = 0; s < plan.count; ++s) {
        SmoothOutput& out = made.outputs[s];
        // Every vertex of the slot is at most a corner; most meshes make
        // about as many vertices as a sixth of their corners and more.
        const size_t expected = plan.corners[s] / 4 + 16;
        out.source.reserve(expected);
        out.normals.reserve(expected);
        out.tangents.reserve(expected);
        uint32_t r =
            uint32_t(std::upper_bound(rangeBegin.begin(), rangeBegin.end(), plan.begin[s]) - rangeBegin.begin()) - 1;
        for (uint32_t w = plan.begin[s]; w < plan.begin[s + 1]; ++w) {
            while (w >= rangeBegin[r + 1]) ++r;
            const WeldState& state = gathered.states[w];
            if (state.count == 0) continue;   // a position that no face uses any more
            if (!gathered.split[w]) {
                made.code[w] = (uint32_t(out.source.size()) << 8) + s;
                out.source.push_back(state.vertex);
                out.normals.push_back(packDirection(state.sumN.x, state.sumN.y, state.sumN.z));
                out.tangents.push_back(packDirection(state.sumG.x, state.sumG.y, state.sumG.z));
            } else {
                smoothSplit(in, &gathered.records[gathered.rangeRecords[r] + state.record - state.count], state.count,
                            s, out);
                made.code[w] = kSplit;
            }
        }
    }
    return made;
}

}  // namespace smoothing
