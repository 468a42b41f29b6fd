// From the builder's bare binary tree to the tree that rays walk: boxes
// bottom up, local rotations that lower the surface area cost, subtree sizes,
// and the collapse into eight-wide nodes.
#include <algorithm>
#include <array>
#include <cmath>

#include <omp.h>

#include "core/registry.h"
#include "core/report.h"
#include "geometry/object.h"

namespace {

constexpr int kDepths = 256;
constexpr uint32_t kLeafLimit = 0xFFFFu;

bool isLeaf(const BbvhNode& node) { return node.count > 0; }

// A level of the tree with this many nodes is where the passes hand whole
// subtrees to threads.
uint32_t parallelLevelSize() { return uint32_t(16 * std::max(1, omp_get_max_threads())); }

void reportDepthOutOfRange(uint64_t nodes) {
    for (uint64_t i = 0; i < nodes; ++i) {
        reportError("bbvh - depth out of range");
        reportRule();
    }
}

// nodesPerDepth for every depth, and nodesFilled and nodesAtDepth for the
// levels that the passes walk one by one: from the root down to the first
// level of parallelLevelSize() nodes, the cut. Below the cut the passes walk
// whole subtrees and need only the counts, which threads gather subtree by
// subtree. Nodes below depth 255 have no place in the lists; each prints the
// error once for counting and once for filling, as two walks would.
void makeDepthLists(Object& object) {
    std::fill(std::begin(object.nodesPerDepth), std::end(object.nodesPerDepth), 0u);
    std::fill(std::begin(object.nodesFilled), std::end(object.nodesFilled), 0u);
    for (auto& list : object.nodesAtDepth) list.clear();
    const BbvhNodes& nodes = object.bbvhNodes;
    uint64_t outOfRange = 0;

    std::vector<uint32_t> level{0}, next;
    uint32_t depth = 0;
    for (; !level.empty(); ++depth) {
        if (depth < uint32_t(kDepths)) {
            object.nodesPerDepth[depth] = object.nodesFilled[depth] = uint32_t(level.size());
            object.nodesAtDepth[depth] = level;
        } else {
            outOfRange += level.size();
        }
        if (level.size() >= parallelLevelSize()) break;
        next.clear();
        for (uint32_t n : level)
            if (!isLeaf(nodes[n])) next.insert(next.end(), {nodes[n].first, nodes[n].first + 1});
        level.swap(next);
    }

    if (!level.empty()) {
        // Below the cut: depth counts per thread, summed.
        struct Visit {
            uint32_t node, depth;
        };
        const int threads = omp_get_max_threads();
        std::vector<std::array<uint32_t, kDepths>> counts(size_t(threads), std::array<uint32_t, kDepths>{});
        std::vector<uint64_t> deep(size_t(threads), 0);
        const long long roots = (long long)level.size();
#pragma omp parallel
        {
            const size_t t = size_t(omp_get_thread_num());
            std::vector<Visit> stack;
#pragma omp for schedule(dynamic, 1)
            for (long long i = 0; i < roots; ++i) {
                const BbvhNode& root = nodes[level[size_t(i)]];
                if (!isLeaf(root)) stack.insert(stack.end(), {{root.first + 1, depth + 1}, {root.first, depth + 1}});
                while (!stack.empty()) {
                    const Visit v = stack.back();
                    stack.pop_back();
                    if (v.depth < uint32_t(kDepths)) ++counts[t][v.depth];
                    else ++deep[t];
                    const BbvhNode& node = nodes[v.node];
                    if (!isLeaf(node))
                        stack.insert(stack.end(), {{node.first + 1, v.depth + 1}, {node.first, v.depth + 1}});
                }
            }
        }
        for (int t = 0; t < threads; ++t) {
            for (int d = 0; d < kDepths; ++d) object.nodesPerDepth[d] += counts[size_t(t)][size_t(d)];
            outOfRange += deep[size_t(t)];
        }
    }
    reportDepthOutOfRange(2 * outOfRange);
}

// Children before parents. A pass works on the tree as the depth lists saw
// it, deepest level first; since the work on a node touches only its own
// subtree, whole subtrees below the cut can go to threads of their own, each
// in post order, and the levels above the cut follow one by one. This keeps
// the order of the level loop with one team instead of one per level.
template <typename Work>
void postOrder(const BbvhNodes& nodes, uint32_t n, uint32_t depth, Work& work) {
    if (depth >= kDepths) return;
    const BbvhNode node = nodes[n];
    if (!isLeaf(node)) {
        postOrder(nodes, node.first, depth + 1, work);
        postOrder(nodes, node.first + 1, depth + 1, work);
    }
    work(n);
}

template <typename Work>
void bottomUp(Object& object, Work work) {
    int cut = kDepths;
    for (int d = 0; d < kDepths; ++d)
        if (object.nodesPerDepth[d] >= parallelLevelSize()) {
            cut = d;
            break;
        }
    if (cut < kDepths) {
        const std::vector<uint32_t>& roots = object.nodesAtDepth[cut];
        const long long n = (long long)roots.size();
#pragma omp parallel for schedule(dynamic, 1)
        for (long long i = 0; i < n; ++i) postOrder(object.bbvhNodes, roots[size_t(i)], uint32_t(cut), work);
    }
    for (int d = std::min(cut, kDepths) - 1; d >= 0; --d)
        for (uint32_t n : object.nodesAtDepth[d]) work(n);
}

void refitNode(Object& object, uint32_t n) {
    BbvhNodes& nodes = object.bbvhNodes;
    BbvhNode& node = nodes[n];
    node.bounds = Bbox{};
    if (!isLeaf(node)) {
        const BbvhNode& l = nodes[node.first];
        const BbvhNode& r = nodes[node.first + 1];
        node.bounds = unionBox(l.bounds, r.bounds);
        node.cost = halfArea(node.bounds) + l.cost + r.cost;
    } else if (object.buildBoxes.size() == object.buildRefs.size()) {
        // The builder's boxes of the same references, in the same order; min
        // and max keep the box's own plane on a tie or a NaN, as growBox does.
        __m128 low = _mm_setr_ps(kInfinity, kInfinity, kInfinity, 0.0f);
        __m128 high = _mm_setr_ps(-kInfinity, -kInfinity, -kInfinity, 0.0f);
        for (uint32_t i = node.first; i < node.first + node.count; ++i) {
            low = _mm_min_ps(object.buildBoxes[i].min, low);
            high = _mm_max_ps(object.buildBoxes[i].max, high);
        }
        alignas(16) float l[4], h[4];
        _mm_store_ps(l, low);
        _mm_store_ps(h, high);
        for (int k = 0; k < 3; ++k) node.bounds.min[k] = l[k], node.bounds.max[k] = h[k];
        node.cost = halfArea(node.bounds) * float(node.count);
    } else {
        for (uint32_t i = node.first; i < node.first + node.count; ++i)
            growBox(node.bounds, referenceBox(object, object.buildRefs[i]));
        node.cost = halfArea(node.bounds) * float(node.count);
    }
}

void setInnerCost(BbvhNodes& nodes, uint32_t n) {
    BbvhNode& node = nodes[n];
    node.cost = halfArea(node.bounds) + nodes[node.first].cost + nodes[node.first + 1].cost;
}

// An inner node with one leaf child and one inner child: the leaf may trade
// places with either grandchild. `leafSlot` and `innerSlot` are the children.
void rotateOneSide(BbvhNodes& nodes, uint32_t n, uint32_t leafSlot, uint32_t innerSlot) {
    const uint32_t g0 = nodes[innerSlot].first, g1 = g0 + 1;
    const BbvhNode& leaf = nodes[leafSlot];
    const BbvhNode& a = nodes[g0];
    const BbvhNode& b = nodes[g1];
    const Bbox stay0 = unionBox(b.bounds, leaf.bounds);   // leaf trades with a
    const Bbox stay1 = unionBox(a.bounds, leaf.bounds);   // leaf trades with b
    const float base = halfArea(unionBox(stay1, b.bounds)) + a.cost + b.cost + leaf.cost;
    const float cost0 = base + halfArea(stay0);
    const float cost1 = base + halfArea(stay1);
    float best = nodes[n].cost;
    int choice = -1;
    if (cost0 < best) best = cost0, choice = 0;
    if (cost1 < best) best = cost1, choice = 1;
    if (choice < 0) return;
    const uint32_t other = choice == 0 ? g0 : g1;
    const Bbox stays = choice == 0 ? stay0 : stay1;
    std::swap(nodes[leafSlot], nodes[other]);
    nodes[innerSlot].bounds = stays;
    setInnerCost(nodes, innerSlot);
}

// Both children inner: the four grandchildren a, b, c, d are rearranged into
// the cheapest of fourteen other shapes, if one beats the node's cost.
void rotateBothSides(BbvhNodes& nodes, uint32_t n) {
    const uint32_t l = nodes[n].first, r = l + 1;
    const uint32_t g0 = nodes[l].first, g1 = nodes[r].first;
    const BbvhNode sub[4] = {nodes[g0], nodes[g0 + 1], nodes[g1], nodes[g1 + 1]};
    // Boxes and half areas of every union of the four, by bit mask.
    Bbox box[16];
    float half[16];
    for (int m = 1; m < 16; ++m) {
        const int low = m & -m;
        box[m] = low == m ? sub[__builtin_ctz(unsigned(m))].bounds : unionBox(box[m - low], box[low]);
        half[m] = halfArea(box[m]);
    }
    const float k = half[15] + sub[0].cost + sub[1].cost + sub[2].cost + sub[3].cost;

    // Shapes 1 and 2 are (x y)(z w); the others are x (y (z w)).
    struct Shape {
        int x, y, z, w;
        bool pairs;
    };
    static constexpr Shape shapes[14] = {
        {0, 2, 1, 3, true},  {0, 3, 1, 2, true},  {0, 1, 2, 3, false}, {0, 2, 1, 3, false}, {0, 3, 1, 2, false},
        {1, 0, 2, 3, false}, {1, 2, 0, 3, false}, {1, 3, 0, 2, false}, {2, 0, 1, 3, false}, {2, 1, 0, 3, false},
        {2, 3, 0, 1, false}, {3, 0, 1, 2, false}, {3, 1, 0, 2, false}, {3, 2, 0, 1, false},
    };
    float best = nodes[n].cost;
    int choice = -1;
    for (int s = 0; s < 14; ++s) {
        const Shape& shape = shapes[s];
        const int zw = (1 << shape.z) | (1 << shape.w);
        const int second = shape.pairs ? (1 << shape.x) | (1 << shape.y) : zw | (1 << shape.y);
        const float cost = k + half[zw] + half[second];
        if (cost < best) best = cost, choice = s;
    }
    if (choice < 0) return;

    // Whole records move, so that subtrees go with their nodes and every
    // node keeps its two children side by side.
    const Shape& shape = shapes[choice];
    const int zw = (1 << shape.z) | (1 << shape.w);
    BbvhNode inner1, inner2;
    inner1.count = inner2.count = 0;
    if (shape.pairs) {
        inner1.bounds = box[(1 << shape.x) | (1 << shape.y)];
        inner1.first = g0;
        inner2.bounds = box[zw];
        inner2.first = g1;
        nodes[g0] = sub[shape.x];
        nodes[g0 + 1] = sub[shape.y];
        nodes[g1] = sub[shape.z];
        nodes[g1 + 1] = sub[shape.w];
        nodes[l] = inner1;
        nodes[r] = inner2;
        setInnerCost(nodes, l);
        setInnerCost(nodes, r);
    } else {
        inner1.bounds = box[zw | (1 << shape.y)];   // (y (z w)), child of n
        inner1.first = g0;
        inner2.bounds = box[zw];                    // (z w), below it
        inner2.first = g1;
        nodes[g1] = sub[shape.z];
        nodes[g1 + 1] = sub[shape.w];
        nodes[g0] = sub[shape.y];
        nodes[g0 + 1] = inner2;
        nodes[l] = sub[shape.x];
        nodes[r] = inner1;
        setInnerCost(nodes, g0 + 1);
        setInnerCost(nodes, r);
    }
}

void rotateNode(Object& object, uint32_t n) {
    BbvhNodes& nodes = object.bbvhNodes;
    if (isLeaf(nodes[n])) return;
    const uint32_t l = nodes[n].first, r = l + 1;
    const bool leftLeaf = isLeaf(nodes[l]), rightLeaf = isLeaf(nodes[r]);
    if (leftLeaf && rightLeaf) {
        refitNode(object, n);
        return;
    }
    if (!leftLeaf && rightLeaf)
        rotateOneSide(nodes, n, r, l);
    else if (leftLeaf && !rightLeaf)
        rotateOneSide(nodes, n, l, r);
    else
        rotateBothSides(nodes, n);
    refitNode(object, n);
}

// Where the collapse writes next: the next wide node, the next leaf
// reference, and the deepest wide level reached.
struct CollapseCursor {
    uint32_t wide = 0, ref = 0, depth = 0;
};

// All references below a binary node, left child first, written at the
// cursor; without `object.primitiveRefs` room, only counted.
void appendSubtreeRefs(Object& object, uint32_t n, CollapseCursor& cursor, bool write) {
    const BbvhNode& node = object.bbvhNodes[n];
    if (isLeaf(node)) {
        if (write)
            std::copy(object.buildRefs.begin() + node.first, object.buildRefs.begin() + node.first + node.count,
                      object.primitiveRefs.begin() + cursor.ref);
        cursor.ref += node.count;
        return;
    }
    appendSubtreeRefs(object, node.first, cursor, write);
    appendSubtreeRefs(object, node.first + 1, cursor, write);
}

void setSlotBox(WideNode& wide, int slot, const Bbox& box) {
    for (int k = 0; k < 3; ++k) {
        wide.planes(k)[slot] = box.min[k];
        wide.planes(k + 3)[slot] = box.max[k];
    }
}

// The entries of the wide node made from binary node b: the inner entry of
// largest half area is opened until there are eight. Each entry's half area
// is computed once, when it joins the list; leaves carry -1, below every area.
int openNode(const BbvhNodes& nodes, uint32_t b, uint32_t list[8]) {
    float area[8];
    auto areaOf = [&nodes](uint32_t n) { return isLeaf(nodes[n]) ? -1.0f : halfArea(nodes[n].bounds); };
    list[0] = b;
    area[0] = areaOf(b);
    int size = 1;
    while (size < 8) {
        int pick = -1;
        float largest = 0.0f;
        for (int i = 0; i < size; ++i) {
            if (area[i] < 0.0f) continue;
            if (pick < 0 || area[i] > largest) pick = i, largest = area[i];
        }
        if (pick < 0) break;
        const uint32_t first = nodes[list[pick]].first;
        list[pick] = first;
        area[pick] = areaOf(first);
        list[size] = first + 1;
        area[size++] = areaOf(first + 1);
    }
    return size;
}

// A subtree cheaper as one plain leaf becomes one, if its count fits.
bool becomesLeaf(const BbvhNode& entry) {
    const uint32_t s = entry.subtree;
    return (entry.cost > float(s) * halfArea(entry.bounds) || s < 2) && s <= kLeafLimit;
}

// The wide subtrees that start `cut` levels down are written by threads of
// their own. A first walk over the levels above lists their binary roots in
// the order the collapse meets them; each is then counted, so that its wide
// nodes and references get their place in the arrays before any is written.
struct CollapseCut {
    uint32_t depth = 0;
    std::vector<uint32_t> roots;
    std::vector<CollapseCursor> sizes;   // wide nodes and references of each subtree
    std::vector<CollapseCursor> starts;  // where each subtree's writing starts
};

// Makes wide node w from binary node b at `depth`, and the wide nodes below
// it in preorder, at the cursor. Without room in the arrays (`write` false)
// it only counts. With a cut, the entries that reach its depth are listed,
// or, when their sizes are known, given their room and left to the threads.
void collapseNode(Object& object, uint32_t b, uint32_t w, uint32_t depth, CollapseCursor& cursor, bool write,
                  CollapseCut* cut) {
    if (depth > cursor.depth) cursor.depth = depth;
    const BbvhNodes& nodes = object.bbvhNodes;
    uint32_t list[8];
    const int size = openNode(nodes, b, list);
    for (int i = 0; i < size; ++i) {
        const BbvhNode entry = nodes[list[i]];
        const uint32_t at = cursor.ref;
        uint32_t child = at;
        uint16_t count = 0;
        if (isLeaf(entry) || becomesLeaf(entry)) {
            appendSubtreeRefs(object, list[i], cursor, write);
            count = uint16_t(cursor.ref - at);
        } else {
            child = cursor.wide++;
            if (write) object.wideNodes[child] = emptyWideNode();
            if (cut && depth + 1 == cut->depth) {
                if (cut->sizes.empty()) {
                    cut->roots.push_back(list[i]);
                } else {
                    const size_t k = cut->starts.size();
                    cut->starts.push_back({child, at, depth + 1});
                    cursor.wide += cut->sizes[k].wide - 1;
                    cursor.ref += cut->sizes[k].ref;
                    cursor.depth = std::max(cursor.depth, cut->sizes[k].depth);
                }
            } else {
                collapseNode(object, list[i], child, depth + 1, cursor, write, cut);
            }
        }
        if (!write) continue;
        WideNode& node = object.wideNodes[w];
        setSlotBox(node, i, entry.bounds);
        node.child[i] = child;
        node.count[i] = count;
    }
}

// The eight-wide tree, written as one walk from the root would write it: the
// levels above the cut on this thread, the subtrees below it on all threads.
void collapseTree(Object& object) {
    constexpr uint32_t kCutDepth = 3;
    CollapseCut cut{kCutDepth, {}, {}, {}};
    CollapseCursor top{1, 0, 0};
    collapseNode(object, 0, 0, 0, top, false, &cut);

    const long long roots = (long long)cut.roots.size();
    const bool parallel = roots > 1 && object.buildRefs.size() >= 4096;
    cut.sizes.resize(cut.roots.size());
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
    for (long long k = 0; k < roots; ++k) {
        CollapseCursor& size = cut.sizes[size_t(k)];
        size = {1, 0, kCutDepth};
        collapseNode(object, cut.roots[size_t(k)], 0, kCutDepth, size, false, nullptr);
    }
    CollapseCursor total = top;
    for (const CollapseCursor& size : cut.sizes)
        total.wide += size.wide - 1, total.ref += size.ref, total.depth = std::max(total.depth, size.depth);

    resizeOnAllThreads(object.wideNodes, total.wide);
    object.wideNodes[0] = emptyWideNode();
    object.primitiveRefs.resize(total.ref);
    CollapseCursor cursor{1, 0, 0};
    collapseNode(object, 0, 0, 0, cursor, true, &cut);
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
    for (long long k = 0; k < roots; ++k) {
        const CollapseCursor& start = cut.starts[size_t(k)];
        CollapseCursor below{start.wide + 1, start.ref, start.depth};
        collapseNode(object, cut.roots[size_t(k)], start.wide, start.depth, below, true, nullptr);
    }
    object.maxWideDepth = total.depth;
}

float slotHalfArea(const WideNode& node, int slot) {
    Bbox box;
    for (int k = 0; k < 3; ++k) {
        box.min[k] = node.planes(k)[slot];
        box.max[k] = node.planes(k + 3)[slot];
    }
    return halfArea(box);
}

// Slot i of the node takes what slot order[i] held: six planes, `child`,
// `count` and `hits`.
void placeSlots(WideNode& node, const int order[8]) {
    const WideNode old = node;
    for (int i = 0; i < 8; ++i) {
        for (int p = 0; p < 6; ++p) node.planes(p)[i] = old.planes(p)[order[i]];
        node.child[i] = old.child[order[i]];
        node.count[i] = old.count[order[i]];
        node.hits[i] = old.hits[order[i]];
    }
}

}  // namespace

WideNode emptyWideNode() {
    WideNode node;
    for (int i = 0; i < 8; ++i) {
        for (int k = 0; k < 3; ++k) {
            node.planes(k)[i] = kInfinity;
            node.planes(k + 3)[i] = -kInfinity;
        }
        node.child[i] = kEmptySlot;
        node.count[i] = 0;
        node.hits[i] = 0;
    }
    return node;
}

void computeInstanceMatrices(Instance& instance) {
    // The inverse by cofactors, for any invertible 4x4 matrix. It stays
    // written out here: in this function the compiler pairs some of its
    // products and sums into fused add-subtract instructions, even with
    // -ffp-contract=off, and the placements of rotated instances depend on
    // those bits; the same lines compiled anywhere else round differently.
    const float* m = instance.toWorld;
    float inv[16];
    inv[0] = m[5] * m[10] * m[15] - m[5] * m[11] * m[14] - m[9] * m[6] * m[15] + m[9] * m[7] * m[14] +
             m[13] * m[6] * m[11] - m[13] * m[7] * m[10];
    inv[4] = -m[4] * m[10] * m[15] + m[4] * m[11] * m[14] + m[8] * m[6] * m[15] - m[8] * m[7] * m[14] -
             m[12] * m[6] * m[11] + m[12] * m[7] * m[10];
    inv[8] = m[4] * m[9] * m[15] - m[4] * m[11] * m[13] - m[8] * m[5] * m[15] + m[8] * m[7] * m[13] +
             m[12] * m[5] * m[11] - m[12] * m[7] * m[9];
    inv[12] = -m[4] * m[9] * m[14] + m[4] * m[10] * m[13] + m[8] * m[5] * m[14] - m[8] * m[6] * m[13] -
              m[12] * m[5] * m[10] + m[12] * m[6] * m[9];
    inv[1] = -m[1] * m[10] * m[15] + m[1] * m[11] * m[14] + m[9] * m[2] * m[15] - m[9] * m[3] * m[14] -
             m[13] * m[2] * m[11] + m[13] * m[3] * m[10];
    inv[5] = m[0] * m[10] * m[15] - m[0] * m[11] * m[14] - m[8] * m[2] * m[15] + m[8] * m[3] * m[14] +
             m[12] * m[2] * m[11] - m[12] * m[3] * m[10];
    inv[9] = -m[0] * m[9] * m[15] + m[0] * m[11] * m[13] + m[8] * m[1] * m[15] - m[8] * m[3] * m[13] -
             m[12] * m[1] * m[11] + m[12] * m[3] * m[9];
    inv[13] = m[0] * m[9] * m[14] - m[0] * m[10] * m[13] - m[8] * m[1] * m[14] + m[8] * m[2] * m[13] +
              m[12] * m[1] * m[10] - m[12] * m[2] * m[9];
    inv[2] = m[1] * m[6] * m[15] - m[1] * m[7] * m[14] - m[5] * m[2] * m[15] + m[5] * m[3] * m[14] +
             m[13] * m[2] * m[7] - m[13] * m[3] * m[6];
    inv[6] = -m[0] * m[6] * m[15] + m[0] * m[7] * m[14] + m[4] * m[2] * m[15] - m[4] * m[3] * m[14] -
             m[12] * m[2] * m[7] + m[12] * m[3] * m[6];
    inv[10] = m[0] * m[5] * m[15] - m[0] * m[7] * m[13] - m[4] * m[1] * m[15] + m[4] * m[3] * m[13] +
              m[12] * m[1] * m[7] - m[12] * m[3] * m[5];
    inv[14] = -m[0] * m[5] * m[14] + m[0] * m[6] * m[13] + m[4] * m[1] * m[14] - m[4] * m[2] * m[13] -
              m[12] * m[1] * m[6] + m[12] * m[2] * m[5];
    inv[3] = -m[1] * m[6] * m[11] + m[1] * m[7] * m[10] + m[5] * m[2] * m[11] - m[5] * m[3] * m[10] -
             m[9] * m[2] * m[7] + m[9] * m[3] * m[6];
    inv[7] = m[0] * m[6] * m[11] - m[0] * m[7] * m[10] - m[4] * m[2] * m[11] + m[4] * m[3] * m[10] +
             m[8] * m[2] * m[7] - m[8] * m[3] * m[6];
    inv[11] = -m[0] * m[5] * m[11] + m[0] * m[7] * m[9] + m[4] * m[1] * m[11] - m[4] * m[3] * m[9] -
              m[8] * m[1] * m[7] + m[8] * m[3] * m[5];
    inv[15] = m[0] * m[5] * m[10] - m[0] * m[6] * m[9] - m[4] * m[1] * m[10] + m[4] * m[2] * m[9] +
              m[8] * m[1] * m[6] - m[8] * m[2] * m[5];
    const float det = m[0] * inv[0] + m[1] * inv[4] + m[2] * inv[8] + m[3] * inv[12];
    // A singular matrix keeps the inverse it had.
    if (det != 0.0f && std::isfinite(det)) {
        const float scale = 1.0f / det;
        for (int i = 0; i < 16; ++i) instance.toLocal[i] = inv[i] * scale;
    }
    const float* l = instance.toLocal;
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) {
            instance.directionMatrix[3 * r + c] = l[4 * r + c];
            instance.normalMatrix[3 * r + c] = l[4 * c + r];
        }
}

Bbox transformedBox(const float m[16], const Bbox& box) {
    Bbox result;
    for (int corner = 0; corner < 8; ++corner) {
        const Vector p = transformPoint(m, {(corner & 1) ? box.max[0] : box.min[0],
                                            (corner & 2) ? box.max[1] : box.min[1],
                                            (corner & 4) ? box.max[2] : box.min[2]});
        const float q[3] = {p.x, p.y, p.z};
        for (int k = 0; k < 3; ++k) {
            result.min[k] = q[k] < result.min[k] ? q[k] : result.min[k];
            result.max[k] = q[k] > result.max[k] ? q[k] : result.max[k];
        }
    }
    return result;
}

void updateHierarchy(Object& object) {
    release(object.primitiveRefs);
    release(object.leafRecords);
    release(object.leafRuns);
    release(object.wideNodes);
    object.maxWideDepth = 0;
    if (object.bbvhNodes.empty()) {
        // An empty object: nothing to walk, an empty box and no cost.
        object.bounds = Bbox{};
        for (Instance& instance : object.instances) computeInstanceMatrices(instance);
        object.sahCost = 0.0;
        return;
    }

    makeDepthLists(object);
    bottomUp(object, [&object](uint32_t n) { refitNode(object, n); });
    release(object.buildBoxes);
    makeDepthLists(object);
    bottomUp(object, [&object](uint32_t n) { rotateNode(object, n); });

    // The object's box again, from its primitives and its instances.
    Bbox bounds = primitivesBox(object);
    for (Instance& instance : object.instances) {
        computeInstanceMatrices(instance);
        if (instance.target >= registry.objects.size()) continue;
        instance.bounds = transformedBox(instance.toWorld, registry.objects[instance.target].bounds);
        growBox(bounds, instance.bounds);
    }
    object.bounds = bounds;

    double cost = 0.0;
    for (const BbvhNode& node : object.bbvhNodes)
        cost += isLeaf(node) ? double(halfArea(node.bounds)) * node.count : double(halfArea(node.bounds));
    object.sahCost = cost;

    makeDepthLists(object);
    BbvhNodes& nodes = object.bbvhNodes;
    bottomUp(object, [&nodes](uint32_t n) {
        BbvhNode& node = nodes[n];
        node.subtree = isLeaf(node) ? node.count : nodes[node.first].subtree + nodes[node.first + 1].subtree;
    });

    collapseTree(object);

    for (auto& list : object.nodesAtDepth) release(list);
    // The binary tree has no reader after the collapse unless the object
    // moves; its memory goes before the records take theirs.
    if (!object.hasMotion) {
        release(object.bbvhNodes);
        release(object.buildRefs);
    }
    fillLeafRecords(object);
}

// A run spans the records of all leaf slots of a node; runs longer than this
// many records are left without a hint, to spare the memory bus.
constexpr uint32_t kLongestRun = 8;

// A hierarchy this small stays in a core's second-level cache, where the
// hints would cost more than they save.
constexpr size_t kCacheResidentBytes = size_t(1) << 20;

void fillLeafRuns(Object& object) {
    object.leafRuns.assign(object.wideNodes.size(), LeafRun{0, 0});
    const size_t bytes = object.wideNodes.size() * sizeof(WideNode) + object.leafRecords.size() * sizeof(LeafRecord);
    if (bytes < kCacheResidentBytes) return;
    for (size_t w = 0; w < object.wideNodes.size(); ++w) {
        const WideNode& node = object.wideNodes[w];
        uint32_t low = 0xFFFFFFFFu, high = 0;
        for (int s = 0; s < 8; ++s) {
            if (node.child[s] == kEmptySlot || node.count[s] == 0) continue;
            low = std::min(low, node.child[s]);
            high = std::max(high, node.child[s] + node.count[s]);
        }
        if (low < high && high - low <= kLongestRun) object.leafRuns[w] = {low, high - low};
    }
}

void fillLeafRecords(Object& object) {
    resizeOnAllThreads(object.leafRecords, object.primitiveRefs.size());
    const long long count = (long long)object.primitiveRefs.size();
#pragma omp parallel for schedule(static) if (count >= 65536)
    for (long long i = 0; i < count; ++i) {
        const PrimitiveRef& ref = object.primitiveRefs[size_t(i)];
        LeafRecord& record = object.leafRecords[size_t(i)];
        record = LeafRecord{};
        record.index = ref.index;
        record.part = ref.part;
        record.kind = ref.kind;
        if (ref.part >= object.parts.size()) continue;
        const Part& part = object.parts[ref.part];
        if (ref.kind == kTriangle && ref.index < part.triangles.size()) {
            // The same operations as the triangle test, done once.
            const Triangle& face = part.triangles[ref.index];
            const Vector a = part.positions[face.a];
            const Vector e1 = part.positions[face.b] - a;
            const Vector e2 = part.positions[face.c] - a;
            const Vector n = cross(e1, e2);
            record.p[0] = a;
            record.p[1] = n;
            record.p[2] = cross(e2, n);
            record.p[3] = cross(n, e1);
            record.nn = dot(n, n);
            record.shader = face.shader;
        } else if (ref.kind == kTetragon && ref.index < part.tetragons.size()) {
            const Tetragon& face = part.tetragons[ref.index];
            record.p[0] = part.positions[face.a];
            record.p[1] = part.positions[face.b];
            record.p[2] = part.positions[face.c];
            record.p[3] = part.positions[face.d];
            record.shader = face.shader;
        }
    }
    fillLeafRuns(object);
}

void satOrder(Object& object) {
    const long long count = (long long)object.wideNodes.size();
#pragma omp parallel for schedule(static) if (count >= 4096)
    for (long long n = 0; n < count; ++n) {
        WideNode& node = object.wideNodes[size_t(n)];
        // The exchanges are made on the slots' half areas and numbers, each
        // area computed once; the node's slots then move once, to their
        // final places.
        float area[8];
        int order[8];
        for (int slot = 0; slot < 8; ++slot) area[slot] = slotHalfArea(node, slot), order[slot] = slot;
        for (int s = 1; s < 8; ++s) {
            if (node.child[order[s]] == kEmptySlot) continue;
            for (int j = s; j >= 1; --j)
                if (area[j] > area[j - 1]) std::swap(area[j - 1], area[j]), std::swap(order[j - 1], order[j]);
        }
        placeSlots(node, order);
    }
}
