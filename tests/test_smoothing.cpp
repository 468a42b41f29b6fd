// Smoothing by angle: welding by position, the split of vertices at creases,
// kept and missing normals, tangents, and the same result on any team size.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "geometry/load_time.h"
#include "load_time_meshes.h"
#include "scene_fixture.h"

namespace {

using namespace meshes;

class Smoothing : public SceneTest {
protected:
    static uint32_t shaderWithAngle(float degrees) {
        const int s = lvAddShader();
        lvSetShaderSmoothAngle(s, degrees);
        return uint32_t(s);
    }
};

PackedDirection packed(Vector v) { return packDirection(v.x, v.y, v.z); }

TEST_F(Smoothing, CubeSplitsAtACreaseAndWeldsAboveTheAngleOfItsFaces) {
    Part sharp = cube(shaderWithAngle(30), false);
    const std::vector<CornerValue> before = cornerValues(sharp);
    smooth(sharp);
    ASSERT_EQ(sharp.positions.size(), 24u);
    ASSERT_EQ(sharp.tangents.size(), 24u);
    for (const Tetragon& q : sharp.tetragons) {
        const Vector* p = sharp.positions.data();
        const PackedDirection face = packed(normalized(cross(p[q.c] - p[q.a], p[q.d] - p[q.b])));
        for (uint32_t v : {q.a, q.b, q.c, q.d}) EXPECT_EQ(sharp.normals[v], face);
    }
    const std::vector<CornerValue> after = cornerValues(sharp);
    for (size_t k = 0; k < before.size(); ++k) EXPECT_EQ(after[k].position, before[k].position) << k;

    Part round = cube(shaderWithAngle(100), true);
    smooth(round);
    ASSERT_EQ(round.positions.size(), 8u);
    for (uint32_t v = 0; v < 8; ++v) {
        const Vector p = round.positions[v];
        EXPECT_EQ(round.normals[v], packed(Vector{p.x - 0.5f, p.y - 0.5f, p.z - 0.5f})) << v;
    }

    // Texture seams split vertices even where the normals agree.
    Part seams = cube(shaderWithAngle(100), true);
    for (uint32_t v = 0; v < 24; ++v) seams.uvChannels[0].elements.push_back({float(v), 0.0f});
    smooth(seams);
    EXPECT_EQ(seams.positions.size(), 24u);
    EXPECT_EQ(seams.uvChannels[0].elements.size(), 24u);
}

TEST_F(Smoothing, SphereNormalsFollowTheSurface) {
    Part part = sphere(64, 32, 2.0f, shaderWithAngle(45));
    smooth(part);
    // Tangents from the face normals turn fast near the south pole, so
    // vertices there split by tangent; every copy has the same normal.
    float worst = 0.0f;
    for (size_t v = 0; v < part.positions.size(); ++v)
        worst = std::max(worst, angleDegrees(unpackDirection(part.normals[v]), part.positions[v]));
    EXPECT_LT(worst, 1.0f);
}

TEST_F(Smoothing, ZeroGivesNoNormalsAndNegativeKeepsTheGivenOnes) {
    const uint32_t keep = shaderWithAngle(-1), none = shaderWithAngle(0), smooth30 = shaderWithAngle(30);
    auto quad = [](uint32_t first, uint32_t second) {
        Part part;
        for (Vector p : {Vector{0, 0, 0}, Vector{1, 0, 0}, Vector{1, 1, 0}, Vector{0, 1, 0}}) addVertex(part, p);
        part.normals.assign(4, PackedDirection{0, 90, 90});
        part.triangles = {{0, 1, 2, first}, {0, 2, 3, second}};
        return part;
    };

    Part kept = quad(keep, keep);   // nothing asks for smoothing: the part stays as it was
    smooth(kept);
    EXPECT_EQ(kept.normals.size(), 4u);
    EXPECT_TRUE(kept.tangents.empty());

    Part flat = quad(none, none);
    smooth(flat);
    ASSERT_EQ(flat.positions.size(), 4u);
    for (uint32_t v = 0; v < 4; ++v) {
        EXPECT_EQ(flat.normals[v], (PackedDirection{0, 0, 0}));
        EXPECT_EQ(flat.tangents[v], (PackedDirection{0, 0, 0}));
    }

    // One face keeps its given normals, the other is smoothed; at the shared
    // corners the two values differ, so those vertices split.
    Part mixed = quad(keep, smooth30);
    mixed.normals[1] = {0, 0, 0};   // a kept face without a normal at a corner takes the sum
    smooth(mixed);
    const Triangle& k = mixed.triangles[0];
    const Triangle& s = mixed.triangles[1];
    EXPECT_EQ(mixed.normals[k.a], (PackedDirection{0, 90, 90}));
    EXPECT_EQ(mixed.normals[k.c], (PackedDirection{0, 90, 90}));
    EXPECT_EQ(mixed.normals[k.b], (PackedDirection{0, 0, 127}));
    for (uint32_t v : {s.a, s.b, s.c}) EXPECT_EQ(mixed.normals[v], (PackedDirection{0, 0, 127}));
    EXPECT_NE(k.a, s.a);
    EXPECT_EQ(mixed.positions.size(), 6u);
}

TEST_F(Smoothing, TangentsFollowTheUvsOnceThePartHasTangents) {
    const uint32_t shader = shaderWithAngle(30);
    Part part;
    for (Vector p : {Vector{0, 0, 0}, Vector{1, 0, 0}, Vector{1, 1, 0}}) addVertex(part, p);
    part.uvChannels[0].elements = {{0, 0}, {0, 1}, {1, 1}};   // u grows along y
    part.triangles = {{0, 1, 2, shader}};

    smooth(part);   // no tangents yet: taken from the face normal
    for (PackedDirection t : part.tangents) EXPECT_EQ(t, (PackedDirection{127, 0, 0}));
    smooth(part);   // now from the uvs
    for (PackedDirection t : part.tangents) EXPECT_EQ(t, (PackedDirection{0, -127, 0}));
}

TEST_F(Smoothing, PositionsWeldWhenEqualAsFloats) {
    const uint32_t shader = shaderWithAngle(30);
    // Two coplanar triangles with their own vertices; the second copy of the
    // shared corners is changed by `alter`.
    auto pair = [shader](float (*alter)(float)) {
        Part part;
        for (Vector p : {Vector{0, 0, 0}, Vector{1, 0, 0}, Vector{1, 1, 0}}) addVertex(part, p);
        for (Vector p : {Vector{0, 0, 0}, Vector{1, 1, 0}, Vector{0, 1, 0}})
            addVertex(part, {alter(p.x), alter(p.y), alter(p.z)});
        part.triangles = {{0, 1, 2, shader}, {3, 4, 5, shader}};
        smooth(part);
        return part.positions.size();
    };
    EXPECT_EQ(pair([](float x) { return x; }), 4u);
    EXPECT_EQ(pair([](float x) { return x == 0.0f ? -0.0f : x; }), 4u);
    EXPECT_EQ(pair([](float x) { return x == 1.0f ? std::nextafter(1.0f, 2.0f) : x; }), 5u);
}

TEST_F(Smoothing, DegenerateFacesAndMixedFamiliesShareAVertex) {
    const uint32_t shader = shaderWithAngle(30);
    Part part;
    for (Vector p : {Vector{0, 0, 0}, Vector{1, 0, 0}, Vector{1, 1, 0}, Vector{0, 1, 0}, Vector{-1, 0, 0}})
        addVertex(part, p);
    part.tetragons = {{0, 1, 2, 3, shader}};
    part.triangles = {{0, 3, 4, shader}, {0, 0, 1, shader}};   // a fan neighbour and a face of no area
    // One face indexes past the positions: reported, and its corner kept.
    part.triangles.push_back({0, 1, 9, shader});
    const auto lines = reportedLines([&] { smooth(part); });
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "error :( \tsmoothing out of range"), 1);
    EXPECT_EQ(part.triangles[2].c, 9u);

    const Tetragon& q = part.tetragons[0];
    const Triangle& fan = part.triangles[0];
    const Triangle& flat = part.triangles[1];
    EXPECT_EQ(q.a, fan.a);   // the vertex shared by the tetragon and the triangle
    EXPECT_EQ(q.d, fan.b);
    EXPECT_EQ(part.normals[q.a], (PackedDirection{0, 0, 127}));
    EXPECT_EQ(flat.a, flat.b);   // both corners of no area agree with each other
    EXPECT_EQ(part.normals[flat.a], (PackedDirection{0, 0, 0}));
    EXPECT_NE(flat.a, q.a);
    EXPECT_EQ(part.positions[flat.a], (Vector{0, 0, 0}));
}

TEST_F(Smoothing, ResultDoesNotDependOnTheTeamSize) {
    const int threads = omp_get_max_threads();
    auto run = [&](int team) {
        omp_set_num_threads(team);
        Part part = sphere(40, 20, 1.0f, shaderWithAngle(20));
        part.tetragons = cube(part.triangles[0].shader, false).tetragons;   // faces over the first 8 vertices
        smooth(part);
        return part;
    };
    const Part one = run(1), two = run(2), many = run(7);
    omp_set_num_threads(threads);
    const auto expected = cornerValues(one);
    for (const Part* other : {&two, &many}) {
        EXPECT_EQ(other->positions.size(), one.positions.size());
        const auto corners = cornerValues(*other);
        ASSERT_EQ(corners.size(), expected.size());
        for (size_t k = 0; k < corners.size(); ++k)
            EXPECT_TRUE(corners[k].position == expected[k].position && corners[k].normal == expected[k].normal) << k;
    }
}

}  // namespace
