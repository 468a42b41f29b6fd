// Scene assembly: targets, the root object, levels, bottom-up preparation,
// the sampling tables and the strand parameters of hair parts.
#include <gtest/gtest.h>

#include <algorithm>

#include "geometry/prepare.h"
#include "geometry/surface_sampling.h"
#include "geometry/object.h"
#include "shading/shader.h"
#include "scene_fixture.h"

namespace {

class SceneAssemblyTest : public SceneTest {
protected:
    static int named(const char* name) {
        const int o = lvAddObject();
        lvSetObjectName(o, name);
        return o;
    }

    // An object with one part holding a unit square as two triangles in the z = 0 plane.
    static int addSquare(const char* name, int shader = 0, float offset = 0.0f) {
        const int o = named(name);
        const int p = lvAddPart(o);
        const float xyz[] = {offset, 0, 0, offset + 1, 0, 0, offset + 1, 1, 0, offset, 1, 0};
        const int tris[] = {0, 1, 2, 0, 2, 3};
        lvAddPositions(o, p, 4, xyz);
        lvSetShaderID(o, p, shader);
        lvAddTriangles(o, p, 2, tris);
        return o;
    }

    static void instance(int object, const char* target, float dx = 0.0f) {
        Instance in;
        in.targetName = target;
        in.toWorld[3] = dx;
        registry.objects[size_t(object)].instances.push_back(in);
    }

    static std::vector<std::string> assemble() { return reportedLines(lvInitializeAccelerator); }

    static bool contains(const std::vector<std::string>& lines, const std::string& text) {
        return std::any_of(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != std::string::npos; });
    }
};

TEST(SurfaceArea, TrianglesAndTetragons) {
    EXPECT_NEAR(tetragonArea({0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}), 1.0f, 1e-6f);
    EXPECT_NEAR(tetragonArea({0, 0, 0}, {2, 0, 0}, {2, 3, 0}, {0, 3, 0}), 6.0f, 1e-5f);
    EXPECT_NEAR(triangleArea({0, 0, 0}, {2, 0, 0}, {0, 3, 0}), 3.0f, 1e-5f);
    EXPECT_NEAR(triangleArea({0, 0, 0}, {1, 0, 0}, {2, 0, 0}), 0.25f * 1e-5f, 1e-9f);   // the guarded root
}

TEST_F(SceneAssemblyTest, TheLastUnreferencedObjectIsRootAndTakesTheOthers) {
    addSquare("a");
    addSquare("b", 0, 2.0f);
    addSquare("c", 0, 4.0f);
    const auto lines = assemble();
    EXPECT_EQ(registry.rootObject, 2);
    EXPECT_TRUE(contains(lines, "object - c is treated as the root object"));
    const Object& root = registry.objects[2];
    ASSERT_EQ(root.instances.size(), 2u);
    EXPECT_EQ((std::pair{root.instances[0].target, root.instances[1].target}), (std::pair{0u, 1u}));
    EXPECT_EQ(root.instances[1].toWorld[3], 0.0f);
    EXPECT_EQ((std::pair{registry.sceneMin.x, registry.sceneMax.x}), (std::pair{0.0f, 5.0f}));
    EXPECT_NEAR(registry.sceneRadius, 0.5f * std::sqrt(26.0f), 1e-5f);
    EXPECT_TRUE(contains(lines, "scene size             5.0000           1.0000           0.0000 [ m ]"));
}

TEST_F(SceneAssemblyTest, TargetsArePreparedBeforeTheirInstancesAndBoundsNest) {
    const int a = addSquare("A");
    const int b = named("B");
    instance(b, "A", 10.0f);
    const int root = named("root");
    instance(root, "B", 5.0f);
    const auto lines = assemble();
    EXPECT_EQ(registry.rootObject, root);
    EXPECT_EQ((std::pair{registry.objects[size_t(a)].level, registry.objects[size_t(b)].level}), (std::pair{2u, 1u}));
    EXPECT_EQ((std::pair{registry.sceneMin.x, registry.sceneMax.x}), (std::pair{15.0f, 16.0f}));
    // A's hierarchy is built before B's, B's before the root's.
    std::vector<std::string> order;
    for (const auto& line : lines)
        if (line.rfind("bbvh construction for ", 0) == 0) order.push_back(line.substr(22, line.find(' ', 22) - 22));
    EXPECT_EQ(order, (std::vector<std::string>{"A", "B", "root"}));
}

TEST_F(SceneAssemblyTest, UnresolvedTargetsAndCyclesEndCleanly) {
    const int a = named("a");
    const int b = named("b");
    instance(a, "b");
    instance(b, "a");
    instance(b, "nobody");
    const auto lines = assemble();
    EXPECT_TRUE(contains(lines, "error :( \tobject - there is no root object"));
    EXPECT_TRUE(contains(lines, "error :( \tobject - instance cycle from b to a"));
    for (const Object& object : registry.objects)
        for (const Instance& in : object.instances) EXPECT_LT(in.target, registry.objects.size());
}

TEST_F(SceneAssemblyTest, SamplingTablesFollowTheEmittingSides) {
    const int front = FindShader("front");
    const int both = FindShader("both");
    registry.shaders[size_t(front)].emits[kFaceSide] = true;
    registry.shaders[size_t(both)].emits[kFaceSide] = true;
    registry.shaders[size_t(both)].emits[kBackSide] = true;
    registry.shaders[size_t(both)].hasVirtualLight[kFaceSide] = true;

    const int lamp = addSquare("lamp", front);
    const int panel = addSquare("panel", both);
    // A root with two parts and one instance of the lamp: the instance is listed once per part.
    const int root = addSquare("root", 0);
    lvAddPart(root);
    instance(root, "lamp");
    instance(root, "panel");
    assemble();

    const Object &l = registry.objects[size_t(lamp)], &p = registry.objects[size_t(panel)],
                 &r = registry.objects[size_t(root)];
    // The panel lists both sides of two triangles; the root its two instances, twice.
    EXPECT_EQ((std::vector<size_t>{l.lightTable.size(), l.photonTable.size(), p.lightTable.size(),
                                   p.photonTable.size(), r.lightTable.size()}),
              (std::vector<size_t>{2, 0, 4, 2, 4}));
    EXPECT_EQ(l.lightTable[0].front, 1);
    EXPECT_EQ((std::vector<float>{l.lightArea, p.lightArea, r.lightArea}), (std::vector<float>{1.0f, 2.0f, 6.0f}));

    // Strata of the root's light table end on faces of the lamp or the panel.
    for (int i = 0; i < 16; ++i) {
        const SurfaceTableEntry& row = drawLightSurface(r, i, 16);
        EXPECT_TRUE(row.kind == kTriangle && (row.part == &l.parts[0] || row.part == &p.parts[0])) << i;
    }
    // The last stratum lies in the last instance's target.
    EXPECT_EQ(drawLightSurface(r, 15, 16).part, &p.parts[0]);
}

TEST_F(SceneAssemblyTest, StrandParametersAndTangents) {
    const int o = lvAddObject();
    const int p = lvAddPart(o);
    const float xyz[] = {0, 0, 0, 0, 0, 1, 0, 0, 2, 0, 0, 3, 0, 0, 4};
    const int segments[] = {0, 1, 2, 3};
    lvAddPositions(o, p, 5, xyz);
    lvAddCylinders(o, p, 4, segments);
    Part& part = registry.objects[size_t(o)].parts[size_t(p)];
    quietly([&] { preparePart(part); });
    const auto& parameter = part.scalarChannels.back();
    ASSERT_EQ(parameter.name, "parameter");
    for (size_t i = 0; i < 5; ++i) EXPECT_NEAR(parameter.elements[i], 0.2f * float(i), 1e-6f);
    const PackedDirection up{0, 0, 127};   // a strand's last point has no tangent
    EXPECT_EQ(part.tangents, (std::vector<PackedDirection>{up, up, up, up, {0, 0, 0}}));
    EXPECT_EQ(registry.shaders[0].hair, 1);
}

}  // namespace
