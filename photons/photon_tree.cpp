// The kd-tree over the caustic photons: its build after the cast, the
// 32-nearest search and the density estimate that the diffuse lobes add.
#include "photons/photon_tree.h"

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "core/constants.h"
#include "core/registry.h"
#include "core/report.h"

uint16_t packPhotonDirection(Vector d) {
    const float c[3] = {d.x, d.y, d.z};
    // The major axis: y must be strictly larger than x, z than the best.
    int major = 0;
    if (std::fabs(c[1]) > std::fabs(c[major])) major = 1;
    if (std::fabs(c[2]) > std::fabs(c[major])) major = 2;
    const float m = c[major];
    // The two other components in the order (a, b): after x come y, z; after
    // y come z, x; after z come x, y.
    const int ia = (major + 1) % 3, ib = (major + 2) % 3;
    // A zero vector (m = 0) or a NaN would make the ratio undefined; both
    // give the largest step.
    auto step = [m](float component) {
        const float f = 32.0f * std::fabs(component / m);
        return f < 31.0f ? uint32_t(f) : 31u;
    };
    const uint32_t sign = (d.z < 0.0f ? 1u : 0u) | (d.y < 0.0f ? 2u : 0u) | (d.x < 0.0f ? 4u : 0u);
    return uint16_t(uint32_t(major + 1) | sign << 2 | step(c[ib]) << 5 | step(c[ia]) << 10);
}

Vector unpackPhotonDirection(uint16_t packed) {
    const int major = packed & 3;
    // A major field of 0 is never packed; it stands for no direction.
    if (major == 0) return zero;
    float c[3];
    c[major - 1] = 31.0f;
    c[major % 3] = float(packed >> 10 & 31);       // a
    c[(major + 1) % 3] = float(packed >> 5 & 31);  // b
    if (packed & 4) c[2] = -c[2];
    if (packed & 8) c[1] = -c[1];
    if (packed & 16) c[0] = -c[0];
    return normalized(Vector{c[0], c[1], c[2]});
}

namespace {

// The tree build.

constexpr int kLeafSize = 16;
constexpr int kMaxDepth = 31;
constexpr int kBins = 17;
constexpr int kThreadDepth = 16;
constexpr uint32_t kThreadMinimum = 1024;
constexpr ptrdiff_t kInsertionRange = 32;

struct Box {
    float lo[3], hi[3];
};

struct BuildContext {
    Photon* photons;
    float radius;
    std::mutex nodeLock;   // photonNodes may move on any append
};

inline float coordinate(const Vector& v, int axis) { return axis == 0 ? v.x : (axis == 1 ? v.y : v.z); }

template <int Axis>
inline float key(const Photon& p) {
    if constexpr (Axis == 0) return p.position.x;
    else if constexpr (Axis == 1) return p.position.y;
    else return p.position.z;
}

template <int Axis>
void insertionSort(Photon* first, Photon* last) {
    for (Photon* i = first + 1; i < last; ++i) {
        const Photon moving = *i;
        const float k = key<Axis>(moving);
        Photon* j = i;
        for (; j > first && k < key<Axis>(j[-1]); --j) *j = j[-1];
        *j = moving;
    }
}

template <int Axis>
void siftDown(Photon* heap, ptrdiff_t root, ptrdiff_t size) {
    const Photon moving = heap[root];
    const float k = key<Axis>(moving);
    for (ptrdiff_t child = 2 * root + 1; child < size; child = 2 * root + 1) {
        if (child + 1 < size && key<Axis>(heap[child]) < key<Axis>(heap[child + 1])) ++child;
        if (!(k < key<Axis>(heap[child]))) break;
        heap[root] = heap[child];
        root = child;
    }
    heap[root] = moving;
}

template <int Axis>
void heapSort(Photon* first, Photon* last) {
    const ptrdiff_t n = last - first;
    for (ptrdiff_t i = n / 2 - 1; i >= 0; --i) siftDown<Axis>(first, i, n);
    for (ptrdiff_t end = n - 1; end > 0; --end) {
        std::swap(first[0], first[end]);
        siftDown<Axis>(first, 0, end);
    }
}

// Puts the median of a, b and c into `to`.
template <int Axis>
void medianToFront(Photon* to, Photon* a, Photon* b, Photon* c) {
    const float ka = key<Axis>(*a), kb = key<Axis>(*b), kc = key<Axis>(*c);
    Photon* median;
    if (ka < kb) median = kb < kc ? b : (ka < kc ? c : a);
    else median = ka < kc ? a : (kb < kc ? c : b);
    std::swap(*to, *median);
}

// Splits [first, last) around the key of *first: [first, cut) at most the
// pivot, [cut, last) at least it; keys equal to the pivot may go either way,
// so that many equal keys still split near the middle. Blocks of 64 photons
// on each side are first scanned without branches for the photons that
// must cross, which are then swapped in pairs; what is left when the blocks
// meet is finished by the plain two-sided scan.
template <int Axis>
Photon* partition(Photon* first, Photon* last) {
    constexpr int kBlock = 64;
    const float pivot = key<Axis>(*first);
    Photon* l = first + 1;   // [first, l) holds keys <= pivot
    Photon* r = last - 1;    // (r, last) holds keys >= pivot
    uint8_t crossLeft[kBlock], crossRight[kBlock];
    int leftCount = 0, leftStart = 0, rightCount = 0, rightStart = 0;
    while (r - l + 1 >= 2 * kBlock) {
        if (leftCount == 0) {
            leftStart = 0;
            for (int i = 0; i < kBlock; ++i) {
                crossLeft[leftCount] = uint8_t(i);
                leftCount += !(key<Axis>(l[i]) < pivot);
            }
        }
        if (rightCount == 0) {
            rightStart = 0;
            for (int i = 0; i < kBlock; ++i) {
                crossRight[rightCount] = uint8_t(i);
                rightCount += !(pivot < key<Axis>(r[-i]));
            }
        }
        const int pairs = std::min(leftCount, rightCount);
        for (int k = 0; k < pairs; ++k) std::swap(l[crossLeft[leftStart + k]], r[-crossRight[rightStart + k]]);
        leftCount -= pairs;
        rightCount -= pairs;
        leftStart += pairs;
        rightStart += pairs;
        if (leftCount == 0) l += kBlock;
        if (rightCount == 0) r -= kBlock;
    }
    for (;;) {
        while (l <= r && key<Axis>(*l) < pivot) ++l;
        while (l <= r && pivot < key<Axis>(*r)) --r;
        if (l >= r) break;
        std::swap(*l, *r);
        ++l;
        --r;
    }
    return l;
}

// Quicksort with the median of three, insertion sort for ranges of up to 32
// photons, and heap sort once the budget of partitions is spent; the budget
// starts at the photon count and shrinks to three quarters per partition.
template <int Axis>
void introSort(Photon* first, Photon* last, ptrdiff_t budget) {
    while (last - first > kInsertionRange) {
        if (budget <= 0) {
            heapSort<Axis>(first, last);
            return;
        }
        budget = budget / 2 + budget / 4;
        medianToFront<Axis>(first, first + 1, first + (last - first) / 2, last - 1);
        Photon* lo = partition<Axis>(first, last);
        // The smaller side recursively, the larger one in this loop.
        if (lo - first < last - lo) {
            introSort<Axis>(first, lo, budget);
            first = lo;
        } else {
            introSort<Axis>(lo, last, budget);
            last = lo;
        }
    }
    insertionSort<Axis>(first, last);
}

void sortByAxis(Photon* first, Photon* last, int axis) {
    if (last - first < 2) return;
    switch (axis) {
        case 0: introSort<0>(first, last, last - first); break;
        case 1: introSort<1>(first, last, last - first); break;
        default: introSort<2>(first, last, last - first); break;
    }
}

void makeLeaf(BuildContext& context, uint32_t node, uint32_t b, uint32_t c) {
    std::lock_guard<std::mutex> lock(context.nodeLock);
    PhotonNode& leaf = registry.photonNodes[node];
    leaf.first = b;
    leaf.count = int32_t(c);
    leaf.children = 0;
}

// Stores the split of an inner node and appends its one or two children;
// returns the index of the first child.
uint32_t makeInner(BuildContext& context, uint32_t node, int axis, float split, uint8_t children) {
    std::lock_guard<std::mutex> lock(context.nodeLock);
    std::vector<PhotonNode>& nodes = registry.photonNodes;
    const uint32_t child = uint32_t(nodes.size());
    nodes.resize(nodes.size() + (children == 3 ? 2 : 1), PhotonNode{});
    PhotonNode& inner = nodes[node];
    inner.first = child;
    inner.split = split;
    inner.axis = uint8_t(axis);
    inner.children = children;
    return child;
}

void buildStep(BuildContext& context, uint32_t node, const Box& box, int depth, uint32_t b, uint32_t e) {
    const uint32_t c = e - b;
    const float size[3] = {box.hi[0] - box.lo[0], box.hi[1] - box.lo[1], box.hi[2] - box.lo[2]};
    int axis = 0;
    if (size[1] > size[axis]) axis = 1;
    if (size[2] > size[axis]) axis = 2;
    const float s = size[axis];
    // A box without extent (all photons at one point) cannot be split, even
    // when the radius is 0 or below.
    if (c <= uint32_t(kLeafSize) || depth >= kMaxDepth || !(s >= 0.25f * context.radius) || !(s > 0.0f)) {
        makeLeaf(context, node, b, c);
        return;
    }

    Photon* photons = context.photons;
    const float lo = box.lo[axis];
    uint32_t bins[kBins] = {};
    const float scale = float(kBins) / s;
    for (uint32_t i = b; i < e; ++i) {
        const float f = scale * (coordinate(photons[i].position, axis) - lo);
        ++bins[f > 0.0f ? (f < float(kBins - 1) ? int(f) : kBins - 1) : 0];
    }

    // The plane of least cost; with p and q the box's other two sides the
    // cost of a side is its count times (p + q) × width + p × q.
    const float p = size[(axis + 1) % 3], q = size[(axis + 2) % 3];
    float best = kInfinity;
    float split = lo + s * 1.0f / float(kBins);   // kept when no cost is finite
    uint32_t nL = bins[0], below = 0;
    for (int k = 1; k < kBins; ++k) {
        below += bins[k - 1];
        const float plane = lo + s * float(k) / float(kBins);
        const float wL = std::max(plane - lo, 0.0f), wR = std::max(box.hi[axis] - plane, 0.0f);
        const float cost = float(below) * ((p + q) * wL + p * q) + float(c - below) * ((p + q) * wR + p * q);
        if (cost < best) {
            best = cost;
            split = plane;
            nL = below;
        }
    }
    const uint32_t nR = c - nL;

    Box low = box, high = box;
    low.hi[axis] = split;
    high.lo[axis] = split;
    if (nL == 0 || nR == 0) {
        // Every photon on one side: one child over the same range.
        const bool highOnly = nL == 0;
        const uint32_t child = makeInner(context, node, axis, split, highOnly ? 2 : 1);
        buildStep(context, child, highOnly ? high : low, depth + 1, b, e);
        return;
    }

    // The sort leaves the last photon of the range where it stands.
    sortByAxis(photons + b, photons + e - 1, axis);
    uint32_t m = 0;
    while (m < c && coordinate(photons[b + m].position, axis) < split) ++m;
    const uint32_t child = makeInner(context, node, axis, split, 3);

    if (depth < kThreadDepth && nL > kThreadMinimum && nR > kThreadMinimum) {
        // The larger side on a thread of its own, the smaller one here.
        const bool lowLarger = nL >= nR;
        std::thread helper([&context, child, lowLarger, &low, &high, depth, b, e, m] {
            if (lowLarger) buildStep(context, child, low, depth + 1, b, b + m);
            else buildStep(context, child + 1, high, depth + 1, b + m, e);
        });
        if (lowLarger) buildStep(context, child + 1, high, depth + 1, b + m, e);
        else buildStep(context, child, low, depth + 1, b, b + m);
        helper.join();
    } else {
        buildStep(context, child, low, depth + 1, b, b + m);
        buildStep(context, child + 1, high, depth + 1, b + m, e);
    }
}

// The search.

// Unpacked out_directions, so that the leaf test reads a table.
const std::array<Vector, 1 << 15> unpackedDirections = [] {
    std::array<Vector, 1 << 15> table{};
    for (uint32_t i = 0; i < table.size(); ++i) table[i] = unpackPhotonDirection(uint16_t(i));
    return table;
}();

constexpr uint32_t kNoChild = 0xFFFFFFFFu;

// The first of the 32 entries with the largest squared distance, found
// without a branch: the maximum of four lanes of eight, then the first lane
// equal to it.
inline int farthestOf(const float* distance2) {
    static_assert(kPhotonNeighbours == 32);
    const __m256 a = _mm256_loadu_ps(distance2), b = _mm256_loadu_ps(distance2 + 8);
    const __m256 c = _mm256_loadu_ps(distance2 + 16), d = _mm256_loadu_ps(distance2 + 24);
    __m256 m = _mm256_max_ps(_mm256_max_ps(a, b), _mm256_max_ps(c, d));
    m = _mm256_max_ps(m, _mm256_permute2f128_ps(m, m, 1));
    m = _mm256_max_ps(m, _mm256_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
    m = _mm256_max_ps(m, _mm256_shuffle_ps(m, m, _MM_SHUFFLE(2, 3, 0, 1)));
    const uint32_t mask = uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(a, m, _CMP_EQ_OQ))) |
                          uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(b, m, _CMP_EQ_OQ))) << 8 |
                          uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(c, m, _CMP_EQ_OQ))) << 16 |
                          uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(d, m, _CMP_EQ_OQ))) << 24;
    return __builtin_ctz(mask);
}

}  // namespace

void buildPhotonTree() {
    registry.radius2 = registry.radius * registry.radius;
    registry.radius3 = registry.radius2 * registry.radius;
    std::vector<Photon>& photons = registry.photons;
    const uint32_t count = uint32_t(photons.size());
    if (count > 0) {
        Box box{{photons[0].position.x, photons[0].position.y, photons[0].position.z},
                {photons[0].position.x, photons[0].position.y, photons[0].position.z}};
        for (const Photon& photon : photons)
            for (int a = 0; a < 3; ++a) {
                box.lo[a] = std::min(box.lo[a], coordinate(photon.position, a));
                box.hi[a] = std::max(box.hi[a], coordinate(photon.position, a));
            }
        std::memcpy(registry.photonBounds, box.lo, sizeof box.lo);
        std::memcpy(registry.photonBounds + 3, box.hi, sizeof box.hi);
        registry.photonNodes.assign(1, PhotonNode{});

        BuildContext context{photons.data(), registry.radius, {}};
        buildStep(context, 0, box, 0, 0, count);

        for (ThreadSlot<float>& r2 : registry.lastQueryRadius2) r2 = kInfinity;
    }
    const uint32_t bytes = count * uint32_t(sizeof(Photon));
    reportCountAndSize("photons", (long long)count, double(float(bytes) * kMegabytes), "M bytes");
}

int nearestPhotons(Vector position, Vector normal, float r2, PhotonNeighbours& list) {
    list.count = 0;
    list.farthest = 0;
    list.farthestDistance2 = 0.0f;
    if (registry.photons.empty() || registry.photonNodes.empty()) return 0;
    const PhotonNode* nodes = registry.photonNodes.data();
    const Photon* photons = registry.photons.data();
    const Vector* directions = unpackedDirections.data();
    const float at[3] = {position.x, position.y, position.z};

    // Far children wait here; one per level of the path at most.
    uint32_t stack[64];
    int top = 0;
    uint32_t index = 0;
    for (;;) {
        const PhotonNode& node = nodes[index];
        if (node.children == 0) {
            const Photon* photon = photons + node.first;
            const Photon* end = photon + node.count;
            for (; photon < end; ++photon) {
                const Vector d = photon->position - position;
                const float s = d.x * d.x + d.y * d.y + d.z * d.z;
                if (!(s < r2)) continue;
                if (dot(directions[photon->out_direction & 0x7FFF], normal) < 0.0f) continue;
                const uint32_t id = uint32_t(photon - photons);
                if (list.count < kPhotonNeighbours) {
                    if (list.count == 0 || s > list.farthestDistance2) {
                        list.farthest = list.count;
                        list.farthestDistance2 = s;
                    }
                    list.photon[list.count] = id;
                    list.distance2[list.count] = s;
                    if (++list.count < kPhotonNeighbours) continue;
                } else {
                    // s < r2, which is the farthest held: it takes that place.
                    list.photon[list.farthest] = id;
                    list.distance2[list.farthest] = s;
                    list.farthest = farthestOf(list.distance2);
                    list.farthestDistance2 = list.distance2[list.farthest];
                }
                r2 = list.farthestDistance2;
            }
        } else {
            const float d = at[node.axis] - node.split;
            const uint32_t low = node.children & 1 ? node.first : kNoChild;
            const uint32_t high = node.children & 2 ? node.first + (node.children & 1) : kNoChild;
            const uint32_t nearChild = d > 0.0f ? high : low;
            const uint32_t farChild = d > 0.0f ? low : high;
            if (farChild != kNoChild && d * d < r2) stack[top++] = farChild;
            if (nearChild != kNoChild) {
                index = nearChild;
                continue;
            }
        }
        if (top == 0) break;
        index = stack[--top];
    }
    return list.count;
}

Color densityEstimate(const RayState& ray, const HitRecord& hit) {
    const Vector p = hit.position;
    const float* bounds = registry.photonBounds;
    if (registry.photons.empty() || registry.radius < 1e-8f) return zero;
    // Photons that all lie on one plane give a box of no thickness, which
    // the hits on that plane miss by their rounding: the box is widened by
    // a ten-thousandth of its size for the test.
    const float pad = 1e-4f * std::max({bounds[3] - bounds[0], bounds[4] - bounds[1], bounds[5] - bounds[2]}) + 1e-6f;
    if (!(p.x >= bounds[0] - pad && p.y >= bounds[1] - pad && p.z >= bounds[2] - pad && p.x <= bounds[3] + pad &&
          p.y <= bounds[4] + pad && p.z <= bounds[5] + pad))
        return zero;

    float r2 = registry.radius2;
    if (ray.depth == 0) {
        // 32 photons lay within R of the last point, so they lie within
        // D + R of this one.
        const Vector offset = p - registry.lastQueryPosition[ray.thread].value;
        const float limit = guardedLength(dot(offset, offset)) + guardedLength(registry.lastQueryRadius2[ray.thread]);
        if (registry.radius > limit) r2 = limit * limit;
    }

    PhotonNeighbours list;
    const int found = nearestPhotons(p, hit.geometric_normal, r2, list);
    // Two or more photons all at the hit itself span no disc.
    if (found <= 1 || !(list.farthestDistance2 > 0.0f)) return zero;

    Color sum = zero;
    for (int k = 0; k < found; ++k) sum += registry.photons[list.photon[k]].power;
    const float m = list.farthestDistance2;
    if (ray.depth == 0) {
        if (found >= kPhotonNeighbours) {
            registry.lastQueryPosition[ray.thread] = p;
            registry.lastQueryRadius2[ray.thread] = m;
        } else {
            registry.lastQueryRadius2[ray.thread] = kInfinity;
        }
    }
    return sum / (kPi * m);
}
