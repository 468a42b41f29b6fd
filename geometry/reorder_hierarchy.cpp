// The hit counters of the wide nodes, cleared before each frame, and the one
// reordering after the first frame: each node's slots are sorted by how often
// they held the blocking leaf per unit of cost, most promising first.
#include "core/registry.h"
#include "geometry/object.h"

namespace {

// Recursive from the root: sorts the slots of `n` and adds its expected cost
// to `cost`; `hits` is the node's total.
void reorderNode(WideNode* nodes, uint32_t n, uint32_t depth, float& cost, uint32_t& hits) {
    WideNode& node = nodes[n];
    float slotCost[8] = {}, probability[8] = {}, ratio[8] = {};
    uint32_t slotHits[8] = {};
    hits = 0;
    for (int i = 0; i < 8; ++i) {
        if (node.child[i] == kEmptySlot) continue;
        if (node.count[i] != 0) {
            slotCost[i] = float(node.count[i]);
            slotHits[i] = node.hits[i];
        } else {
            reorderNode(nodes, node.child[i], depth + 1, slotCost[i], slotHits[i]);
        }
    }
    for (int i = 0; i < 8; ++i) hits += slotHits[i];
    if (hits == 0) return;

    for (int i = 0; i < 8; ++i) {
        probability[i] = float(slotHits[i]) / float(hits);
        if (slotCost[i] > 0.0f) ratio[i] = probability[i] / slotCost[i];
    }
    // An insertion pass that always walks down to slot 1; empty slots do not
    // move on their own turn but can be passed by others.
    for (int i = 1; i < 8; ++i) {
        if (node.child[i] == kEmptySlot) continue;
        for (int j = i; j >= 1; --j) {
            if (!(ratio[j] > ratio[j - 1])) continue;
            std::swap(slotCost[j], slotCost[j - 1]);
            std::swap(probability[j], probability[j - 1]);
            std::swap(ratio[j], ratio[j - 1]);
            std::swap(node.child[j], node.child[j - 1]);
            std::swap(node.count[j], node.count[j - 1]);
            std::swap(node.hits[j], node.hits[j - 1]);
            for (int p = 0; p < 6; ++p) std::swap(node.planes(p)[j], node.planes(p)[j - 1]);
        }
    }
    // Expected cost, with 0.9 as the discount of one level.
    float survive = 1.0f;
    for (int i = 0; i < 8; ++i) {
        if (node.child[i] == kEmptySlot) continue;
        cost += survive * 0.9f * slotCost[i];
        survive *= 1.0f - probability[i];
    }
}

}  // namespace

void clearNodeHitCounters() {
    for (Object& object : registry.objects)
        for (WideNode& node : object.wideNodes)
            for (uint32_t& h : node.hits) h = 0;
}

void reorderHierarchies() {
    for (Object& object : registry.objects) {
        if (object.wideNodes.empty()) continue;
        float cost = 0.0f;
        uint32_t hits = 0;
        reorderNode(object.wideNodes.data(), 0, 0, cost, hits);
    }
}
