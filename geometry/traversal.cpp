#include "geometry/traversal.h"

#include <immintrin.h>

#include <atomic>
#include <cstring>
#include <utility>

#include "core/registry.h"
#include "geometry/intersect_primitives.h"

InstanceStack instanceStacks[kMaxThreads];
int occludeLogGate = 8;

namespace {

Color letEverythingThrough(const RayState&, const ShadowHit&) { return {1.0f, 1.0f, 1.0f}; }

// The deepest wide tree has 256 levels, and a level pushes at most seven entries.
constexpr int kStackEntries = 256 * 7 + 8;
constexpr int kInstanceStackDepth = 16;

// What a ray needs for the slab test, set once per walk: origin and inverse
// direction in all lanes, and the offsets of the near and far plane arrays of
// each axis, chosen by the sign of the direction.
struct SlabFrame {
    __m256 ox, oy, oz;
    __m256 ix, iy, iz;
    int nearX, nearY, nearZ;
    int farX, farY, farZ;
};

inline SlabFrame slabFrame(const RayState& ray, bool strictSign) {
    SlabFrame f;
    f.ox = _mm256_set1_ps(ray.origin.x);
    f.oy = _mm256_set1_ps(ray.origin.y);
    f.oz = _mm256_set1_ps(ray.origin.z);
    f.ix = _mm256_set1_ps(ray.inverse_direction.x);
    f.iy = _mm256_set1_ps(ray.inverse_direction.y);
    f.iz = _mm256_set1_ps(ray.inverse_direction.z);
    const Vector& d = ray.direction;
    const bool px = strictSign ? d.x > 0.0f : d.x >= 0.0f;
    const bool py = strictSign ? d.y > 0.0f : d.y >= 0.0f;
    const bool pz = strictSign ? d.z > 0.0f : d.z >= 0.0f;
    f.nearX = px ? 0 : 24, f.farX = px ? 24 : 0;
    f.nearY = py ? 8 : 32, f.farY = py ? 32 : 8;
    f.nearZ = pz ? 16 : 40, f.farZ = pz ? 40 : 16;
    return f;
}

// The eight child boxes against the ray, in [1e-8, tMax]: a bit per slot hit,
// and the entry distances.
inline int testNode(const WideNode& node, const SlabFrame& f, float tMax, __m256& entry) {
    const float* p = node.min_x;
    // The line of `child` and `count` is read once the test is done; asked
    // for now, it arrives with the planes instead of after them.
    _mm_prefetch(reinterpret_cast<const char*>(node.child), _MM_HINT_T0);
    const __m256 nz = _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(p + f.nearZ), f.oz), f.iz);
    const __m256 nx = _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(p + f.nearX), f.ox), f.ix);
    const __m256 ny = _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(p + f.nearY), f.oy), f.iy);
    const __m256 fz = _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(p + f.farZ), f.oz), f.iz);
    const __m256 fx = _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(p + f.farX), f.ox), f.ix);
    const __m256 fy = _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(p + f.farY), f.oy), f.iy);
    entry = _mm256_max_ps(_mm256_max_ps(_mm256_max_ps(_mm256_set1_ps(kBoxEpsilon), nz), nx), ny);
    const __m256 exit = _mm256_min_ps(_mm256_min_ps(_mm256_min_ps(_mm256_set1_ps(tMax), fz), fx), fy);
    return _mm256_movemask_ps(_mm256_cmp_ps(entry, exit, _CMP_LE_OQ));
}

// Component-wise 1 / d, the three divisions in one instruction.
inline Vector reciprocal(Vector d) {
    alignas(16) float r[4];
    _mm_store_ps(r, _mm_div_ps(_mm_set1_ps(1.0f), _mm_setr_ps(d.x, d.y, d.z, 1.0f)));
    return {r[0], r[1], r[2]};
}

// The ray carried into an instance's space, and back.
struct SavedRay {
    Vector origin, direction, inverse_direction;
    uint64_t path;
};

inline SavedRay enterInstance(const Instance& instance, RayState& ray) {
    const SavedRay saved{ray.origin, ray.direction, ray.inverse_direction, ray.instance_path};
    ray.instance_path = extendPath(saved.path, instance);
    ray.origin = transformPoint(instance.toLocal, ray.origin);
    ray.direction = times3x3(instance.directionMatrix, ray.direction);
    ray.inverse_direction = reciprocal(ray.direction);
    return saved;
}

inline void leaveInstance(const SavedRay& saved, RayState& ray) {
    ray.origin = saved.origin;
    ray.direction = saved.direction;
    ray.inverse_direction = saved.inverse_direction;
    ray.instance_path = saved.path;
}

// Starts the loads of what slot `s` leads to: when a node has several slots
// hit, the ones that wait on the stack arrive in cache meanwhile. A node
// with a record run asked for its leaves' records already.
template <bool Records>
inline void prefetchSlot(const WideNode& wide, int s, const WideNode* nodes, const LeafRecord* records,
                         bool runRequested) {
    if (wide.count[s] == 0) {
        const char* p = reinterpret_cast<const char*>(nodes + wide.child[s]);
        for (int line = 0; line < int(offsetof(WideNode, hits)); line += 64) _mm_prefetch(p + line, _MM_HINT_T0);
    } else if (Records && !runRequested) {
        const LeafRecord* r = records + wide.child[s];
        const int lines = wide.count[s] < 4 ? wide.count[s] : 4;
        for (int k = 0; k < lines; ++k) _mm_prefetch(reinterpret_cast<const char*>(r + k), _MM_HINT_T0);
    }
}

// The leaves beside a leaf in memory are its neighbours in space, which the
// next rays of a coherent bundle are likely to need: two records on either
// side start to load when the leaf is tested. A prefetch never faults, so the
// ends of the array need no care.
inline void prefetchNeighbours(const LeafRecord* records, uint32_t first, uint32_t count) {
    const uintptr_t at = reinterpret_cast<uintptr_t>(records + first), size = sizeof(LeafRecord);
    for (const uintptr_t line : {at - 2 * size, at - size, at + count * size, at + (count + 1) * size})
        _mm_prefetch(reinterpret_cast<const char*>(line), _MM_HINT_T0);
}

// The records of a node's leaf slots start to load with the node.
inline void prefetchLeafRun(const LeafRun* runs, const LeafRecord* records, uint32_t node) {
    const LeafRun run = runs[node];
    for (uint32_t k = 0; k < run.lines; ++k)
        _mm_prefetch(reinterpret_cast<const char*>(records + run.first + k), _MM_HINT_T0);
}

// Sixteen bytes, so that an entry moves in one aligned register.
struct alignas(16) Entry {
    uint32_t node;
    uint32_t count;
    float distance;
};

template <bool Surfaces>
bool walkClosest(const Object& object, RayState& ray);

template <bool Surfaces>
bool instanceStep(const Instance& instance, RayState& ray) {
    // An instance whose target was never found is not walked.
    if (instance.target >= registry.objects.size()) return false;
    const SavedRay saved = enterInstance(instance, ray);
    ++ray.instance_depth;
    const bool hit = walkClosest<Surfaces>(registry.objects[instance.target], ray);
    if (hit && ray.instance_depth <= kInstanceStackDepth)
        std::memcpy(instanceStacks[ray.thread].matrices[ray.instance_depth - 1], instance.normalMatrix,
                    sizeof instance.normalMatrix);
    --ray.instance_depth;
    leaveInstance(saved, ray);
    return hit;
}

// The reference `i` of an object, from its leaf record or from
// `primitiveRefs` when the walk runs without records.
template <bool Records>
inline PrimitiveRef referenceAt(const PrimitiveRef* refs, const LeafRecord* records, uint32_t i) {
    if (!Records) return refs[i];
    PrimitiveRef ref;
    ref.part = records[i].part;
    ref.kind = records[i].kind;
    ref.index = records[i].index;
    return ref;
}

template <bool Records>
inline bool testTriangle(const Object& object, const LeafRecord* records, uint32_t i, const PrimitiveRef& ref,
                         const RayState& ray, PrimitiveHit& hit) {
    return Records ? intersectTriangleRecord(records[i], ray, hit)
                   : intersectTriangle(object.parts[ref.part], ref.index, ray, hit);
}

template <bool Records>
inline bool testTetragon(const Object& object, const LeafRecord* records, uint32_t i, const PrimitiveRef& ref,
                         const RayState& ray, PrimitiveHit& hit) {
    return Records ? intersectTetragonRecord(records[i], ray, hit)
                   : intersectTetragon(object.parts[ref.part], ref.index, ray, hit);
}

// A successful test shortens the ray and names what it hit.
inline void takeHit(const Object& object, uint32_t part, uint8_t kind, uint32_t index, const PrimitiveHit& hit,
                    RayState& ray) {
    ray.t = hit.t;
    ray.shader = hit.shader;
    ray.primitive = index;
    ray.kind = kind;
    ray.part = &object.parts[part];
    ray.barycentric = hit.barycentric;
    ray.front = hit.front;
    ray.hit_instance_depth = ray.instance_depth;
    ray.hit_path = ray.instance_path;
    ray.gatherable = object.gatherable;
}

// Reference `i` of any kind against the ray. The walks over records call it
// for all but triangles, out of line, so that their own loop keeps its
// registers for the boxes and the triangle test.
template <bool Surfaces, bool Records>
__attribute__((noinline)) bool testReference(const Object& object, const PrimitiveRef* refs,
                                             const LeafRecord* records, uint32_t i, RayState& ray) {
    const PrimitiveRef ref = referenceAt<Records>(refs, records, i);
    const uint32_t index = ref.index;
    PrimitiveHit hit;
    bool ok = false;
    switch (ref.kind) {
    case kParticle:
        // The test itself skips the parent particle.
        if (!Surfaces) ok = intersectParticle(object.parts[ref.part], index, ray, hit);
        break;
    case kCylinder:
        if (!Surfaces && !isParentSurface(ray, kCylinder, index, &object.parts[ref.part]))
            ok = intersectCylinder(object.parts[ref.part], index, ray, hit);
        break;
    case kTriangle:
        // The surface walk tests the parent triangle too; tetragons are
        // skipped by both walks.
        if (Surfaces || !isParentSurface(ray, kTriangle, index, &object.parts[ref.part]))
            ok = testTriangle<Records>(object, records, i, ref, ray, hit);
        break;
    case kTetragon:
        if (!isParentSurface(ray, kTetragon, index, &object.parts[ref.part]))
            ok = testTetragon<Records>(object, records, i, ref, ray, hit);
        break;
    case kInstance:
        return instanceStep<Surfaces>(object.instances[index], ray);
    default:
        break;
    }
    if (ok) takeHit(object, ref.part, uint8_t(ref.kind), index, hit, ray);
    return ok;
}

// The references `first` to `end` - 1 of any kinds, out of line.
template <bool Surfaces, bool Records>
__attribute__((noinline)) bool testReferences(const Object& object, const PrimitiveRef* refs,
                                              const LeafRecord* records, uint32_t first, uint32_t end,
                                              RayState& ray) {
    bool found = false;
    for (uint32_t i = first; i < end; ++i)
        if (testReference<Surfaces, Records>(object, refs, records, i, ray)) found = true;
    return found;
}

// The references `first` to `first` + `count` - 1 against the ray,
// shortening `t` at each hit. Triangles with records are tested here, in a
// loop without calls, so that the walk keeps its registers across a leaf; the
// first reference of another kind hands the rest of the leaf to the general
// loop.
template <bool Surfaces, bool Records>
inline bool testLeaf(const Object& object, const PrimitiveRef* refs, const LeafRecord* records, uint32_t first,
                     uint32_t count, const RayLanes& lanes, RayState& ray) {
    if (!Records) return testReferences<Surfaces, Records>(object, refs, records, first, first + count, ray);
    bool found = false;
    for (uint32_t i = first; i < first + count; ++i) {
        const LeafRecord& face = records[i];
        if (__builtin_expect(face.kind != kTriangle, 0))
            return testReferences<Surfaces, Records>(object, refs, records, i, first + count, ray) || found;
        if (!Surfaces && isParentSurface(ray, kTriangle, face.index, &object.parts[face.part])) continue;
        PrimitiveHit hit;
        if (triangleRecordTest(face, lanes, ray, hit)) {
            takeHit(object, face.part, kTriangle, face.index, hit, ray);
            found = true;
        }
    }
    return found;
}

// Nearest first: the two-slot case orders by a single comparison, more slots
// are sorted on the stack itself and the nearest is popped.
template <bool Surfaces, bool Records>
bool walkClosestOver(const Object& object, RayState& ray) {
    // The closest-hit walk works with a unit direction; the box test keeps
    // the inverse of the direction as the caller gave it.
    if (!Surfaces) ray.direction = normalized(ray.direction);
    const WideNode* nodes = object.wideNodes.data();
    const PrimitiveRef* refs = object.primitiveRefs.data();
    const LeafRecord* records = object.leafRecords.data();
    const LeafRun* runs = object.leafRuns.data();
    const SlabFrame frame = slabFrame(ray, false);
    const RayLanes lanes = rayLanes(ray);

    Entry stack[kStackEntries];
    int top = 0;
    stack[top++] = {0, 0, 0.0f};
    bool found = false;
    while (top > 0) {
        const Entry popped = stack[--top];
        if (popped.distance >= ray.t) continue;
        uint32_t node = popped.node, count = popped.count;
        bool leaf = true;
        while (count == 0) {
            const WideNode& wide = nodes[node];
            if (Records) prefetchLeafRun(runs, records, node);
            __m256 entry;
            int mask = testNode(wide, frame, ray.t, entry);
            if (mask == 0) {
                leaf = false;
                break;
            }
            if ((mask & (mask - 1)) == 0) {
                const int s = __builtin_ctz(unsigned(mask));
                node = wide.child[s];
                count = wide.count[s];
                continue;
            }
            // Every slot hit starts to load now: the nearest too, since in
            // the two-slot case the choice is a branch that often goes wrong,
            // and both loads are then under way before it is settled.
            const bool runRequested = Records && runs[node].lines > 0;
            for (int rest = mask; rest; rest &= rest - 1)
                prefetchSlot<Records>(wide, __builtin_ctz(unsigned(rest)), nodes, records, runRequested);
            alignas(32) float distance[8];
            _mm256_store_ps(distance, entry);
            const int high = 31 - __builtin_clz(unsigned(mask));
            mask &= ~(1 << high);
            if ((mask & (mask - 1)) == 0) {
                // Two slots: the far one waits, a tie keeps the lower slot.
                // A branch serves better here than a select: the walk runs on
                // while the comparison waits for its distances.
                int far = high, near = __builtin_ctz(unsigned(mask));
                if (distance[near] > distance[far]) std::swap(near, far);
                stack[top++] = {wide.child[far], wide.count[far], distance[far]};
                node = wide.child[near];
                count = wide.count[near];
                continue;
            }
            // Push in descending slot order, sort the run by descending
            // distance, and take its last entry.
            const int base = top;
            stack[top++] = {wide.child[high], wide.count[high], distance[high]};
            while (mask) {
                const int s = 31 - __builtin_clz(unsigned(mask));
                mask &= ~(1 << s);
                Entry e{wide.child[s], wide.count[s], distance[s]};
                int j = top++;
                while (j > base && stack[j - 1].distance < e.distance) {
                    stack[j] = stack[j - 1];
                    --j;
                }
                stack[j] = e;
            }
            const Entry nearest = stack[--top];
            node = nearest.node;
            count = nearest.count;
        }
        if (!leaf) continue;
        if (Records) prefetchNeighbours(records, node, count);
        if (testLeaf<Surfaces, Records>(object, refs, records, node, count, lanes, ray)) found = true;
    }
    return found;
}

// Objects whose records are missing (a tree made by hand) are walked over
// their references.
inline bool hasLeafRecords(const Object& object) {
    return object.leafRecords.size() == object.primitiveRefs.size() &&
           object.leafRuns.size() == object.wideNodes.size();
}

template <bool Surfaces>
bool walkClosest(const Object& object, RayState& ray) {
    if (object.wideNodes.empty()) return false;
    return hasLeafRecords(object) ? walkClosestOver<Surfaces, true>(object, ray)
                                  : walkClosestOver<Surfaces, false>(object, ray);
}

// A waiting slot of the transmittance walk. The logging walk also keeps the
// wide node and slot that led to it; the plain walk moves eight bytes.
template <bool Log>
struct ShadowEntry {
    uint32_t node;
    uint32_t count;
    uint32_t parent;
    uint32_t slot;
};

template <>
struct ShadowEntry<false> {
    uint32_t node;
    uint32_t count;
    static constexpr uint32_t parent = 0, slot = 0;
};

template <bool Log>
inline ShadowEntry<Log> shadowEntry(uint32_t node, uint32_t count, uint32_t parent, uint32_t slot) {
    if constexpr (Log) return {node, count, parent, slot};
    else return {node, count};
}

inline bool blocked(const Color& c) { return c.x <= kCutoff && c.y <= kCutoff && c.z <= kCutoff; }

template <bool Log>
bool walkTransmittance(Object& object, RayState& ray);

// The counters of one walk, added to the thread's statistics when it ends
// or hands over to an instance's walk.
struct ShadowCounters {
    uint64_t popped = 0, leaves = 0, tested = 0;

    void flush(uint8_t thread) {
        registry.threadStatistics[0][thread] += popped;
        registry.threadStatistics[1][thread] += leaves;
        registry.threadStatistics[2][thread] += tested;
        popped = leaves = tested = 0;
    }
};

// A surface that the segment passes through lets through its factor. Out of
// line and cold: the shader's call clobbers every vector register, and the
// walk's registers are then saved around this call alone instead of at every
// leaf.
__attribute__((noinline, cold)) void passThrough(const Object& object, uint32_t part, uint8_t kind, uint32_t index,
                                                 const PrimitiveHit& hit, RayState& ray) {
    const ShadowHit shadow{&object.parts[part], index, hit.shader, kind, hit.front, hit.barycentric, hit.t};
    ray.throughput *= shadowFactorHook(ray, shadow);
}

// The current hit and the parent hit do not shadow themselves.
inline bool isOwnSurface(const RayState& ray, uint8_t kind, uint32_t index, const Part* part) {
    return isCurrentSurface(ray, kind, index, part) || isParentSurface(ray, kind, index, part);
}

// Reference `i` of any kind on the shadow segment. The walks over records
// call it for all but triangles, out of line, as the closest-hit walk does.
template <bool Log, bool Records>
__attribute__((noinline)) void shadowReference(Object& object, const PrimitiveRef* refs, const LeafRecord* records,
                                               uint32_t i, RayState& ray, ShadowCounters& counters) {
    const PrimitiveRef ref = referenceAt<Records>(refs, records, i);
    const uint32_t index = ref.index;
    const uint8_t kind = uint8_t(ref.kind);
    PrimitiveHit hit;
    bool ok = false;
    switch (kind) {
    case kParticle:
        ok = intersectParticleShadow(object.parts[ref.part], index, ray, hit);
        break;
    case kCylinder:
        if (!isOwnSurface(ray, kind, index, &object.parts[ref.part])) ok = intersectCylinder(object.parts[ref.part], index, ray, hit);
        break;
    case kTriangle:
        if (!isOwnSurface(ray, kind, index, &object.parts[ref.part])) ok = testTriangle<Records>(object, records, i, ref, ray, hit);
        break;
    case kTetragon:
        if (!isOwnSurface(ray, kind, index, &object.parts[ref.part])) ok = testTetragon<Records>(object, records, i, ref, ray, hit);
        break;
    case kInstance: {
        const Instance& instance = object.instances[index];
        if (instance.target >= registry.objects.size()) break;
        const SavedRay saved = enterInstance(instance, ray);
        counters.flush(ray.thread);
        walkTransmittance<Log>(registry.objects[instance.target], ray);
        leaveInstance(saved, ray);
        break;
    }
    default:
        break;
    }
    if (ok) passThrough(object, ref.part, kind, index, hit, ray);
}

// The references `first` to `end` - 1 of any kinds, out of line; true once
// nothing gets through.
template <bool Log, bool Records>
__attribute__((noinline)) bool shadowReferences(Object& object, const PrimitiveRef* refs, const LeafRecord* records,
                                                uint32_t first, uint32_t end, RayState& ray,
                                                ShadowCounters& counters) {
    for (uint32_t i = first; i < end; ++i) {
        ++counters.tested;
        shadowReference<Log, Records>(object, refs, records, i, ray, counters);
        if (blocked(ray.throughput)) return true;
    }
    return false;
}

// A leaf on the shadow segment; true once nothing gets through. Triangles
// with records are tested in a loop without calls, as in the closest-hit walk.
template <bool Log, bool Records>
inline bool shadowLeaf(Object& object, const PrimitiveRef* refs, const LeafRecord* records, uint32_t first,
                       uint32_t count, const RayLanes& lanes, RayState& ray, ShadowCounters& counters) {
    if (!Records) return shadowReferences<Log, Records>(object, refs, records, first, first + count, ray, counters);
    for (uint32_t i = first; i < first + count; ++i) {
        const LeafRecord& face = records[i];
        if (__builtin_expect(face.kind != kTriangle, 0))
            return shadowReferences<Log, Records>(object, refs, records, i, first + count, ray, counters);
        ++counters.tested;
        PrimitiveHit hit;
        if (!isOwnSurface(ray, kTriangle, face.index, &object.parts[face.part]) &&
            triangleRecordTest(face, lanes, ray, hit))
            passThrough(object, face.part, kTriangle, face.index, hit, ray);
        // Tested after every reference, hit or not: a segment that starts
        // with nothing to carry ends at its first reference.
        if (blocked(ray.throughput)) return true;
    }
    return false;
}

// Every surface within `t` multiplies its factor into the throughput; slots
// are visited in ascending order, the order that the hierarchy's slot sorting
// prepares, and the walk stops once nothing gets through.
template <bool Log, bool Records>
bool walkTransmittanceOver(Object& object, RayState& ray) {
    WideNode* nodes = object.wideNodes.data();
    const PrimitiveRef* refs = object.primitiveRefs.data();
    const LeafRecord* records = object.leafRecords.data();
    const LeafRun* runs = object.leafRuns.data();
    const SlabFrame frame = slabFrame(ray, true);
    const RayLanes lanes = rayLanes(ray);
    ShadowCounters counters;

    ShadowEntry<Log> stack[kStackEntries];
    int top = 0;
    stack[top++] = shadowEntry<Log>(0, 0, 0, 0);
    while (top > 0) {
        ShadowEntry<Log> e = stack[--top];
        ++counters.popped;
        while (e.count == 0) {
            const WideNode& wide = nodes[e.node];
            if (Records) prefetchLeafRun(runs, records, e.node);
            __m256 entry;
            int mask = testNode(wide, frame, ray.t, entry);
            if (mask == 0) break;
            // The lowest slot is taken now; the others wait on the stack,
            // the highest deepest, and start to load meanwhile, the next
            // one needed first.
            const int low = __builtin_ctz(unsigned(mask));
            mask &= mask - 1;
            if (mask) {
                const bool runRequested = Records && runs[e.node].lines > 0;
                int at = top + __builtin_popcount(unsigned(mask));
                top = at;
                while (mask) {
                    const int s = __builtin_ctz(unsigned(mask));
                    mask &= mask - 1;
                    prefetchSlot<Records>(wide, s, nodes, records, runRequested);
                    stack[--at] = shadowEntry<Log>(wide.child[s], wide.count[s], e.node, uint32_t(s));
                }
            }
            e = shadowEntry<Log>(wide.child[low], wide.count[low], e.node, uint32_t(low));
            ++counters.popped;
        }
        if (e.count == 0) continue;

        ++counters.leaves;
        if (shadowLeaf<Log, Records>(object, refs, records, e.node, e.count, lanes, ray, counters)) {
            if (Log) std::atomic_ref<uint32_t>(nodes[e.parent].hits[e.slot]).fetch_add(1, std::memory_order_relaxed);
            counters.flush(ray.thread);
            return true;
        }
    }
    counters.flush(ray.thread);
    return false;
}

template <bool Log>
bool walkTransmittance(Object& object, RayState& ray) {
    ray.inverse_direction = reciprocal(ray.direction);
    if (object.wideNodes.empty()) return false;
    return hasLeafRecords(object) ? walkTransmittanceOver<Log, true>(object, ray)
                                  : walkTransmittanceOver<Log, false>(object, ray);
}

}  // namespace

ShadowFactorHook shadowFactorHook = letEverythingThrough;

bool intersectClosest(RayState& ray) {
    ray.instance_depth = 0;
    ray.instance_path = 0;
    ++registry.threadRays[ray.thread];
    if (registry.objects.empty()) return false;
    ray.inverse_direction = reciprocal(ray.direction);
    ray.t = kInfinity;
    return walkClosest<false>(registry.objects[size_t(registry.rootObject)], ray);
}

bool intersectSurfaces(RayState& ray) {
    ray.instance_depth = 0;
    ray.instance_path = 0;
    ++registry.threadRays[ray.thread];
    if (registry.objects.empty()) return false;
    ray.inverse_direction = reciprocal(ray.direction);
    return walkClosest<true>(registry.objects[size_t(registry.rootObject)], ray);
}

bool transmittanceQuery(Object& object, RayState& ray) {
    ray.instance_path = 0;
    if (occludeLogGate == 0) return OccludeLog(object, ray);
    return walkTransmittance<false>(object, ray);
}

bool OccludeLog(Object& object, RayState& ray) {
    ray.instance_path = 0;
    return walkTransmittance<true>(object, ray);
}
