// Rewriting the indices after smoothing: every corner of every face takes the
// index of its new vertex.
#include "core/report.h"
#include "geometry/smoothing_phases.h"

namespace smoothing {

namespace {

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

}  // namespace

// Each corner's new index: its welded position's, decoded from slot and
// index in the slot; then, where the corners were split, each listed
// corner's own.
void rewriteIndices(Part& part, const std::vector<uint32_t>& weld, const uint32_t* code,
                    const std::vector<uint64_t>& base, const SplitCorner* records, uint64_t recordCount) {
    const size_t vertexCount = weld.size();
    const uint32_t triangleCount = uint32_t(part.triangles.size());
    const uint32_t tetragonCount = uint32_t(part.tetragons.size());
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
    const int64_t count = int64_t(recordCount);
#pragma omp parallel for schedule(static)
    for (int64_t i = 0; i < count; ++i) cornerIndex(part, records[size_t(i)].corner) = decode(records[size_t(i)].encoded);
    for (uint64_t i = 0; i < outOfRange; ++i) reportError("smoothing out of range");
}

}  // namespace smoothing
