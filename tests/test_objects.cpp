// Objects, parts and instances through the exported family, the part checks
// and the object report.
#include <gtest/gtest.h>

#include "geometry/object.h"
#include "scene_fixture.h"

namespace {

using ObjectTest = SceneTest;

TEST(PackDirection, ScalesClampsAndKeepsZero) {
    // 0.6 and 0.8 times 128, truncated; 128 itself clamps to 127.
    const std::pair<Vector, PackedDirection> cases[] = {
        {{1, 0, 0}, {127, 0, 0}}, {{-1, 0, 0}, {-127, 0, 0}}, {zero, {0, 0, 0}}, {{0, 3, 4}, {0, 76, 102}}};
    for (const auto& [v, packed] : cases) EXPECT_EQ(packDirection(v.x, v.y, v.z), packed) << v.x << " " << v.y;
    const Vector v = unpackDirection(packDirection(0, 3, 4));
    EXPECT_TRUE(std::fabs(v.y - 0.6f) < 0.01f && std::fabs(v.z - 0.8f) < 0.01f) << v.y << " " << v.z;
    EXPECT_EQ(unpackDirection({0, 0, 0}), zero);
}

TEST_F(ObjectTest, AddsFollowTheirArgumentRules) {
    const int o = lvAddObject();
    const int p = lvAddPart(o);
    const float xyz[] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const int tri[] = {0, 1, 2};
    lvAddPositions(o, p, 3, xyz);
    lvAddTriangles(o, p, 0, tri);
    EXPECT_TRUE(registry.objects[0].parts[0].triangles.empty());
    lvSetShaderID(o, p, 5);
    lvAddTriangles(o, p, 1, tri);
    lvSetShaderID(o, p, 6);
    const int quad[] = {0, 1, 2, 0};
    lvAddTetragons(o, p, 1, quad);
    Part& filled = registry.objects[0].parts[0];
    EXPECT_EQ(filled.triangles[0].shader, 5u);
    EXPECT_EQ(filled.tetragons[0].shader, 6u);

    lvAddVertexData(o, p, "weights", 0, 1, nullptr);   // a count of 0 still makes the channel
    lvAddVertexData(o, p, "four", 3, 4, xyz);          // four components make nothing
    lvAddVertexData(o, p, "colour", 3, 3, xyz);
    EXPECT_EQ(filled.scalarChannels.size(), 2u);
    EXPECT_EQ(filled.scalarChannels[1].name, "weights");
    ASSERT_EQ(filled.vectorChannels.size(), 1u);
    EXPECT_EQ(filled.vectorChannels[0].elements[1], (Vector{1, 0, 0}));

    // Directions are normalised before they are packed; a zero vector stays zero.
    const float directions[] = {0, 0, 2, 0, 0, 0, 3, -3, 0};
    lvAddNormals(o, p, 3, directions);
    lvAddTangents(o, p, 3, directions);
    for (const auto* packed : {&filled.normals, &filled.tangents})
        EXPECT_EQ(*packed, (std::vector<PackedDirection>{{0, 0, 127}, {0, 0, 0}, {90, -90, 0}}));
}

TEST_F(ObjectTest, CheckPartReportsOnceAndGivesUndefinedFacesThePartShader) {
    Part part;
    part.positions.resize(10);
    part.normals.resize(9);
    part.tangents.resize(8);
    part.particles = {0};
    part.cylinders = {0};
    part.triangles = {{0, 1, 2, 0}};
    const std::string mixed = "error :( \tobject - mixed types (ex. cylinders and triangles in the same group) ";
    EXPECT_EQ(reportedLines([&] { checkPart(part); }),
              (std::vector<std::string>{mixed, kRule, "", mixed, kRule, "", mixed, kRule, "",
                                        "error :( \tobject - different size of per vertex data array", kRule, ""}));
    Part quiet;
    quiet.positions.resize(3);   // the empty radius and uv channels do not count
    EXPECT_TRUE(reportedLines([&] { checkPart(quiet); }).empty());

    // Faces of the undefined shader take the part's; once shader 0 has a
    // name of its own, they keep it.
    registry.shaders[0].name = "undefined";
    registry.shaders.push_back(Shader{});
    registry.shaders[1].name = "red";
    Part faces;
    faces.shader = 1;
    faces.triangles = {{0, 1, 2, 0}, {0, 1, 2, 1}};
    checkPart(faces);
    EXPECT_TRUE(faces.triangles[0].shader == 1u && faces.triangles[1].shader == 1u);

    registry.shaders[0].name = "named";
    faces.triangles = {{0, 1, 2, 0}};
    checkPart(faces);
    EXPECT_EQ(faces.triangles[0].shader, 0u);
}

}  // namespace
