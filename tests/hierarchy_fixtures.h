// Procedural geometry, a structural check of the wide tree and a reference
// that tests every primitive in turn, for the hierarchy and traversal tests.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <tuple>
#include <vector>

#include "capture.h"
#include "core/random.h"
#include "core/registry.h"
#include "geometry/intersect_primitives.h"
#include "geometry/object.h"
#include "geometry/traversal.h"
#include "registry_guard.h"

namespace fixtures {

inline float uniform(float lo, float hi) { return lo + (hi - lo) * hardwareRandomFloat(); }
inline Vector randomPoint(float e) { return {uniform(-e, e), uniform(-e, e), uniform(-e, e)}; }
inline Vector randomUnit() {
    for (;;) {
        const Vector v = randomPoint(1.0f);
        if (dot(v, v) > 0.01f && dot(v, v) <= 1.0f) return normalized(v);
    }
}

inline void prepareHierarchy(Object& object) {
    ReportCapture quiet;
    buildHierarchy(object), updateHierarchy(object), satOrder(object);
}

inline Object objectWith(Part part) {
    Object object;
    object.name = "test", object.parts.push_back(std::move(part));
    return object;
}

// Prepares `object` and makes it the scene's root.
inline void addRoot(Object object) {
    prepareHierarchy(object);
    for (Object& placed : registry.objects) placed.gatherable = 0;   // placed by instances, if at all
    object.gatherable = 1, registry.objects.push_back(std::move(object));
    registry.rootObject = int(registry.objects.size()) - 1;
}

// Random triangles, or flat parallelograms with corners in order around the face.
inline Part triangleSoup(int count, float extent, float size, bool tetragons = false) {
    Part part;
    for (int i = 0; i < count; ++i) {
        const Vector c = randomPoint(extent), u = randomPoint(size), v = randomPoint(size);
        const uint32_t b = uint32_t(part.positions.size());
        if (tetragons) {
            part.positions.insert(part.positions.end(), {c - u - v, c + u - v, c + u + v, c - u + v});
            part.tetragons.push_back({b, b + 1, b + 2, b + 3, 0});
        } else {
            part.positions.insert(part.positions.end(), {c + randomPoint(size), c + u, c + v});
            part.triangles.push_back({b, b + 1, b + 2, 0});
        }
    }
    return part;
}

inline Part sphereCloud(int count, float extent, float radius) {
    Part part;
    for (int i = 0; i < count; ++i) {
        part.positions.push_back(randomPoint(extent));
        part.scalarChannels[0].elements.push_back(uniform(0.2f, 1.0f) * radius);
        part.particles.push_back(uint32_t(i));
    }
    return part;
}

// Gently curving strands of constant radius, with tangents summed from the
// neighbouring segments as object preparation makes them.
inline Part hairStrands(int strands, int segments, float extent, float radius) {
    Part part;
    for (int s = 0; s < strands; ++s) {
        Vector p = randomPoint(extent), d = randomUnit();
        const uint32_t base = uint32_t(part.positions.size());
        for (int k = 0; k <= segments; ++k, p = p + d * (0.1f * extent), d = normalized(d + randomUnit() * 0.3f)) {
            part.positions.push_back(p);
            part.scalarChannels[0].elements.push_back(radius);
            if (k < segments) part.cylinders.push_back(base + uint32_t(k));
        }
        for (int k = 0; k <= segments; ++k) {
            const Vector& at = part.positions[base + k];
            const Vector t = (k < segments ? part.positions[base + k + 1] - at : zero) + (k > 0 ? at - part.positions[base + k - 1] : zero);
            part.tangents.push_back(packDirection(t.x, t.y, t.z));
        }
    }
    return part;
}

// toWorld = translation x rotation about `axis`, then the derived matrices.
inline void setRigid(Instance& instance, Vector axis, float angle, Vector move) {
    const Vector a = normalized(axis);
    const float c = std::cos(angle), s = std::sin(angle), t = 1.0f - c;
    const float m[16] = {t * a.x * a.x + c,       t * a.x * a.y - s * a.z, t * a.x * a.z + s * a.y, move.x,
                         t * a.x * a.y + s * a.z, t * a.y * a.y + c,       t * a.y * a.z - s * a.x, move.y,
                         t * a.x * a.z - s * a.y, t * a.y * a.z + s * a.x, t * a.z * a.z + c,       move.z,
                         0, 0, 0, 1};
    std::copy(m, m + 16, instance.toWorld);
    computeInstanceMatrices(instance);
}

// The closest hit over every primitive of an object without instances, with
// the skip rules of the closest-hit walk.
struct Reference { bool hit = false; float t = kInfinity; uint32_t primitive = kNoPrimitive; uint8_t kind = 0; };

inline Reference bruteForce(const Object& object, RayState ray) {
    ray.direction = normalized(ray.direction), ray.t = kInfinity;
    Reference best;
    for (const Part& part : object.parts) {
        auto consider = [&](uint8_t kind, size_t count, auto test) {
            for (uint32_t i = 0; i < count; ++i) {
                PrimitiveHit hit;
                if (kind != kParticle && isParentSurface(ray, kind, i, &part)) continue;
                if (test(part, i, ray, hit)) ray.t = hit.t, best = {true, hit.t, i, kind};
            }
        };
        consider(kParticle, part.particles.size(), intersectParticle);
        consider(kCylinder, part.cylinders.size(), intersectCylinder);
        consider(kTriangle, part.triangles.size(), intersectTriangle);
        consider(kTetragon, part.tetragons.size(), intersectTetragon);
    }
    return best;
}

// A ray from 3 x `extent` away aimed into the cube of `extent`: most rays hit.
inline RayState rayThrough(float extent) {
    RayState ray = freshRay();
    ray.origin = randomUnit() * (3.0f * extent);
    ray.direction = normalized(randomPoint(extent) - ray.origin);
    return ray;
}

inline bool inside(const Bbox& outer, const Bbox& inner) {
    for (int k = 0; k < 3; ++k)
        if (inner.min[k] < outer.min[k] || inner.max[k] > outer.max[k]) return false;
    return true;
}

inline Bbox slotBox(const WideNode& node, int slot) {
    Bbox box;
    for (int k = 0; k < 3; ++k) box.min[k] = node.planes(k)[slot], box.max[k] = node.planes(k + 3)[slot];
    return box;
}

// Every primitive reachable exactly once, every wide node once, every box
// inside the slot that leads to it, depth within limits and as recorded.
inline void expectHierarchyInvariants(const Object& object) {
    std::map<std::tuple<uint32_t, uint32_t, uint32_t>, int> expected, seen;
    for (uint32_t p = 0; p < object.parts.size(); ++p) {
        const Part& part = object.parts[p];
        const size_t counts[] = {part.particles.size(), part.cylinders.size(), part.triangles.size(), part.tetragons.size()};
        for (uint32_t kind = kParticle; kind <= kTetragon; ++kind)
            for (uint32_t i = 0; i < counts[kind - 1]; ++i) expected[{uint8_t(p), kind, i}]++;
    }
    for (uint32_t i = 0; i < object.instances.size(); ++i) expected[{0, kInstance, i}]++;
    ASSERT_EQ(object.wideNodes.empty(), expected.empty());
    if (expected.empty()) return;

    struct Visit { uint32_t node, depth; Bbox parent; };
    std::vector<int> visits(object.wideNodes.size(), 0);
    std::vector<Visit> stack{{0, 0, {{-kInfinity, -kInfinity, -kInfinity}, {kInfinity, kInfinity, kInfinity}}}};
    uint32_t deepest = 0;
    while (!stack.empty()) {
        const Visit v = stack.back();
        stack.pop_back();
        ASSERT_TRUE(v.node < object.wideNodes.size() && v.depth < 256u) << v.node << " " << v.depth;
        ++visits[v.node], deepest = std::max(deepest, v.depth);
        const WideNode& node = object.wideNodes[v.node];
        for (int s = 0; s < 8; ++s) {
            const Bbox box = slotBox(node, s);
            EXPECT_TRUE(node.child[s] != kEmptySlot || (node.count[s] == 0 && box.min[0] > box.max[0]));
            if (node.child[s] == kEmptySlot) continue;
            EXPECT_TRUE(inside(v.parent, box)) << "slot " << s << " of node " << v.node;
            if (node.count[s] == 0) stack.push_back({node.child[s], v.depth + 1, box});
            // A node's record run, when it has one, covers every leaf slot.
            if (node.count[s] > 0 && v.node < object.leafRuns.size() && object.leafRuns[v.node].lines > 0) {
                const LeafRun run = object.leafRuns[v.node];
                EXPECT_TRUE(node.child[s] >= run.first && node.child[s] + node.count[s] <= run.first + run.lines);
            }
            for (uint32_t i = node.child[s]; i < node.child[s] + node.count[s]; ++i) {
                ASSERT_LT(i, object.primitiveRefs.size());
                const PrimitiveRef& ref = object.primitiveRefs[i];
                seen[{ref.part, ref.kind, ref.index}]++;
                EXPECT_TRUE(inside(box, referenceBox(object, ref)));
            }
        }
    }
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(std::count(visits.begin(), visits.end(), 1), std::ptrdiff_t(visits.size()));
    EXPECT_EQ(deepest, object.maxWideDepth);
}

// A registry of its own with two default shaders; the shadow hook reset after.
class HierarchyTest : public ::testing::Test {
protected:
    void SetUp() override {
        seedHardwareRandom(1234);
        registry.shaders.assign(2, Shader{}), registry.objects.clear(), registry.rootObject = 0;
    }
    void TearDown() override {
        shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return one; };
        seedHardwareRandom(0);
    }

private:
    RegistryGuard guard_;
};

}  // namespace fixtures
