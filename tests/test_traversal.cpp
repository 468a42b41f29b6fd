// Ray queries against a reference that tests every primitive in turn.
#include <cstring>
#include <numeric>

#include "hierarchy_fixtures.h"
#include "render/radiance.h"

using namespace fixtures;

namespace {

using Traversal = HierarchyTest;

// An object with primitives and the instances that lead to it.
struct Placement { const Object* object; std::vector<const Instance*> chain; };   // chain outermost first

void place(const Object& object, std::vector<const Instance*> chain, std::vector<Placement>& out) {
    if (!object.parts.empty()) out.push_back({&object, chain});
    for (const Instance& instance : object.instances) {
        chain.push_back(&instance);
        place(registry.objects[instance.target], chain, out);
        chain.pop_back();
    }
}

// The ray carried down a chain of instances as the walk carries it.
RayState carried(RayState ray, const std::vector<const Instance*>& chain) {
    for (const Instance* instance : chain) {
        ray.origin = transformPoint(instance->toLocal, ray.origin);
        ray.direction = times3x3(instance->directionMatrix, normalized(ray.direction));
    }
    return ray;
}

// Same hit as every placed primitive tested in turn (or a tie in distance),
// with the instance matrices the walk stacked; returns the hits via instances.
int expectClosestAgrees(const std::vector<Placement>& placements, float extent, int rays, float sameTolerance) {
    int hits = 0, viaInstances = 0;
    for (int r = 0; r < rays; ++r) {
        RayState ray = rayThrough(extent);
        Reference expected;
        const Placement* where = nullptr;
        for (const Placement& p : placements) {
            const Reference found = bruteForce(*p.object, carried(ray, p.chain));
            if (found.hit && found.t < expected.t) expected = found, where = &p;
        }
        EXPECT_EQ(intersectClosest(ray), expected.hit) << "ray " << r;
        if (!expected.hit) continue;
        ++hits;
        const bool same = ray.primitive == expected.primitive && ray.kind == expected.kind &&
                          ray.hit_instance_depth == where->chain.size();
        EXPECT_NEAR(ray.t, expected.t, (same ? sameTolerance : 1e-5f) * (1.0f + expected.t)) << "ray " << r;
        if (!same) continue;
        EXPECT_EQ(ray.gatherable, where->chain.empty() ? 1 : 0);
        for (size_t k = 0; k < where->chain.size(); ++k)
            EXPECT_EQ(std::memcmp(instanceStacks[0].matrices[k], where->chain[k]->normalMatrix, 36), 0);
        viaInstances += !where->chain.empty();
    }
    EXPECT_GT(hits, rays / 5);
    return viaInstances;
}

TEST_F(Traversal, ClosestHitMatchesEveryPrimitiveTestedInTurnAlsoAfterReordering) {
    // Each kind alone, then all four kinds in one object.
    for (int kind = 0; kind < 5; ++kind) {
        SCOPED_TRACE(kind);
        registry.objects.clear();
        Object object;
        if (kind == 0 || kind == 4) object.parts.push_back(triangleSoup(kind ? 500 : 3000, 10, 1.5f));
        if (kind == 1 || kind == 4) object.parts.push_back(triangleSoup(kind == 1 ? 2000 : 300, 10, 1.0f, true));
        if (kind == 2 || kind == 4) object.parts.push_back(sphereCloud(kind == 2 ? 2000 : 300, 10, 0.5f));
        if (kind == 3 || kind == 4) object.parts.push_back(hairStrands(kind == 3 ? 300 : 60, 8, 10, 0.08f));
        addRoot(std::move(object));
        expectHierarchyInvariants(registry.objects[0]);
        expectClosestAgrees({{&registry.objects[0], {}}}, 10, 3000, 2e-4f);
    }

    // Blockers logged by shadow rays reorder the slots without changing any
    // answer. A segment that starts with nothing to carry ends at the first
    // reference it reaches, even through surfaces that let everything through.
    Object& root = registry.objects[0];
    occludeLogGate = 0;
    for (int r = 0; r < 2000; ++r) {
        RayState shadow = rayThrough(10), probe = shadow;
        shadow.kind = 0, shadow.t = kInfinity;
        RayState spent = shadow;
        spent.throughput = zero;
        shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return zero; };
        transmittanceQuery(root, shadow);
        shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return one; };
        if (intersectClosest(probe)) { EXPECT_TRUE(transmittanceQuery(root, spent)) << "ray " << r; }
    }
    occludeLogGate = 8;
    uint64_t logged = 0;
    for (const WideNode& node : root.wideNodes) logged += std::accumulate(node.hits, node.hits + 8, uint64_t(0));
    EXPECT_GT(logged, 1000u);
    reorderHierarchies();
    expectHierarchyInvariants(root);
    expectClosestAgrees({{&root, {}}}, 10, 1000, 2e-4f);
    clearNodeHitCounters();
    for (const WideNode& node : root.wideNodes) EXPECT_EQ(std::accumulate(node.hits, node.hits + 8, 0u), 0u);
}

// A target of triangles, or of hair strands, placed by rigid instances in
// one or two levels; the objects in preparation order: target, (middle,) root.
std::vector<Placement> buildInstancedScene(bool twoLevels, bool hairTarget = false) {
    registry.objects.clear();
    const int levels = twoLevels ? 2 : 1;
    for (int level = levels; level >= 0; --level) {
        Object object;
        object.level = uint32_t(level);
        if (level == levels && hairTarget) object.parts.push_back(hairStrands(300, 6, 3, 0.1f));
        else if (level == levels || level == 0) object.parts.push_back(triangleSoup(level ? 400 : 200, level ? 3 : 15, 1));
        for (int i = 0; level < levels && i < (level ? 4 : 5); ++i) {
            Instance instance;
            instance.target = uint32_t(registry.objects.size() - 1);
            setRigid(instance, randomUnit(), uniform(0, 6.28f), randomPoint(level ? 6.0f : 12.0f));
            instance.bounds = transformedBox(instance.toWorld, registry.objects.back().bounds);
            object.instances.push_back(instance);
        }
        addRoot(std::move(object));
    }
    std::vector<Placement> placements;
    place(registry.objects.back(), {}, placements);
    return placements;
}

// Triangles or strands inside instances are met where each placement, tested
// in its own space, meets them; triangles also cast shadows through them.
TEST_F(Traversal, InstancesCarryRaysAndShadowsThroughOneAndTwoLevels) {
    for (int round = 0; round < 4; ++round) {
        const bool twoLevels = round % 2, hair = round >= 2;
        SCOPED_TRACE(::testing::Message() << "levels " << 1 + twoLevels << " hair " << hair);
        const std::vector<Placement> placements = buildInstancedScene(twoLevels, hair);
        for (const Object& object : registry.objects) expectHierarchyInvariants(object);
        EXPECT_GT(expectClosestAgrees(placements, 15, hair ? 1500 : 3000, hair ? 2e-4f : 1e-5f), hair ? 150 : 300);
        if (hair) continue;

        // Occlusion against every placed triangle tested in turn: any surface
        // within reach blocks an opaque shadow; with a grey factor every one
        // counts once, up to the cut-off.
        Object& root = registry.objects[size_t(registry.rootObject)];
        int blocked = 0;
        for (int r = 0; r < 1500; ++r) {
            RayState shadow = rayThrough(15);
            shadow.kind = 0, shadow.t = uniform(25, 60);
            int crossings = 0;
            for (const Placement& p : placements) {
                const RayState local = carried(shadow, p.chain);
                for (uint32_t i = 0; i < p.object->parts[0].triangles.size(); ++i) {
                    PrimitiveHit hit;
                    crossings += intersectTriangle(p.object->parts[0], i, local, hit);
                }
            }
            RayState opaque = shadow;
            shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return zero; };
            EXPECT_EQ(transmittanceQuery(root, opaque), crossings > 0) << "ray " << r;
            EXPECT_EQ(opaque.throughput == zero, crossings > 0) << "ray " << r;
            blocked += crossings > 0;
            shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return {0.5f, 0.5f, 0.5f}; };
            EXPECT_EQ(transmittanceQuery(root, shadow), crossings >= 10) << "ray " << r;
            if (crossings < 10) { EXPECT_FLOAT_EQ(shadow.throughput.x, std::ldexp(1.0f, -crossings)) << "ray " << r; }
        }
        EXPECT_GT(blocked, 150);
    }
}

// A face at z = 0 with shader 1 (a triangle, or a tetragon) and a triangle at z = -1.
void twoPlanes(bool tetragonFront) {
    registry.objects.clear();
    Part part;
    part.positions = {{-1, -1, 0}, {3, -1, 0}, {-1, 3, 0}, {-1, -1, -1}, {3, -1, -1}, {-1, 3, -1}, {1.5f, 1.5f, 0}};
    if (tetragonFront) part.tetragons.push_back({0, 1, 6, 2, 1});
    else part.triangles.push_back({0, 1, 2, 1});
    part.triangles.push_back({3, 4, 5, 0});
    addRoot(objectWith(std::move(part)));
}

RayState downRay(uint8_t depth, uint8_t photonPath, uint8_t previousKind = 0) {
    RayState ray = freshRay();
    ray.origin = {0, 0, 1}, ray.direction = {0.01f, 0.02f, -1}, ray.t = 10.0f;
    ray.depth = depth, ray.photon_path = photonPath, ray.previous_kind = previousKind, ray.previous_primitive = 0;
    if (previousKind) ray.previous_part = &registry.objects[size_t(registry.rootObject)].parts[0];
    return ray;
}

TEST_F(Traversal, VisibilityByDepthAndPathAndTheParentSkip) {
    twoPlanes(false);
    const struct { uint8_t visibility, depth, photonPath; bool seesFront; } cases[] = {
        {0, 0, 0, false}, {0, 3, 1, false},                     // invisible to all
        {2, 0, 0, false}, {2, 1, 0, true},  {2, 0, 1, true},    // hidden from camera rays
        {1, 0, 1, false}, {1, 0, 0, true},  {1, 2, 1, true},    // hidden from light rays
        {3, 0, 0, true},
    };
    for (const auto& c : cases) {
        registry.shaders[1].geometry.visibility = c.visibility;
        RayState ray = downRay(c.depth, c.photonPath);
        ASSERT_TRUE(intersectClosest(ray));
        EXPECT_EQ(ray.primitive == 0 && ray.t < 1.5f, c.seesFront)
            << "visibility " << int(c.visibility) << " depth " << int(c.depth) << " photon " << int(c.photonPath);
    }
    registry.shaders[1].geometry.visibility = 3;

    // The parent triangle is skipped by the closest-hit walk alone; a parent
    // tetragon by both walks.
    RayState closest = downRay(1, 0, kTriangle), surfaces = closest;
    ASSERT_TRUE(intersectClosest(closest) && intersectSurfaces(surfaces));
    EXPECT_NEAR(closest.t, 2.0f, 1e-3f);
    EXPECT_NEAR(surfaces.t, 1.0f, 1e-3f);
    twoPlanes(true);
    RayState quad = downRay(1, 0, kTetragon);
    EXPECT_TRUE(intersectSurfaces(quad) && quad.kind == kTriangle);

    // No scene, and a root object with nothing in it, hit nothing.
    registry.objects.clear();
    RayState ray = downRay(0, 0);
    EXPECT_FALSE(intersectClosest(ray) || intersectSurfaces(ray));
    EXPECT_EQ(ray.t, 10.0f);
    addRoot(objectWith(Part{}));
    EXPECT_FALSE(intersectClosest(ray) || transmittanceQuery(registry.objects[0], ray));
}

// Square sheets, each a part of one triangle numbered 0 and one numbered 1:
// object 0 at heights 0 and 2, object 1 at height 1; the root instances
// object 0 at heights 0 and 4, and object 1 at height 0.
void sheetScene() {
    registry.objects.assign(2, Object{});
    for (auto [target, z] : {std::pair{0, 0.0f}, {0, 2.0f}, {1, 1.0f}}) {
        Part& part = registry.objects[size_t(target)].parts.emplace_back();
        part.positions = {{-4, -4, z}, {4, -4, z}, {4, 4, z}, {-4, 4, z}};
        part.triangles = {{0, 1, 2, 0}, {0, 2, 3, 0}};
    }
    Object root;
    for (auto [target, lift] : {std::pair{0u, 0.0f}, {1u, 0.0f}, {0u, 4.0f}}) {
        prepareHierarchy(registry.objects[target]);
        Instance& instance = root.instances.emplace_back();
        instance.target = target;
        setRigid(instance, {0, 0, 1}, 0.0f, {0, 0, lift});
        instance.bounds = transformedBox(instance.toWorld, registry.objects[target].bounds);
    }
    addRoot(std::move(root));
}

TEST_F(Traversal, ARaySkipsOnlyTheVerySurfaceItLeft) {
    sheetScene();
    // A ray down onto the lowest sheet, then children going up from just
    // under each hit: the same-numbered triangle of another object (z 1),
    // of another part (z 2) and of another instance (z 4) stop them, their
    // own triangle never does.
    RayState ray = freshRay();
    ray.origin = {0.5f, 0.25f, 0.5f}, ray.direction = {0, 0, -1};
    ASSERT_TRUE(intersectClosest(ray) && ray.primitive == 0u);
    // Next sheet up, and how many sheets lie above the one left.
    const struct { float next; int above; } steps[] = {{1, 4}, {2, 3}, {4, 2}, {6, 1}, {0, 0}};
    for (const auto& step : steps) {
        HitRecord hit{};
        hit.position = ray.origin + ray.direction * ray.t - Vector{0, 0, 1e-4f};
        RayState child = childRay(ray, hit, kTagLambertian);
        child.direction = normalized({0.001f, 0.002f, 1});   // off the axes, which the shadow walk's slab test needs
        // Occlusion sees the same: each sheet but the own one halves the light.
        RayState shadow = child;
        shadow.kind = 0, shadow.primitive = kNoPrimitive, shadow.t = 10.0f, shadow.throughput = one;
        shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return {0.5f, 0.5f, 0.5f}; };
        transmittanceQuery(registry.objects[size_t(registry.rootObject)], shadow);
        EXPECT_FLOAT_EQ(shadow.throughput.x, std::ldexp(1.0f, -step.above)) << "towards z " << step.next;
        ASSERT_EQ(intersectClosest(child), step.above > 0) << "towards z " << step.next;
        if (step.above == 0) break;
        EXPECT_EQ(child.primitive, 0u);
        EXPECT_NEAR(child.origin.z + child.t * child.direction.z, step.next, 1e-4f);
        ray = child;
    }
}

TEST_F(Traversal, PrimitiveTestsGiveDistancesAndHitParameters) {
    RayState ray = freshRay();
    ray.origin = {0.25f, 0.75f, 1.0f}, ray.direction = {0, 0, -1}, ray.t = kInfinity;
    PrimitiveHit hit;
    Part face;
    face.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
    face.triangles = {{0, 1, 3, 0}}, face.tetragons = {{0, 1, 2, 3, 0}};
    ASSERT_TRUE(intersectTriangle(face, 0, ray, hit));
    EXPECT_FLOAT_EQ(hit.t, 1.0f);
    EXPECT_TRUE(hit.front);
    EXPECT_NEAR(hit.barycentric.y, 0.25f, 1e-6f);
    EXPECT_NEAR(hit.barycentric.z, 0.75f, 1e-6f);
    ASSERT_TRUE(intersectTetragon(face, 0, ray, hit));   // u across ab to cd, v across da to bc
    EXPECT_NEAR(hit.barycentric.x, 0.75f, 1e-6f);
    EXPECT_NEAR(hit.barycentric.y, 0.25f, 1e-6f);
    RayState below = ray;
    below.origin.z = -1.0f, below.direction.z = 1.0f;
    ASSERT_TRUE(intersectTetragon(face, 0, below, hit));
    EXPECT_FALSE(hit.front);
    below.t = 1.0f;   // faces take t - EPS as their far limit
    EXPECT_FALSE(intersectTriangle(face, 0, below, hit));

    // From inside a sphere the ray leaves through its back.
    Part ball = sphereCloud(1, 0, 1);
    ball.scalarChannels[0].elements[0] = 2.0f, ray.origin = ball.positions[0];
    ASSERT_TRUE(intersectParticle(ball, 0, ray, hit));
    EXPECT_NEAR(hit.t, 2.0f, 1e-5f);
    EXPECT_FALSE(hit.front);

    // A straight fibre along x: x = 0.3 lies in lane 2 of 8.
    Part fibre;
    fibre.positions = {{0, 0, 0}, {1, 0, 0}}, fibre.cylinders = {0};
    fibre.scalarChannels[0].elements = {0.1f, 0.1f}, fibre.tangents = {packDirection(1, 0, 0), packDirection(1, 0, 0)};
    ray.origin = {0.3f, 0.05f, 1.0f};
    ASSERT_TRUE(intersectCylinder(fibre, 0, ray, hit));
    EXPECT_NEAR(hit.t, 1.0f, 1e-3f);
    EXPECT_NEAR(hit.barycentric.x, 0.5f, 1e-2f);
    EXPECT_FLOAT_EQ(hit.barycentric.z, 0.3125f);
    fibre.tangents = {packDirection(0, 0, 0), packDirection(0, 0, 0)};   // end planes close every lane
    EXPECT_FALSE(intersectCylinder(fibre, 0, ray, hit));
}

}  // namespace
