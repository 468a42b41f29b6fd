// The records of an object's hierarchies: the binary tree that the builder
// makes and the update improves, and the eight-wide tree that rays walk.
// geometry/object.h includes this file right after Bbox; include object.h.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "core/huge_pages.h"

struct Object;
struct Instance;
struct Part;

// One primitive or instance of an object, as a leaf refers to it.
struct PrimitiveRef {
    uint16_t part = 0;
    uint16_t kind = 0;
    uint32_t index = 0;

    PrimitiveRef() = default;
    // Parts past the 256th of an object alias earlier ones: the builder keeps
    // eight bits of the part index.
    PrimitiveRef(uint32_t partIndex, uint16_t primitiveKind, uint32_t primitiveIndex)
        : part(uint8_t(partIndex)), kind(primitiveKind), index(primitiveIndex) {}
};

// The references in the builder's order, as many as the object has
// primitives and instances.
using BuildRefs = std::vector<PrimitiveRef, HugePageAllocator<PrimitiveRef>>;

// A reference's box as the builder bins it, in two lanes of four: x y z,
// and in the fourth lanes the reference itself.
struct alignas(16) LaneBox {
    __m128 min, max;
};

// One leaf reference as the walks read it, one cache line each, in the order
// of `primitiveRefs`. A triangle carries the terms of its test that do not
// depend on the ray: corner a, n = e1 x e2, e2 x n, n x e1 and n . n. A
// tetragon carries its four corners. Other kinds carry the reference alone.
struct alignas(64) LeafRecord {
    Vector p[4];
    float nn;
    uint32_t shader;
    uint32_t index;
    uint16_t part;
    uint16_t kind;
};
static_assert(sizeof(LeafRecord) == 64);

// The records of a wide node's leaf slots, when they lie close together: the
// walks start loading them as they reach the node, so that a leaf's record
// arrives with the node instead of after its test. `lines` 0: no hint.
struct LeafRun {
    uint32_t first;
    uint32_t lines;
};

// A node of the binary tree. Inner nodes have their two children at `first`
// and `first` + 1; leaves refer to `count` references from `first`.
struct BbvhNode {
    Bbox bounds;
    uint32_t first = 0;
    uint16_t count = 0;
    float cost = 0.0f;
    uint32_t subtree = 0;
};

// The binary tree's nodes, large and short-lived: on huge pages, which also
// spares the build most of its page faults.
using BbvhNodes = std::vector<BbvhNode, HugePageAllocator<BbvhNode>>;

inline constexpr uint32_t kEmptySlot = 0xFFFFFFFFu;

// Eight child boxes as six plane arrays, then what each slot holds. The six
// arrays are consecutive, so the far plane of an axis lies three arrays after
// its near plane: a ray picks both once, by the sign of its direction.
// Aligned to cache lines: the planes fill three lines and `child` and
// `count` the fourth, so a walk reads four lines per node; the fifth holds
// the rest of `hits`, which only the logging walk touches.
struct alignas(64) WideNode {
    float min_x[8];
    float min_y[8];
    float min_z[8];
    float max_x[8];
    float max_y[8];
    float max_z[8];
    uint32_t child[8];   // inner: WideNode index; leaf: first PrimitiveRef; kEmptySlot: unused
    uint16_t count[8];   // 0: inner or unused; n: leaf of n references
    uint32_t hits[8];    // per-slot counters of the logging occlusion walk

    // The plane array `plane` (0..5: min x, y, z, max x, y, z).
    const float* planes(int plane) const { return min_x + 8 * plane; }
    float* planes(int plane) { return min_x + 8 * plane; }
};
static_assert(offsetof(WideNode, min_y) == offsetof(WideNode, min_x) + 32);
static_assert(offsetof(WideNode, max_x) == offsetof(WideNode, min_x) + 96);
static_assert(offsetof(WideNode, max_z) == offsetof(WideNode, min_x) + 160);

// A wide node with eight unused slots.
WideNode emptyWideNode();

// The normal matrices of the instances on the way to a thread's closest hit,
// indexed by instance depth - 1.
struct InstanceStack {
    float matrices[16][9];
};

// Half the surface area of a box; negative extents count as 0.
inline float halfArea(const Bbox& b) {
    float dx = b.max[0] - b.min[0], dy = b.max[1] - b.min[1], dz = b.max[2] - b.min[2];
    dx = dx < 0.0f ? 0.0f : dx;
    dy = dy < 0.0f ? 0.0f : dy;
    dz = dz < 0.0f ? 0.0f : dz;
    return (dy + dz) * dx + dy * dz;
}

inline void growBox(Bbox& b, const Bbox& other) {
    for (int k = 0; k < 3; ++k) {
        b.min[k] = other.min[k] < b.min[k] ? other.min[k] : b.min[k];
        b.max[k] = other.max[k] > b.max[k] ? other.max[k] : b.max[k];
    }
}

inline Bbox unionBox(const Bbox& a, const Bbox& b) {
    Bbox r = a;
    growBox(r, b);
    return r;
}

// The box of one reference, in the object's own space: particles as centre
// plus and minus radius, hair segments around the 16 points of the curve test,
// faces around their corners, instances by their bounds.
Bbox referenceBox(const Object& object, const PrimitiveRef& ref);
Bbox primitiveBox(const Part& part, uint16_t kind, uint32_t index);
// The box of every primitive of the object's parts, on all threads.
Bbox primitivesBox(const Object& object);

// toLocal, directionMatrix and normalMatrix of an instance from its toWorld,
// and its bounds: the box of the target's corners carried by toWorld.
void computeInstanceMatrices(Instance& instance);
Bbox transformedBox(const float toWorld[16], const Bbox& box);

// The binary tree over all primitives and instances of an object.
void buildHierarchy(Object& object);
// Boxes, rotations, the object's bounds, its cost, the eight-wide tree and its
// leaf records. The binary tree and `buildRefs` are released after, unless
// the object has motion.
void updateHierarchy(Object& object);
// The leaf records from `primitiveRefs` and the parts' faces.
void fillLeafRecords(Object& object);
// Larger child boxes first, within each wide node.
void satOrder(Object& object);

// Per-node child hit counters of every hierarchy, cleared before each frame,
// and the one reordering of all hierarchies after the first frame.
void clearNodeHitCounters();
void reorderHierarchies();
