// The binary build, its update into the eight-wide tree, and slot order.
#include <algorithm>
#include <functional>

#include "hierarchy_fixtures.h"

using namespace fixtures;

namespace {

using HierarchyBuild = HierarchyTest;

Part particlesAt(const std::vector<Vector>& centres, float radius) {
    Part part;
    part.positions = centres, part.scalarChannels[0].elements.assign(centres.size(), radius);
    for (uint32_t i = 0; i < centres.size(); ++i) part.particles.push_back(i);
    return part;
}

void quietBuild(Object& object) { ReportCapture quiet; buildHierarchy(object); }
void quietUpdate(Object& object) { ReportCapture quiet; updateHierarchy(object); }

TEST_F(HierarchyBuild, OneOrCoincidentCentresEndInOneLeafAndAFarOneIsSplitOffFirst) {
    // The binary tree is read before the update, which releases it.
    Object single = objectWith(particlesAt({{1, 2, 3}}, 0.5f));
    quietBuild(single);
    EXPECT_TRUE(single.bbvhNodes.size() == 1u && single.bbvhNodes[0].count == 1);
    prepareHierarchy(single);
    EXPECT_TRUE(single.bbvhNodes.empty() && single.bounds.min[0] == 0.5f && single.bounds.max[2] == 3.5f);
    expectHierarchyInvariants(single);

    std::vector<Vector> centres(1000, zero);
    centres.push_back({100, 0, 0});
    Object crowd = objectWith(particlesAt(centres, 0.5f));
    quietBuild(crowd);
    const BbvhNode& root = crowd.bbvhNodes[0];
    ASSERT_EQ(root.count, 0);
    EXPECT_TRUE(crowd.bbvhNodes[root.first].count == 1000 && crowd.bbvhNodes[root.first + 1].count == 1);
    prepareHierarchy(crowd);
    expectHierarchyInvariants(crowd);

    // Centroids on a line along x: the empty axes are skipped, and the
    // split goes on down to single references.
    centres.clear();
    for (int i = 0; i < 300; ++i) centres.push_back({float(i * 7 % 300), 0, 0});
    Object line = objectWith(particlesAt(centres, 0.25f));
    quietBuild(line);
    EXPECT_EQ(line.bbvhNodes.size(), 599u);
    prepareHierarchy(line);
    expectHierarchyInvariants(line);
}

// Large enough that nodes with leaf slots get record runs, which the
// invariants check against every leaf slot.
TEST_F(HierarchyBuild, MixedKindsAndPartsAreAllReachableLargestSlotsFirst) {
    Object object;
    object.parts = {triangleSoup(30000, 40, 1), triangleSoup(300, 10, 1, true), sphereCloud(300, 10, 0.5f),
                    hairStrands(40, 8, 10, 0.05f)};
    prepareHierarchy(object);
    expectHierarchyInvariants(object);
    EXPECT_GT(std::ranges::count_if(object.leafRuns, [](const LeafRun& run) { return run.lines > 0; }),
              std::ptrdiff_t(object.wideNodes.size() / 4));
    for (const WideNode& node : object.wideNodes)
        for (int s = 1; s < 8; ++s)
            EXPECT_TRUE(node.child[s] == kEmptySlot || halfArea(slotBox(node, s - 1)) >= halfArea(slotBox(node, s)));
}

// A binary tree given node by node (first, count), for the update alone.
using Node = std::pair<uint32_t, uint16_t>;
Object handTree(Part part, const std::vector<Node>& nodes) {
    Object object = objectWith(std::move(part));
    for (uint32_t i = 0; i < object.parts[0].triangles.size(); ++i) object.buildRefs.emplace_back(0u, kTriangle, i);
    object.bbvhNodes.resize(nodes.size());
    for (size_t n = 0; n < nodes.size(); ++n) object.bbvhNodes[n].first = nodes[n].first, object.bbvhNodes[n].count = nodes[n].second;
    return object;
}

TEST_F(HierarchyBuild, RandomTreesSurviveRotationsWithEveryPrimitiveInPlace) {
    // Random shapes over random triangles reach every rotation case; the update
    // must neither lose a primitive nor leave a box unrefit; the cost may only fall.
    for (int round = 0; round < 20; ++round) {
        const uint32_t leaves = 40 + uint32_t(round) * 7;
        std::vector<Node> nodes(1);
        // Node `index` over leaves `first` to `end` - 1, split at random.
        std::function<void(uint32_t, uint32_t, uint32_t)> grow = [&](uint32_t index, uint32_t first, uint32_t end) {
            if (end - first == 1) { nodes[index] = {first, 1}; return; }
            const uint32_t split = first + 1 + hardwareRandom() % (end - first - 1), child = uint32_t(nodes.size());
            nodes[index] = {child, 0}, nodes.resize(child + 2);
            grow(child + 1, split, end), grow(child, first, split);
        };
        grow(0, 0, leaves);
        Object object = handTree(triangleSoup(int(leaves), 20, 2), nodes);
        const Object unrotated = object;
        quietUpdate(object);
        expectHierarchyInvariants(object);

        double before = 0.0;
        std::function<Bbox(uint32_t)> refit = [&](uint32_t n) {
            const BbvhNode& node = unrotated.bbvhNodes[n];
            Bbox box = node.count ? Bbox{} : unionBox(refit(node.first), refit(node.first + 1));
            for (uint32_t i = node.first; i < node.first + node.count; ++i)
                growBox(box, referenceBox(unrotated, unrotated.buildRefs[i]));
            before += double(halfArea(box)) * std::max<int>(node.count, 1);
            return box;
        };
        refit(0);
        EXPECT_LE(object.sahCost, before * 1.000001);
    }
}

TEST_F(HierarchyBuild, LeafCountsStayWithinSixteenBitsAndNodesBelowDepth255AreReported) {
    // Points on the x axis have flat boxes, so every split costs 0 and the
    // first plane wins: each wave peels the lowest point off a chain whose
    // gaps shrink by 0.8, and the last wave forces the rest, 45 chain points
    // and a crowd at 0, into one leaf of 65536 references.
    std::vector<Vector> centres;
    float gap = 1.0f;
    for (int k = 0; k < 300; ++k, gap *= 0.8f) centres.push_back({-gap, 0, 0});
    centres.resize(centres.size() + 65536 - 45, Vector{0, 0, 0});
    Object object = objectWith(particlesAt(centres, 0.0f));
    quietBuild(object);
    const auto forced = std::ranges::find_if(object.bbvhNodes, [](const BbvhNode& n) { return n.count > 1; });
    ASSERT_NE(forced, object.bbvhNodes.end());
    EXPECT_EQ(forced->count, 0xFFFF);
    quietUpdate(object);
    EXPECT_EQ(object.primitiveRefs.size(), 65790u);

    // Equal triangles leave the update no cheaper shape, so the tree keeps the
    // shape given: a full tree of 64 leaves, and under its last leaf a chain of
    // 300 more, below where the passes split the tree among threads; 50 of its
    // levels, two nodes each, lie past depth 255: three walks report them twice.
    std::vector<Node> nodes(127);
    uint32_t leaf = 0;
    for (uint32_t n = 0; n < 126; ++n) nodes[n] = n < 63 ? Node{2 * n + 1, 0} : Node{leaf++, 1};
    for (uint32_t link = 126; leaf < 362; link = uint32_t(nodes.size()) - 1) {
        nodes[link] = {uint32_t(nodes.size()), 0};
        nodes.insert(nodes.end(), {{leaf++, 1}, {0, 0}});
    }
    nodes.back() = {leaf++, 1};
    Part equal;   // copies of one triangle
    equal.positions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 1}};
    equal.triangles.assign(leaf, {0, 1, 2, 0});
    Object deep = handTree(std::move(equal), nodes);
    ReportCapture capture;
    updateHierarchy(deep);
    EXPECT_EQ(std::ranges::count(capture.lines(), std::string("error :( \tbbvh - depth out of range")), 3 * 2 * 100);
    expectHierarchyInvariants(deep);
}

}  // namespace
