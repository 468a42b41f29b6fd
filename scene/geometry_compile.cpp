// Compiling raw face lists into a part: degenerate triangles dropped, normals
// oriented and quantised, corners deduplicated through a vertex table.
#include <malloc.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

#include "core/huge_pages.h"
#include "core/report.h"
#include "scene/geometry_reader.h"

namespace {

uint32_t bitsOf(float f) { return std::bit_cast<uint32_t>(f); }

// Deduplicates the vertices of one part: a corner matches a vertex when
// position, normal, tangent and UV agree bit for bit. No file gives faces
// tangents, so theirs are all zero and the key holds position, normal and
// UV. The buckets are a power of two at least twice the vertices to expect
// (the file's positions, or a quarter of the corners where seams split them
// more), so that a lookup walks a chain of about one key however large the
// part: the load stays linear, and the table a few bytes a vertex.
class VertexTable {
public:
    VertexTable(Part& part, bool withUvs, bool withNormals, size_t corners, size_t positions)
        : part_(part), withUvs_(withUvs), withNormals_(withNormals),
          head_(std::bit_ceil(2 * std::max({positions, corners / 4, size_t(512)})), -1), mask_(head_.size() - 1) {
        // Most corners share the positions of the file; seams add a few more.
        keys_.reserve(positions);
        next_.reserve(positions);
        part_.positions.reserve(part_.positions.size() + positions);
    }

    uint32_t vertex(Vector p, UV uv, PackedDirection n) {
        const size_t bucket = bucketOf(p);
        for (int32_t i = head_[bucket]; i >= 0; i = next_[size_t(i)]) {
            const Key& k = keys_[size_t(i)];
            if (k.p[0] == bitsOf(p.x) && k.p[1] == bitsOf(p.y) && k.p[2] == bitsOf(p.z) && k.n == n &&
                k.uv[0] == bitsOf(uv.u) && k.uv[1] == bitsOf(uv.v))
                return uint32_t(i);
        }
        const int32_t index = int32_t(keys_.size());
        keys_.push_back({{bitsOf(p.x), bitsOf(p.y), bitsOf(p.z)}, n, {bitsOf(uv.u), bitsOf(uv.v)}});
        next_.push_back(head_[bucket]);
        head_[bucket] = index;
        part_.positions.push_back(p);
        if (withUvs_) part_.uvChannels[0].elements.push_back(uv);
        if (withNormals_) part_.normals.push_back(n);
        return uint32_t(index) + base_;
    }

    void setBase(uint32_t base) { base_ = base; }

    // Asks for the bucket of a position that a lookup will read soon. Kept
    // inline: the compiler takes a function that only prefetches for one
    // without effects, and drops its calls.
    [[gnu::always_inline]] void prefetch(Vector p) const { __builtin_prefetch(head_.data() + bucketOf(p)); }

private:
    // The position's bits mixed into 64 and folded: nearby floats land in
    // buckets far apart.
    size_t bucketOf(Vector p) const {
        uint64_t h = (uint64_t(bitsOf(p.x)) << 32 | bitsOf(p.y)) * 0x9E3779B97F4A7C15ull;
        h = (h ^ (h >> 29) ^ bitsOf(p.z)) * 0xBF58476D1CE4E5B9ull;
        return size_t(h ^ (h >> 32)) & mask_;
    }

    struct Key {
        uint32_t p[3];
        PackedDirection n;
        uint32_t uv[2];
    };
    Part& part_;
    bool withUvs_, withNormals_;
    uint32_t base_ = 0;
    std::vector<int32_t> head_;
    size_t mask_;
    std::vector<int32_t> next_;
    std::vector<Key> keys_;
};

template <int N, typename Raw>
bool positionsValid(const Raw& raw, size_t count) {
    for (int i = 0; i < N; ++i)
        if (raw.position[i] < 0 || size_t(raw.position[i]) >= count) return false;
    return true;
}

// The vertex that a raw position's corner was given last, and the indices
// that made it: a later corner of the same position with the same UV and
// normal indices, its normal turned the same way, has the same bits, so it
// is the same vertex without a lookup. Most corners of a mesh are such.
struct CornerMemo {
    int32_t uv = -2, normal = -2;   // -2 matches no index: raw ones are -1 or more
    uint32_t turned = 0, vertex = 0;
};

// The corners of a face a few faces ahead that the memo will not answer
// have their buckets asked for: on a large part each first appearance
// would otherwise wait on memory.
template <int N, typename Raw>
[[gnu::always_inline]] inline void prefetchCorners(const GeometryReader& r, const Raw& raw, const VertexTable& table,
                     const std::vector<CornerMemo>& memos) {
    for (int i = 0; i < N; ++i) {
        const size_t p = size_t(uint32_t(raw.position[i]));
        if (p >= r.positions.size()) continue;
        if (memos[p].uv != raw.uv[i] || memos[p].normal != raw.normal[i]) table.prefetch(r.positions[p]);
    }
}

constexpr size_t kFacesAhead = 16;

// The vertex indices of the corners of one raw face.
template <int N, typename Raw>
void compileCorners(const GeometryReader& r, const Raw& raw, VertexTable& table, std::vector<CornerMemo>& memos,
                    uint32_t out[N]) {
    Vector p[N];
    for (int i = 0; i < N; ++i) p[i] = r.positions[size_t(raw.position[i])];
    // Normals turn when all of them face away from the face's own.
    bool turned = false;
    if (!r.normals.empty()) {
        const Vector g = normalized(cross(p[1] - p[0], p[2] - p[0]));
        turned = true;
        for (int i = 0; i < N; ++i)
            turned = turned && uint32_t(raw.normal[i]) < r.normals.size() &&
                     dot(r.normals[size_t(raw.normal[i])], g) < 0.0f;
    }
    for (int i = 0; i < N; ++i) {
        CornerMemo& memo = memos[size_t(raw.position[i])];
        if (memo.uv == raw.uv[i] && memo.normal == raw.normal[i] && memo.turned == uint32_t(turned)) {
            out[i] = memo.vertex;
            continue;
        }
        const UV uv = uint32_t(raw.uv[i]) < r.uvs.size() ? r.uvs[size_t(raw.uv[i])] : UV{0.0f, 0.0f};
        PackedDirection n = {};
        if (uint32_t(raw.normal[i]) < r.normals.size()) {
            const Vector v = r.normals[size_t(raw.normal[i])];
            const Vector w = turned ? -v : v;
            n = packDirection(w.x, w.y, w.z);
        }
        out[i] = table.vertex(p[i], uv, n);
        memo = {raw.uv[i], raw.normal[i], uint32_t(turned), out[i]};
    }
}

}  // namespace

void compileReader(GeometryReader& r, const std::string& source) {
    Part& part = *r.part;
    const bool withUvs = !r.uvs.empty();
    const bool withNormals = !r.normals.empty();
    if (!r.rawTriangles.empty() || !r.rawQuadrangles.empty()) {
        // A part that already holds vertices keeps its channels in step.
        const size_t before = part.positions.size();
        if (withUvs) part.uvChannels[0].elements.resize(before);
        if (withNormals) part.normals.resize(before);
        VertexTable table(part, withUvs, withNormals, 3 * r.rawTriangles.size() + 4 * r.rawQuadrangles.size(),
                          r.positions.size());
        std::vector<CornerMemo> memos(r.positions.size());
        table.setBase(uint32_t(before));
        bool outOfRange = false;
        part.triangles.reserve(part.triangles.size() + r.rawTriangles.size());
        for (size_t f = 0; f < r.rawTriangles.size(); ++f) {
            if (f + kFacesAhead < r.rawTriangles.size())
                prefetchCorners<3>(r, r.rawTriangles[f + kFacesAhead], table, memos);
            const RawTriangle& raw = r.rawTriangles[f];
            if (!positionsValid<3>(raw, r.positions.size())) {
                outOfRange = true;
                continue;
            }
            const Vector p0 = r.positions[size_t(raw.position[0])], p1 = r.positions[size_t(raw.position[1])],
                         p2 = r.positions[size_t(raw.position[2])];
            if (p0 == p1 || p1 == p2 || p0 == p2) continue;
            uint32_t v[3];
            compileCorners<3>(r, raw, table, memos, v);
            part.triangles.push_back({v[0], v[1], v[2], uint32_t(raw.shader)});
        }
        for (size_t f = 0; f < r.rawQuadrangles.size(); ++f) {
            if (f + kFacesAhead < r.rawQuadrangles.size())
                prefetchCorners<4>(r, r.rawQuadrangles[f + kFacesAhead], table, memos);
            const RawQuadrangle& raw = r.rawQuadrangles[f];
            if (!positionsValid<4>(raw, r.positions.size())) {
                outOfRange = true;
                continue;
            }
            uint32_t v[4];
            compileCorners<4>(r, raw, table, memos, v);
            part.tetragons.push_back({v[0], v[1], v[2], v[3], uint32_t(raw.shader)});
        }
        if (outOfRange) {
            reportError("object - face index out of range in " + source);
            reportRule();
        }
    }
    const size_t rawBytes =
        r.rawTriangles.size() * sizeof(RawTriangle) + r.rawQuadrangles.size() * sizeof(RawQuadrangle);
    release(r.positions);
    release(r.uvs);
    release(r.normals);
    release(r.rawTriangles);
    release(r.rawQuadrangles);
    // The reading threads' lists of a large file lived in their own heaps,
    // which keep freed memory for later use; the hierarchies built next need
    // it more. Small files leave too little to be worth the walk.
    if (rawBytes >= (size_t(64) << 20)) malloc_trim(0);
}
