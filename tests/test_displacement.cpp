// Displacement: the curved patch, moves by constants, images and frames, passes
// in order, the warning without normals, the curve towards a sphere, instances.
#include <algorithm>
#include <map>
#include <set>
#include <tuple>

#include "core/images.h"
#include "core/records.h"
#include "geometry/load_time.h"
#include "geometry/prepare.h"
#include "geometry/traversal.h"
#include "load_time_meshes.h"
#include "scene_fixture.h"
#include "shading/hit_shading.h"

namespace {

using namespace meshes;

class Displacement : public SceneTest {
protected:
    // A new shader with a name of its own, so that faces keep it.
    static int named() {
        const int s = lvAddShader();
        lvSetShaderName(s, ("displacing " + std::to_string(s)).c_str());
        return s;
    }
    // A shader with the given smoothing angle and one displacement element
    // per entry of `elements`: (level, direction, vector).
    struct Element { int level; Vector direction, vector; };
    static uint32_t shaderWith(float angle, std::initializer_list<Element> elements) {
        const int s = named();
        lvSetShaderSmoothAngle(s, angle);
        for (const Element& e : elements) {
            const int d = lvAddDisplacementShader(s);
            lvSetDisplacementLevel(s, d, e.level);
            lvSetDisplacementVector(s, d, e.vector.x, e.vector.y, e.vector.z);
            registry.shaders[size_t(s)].geometry.vector[size_t(d)].direction = e.direction;
        }
        return uint32_t(s);
    }

    // Makes `parts` the parts of the root object, or of the target of
    // `instances` instances 10 apart along x, and prepares the scene.
    static void prepareScene(std::vector<Part> parts, int instances = 0) {
        Object object, root;
        object.name = "displaced", object.parts = std::move(parts), root.name = "root";
        for (int i = 0; i < instances; ++i) {
            Instance& in = root.instances.emplace_back();
            in.targetName = "displaced", in.toWorld[3] = 10.0f * float(i);
        }
        registry.objects.push_back(std::move(object));
        if (instances > 0) registry.objects.push_back(std::move(root));
        for (Shader& shader : registry.shaders) prepareShader(shader);
        quietly(prepareAccelerator);
    }

    static RayState rayFrom(Vector origin, Vector direction) {
        RayState ray = freshRay();
        ray.origin = origin, ray.direction = normalized(direction);
        return ray;
    }
};

TEST(Patch, FlatFaceGivesSquaredCountsFacingItsWayAndACurvedOneTheFloatsOfTheConstruction) {
    const Vector flat[3] = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}}, up[3] = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    std::vector<PatchPoint> points;
    std::vector<uint32_t> triangles;
    subdividePatch(flat, up, 4, points, triangles);
    ASSERT_TRUE(points.size() == 15u && triangles.size() == 3u * 16u);
    for (const PatchPoint& point : points) EXPECT_EQ(point.p.z, 0.0f);
    for (size_t k = 0; k < triangles.size(); k += 3) {
        const Vector a = points[triangles[k]].p, b = points[triangles[k + 1]].p, c = points[triangles[k + 2]].p;
        EXPECT_GT(cross(b - a, c - a).z, 0.0f) << k / 3;
    }
    subdividePatch(flat, up, 0, points, triangles);
    EXPECT_TRUE(points.empty() && triangles.empty());

    // A curved face point by point, one float operation after the other as the
    // construction defines it: the patch code, several points at once, must match.
    const Vector P[3] = {{0, 0, 0}, {1.5f, 0.2f, 0.1f}, {0.3f, 1.1f, -0.2f}};
    const Vector N[3] = {normalized({0.1f, -0.2f, 1}), normalized({0.4f, 0.1f, 1}), normalized({-0.3f, 0.5f, 1})};
    struct Edge { Vector p, n; };
    auto edge = [](float x, Vector Pa, Vector Na, Vector Pb, Vector Nb) {
        const float y = 1.0f - x;
        const Vector u = normalized(Na * x + Nb * y);
        const float d1 = dot(Pa - Pb, Na), d2 = dot(Pa - Pb, Nb);
        const float h = (-x * d1 + y * d2) * -x * y;
        const float slope = (1.0f + (3.0f * y - 4.0f) * y) * d1 + (3.0f * y - 2.0f) * y * d2;
        const Vector G = normalized(u * slope + (Nb - Na) * h + (Pb - Pa));
        return Edge{Pa * x + Pb * y + u * h, cross(G, cross(u, G))};
    };
    auto construction = [&](int c, float b, float q) {
        const int next = (c + 1) % 3, previous = (c + 2) % 3;
        const Edge X = edge(b, P[c], N[c], P[next], N[next]), Y = edge(b, P[c], N[c], P[previous], N[previous]);
        return edge(q, X.p, X.n, Y.p, Y.n).p;
    };
    auto snapped = [](float x) { return std::trunc(22403.0f * x) / 22403.0f; };
    auto blend = [](float x) { return x * x * (3.0f - 2.0f * x); };

    for (int n : {1, 3, 5}) {
        subdividePatch(P, N, n, points, triangles);
        ASSERT_EQ(points.size(), size_t(n + 1) * size_t(n + 2) / 2);
        size_t k = 0;
        for (int i = 0; i <= n; ++i)
            for (int j = 0; j <= i; ++j, ++k) {
                const float r = float(n - i) / float(n), e = 1.0f - r;
                const float t = i == 0 ? 0.0f : (j == 0 ? 1.0f : float(i - j) / float(i));
                const float b0 = snapped(r), b1 = snapped(e * t), b2 = snapped(e * (1.0f - t));
                const float f0 = blend(b0), f1 = blend(b1), f2 = blend(b2);
                const Vector E0 = construction(0, b0, b1 == 0.0f ? 0.0f : b1 / (b1 + b2));
                const Vector E1 = construction(1, b1, b2 == 0.0f ? 0.0f : b2 / (b0 + b2));
                const Vector E2 = construction(2, b2, b0 == 0.0f ? 0.0f : b0 / (b0 + b1));
                const Vector expected = (E0 * f0 + E1 * f1 + E2 * f2) / (f0 + f1 + f2);
                EXPECT_TRUE(points[k].b[0] == b0 && points[k].b[1] == b1 && points[k].b[2] == b2) << n << " " << k;
                EXPECT_TRUE(points[k].p == expected) << n << " " << k;
            }
    }
}

TEST_F(Displacement, FlatQuadMovesByExactlyTheVector) {
    // In the vertex's frame (tangent x, bitangent y, normal z).
    Part framed = grid(1, 1.0f, shaderWith(30, {{1, zero, {0.125f, 0.25f, 0.5f}}}));
    const std::vector<Vector> before = framed.positions;
    displace(framed);
    ASSERT_TRUE(framed.tetragons.empty() && framed.triangles.size() == 2u);
    for (const Triangle& t : framed.triangles)
        for (uint32_t v : {t.a, t.b, t.c})
            EXPECT_EQ(std::count(before.begin(), before.end(), framed.positions[v] - Vector{0.125f, -0.25f, 0.5f}), 1) << v;
}

TEST_F(Displacement, ImageDrivesTheMoveAndMidGreyKeepsThePlace) {
    ImageRecord image;
    SizeImage(image, 2, 1, 3, 32, false);
    StorePixel(image, 0, {1.0f, 1.0f, 1.0f});
    StorePixel(image, 1, {0.5f, 0.5f, 0.5f});
    image.loaded = 1;
    registry.textures.push_back(image);
    const uint32_t shader = shaderWith(30, {{2, {0, 0, 1}, {1, 1, 1}}});
    SurfaceElement& element = registry.shaders[shader].geometry.vector[0];
    element.imageIndex = int32_t(registry.textures.size()) - 1, element.sampler.pixel_sampler = kSamplerNearest;

    Part part = grid(4, 1.0f, shader);
    displace(part);
    const auto& uvs = part.uvChannels[0].elements;
    ASSERT_TRUE(part.triangles.size() == 4u * 16u * 2u && uvs.size() == part.positions.size());
    int moved = 0, still = 0;
    for (const Triangle& t : part.triangles)
        for (uint32_t v : {t.a, t.b, t.c}) {
            if (uvs[v].u >= 1.0f || uvs[v].v >= 1.0f) continue;   // the wrap takes the far edge back to texel 0
            const bool left = uvs[v].u < 0.5f;
            EXPECT_EQ(part.positions[v].z, left ? 0.5f : 0.0f) << uvs[v].u;
            (left ? moved : still) += 1;
        }
    EXPECT_TRUE(moved > 50 && still > 50) << moved << " " << still;
}

// Moves along a direction are scaled per channel by its length.
TEST_F(Displacement, PassesComposeInOrderAndShortListsPassThrough) {
    const uint32_t two = shaderWith(30, {{2, {0, 0, 2}, {0, 0, 0.125f}}, {3, {0, 0, 1}, {0, 0, 0.5f}}});
    const uint32_t one = shaderWith(30, {{2, {1, 0, 0}, {0.5f, 0, 0}}});
    const uint32_t none = shaderWith(30, {});
    Part part = grid(1, 1.0f, two);   // two triangles through both passes, after its four corners two more faces
    part.positions.insert(part.positions.end(), {{5, 0, 0}, {6, 0, 0}, {5, 1, 0}});
    part.triangles = {{4, 5, 6, one}, {4, 6, 5, none}};
    displace(part);

    std::map<uint32_t, size_t> faces;   // by shader
    for (const Triangle& t : part.triangles) {
        const Vector p = part.positions[t.a];
        ++faces[t.shader];
        if (t.shader == two) {   // 2 x 0.125 up in the first pass, 0.5 in the second, and no move across
            EXPECT_NEAR(p.z, 0.75f, 1e-6f);
            EXPECT_TRUE(p.x >= 0.0f && p.x <= 1.0f && p.y >= 0.0f && p.y <= 1.0f) << p.x << " " << p.y;
        }
        if (t.shader == one) { EXPECT_TRUE(p.z == 0.0f && p.x >= 5.5f) << p.x; }
        if (t.shader == none) { EXPECT_EQ(p, (Vector{5, 0, 0})); }
    }
    EXPECT_EQ(faces, (std::map<uint32_t, size_t>{{two, 2u * 4u * 9u}, {one, 4u}, {none, 1u}}));
}

// Each thread writes its run of faces straight into the part's arrays after
// the runs before it; channels that some corners lie beyond get values for the
// patches within them only. The arrays are the same on any team.
TEST_F(Displacement, ResultDoesNotDependOnTheTeamSize) {
    const uint32_t twoPasses = shaderWith(40, {{3, zero, {0.01f, -0.02f, 0.05f}}, {2, zero, {0, 0, 0.03f}}});
    const uint32_t directed = shaderWith(40, {{4, {1, 0.5f, 0.25f}, {0.1f, 0.2f, 0.3f}}});
    const Part one = sameOnEveryTeam({2, 3}, [&] {
        Part part = grid(9, 1.0f, twoPasses);
        for (size_t q = 0; q < part.tetragons.size(); q += 3) part.tetragons[q].shader = directed;
        for (size_t v = 0; v < part.positions.size() / 2; ++v) part.scalarChannels[0].elements.push_back(float(v));
        displace(part);
        return part;
    });
    const size_t scalars = one.scalarChannels[0].elements.size();
    EXPECT_TRUE(one.uvChannels[0].elements.size() == one.positions.size() && scalars > 0 && scalars < one.positions.size() / 2);
}

TEST_F(Displacement, WithoutNormalsItWarnsAndLeavesTheFacesAsTriangles) {
    Part part = grid(2, 1.0f, shaderWith(-1, {{4, zero, {0, 0, 1}}}));
    const std::vector<Vector> before = part.positions;
    const std::string warning = "warning :( \tmissing vertex normals for displacement mapping";
    const auto lines = reportedLines([&] { displace(part); });
    EXPECT_TRUE(std::ranges::count(lines, warning) == 2 && std::ranges::count(lines, kRule) == 1);
    EXPECT_TRUE(part.tetragons.empty() && part.triangles.size() == 8u);
    EXPECT_EQ(part.positions, before);

    // Given normals without tangents: one warning.
    Part normalsOnly = grid(1, 1.0f, shaderWith(-1, {{4, zero, {0, 0, 1}}}));
    normalsOnly.normals.assign(4, PackedDirection{0, 0, 127});
    EXPECT_EQ(std::ranges::count(reportedLines([&] { displace(normalsOnly); }), warning), 1);
}

TEST_F(Displacement, OctahedronAlongItsNormalsApproachesASphereSharedByInstances) {
    // Normals smoothed over the four faces at a corner point along the axes, the patches
    // curve towards the sphere, the move adds 1; the three instances hold no geometry.
    prepareScene({octahedron(1.0f, shaderWith(150, {{24, zero, {0, 0, 1}}}))}, 3);
    const Part& part = registry.objects[0].parts[0];
    EXPECT_TRUE(part.triangles.size() == 8u * 24u * 24u && registry.objects[1].parts.empty());
    // Patches meet without cracks: the points of a shared edge are the same
    // floats on both sides, so the surface has the positions of a closed one.
    std::set<std::tuple<float, float, float>> unique;
    for (Vector p : part.positions) unique.insert({p.x, p.y, p.z});
    EXPECT_EQ(unique.size(), 4u * 24u * 24u + 2u);

    float nearest = 1e9f, farthest = 0.0f;
    for (int r = 0; r < 2000; ++r) {
        const float z = 1.0f - 2.0f * (float(r) + 0.5f) / 2000.0f, phi = 2.39996323f * float(r) + 0.1f;
        const float s = std::sqrt(1.0f - z * z);
        RayState ray = rayFrom(zero, {s * std::cos(phi), s * std::sin(phi), z});
        ASSERT_TRUE(intersectClosest(ray)) << r;
        nearest = std::min(nearest, ray.t), farthest = std::max(farthest, ray.t);
    }
    // Radius 2 within 4 %; the octahedron itself ranges over 42 %.
    EXPECT_TRUE(nearest > 1.92f && farthest < 2.08f) << nearest << " " << farthest;
}

TEST_F(Displacement, SmoothedSphereShadesSmoothlyWithTheSameSilhouette) {
    // Two spheres of one mesh, one without normals (angle 0) and one smoothed.
    const int layered = named(), smoothShader = named();
    for (int s : {layered, smoothShader}) lvAddSurfaceShader(s);
    lvSetShaderSmoothAngle(layered, 0), lvSetShaderSmoothAngle(smoothShader, 60);
    Part faceted = sphere(24, 12, 1.0f, uint32_t(layered)), smoothed = faceted;
    for (Triangle& t : smoothed.triangles) t.shader = uint32_t(smoothShader);
    for (Vector& p : smoothed.positions) p.x += 3.0f;
    prepareScene({faceted, smoothed});

    float facetedError = 0.0f, smoothError = 0.0f;
    for (int r = 0; r < 400; ++r) {
        const Vector aim = {float(r % 20) * 0.11f - 1.0437f, float(r / 20) * 0.11f - 1.0291f, 0.0f};
        RayState left = rayFrom(aim + Vector{0, 0, 5}, {0, 0, -1}), right = rayFrom(aim + Vector{3, 0, 5}, {0, 0, -1});
        const bool hitLeft = intersectClosest(left), hitRight = intersectClosest(right);
        ASSERT_EQ(hitLeft, hitRight) << r;
        if (!hitLeft) continue;
        EXPECT_NEAR(left.t, right.t, 1e-5f);
        HitRecord a{}, b{};
        shadeHit(left, a), shadeHit(right, b);
        const Vector p = left.origin + left.direction * left.t;
        EXPECT_LT(angleDegrees(a.normal, a.geometric_normal), 0.05f);
        // Grazing hits keep the face normal so that reflections stay above the face.
        if (p.z < 0.5f) continue;
        facetedError = std::max(facetedError, angleDegrees(a.normal, p));
        smoothError = std::max(smoothError, angleDegrees(b.normal, p));
    }
    EXPECT_TRUE(facetedError > 5.0f && smoothError < 2.0f) << facetedError << " " << smoothError;
}

}  // namespace
