// The binary tree of an object, built breadth first: each level of the tree
// is one parallel loop over the tasks of that level, a "wavefront". Splits
// come from a surface area heuristic over 8 bins per axis; a reference goes
// to the side whose box holds it, the smaller one when both do.
#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <bit>

#include "core/clock.h"
#include "core/report.h"
#include "geometry/intersect_primitives.h"
#include "geometry/object.h"

namespace {

// A run of references to split, with the bounds of their centroids, which
// the partition of the parent task gathered on its way. The widest waves
// list millions of tasks: the bounds are kept as six floats.
struct BuildTask {
    uint32_t node;
    uint32_t first;
    uint32_t count;
    float low[3], high[3];
};

constexpr int kBins = 8;
constexpr int kWaveLimit = 256;
constexpr uint32_t kLeafLimit = 0xFFFFu;   // a leaf's count has 16 bits

// A reference's box with the reference itself in the fourth lanes, so that
// the partition moves one record. The lanes hold floats between 1 and 2
// whose mantissas carry the bits: the low 23 bits of the index in the high
// lane; the rest of the index, the kind and the part (which has 8 bits) in
// the low one. The builder's arithmetic runs over all four lanes, and
// ordinary numbers there keep it at full speed, where the bare bits would
// read as denormals.
constexpr uint32_t kOne = 0x3F800000u, kMantissa = 0x7FFFFFu;

inline LaneBox laneBox(const Bbox& b, const PrimitiveRef& ref) {
    const uint32_t high = kOne | (ref.index & kMantissa);
    const uint32_t low = kOne | ref.index >> 23 | uint32_t(ref.kind) << 9 | uint32_t(ref.part & 0xFFu) << 12;
    return {_mm_setr_ps(b.min[0], b.min[1], b.min[2], std::bit_cast<float>(low)),
            _mm_setr_ps(b.max[0], b.max[1], b.max[2], std::bit_cast<float>(high))};
}

inline PrimitiveRef laneRef(const LaneBox& b) {
    const uint32_t low = uint32_t(_mm_extract_ps(b.min, 3)) & kMantissa;
    const uint32_t high = uint32_t(_mm_extract_ps(b.max, 3)) & kMantissa;
    PrimitiveRef ref;
    ref.part = uint16_t(low >> 12);
    ref.kind = uint16_t(low >> 9 & 7u);
    ref.index = high | (low & 0x1FFu) << 23;
    return ref;
}

// The kinds of primitive a part holds, in the order the references list
// them, and how many of each.
constexpr uint16_t kPartKinds[4] = {kParticle, kCylinder, kTriangle, kTetragon};

size_t primitiveCount(const Part& part, uint16_t kind) {
    switch (kind) {
    case kParticle: return part.particles.size();
    case kCylinder: return part.cylinders.size();
    case kTriangle: return part.triangles.size();
    case kTetragon: return part.tetragons.size();
    default: return 0;
    }
}

inline __m128 lanes(const float v[3]) { return _mm_setr_ps(v[0], v[1], v[2], 0.0f); }

// halfArea of a lane box, from its lanes: extents below 0 count as 0 (a NaN
// extent stays NaN, as in halfArea).
inline float laneHalfArea(const LaneBox& b) {
    const __m128 d = _mm_max_ps(_mm_setzero_ps(), _mm_sub_ps(b.max, b.min));
    const float dx = _mm_cvtss_f32(d), dy = _mm_cvtss_f32(_mm_movehdup_ps(d)),
                dz = _mm_cvtss_f32(_mm_movehl_ps(d, d));
    return (dy + dz) * dx + dy * dz;
}

inline LaneBox emptyLaneBox() { return {_mm_set1_ps(kInfinity), _mm_set1_ps(-kInfinity)}; }

// The union, as growBox has it: a NaN plane keeps the box's own value.
inline void grow(LaneBox& b, const LaneBox& other) {
    b.min = _mm_min_ps(other.min, b.min);
    b.max = _mm_max_ps(other.max, b.max);
}

// Held on all six planes, limits included.
inline bool contains(const LaneBox& outer, const LaneBox& inner) {
    const __m128 ok = _mm_and_ps(_mm_cmpge_ps(inner.min, outer.min), _mm_cmple_ps(inner.max, outer.max));
    return (_mm_movemask_ps(ok) & 7) == 7;
}

// Centroids are half the sum of min and max, per axis. A NaN centroid is
// passed over, as min and max keep their second operand.
inline __m128 centroid(const LaneBox& b) { return _mm_mul_ps(_mm_add_ps(b.min, b.max), _mm_set1_ps(0.5f)); }

// bin = truncation of 8 (centroid - min) / extent, clamped to 0..7. An axis of
// zero extent gives NaN, which lands in bin 0; it is never evaluated.
inline __m128i binOf(const LaneBox& box, __m128 low, __m128 extent) {
    const __m128 f = _mm_div_ps(_mm_mul_ps(_mm_set1_ps(8.0f), _mm_sub_ps(centroid(box), low)), extent);
    return _mm_min_epi32(_mm_max_epi32(_mm_cvttps_epi32(f), _mm_setzero_si128()), _mm_set1_epi32(kBins - 1));
}

struct CentroidBounds {
    __m128 low = _mm_set1_ps(kInfinity), high = _mm_set1_ps(-kInfinity);

    void add(const LaneBox& b) {
        const __m128 c = centroid(b);
        low = _mm_min_ps(c, low);
        high = _mm_max_ps(c, high);
    }
};

BuildTask makeTask(uint32_t node, uint32_t first, uint32_t count, const CentroidBounds& bounds) {
    alignas(16) float low[4], high[4];
    _mm_store_ps(low, bounds.low);
    _mm_store_ps(high, bounds.high);
    return {node, first, count, {low[0], low[1], low[2]}, {high[0], high[1], high[2]}};
}

CentroidBounds centroidBounds(const LaneBox* boxes, uint32_t first, uint32_t end) {
    CentroidBounds bounds;
    for (uint32_t i = first; i < end; ++i) bounds.add(boxes[i]);
    return bounds;
}

struct Bin {
    LaneBox box = emptyLaneBox();
    uint32_t count = 0;
};

struct Builder {
    Object& object;
    std::vector<LaneBox, HugePageAllocator<LaneBox>>& boxes;
    BbvhNodes& nodes;
};

// The wave being built, overwritten by the next; the last stays.
void progressLine(int wave, bool last) {
    (last ? reportCount : reportProgress)("tree construction wavefront", wave, "n/a");
}

// The node becomes inner. Its two children get their numbers when the wave
// is over; until then their tasks carry the number of their parent.
void makeInner(Builder& builder, const BuildTask& task, uint32_t left, const CentroidBounds& leftBounds,
               const CentroidBounds& rightBounds, std::vector<BuildTask>& out) {
    builder.nodes[task.node].count = 0;
    out.push_back(makeTask(task.node, task.first, left, leftBounds));
    out.push_back(makeTask(task.node, task.first + left, task.count - left, rightBounds));
}

// A run too long for one leaf is halved instead, so that no reference is lost
// to the 16-bit count.
void makeLeaf(Builder& builder, const BuildTask& task, std::vector<BuildTask>& out) {
    if (task.count > kLeafLimit) {
        const uint32_t half = task.count / 2, end = task.first + task.count;
        const LaneBox* boxes = builder.boxes.data();
        makeInner(builder, task, half, centroidBounds(boxes, task.first, task.first + half),
                  centroidBounds(boxes, task.first + half, end), out);
        return;
    }
    BbvhNode& node = builder.nodes[task.node];
    node.first = task.first;
    node.count = uint16_t(task.count);
}

// Membership by box: a reference that both sides hold goes to the side with
// the smaller half area. Each side's centroid bounds are gathered here for its
// own task.
void partitionTask(Builder& builder, const BuildTask& task, const LaneBox& bestLeft, const LaneBox& bestRight,
                   std::vector<BuildTask>& out) {
    LaneBox* boxes = builder.boxes.data();
    const uint32_t first = task.first, count = task.count, end = first + count;
    const bool sharedGoLeft = laneHalfArea(bestRight) > laneHalfArea(bestLeft);
    CentroidBounds leftBounds, rightBounds;
    uint32_t left = 0, right = 0;
    while (left + right < count) {
        const uint32_t i = first + left;
        const bool inLeft = contains(bestLeft, boxes[i]);
        const bool inRight = contains(bestRight, boxes[i]);
        if (inLeft && (!inRight || sharedGoLeft)) {
            leftBounds.add(boxes[i]);
            ++left;
        } else {
            rightBounds.add(boxes[i]);
            ++right;
            const uint32_t j = end - right;
            std::swap(boxes[i], boxes[j]);
        }
    }
    if (left < 1 || right < 1) {
        makeLeaf(builder, task, out);
        return;
    }
    makeInner(builder, task, left, leftBounds, rightBounds, out);
}

// Two references whose centroids differ: on an axis where they differ, one
// lies in bin 0 and the other in bin 7, except near the limits of floats. Such
// an axis has one plane to try, and every such axis prices it the same, so the
// first one decides, as in the general loop, with no bins to fill. False when
// some axis to evaluate has another pattern; the general path takes those.
bool splitPair(Builder& builder, const BuildTask& task, __m128 extentLanes, const float extent[4],
               std::vector<BuildTask>& out) {
    const LaneBox* boxes = builder.boxes.data();
    alignas(16) int32_t a[4], b[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(a), binOf(boxes[task.first], lanes(task.low), extentLanes));
    _mm_store_si128(reinterpret_cast<__m128i*>(b), binOf(boxes[task.first + 1], lanes(task.low), extentLanes));
    int axis = -1;
    for (int k = 0; k < 3; ++k) {
        if (extent[k] == 0.0f) continue;
        if (a[k] + b[k] != kBins - 1 || (a[k] != 0 && b[k] != 0)) return false;
        if (axis < 0) axis = k;
    }
    if (axis < 0) return false;
    LaneBox left = emptyLaneBox(), right = emptyLaneBox();
    grow(left, boxes[task.first + (a[axis] == 0 ? 0 : 1)]);
    grow(right, boxes[task.first + (a[axis] == 0 ? 1 : 0)]);
    const float cost = laneHalfArea(left) + laneHalfArea(right);
    if (kInfinity > cost) partitionTask(builder, task, left, right, out);
    else makeLeaf(builder, task, out);
    return true;
}

void runTask(Builder& builder, const BuildTask& task, int wave, std::vector<BuildTask>& out) {
    LaneBox* boxes = builder.boxes.data();
    const uint32_t first = task.first, count = task.count, end = first + count;

    if (count == 0) {
        BbvhNode& node = builder.nodes[task.node];
        node.first = first;
        node.count = 0;
        return;
    }

    if (wave >= kWaveLimit - 1 || count < 2) {
        // The last wave takes whatever is left, up to what a 16-bit count
        // holds: a count that wrapped to 0 would read as an inner node.
        BbvhNode& node = builder.nodes[task.node];
        node.first = first;
        node.count = uint16_t(std::min(count, kLeafLimit));
        return;
    }
    const __m128 low = lanes(task.low), high = lanes(task.high);
    if ((_mm_movemask_ps(_mm_cmpeq_ps(low, high)) & 7) == 7) {
        makeLeaf(builder, task, out);
        return;
    }

    const __m128 extentLanes = _mm_sub_ps(high, low);
    alignas(16) float extent[4];
    _mm_store_ps(extent, extentLanes);
    if (count == 2 && splitPair(builder, task, extentLanes, extent, out)) return;

    // Counts stay in registers, a lane per bin: a run of references in one
    // bin would otherwise wait on each other's stores.
    Bin bins[3][kBins];
    const __m256i binLanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    __m256i counts[3] = {_mm256_setzero_si256(), _mm256_setzero_si256(), _mm256_setzero_si256()};
    for (uint32_t i = first; i < end; ++i) {
        const LaneBox& box = boxes[i];
        alignas(16) int32_t index[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(index), binOf(box, low, extentLanes));
        for (int k = 0; k < 3; ++k) {
            grow(bins[k][index[k]].box, box);
            counts[k] = _mm256_sub_epi32(counts[k], _mm256_cmpeq_epi32(_mm256_set1_epi32(index[k]), binLanes));
        }
    }
    for (int k = 0; k < 3; ++k) {
        alignas(32) uint32_t lanes[kBins];
        _mm256_store_si256(reinterpret_cast<__m256i*>(lanes), counts[k]);
        for (int i = 0; i < kBins; ++i) bins[k][i].count = lanes[i];
    }

    float best = kInfinity;
    LaneBox bestLeft = emptyLaneBox(), bestRight = emptyLaneBox();
    for (int k = 0; k < 3; ++k) {
        if (extent[k] == 0.0f) continue;
        LaneBox leftBox[kBins - 1], rightBox[kBins - 1];
        uint32_t leftCount[kBins - 1], rightCount[kBins - 1];
        LaneBox acc = emptyLaneBox();
        uint32_t n = 0;
        for (int i = 0; i < kBins - 1; ++i) {
            grow(acc, bins[k][i].box);
            n += bins[k][i].count;
            leftBox[i] = acc;
            leftCount[i] = n;
        }
        acc = emptyLaneBox();
        n = 0;
        for (int i = kBins - 2; i >= 0; --i) {
            grow(acc, bins[k][i + 1].box);
            n += bins[k][i + 1].count;
            rightBox[i] = acc;
            rightCount[i] = n;
        }
        for (int i = 0; i < kBins - 1; ++i) {
            // A plane past an empty bin splits as the plane before it, and an
            // equal cost never wins: small runs skip most planes.
            if (i > 0 && bins[k][i].count == 0) continue;
            const float cost = laneHalfArea(leftBox[i]) * float(leftCount[i]) +
                               laneHalfArea(rightBox[i]) * float(rightCount[i]);
            if (best > cost) {
                best = cost;
                bestLeft = leftBox[i];
                bestRight = rightBox[i];
            }
        }
    }
    if (best == kInfinity) {
        makeLeaf(builder, task, out);
        return;
    }

    partitionTask(builder, task, bestLeft, bestRight, out);
}

}  // namespace

Bbox primitiveBox(const Part& part, uint16_t kind, uint32_t index) {
    Bbox box;
    auto grow = [&box](Vector p) {
        box.min[0] = p.x < box.min[0] ? p.x : box.min[0];
        box.min[1] = p.y < box.min[1] ? p.y : box.min[1];
        box.min[2] = p.z < box.min[2] ? p.z : box.min[2];
        box.max[0] = p.x > box.max[0] ? p.x : box.max[0];
        box.max[1] = p.y > box.max[1] ? p.y : box.max[1];
        box.max[2] = p.z > box.max[2] ? p.z : box.max[2];
    };
    switch (kind) {
    case kParticle: {
        const uint32_t v = part.particles[index];
        const Vector c = part.positions[v];
        const float r = vertexRadius(part, v);
        box.min[0] = c.x - r, box.min[1] = c.y - r, box.min[2] = c.z - r;
        box.max[0] = c.x + r, box.max[1] = c.y + r, box.max[2] = c.z + r;
        break;
    }
    case kCylinder: {
        // The start and end points of the eight sub-segments of the curve
        // test, widened by the radius of the segment's first vertex.
        const uint32_t v = part.cylinders[index];
        const Vector p0 = part.positions[v], p1 = part.positions[v + 1];
        const Vector t0 = vertexTangent(part, v), t1 = vertexTangent(part, v + 1);
        const float r = vertexRadius(part, v);
        for (int k = 0; k < 9; ++k) {
            const Vector p = curvePoint(p0, p1, t0, t1, k);
            grow(p - Vector{r, r, r});
            grow(p + Vector{r, r, r});
        }
        break;
    }
    case kTriangle: {
        const Triangle& t = part.triangles[index];
        grow(part.positions[t.a]);
        grow(part.positions[t.b]);
        grow(part.positions[t.c]);
        break;
    }
    case kTetragon: {
        const Tetragon& t = part.tetragons[index];
        grow(part.positions[t.a]);
        grow(part.positions[t.b]);
        grow(part.positions[t.c]);
        grow(part.positions[t.d]);
        break;
    }
    default:
        break;
    }
    return box;
}

Bbox primitivesBox(const Object& object) {
    Bbox box;
    for (const Part& part : object.parts)
        for (uint16_t kind : kPartKinds) {
            const size_t count = primitiveCount(part, kind);
            // Chunks joined in their order keep the first of equal planes, as
            // one loop from the start does (+0 and -0 compare equal).
            const size_t chunks = count < 65536 ? 1 : 256, length = (count + chunks - 1) / chunks;
            std::vector<Bbox> partial(chunks);
#pragma omp parallel for schedule(static) if (chunks > 1)
            for (size_t c = 0; c < chunks; ++c)
                for (size_t i = c * length; i < std::min(count, (c + 1) * length); ++i)
                    growBox(partial[c], primitiveBox(part, kind, uint32_t(i)));
            for (const Bbox& b : partial) growBox(box, b);
        }
    return box;
}

Bbox referenceBox(const Object& object, const PrimitiveRef& ref) {
    if (ref.kind == kInstance) return object.instances[ref.index].bounds;
    return primitiveBox(object.parts[ref.part], ref.kind, ref.index);
}

void buildHierarchy(Object& object) {
    release(object.bbvhNodes);
    release(object.buildRefs);
    release(object.buildBoxes);

    size_t total = object.instances.size();
    for (const Part& part : object.parts)
        for (uint16_t kind : kPartKinds) total += primitiveCount(part, kind);
    // An object with nothing in it keeps empty hierarchies, which every walk
    // treats as empty.
    if (total == 0) return;

    // Each reference's box with the reference in it, in the references'
    // order: for each part its particles, cylinders, triangles and
    // tetragons, then the instances. The references travel in their boxes
    // until the tree is made.
    const uint64_t start = systemTime100ns();
    resizeOnAllThreads(object.buildBoxes, total);
    size_t at = 0;
    for (size_t p = 0; p < object.parts.size(); ++p)
        for (uint16_t kind : kPartKinds) {
            const long long n = (long long)primitiveCount(object.parts[p], kind);
#pragma omp parallel for schedule(static) if (n >= 4096)
            for (long long i = 0; i < n; ++i) {
                const PrimitiveRef ref(uint32_t(p), kind, uint32_t(i));
                object.buildBoxes[at + size_t(i)] = laneBox(referenceBox(object, ref), ref);
            }
            at += size_t(n);
        }
    for (uint32_t i = 0; i < object.instances.size(); ++i) {
        const PrimitiveRef ref(0u, kInstance, i);
        object.buildBoxes[at + i] = laneBox(referenceBox(object, ref), ref);
    }
    const long long count = (long long)total;

    // Room for the largest tree, two nodes a split; pages past the nodes made
    // are never touched.
    BbvhNodes& nodes = object.bbvhNodes;
    nodes.reserve(2 * total);
    resizeOnAllThreads(nodes, 1);
    Builder builder{object, object.buildBoxes, nodes};

    const CentroidBounds all = centroidBounds(builder.boxes.data(), 0, uint32_t(total));
    std::vector<BuildTask> current{makeTask(0, 0, uint32_t(total), all)};
    int wave = 0;
    // The tasks of a wave are cut into runs, about 64 a thread, which threads
    // take one at a time: tasks differ widely in size. Each run lists the
    // tasks it makes, and the lists keep their room from wave to wave.
    const size_t threads = size_t(std::max(1, omp_get_max_threads()));
    std::vector<std::vector<BuildTask>> made(64 * threads);
    while (!current.empty()) {
        progressLine(wave, false);
        const size_t tasks = current.size();
        const size_t runs = std::min(made.size(), tasks), runLength = (tasks + runs - 1) / runs;
#pragma omp parallel for schedule(dynamic, 1) if (runs > 1 && count >= 4096)
        for (size_t r = 0; r < runs; ++r)
            for (size_t i = r * runLength; i < std::min(tasks, (r + 1) * runLength); ++i)
                runTask(builder, current[i], wave, made[r]);
        // The next wave in the order of its parents, each pair numbered as
        // it comes: the tree is numbered breadth first, the same numbers
        // whatever the threads' timing.
        current.clear();
        uint32_t nodeCount = uint32_t(nodes.size());
        for (size_t r = 0; r < runs; ++r) {
            for (size_t k = 0; k + 1 < made[r].size(); k += 2) {
                nodes[made[r][k].node].first = nodeCount;
                made[r][k].node = nodeCount;
                made[r][k + 1].node = nodeCount + 1;
                nodeCount += 2;
            }
            current.insert(current.end(), made[r].begin(), made[r].end());
            made[r].clear();
        }
        resizeOnAllThreads(nodes, nodeCount);
        ++wave;
        if (wave == kWaveLimit) break;
    }
    progressLine(wave, true);

    resizeOnAllThreads(object.buildRefs, total);
#pragma omp parallel for schedule(static) if (count >= 4096)
    for (long long i = 0; i < count; ++i) object.buildRefs[size_t(i)] = laneRef(object.buildBoxes[size_t(i)]);

    const double seconds = double(systemTime100ns() - start) * 1e-7;
    reportReal("bbvh construction for " + object.name, seconds, "seconds");
    reportRule();
}
