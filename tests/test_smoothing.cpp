// Smoothing by angle: welding by position, the split of vertices at creases,
// kept and missing normals, tangents, and the same result on any team size.
#include <algorithm>
#include <set>
#include <tuple>

#include "geometry/load_time.h"
#include "load_time_meshes.h"
#include "scene_fixture.h"

namespace {

using namespace meshes;

using Smoothing = SceneTest;

uint32_t shaderWithAngle(float degrees) {
    const int s = lvAddShader();
    lvSetShaderSmoothAngle(s, degrees);
    return uint32_t(s);
}

PackedDirection packed(Vector v) { return packDirection(v.x, v.y, v.z); }

// A bumpy height field of n x n cells, with uvs. Cells take three shaders by
// column, and the field folds where they change. The last column is tetragons
// over copies of its vertices, whose uvs agree with the originals on even rows
// only; the top three rows face down; the cells at one corner are shrunk so
// far that their normals cannot be made unit.
Part foldedField(int n, uint32_t gentle, uint32_t sharp, uint32_t wide) {
    Part part;
    // Folds of 26.6 and about 65 degrees where the shaders change.
    auto height = [n](int i, int j) {
        const float bumps = 0.3f * std::sin(0.9f * float(i)) * std::cos(0.7f * float(j));
        return bumps + 0.5f * float(std::max(0, 3 * i - n)) / 3.0f + 2.1f * float(std::max(0, 3 * i - 2 * n)) / 3.0f;
    };
    auto add = [&](int i, int j, float du) {
        const float shrink = i <= 1 && j <= 1 ? 1e-4f : 1.0f;
        part.uvChannels[0].elements.push_back({float(i) / float(n) + du, float(j) / float(n)});
        return addVertex(part, Vector{float(i), float(j), height(i, j)} * shrink);
    };
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i) add(i, j, 0.0f);
    auto at = [n](int i, int j) { return uint32_t(j * (n + 1) + i); };
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const uint32_t shader = 3 * i < n ? gentle : 3 * i < 2 * n ? sharp : wide;
            if (i + 1 < n) {
                const bool down = j + 3 >= n;   // facing down, where tangents made from normals turn fast
                part.triangles.push_back({at(i, j), at(i + 1, down ? j + 1 : j), at(i + 1, down ? j : j + 1), shader});
                part.triangles.push_back({at(i, j), at(down ? i : i + 1, j + 1), at(down ? i + 1 : i, j + 1), shader});
                continue;
            }
            const float low = j % 2 ? 0.5f : 0.0f, high = j % 2 ? 0.0f : 0.5f;   // u shifted on odd rows
            part.tetragons.push_back({add(i, j, low), add(i + 1, j, low), add(i + 1, j + 1, high), add(i, j + 1, high), shader});
        }
    return part;
}

// A cube smoothed above the angle of its faces welds into eight vertices,
// each with the normal of its corner's diagonal; a sphere's follow its surface.
TEST_F(Smoothing, CubeWeldsAboveTheAngleOfItsFacesAndSphereNormalsFollowTheSurface) {
    Part round = cube(shaderWithAngle(100));
    smooth(round);
    ASSERT_EQ(round.positions.size(), 8u);
    for (uint32_t v = 0; v < 8; ++v) EXPECT_EQ(round.normals[v], packed(round.positions[v] - Vector{0.5f, 0.5f, 0.5f})) << v;

    Part part = sphere(64, 32, 2.0f, shaderWithAngle(45));
    smooth(part);
    // Tangents from the face normals turn fast near the south pole, so
    // vertices there split by tangent; every copy has the same normal.
    float worst = 0.0f;
    for (size_t v = 0; v < part.positions.size(); ++v)
        worst = std::max(worst, angleDegrees(unpackDirection(part.normals[v]), part.positions[v]));
    EXPECT_LT(worst, 1.0f);
}

TEST_F(Smoothing, ZeroGivesNoNormalsNegativeKeepsTheGivenOnesAndTangentsFollowUvs) {
    const uint32_t keep = shaderWithAngle(-1), none = shaderWithAngle(0), smooth30 = shaderWithAngle(30);
    auto quad = [](uint32_t first, uint32_t second, bool missing = false) {   // smoothed, normals given
        Part part;
        part.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
        part.normals.assign(4, PackedDirection{0, 90, 90});
        if (missing) part.normals[1] = {0, 0, 0};
        part.triangles = {{0, 1, 2, first}, {0, 2, 3, second}};
        smooth(part);
        return part;
    };

    const Part kept = quad(keep, keep);   // nothing asks for smoothing: the part stays as it was
    EXPECT_TRUE(kept.normals.size() == 4u && kept.tangents.empty());
    const Part flat = quad(none, none);
    ASSERT_EQ(flat.positions.size(), 4u);
    EXPECT_TRUE(flat.normals == flat.tangents && flat.normals == std::vector<PackedDirection>(4, PackedDirection{0, 0, 0}));

    // One face keeps its given normals, the other is smoothed; at the shared
    // corners the two values differ, so those vertices split.
    const Part mixed = quad(keep, smooth30, true);   // a kept face without a normal at a corner takes the sum
    const Triangle &k = mixed.triangles[0], &s = mixed.triangles[1];
    for (uint32_t v : {k.a, k.c}) EXPECT_EQ(mixed.normals[v], (PackedDirection{0, 90, 90}));
    for (uint32_t v : {k.b, s.a, s.b, s.c}) EXPECT_EQ(mixed.normals[v], (PackedDirection{0, 0, 127}));
    EXPECT_TRUE(k.a != s.a && mixed.positions.size() == 6u);

    // Tangents come from the face normal while the part has none, then from the uvs.
    Part part;
    part.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}, part.triangles = {{0, 1, 2, smooth30}};
    part.uvChannels[0].elements = {{0, 0}, {0, 1}, {1, 1}};   // u grows along y
    smooth(part);
    for (PackedDirection t : part.tangents) EXPECT_EQ(t, (PackedDirection{127, 0, 0}));
    smooth(part);
    for (PackedDirection t : part.tangents) EXPECT_EQ(t, (PackedDirection{0, -127, 0}));
}

TEST_F(Smoothing, PositionsWeldWhenEqualAsFloatsFacesOfNoAreaSplitAndBadIndicesAreReported) {
    const uint32_t shader = shaderWithAngle(30);
    // Two coplanar triangles with their own vertices; the second copy of the
    // shared corners is changed by `alter`.
    auto pair = [shader](float (*alter)(float)) {
        Part part;
        part.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 0, 0}, {1, 1, 0}, {0, 1, 0}};
        for (size_t v = 3; v < 6; ++v) {
            Vector& q = part.positions[v];
            q = {alter(q.x), alter(q.y), alter(q.z)};
        }
        part.triangles = {{0, 1, 2, shader}, {3, 4, 5, shader}};
        smooth(part);
        return part.positions.size();
    };
    EXPECT_EQ(pair([](float x) { return x; }), 4u);
    EXPECT_EQ(pair([](float x) { return x == 0.0f ? -0.0f : x; }), 4u);
    EXPECT_EQ(pair([](float x) { return x == 1.0f ? std::nextafter(1.0f, 2.0f) : x; }), 5u);

    // A fan neighbour, a face of no area, and one indexing past the positions:
    // reported, and its corner kept.
    Part part;
    part.positions = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {-1, 0, 0}};
    part.tetragons = {{0, 1, 2, 3, shader}};
    part.triangles = {{0, 3, 4, shader}, {0, 0, 1, shader}, {0, 1, 9, shader}};
    EXPECT_EQ(std::ranges::count(reportedLines([&] { smooth(part); }), std::string("error :( \tsmoothing out of range")), 1);
    EXPECT_EQ(part.triangles[2].c, 9u);

    const Tetragon& q = part.tetragons[0];
    const Triangle& flat = part.triangles[1];
    EXPECT_EQ(part.normals[q.a], (PackedDirection{0, 0, 127}));
    EXPECT_TRUE(flat.a == flat.b && flat.a != q.a);   // both corners of no area agree, apart from the face's
    EXPECT_EQ(part.normals[flat.a], (PackedDirection{0, 0, 0}));
    EXPECT_EQ(part.positions[flat.a], (Vector{0, 0, 0}));
}

// Every corner against the definition taken literally: the sum, in corner order,
// of the faces at its position (equal as floats) whose vectors equal its own or
// lie at an arccos below its limit; one vertex per distinct normal, tangent, uv.
TEST_F(Smoothing, EveryCornerTakesTheFacesWithinItsAngle) {
    Part part = foldedField(12, shaderWithAngle(60), shaderWithAngle(25), shaderWithAngle(200));
    struct Corner { Vector position, normal, tangent; float limit; UV uv; };
    std::vector<Corner> corners;
    auto face = [&](std::initializer_list<uint32_t> v, Vector normal, uint32_t shader) {
        const Vector t = normal.z < -0.9999999f ? Vector{0, -1, 0}
                                                 : Vector{1.0f - 1.0f / (1.0f + normal.z) * normal.x * normal.x,
                                                          -(1.0f / (1.0f + normal.z)) * normal.x * normal.y, -normal.x};
        for (uint32_t k : v)
            corners.push_back({part.positions[k], normal, t, registry.shaders[shader].geometry.smooth_angle * kDegree,
                               part.uvChannels[0].elements[k]});
    };
    const Vector* p = part.positions.data();
    for (const Triangle& t : part.triangles)
        face({t.a, t.b, t.c}, normalized(cross(p[t.b] - p[t.a], p[t.c] - p[t.a])), t.shader);
    for (const Tetragon& q : part.tetragons)
        face({q.a, q.b, q.c, q.d}, normalized(cross(p[q.c] - p[q.a], p[q.d] - p[q.b])), q.shader);
    auto within = [](Vector a, Vector b, float limit) {
        return a == b || std::acos(std::clamp(dot(a, b), -1.0f, 1.0f)) < limit;
    };
    std::set<std::tuple<float, float, float, int, int, int, int, int, int, float, float>> vertices;
    std::vector<PackedDirection> normals, tangents;
    for (const Corner& c : corners) {
        Vector sumN{0, 0, 0}, sumG{0, 0, 0};
        for (const Corner& other : corners) {
            if (!(other.position == c.position)) continue;
            if (within(c.normal, other.normal, c.limit)) sumN += other.normal;
            if (within(c.tangent, other.tangent, c.limit)) sumG += other.tangent;
        }
        normals.push_back(packed(sumN)), tangents.push_back(packed(sumG));
        const PackedDirection n = normals.back(), g = tangents.back();
        vertices.insert({c.position.x + 0.0f, c.position.y + 0.0f, c.position.z + 0.0f, n.x, n.y, n.z, g.x, g.y, g.z,
                         c.uv.u, c.uv.v});
    }

    smooth(part);
    size_t k = 0, split = 0;
    auto check = [&](uint32_t v) {
        EXPECT_TRUE(part.positions[v] == corners[k].position) << k;
        EXPECT_EQ(part.normals[v], normals[k]) << k;
        EXPECT_EQ(part.tangents[v], tangents[k]) << k;
        split += normals[k] == packed(corners[k].normal) ? 0 : 1;
        ++k;
    };
    for (const Triangle& t : part.triangles)
        for (uint32_t v : {t.a, t.b, t.c}) check(v);
    for (const Tetragon& q : part.tetragons)
        for (uint32_t v : {q.a, q.b, q.c, q.d}) check(v);
    EXPECT_EQ(part.positions.size(), vertices.size());
    EXPECT_GT(split, 100u);   // most corners average several faces
}

// Threads resolve runs of welded positions, merged in order: the same arrays on any team.
TEST_F(Smoothing, ResultDoesNotDependOnTheTeamSize) {
    const uint32_t gentle = shaderWithAngle(60), sharp = shaderWithAngle(20), wide = shaderWithAngle(200);
    sameOnEveryTeam({2, 7}, [&] {
        Part part = foldedField(30, gentle, sharp, wide);
        smooth(part);
        return part;
    });
}

}  // namespace
