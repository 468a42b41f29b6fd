// The leaf records that the walks read must give the very bits of the face tests on the parts.
#include <bit>

#include "hierarchy_fixtures.h"

using namespace fixtures;

namespace {

using LeafRecords = HierarchyTest;

// The floats by their bits, then the integers.
std::vector<uint32_t> bits(std::initializer_list<float> floats, std::initializer_list<uint32_t> integers) {
    std::vector<uint32_t> out;
    for (float v : floats) out.push_back(std::bit_cast<uint32_t>(v));
    out.insert(out.end(), integers);
    return out;
}
std::vector<uint32_t> answer(const PrimitiveHit& h) {
    return bits({h.t, h.det, h.barycentric.x, h.barycentric.y, h.barycentric.z}, {h.shader, h.front});
}
// Every output of a query.
std::vector<uint32_t> answer(const RayState& r) {
    const Vector b = r.barycentric, w = r.throughput;
    return bits({r.t, b.x, b.y, b.z, w.x, w.y, w.z}, {r.primitive, r.kind, r.shader, r.front, r.part != nullptr});
}

// Triangles, some of them doubled in place so that two faces tie, and flat
// tetragons; every third face uses shader 1, which no ray sees.
Object facesWithTies() {
    Object object;
    Part tris = triangleSoup(1500, 10, 1.5f);
    for (uint32_t i = 0; i < 300; ++i) tris.triangles.push_back(tris.triangles[5 * i]);
    for (uint32_t i = 0; i < tris.triangles.size(); i += 3) tris.triangles[i].shader = 1;
    object.parts = {tris, triangleSoup(800, 10, 1.0f, true), sphereCloud(200, 10, 0.5f)};
    registry.shaders[1].geometry.visibility = 0;
    prepareHierarchy(object);
    return object;
}

TEST_F(LeafRecords, FaceTestsOnRecordsMatchTheTestsOnParts) {
    Object object = facesWithTies();
    registry.shaders[1].geometry.visibility = 3;
    ASSERT_EQ(object.leafRecords.size(), object.primitiveRefs.size());
    int hits = 0;
    for (size_t i = 0; i < object.primitiveRefs.size(); ++i) {
        const PrimitiveRef& ref = object.primitiveRefs[i];
        if (ref.kind != kTriangle && ref.kind != kTetragon) continue;
        const Part& part = object.parts[ref.part];
        const bool triangle = ref.kind == kTriangle;
        auto* const onPart = triangle ? intersectTriangle : intersectTetragon;
        auto* const onRecord = triangle ? intersectTriangleRecord : intersectTetragonRecord;
        const uint32_t* corners = triangle ? &part.triangles[ref.index].a : &part.tetragons[ref.index].a;
        const Vector a = part.positions[corners[0]], b = part.positions[corners[1]], c = part.positions[corners[2]];
        for (int r = 0; r < 6; ++r) {
            RayState ray = freshRay();
            ray.origin = randomPoint(12.0f);
            // At a corner, along an edge from inside the face's plane (det
            // near 0), at the middle of an edge, or anywhere near the face.
            switch (r) {
            case 0: ray.direction = a - ray.origin; break;
            case 1: ray.origin = a + (b - a) * 0.25f, ray.direction = c - b; break;
            case 2: ray.direction = (b + c) * 0.5f - ray.origin; break;
            default: ray.direction = (a + b + c) * (1.0f / 3.0f) + randomPoint(0.5f) - ray.origin; break;
            }
            ray.direction = normalized(ray.direction);
            PrimitiveHit scalar{}, fast{};
            auto both = [&] {
                const bool s = onPart(part, ref.index, ray, scalar), f = onRecord(object.leafRecords[i], ray, fast);
                EXPECT_EQ(s, f) << "reference " << i << " ray " << r;
                if (s && f) { EXPECT_EQ(answer(scalar), answer(fast)); }
                return s && f;
            };
            ray.t = kInfinity;
            if (!both()) continue;
            ++hits;
            // The far limit at the hit: exactly t + epsilon, and one step less.
            ray.t = scalar.t + kTriangleEpsilon, both();
            ray.t = std::nextafter(ray.t, 0.0f), both();
        }
    }
    EXPECT_GT(hits, 3000);
}

TEST_F(LeafRecords, WalksOverRecordsAnswerAsWalksOverReferences) {
    // Object 0 walks its records; object 1 is the same tree without them.
    registry.objects.push_back(facesWithTies());
    registry.objects.push_back(registry.objects[0]);
    registry.objects[1].leafRecords.clear();
    shadowFactorHook = [](const RayState&, const ShadowHit&) -> Color { return {0.5f, 0.75f, 0.875f}; };
    for (int r = 0; r < 3000; ++r) {
        RayState ray = rayThrough(10);
        ray.depth = uint8_t(r % 2);
        if (r % 4 == 3) ray.previous_kind = kTriangle, ray.previous_primitive = uint32_t(r % 1800);
        const float surfaceLimit = uniform(5.0f, 40.0f), shadowLimit = uniform(5.0f, 40.0f);
        // Every hit flag and every output of the three queries.
        auto walk = [&](int o) {
            registry.rootObject = o;
            // The skipped faces belong to this object's own part.
            ray.previous_part = ray.part = &registry.objects[size_t(o)].parts[0];
            RayState closest = ray, surfaces = ray, shadow = ray;
            surfaces.t = surfaceLimit;
            shadow.kind = uint8_t(r % 3 == 0 ? kTriangle : 0), shadow.primitive = uint32_t(r % 1800);
            shadow.t = shadowLimit, shadow.throughput = one;
            std::vector<uint32_t> out{intersectClosest(closest), intersectSurfaces(surfaces),
                                      transmittanceQuery(registry.objects[size_t(o)], shadow)};
            for (const RayState* q : {&closest, &surfaces, &shadow})
                for (uint32_t v : answer(*q)) out.push_back(v);
            return out;
        };
        EXPECT_EQ(walk(0), walk(1)) << "ray " << r;
    }
}

}  // namespace
