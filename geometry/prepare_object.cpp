// Preparing one object: its parts, bounds, instance matrices, hierarchy,
// hair texture coordinates and the two surface sampling tables.
#include <algorithm>
#include <cmath>

#include "core/registry.h"
#include "core/report.h"
#include "geometry/object.h"
#include "geometry/load_time.h"
#include "geometry/prepare.h"
#include "geometry/surface_sampling.h"

namespace {

template <typename T>
void trim(std::vector<T>& v) {
    v.shrink_to_fit();
}

// Strand parameters and summed tangents of a part's hair segments.
void prepareStrands(Part& part) {
    if (part.shader < registry.shaders.size()) registry.shaders[part.shader].hair = 1;
    const size_t vertexCount = part.positions.size();
    part.scalarChannels.push_back({"parameter", std::vector<float>(vertexCount, 0.0f)});
    std::vector<float>& parameter = part.scalarChannels.back().elements;

    std::vector<size_t> starts{0};
    for (size_t i = 1; i < part.cylinders.size(); ++i)
        if (part.cylinders[i - 1] + 1 != part.cylinders[i]) starts.push_back(part.cylinders[i]);
    starts.push_back(vertexCount);
    for (size_t s = 0; s + 1 < starts.size(); ++s) {
        const size_t a = starts[s], b = starts[s + 1];
        if (b <= a) continue;
        for (size_t v = a; v <= b && v < vertexCount; ++v) parameter[v] = float(v - a) / float(b - a);
    }

    std::vector<Vector> sums(vertexCount, zero);
    for (uint32_t v : part.cylinders) {
        if (size_t(v) + 1 >= vertexCount) continue;   // a segment past the last vertex has no direction
        const Vector e = part.positions[v + 1] - part.positions[v];
        sums[v] += e;
        sums[v + 1] += e;
    }
    part.tangents.resize(vertexCount, PackedDirection{0, 0, 0});
    for (size_t i = 0; i < part.cylinders.size() && i < vertexCount; ++i)
        part.tangents[i] = packDirection(sums[i].x, sums[i].y, sums[i].z);
}

bool flipsFaces(uint32_t shader) {
    return shader < registry.shaders.size() && registry.shaders[shader].geometry.flip_face;
}

// The four table flags of a face's shader: photons front and back, light front and back.
void tableFlags(uint32_t shader, bool flags[4]) {
    const bool known = shader < registry.shaders.size();
    const Shader* s = known ? &registry.shaders[shader] : nullptr;
    flags[0] = known && s->hasVirtualLight[kFaceSide];
    flags[1] = known && s->hasVirtualLight[kBackSide];
    flags[2] = known && s->emits[kFaceSide];
    flags[3] = known && s->emits[kBackSide];
}

void addFaceRows(Object& object, const Part& part, uint8_t kind, uint32_t index, uint32_t shader, float area) {
    bool flags[4];
    tableFlags(shader, flags);
    for (int k = 0; k < 4; ++k) {
        if (!flags[k]) continue;
        const SurfaceTableEntry row{&part, kind, index, uint8_t(k % 2 == 0 ? 1 : 0), area};
        if (k < 2) {
            object.photonTable.push_back(row);
            object.photonArea += area;
        } else {
            object.lightTable.push_back(row);
            object.lightArea += area;
        }
    }
}

void makeDistribution(const std::vector<SurfaceTableEntry>& table, Distribution& d) {
    initializeDistribution(d, int(table.size()));
    for (size_t i = 0; i < table.size(); ++i) setWeight(d, int(i), table[i].weight);
    // A table of zero weights cannot be normalised; it stays empty of probability.
    double total = 0.0;
    for (const SurfaceTableEntry& row : table) total += row.weight;
    if (total > 0.0) finishDistribution(d);
}

void buildSamplingTables(Object& object) {
    object.photonArea = 0.0f;
    object.lightArea = 0.0f;
    object.photonTable.clear();
    object.lightTable.clear();
    for (const Part& part : object.parts) {
        for (uint32_t i = 0; i < part.triangles.size(); ++i) {
            const Triangle& t = part.triangles[i];
            const float area = triangleArea(part.positions[t.a], part.positions[t.b], part.positions[t.c]);
            addFaceRows(object, part, kTriangle, i, t.shader, area);
        }
        for (uint32_t i = 0; i < part.tetragons.size(); ++i) {
            const Tetragon& t = part.tetragons[i];
            const float area = tetragonArea(part.positions[t.a], part.positions[t.b], part.positions[t.c],
                                            part.positions[t.d]);
            addFaceRows(object, part, kTetragon, i, t.shader, area);
        }
        // Instances are listed once per part of the object, by design of the tables.
        for (uint32_t i = 0; i < object.instances.size(); ++i) {
            const Object& target = registry.objects[object.instances[i].target];
            object.photonTable.push_back({&part, kInstance, i, 1, target.photonArea});
            object.lightTable.push_back({&part, kInstance, i, 1, target.lightArea});
            object.photonArea += target.photonArea;
            object.lightArea += target.lightArea;
        }
    }
    makeDistribution(object.photonTable, object.photonDistribution);
    makeDistribution(object.lightTable, object.lightDistribution);
}

// The nearest face under a hair root, found through the wide tree.
struct UvSearch {
    Vector p;
    float bestDistance = kInfinity;
    UV bestUv{0.0f, 0.0f};
};

UV vertexUv(const Part& part, uint32_t v) {
    const auto& uvs = part.uvChannels[0].elements;
    return v < uvs.size() ? uvs[v] : UV{0.0f, 0.0f};
}

void testTriangle(const Part& part, const Triangle& t, UvSearch& s) {
    const Vector A = part.positions[t.a] - s.p, B = part.positions[t.b] - s.p, C = part.positions[t.c] - s.p;
    const Vector m = -normalized(cross(B - A, C - A));
    const float w1 = dot(m, cross(A, B)), w2 = dot(m, cross(B, C)), w3 = dot(m, cross(C, A));
    if (!((w1 > 0 && w2 > 0 && w3 > 0) || (w1 < 0 && w2 < 0 && w3 < 0))) return;
    const float distance = std::fabs(dot(m, A));
    if (distance >= s.bestDistance) return;
    const UV a = vertexUv(part, t.a), b = vertexUv(part, t.b), c = vertexUv(part, t.c);
    const float sum = w1 + w2 + w3;
    s.bestDistance = distance;
    s.bestUv = {(w1 * a.u + w2 * b.u + w3 * c.u) / sum, (w1 * a.v + w2 * b.v + w3 * c.v) / sum};
}

void testTetragon(const Part& part, const Tetragon& t, UvSearch& s) {
    const Vector A = part.positions[t.a] - s.p, B = part.positions[t.b] - s.p, C = part.positions[t.c] - s.p,
                 E = part.positions[t.d] - s.p;
    const Vector m = -cross(C - A, E - B);
    const float w1 = dot(m, cross(A, B)), w2 = dot(m, cross(B, C)), w3 = dot(m, cross(C, E)),
                w4 = dot(m, cross(E, A));
    if (!((w1 > 0 && w2 > 0 && w3 > 0 && w4 > 0) || (w1 < 0 && w2 < 0 && w3 < 0 && w4 < 0))) return;
    const Vector offset = s.p - m * dot(m, A);
    const float distance = std::sqrt(dot(offset, offset));
    if (distance >= s.bestDistance) return;
    const float u = w1 / (w1 + w3), v = w4 / (w2 + w4);
    const UV a = vertexUv(part, t.a), b = vertexUv(part, t.b), c = vertexUv(part, t.c), d = vertexUv(part, t.d);
    const float wa = (1 - u) * (1 - v), wb = (1 - u) * v, wc = u * v, wd = u * (1 - v);
    s.bestDistance = distance;
    s.bestUv = {wa * a.u + wb * b.u + wc * c.u + wd * d.u, wa * a.v + wb * b.v + wc * c.v + wd * d.v};
}

void searchUv(const Object& object, uint32_t nodeIndex, UvSearch& s, int depth) {
    if (nodeIndex >= object.wideNodes.size() || depth > 256) return;
    const WideNode& node = object.wideNodes[nodeIndex];
    for (int k = 0; k < 8; ++k) {
        if (node.child[k] == kEmptySlot) continue;
        if (node.count[k] == 0) {
            const bool inside = s.p.x >= node.min_x[k] && s.p.x <= node.max_x[k] && s.p.y >= node.min_y[k] &&
                                s.p.y <= node.max_y[k] && s.p.z >= node.min_z[k] && s.p.z <= node.max_z[k];
            if (inside) searchUv(object, node.child[k], s, depth + 1);
            continue;
        }
        for (uint32_t j = 0; j < node.count[k]; ++j) {
            const PrimitiveRef& ref = object.primitiveRefs[node.child[k] + j];
            if (ref.part >= object.parts.size()) continue;
            const Part& part = object.parts[ref.part];
            if (ref.kind == kTriangle) testTriangle(part, part.triangles[ref.index], s);
            if (ref.kind == kTetragon) testTetragon(part, part.tetragons[ref.index], s);
        }
    }
}

}  // namespace

void preparePart(Part& part) {
    checkPart(part);
    if (!part.cylinders.empty()) prepareStrands(part);
    part.hasMotion = 0;
    for (const auto& channel : part.vectorChannels)
        if (channel.name == "motion") part.hasMotion = 1;
    if (!part.triangles.empty() || !part.tetragons.empty()) {
        for (Triangle& t : part.triangles)
            if (flipsFaces(t.shader)) std::swap(t.a, t.b);
        for (Tetragon& t : part.tetragons)
            if (flipsFaces(t.shader)) std::swap(t.a, t.c);
        displace(part);
        smooth(part);
    }
    for (auto& channel : part.vectorChannels) trim(channel.elements);
    for (auto& channel : part.uvChannels) trim(channel.elements);
    for (auto& channel : part.scalarChannels) trim(channel.elements);
    trim(part.positions);
    trim(part.normals);
    trim(part.tangents);
    trim(part.particles);
    trim(part.cylinders);
    trim(part.triangles);
    trim(part.tetragons);
}

void assignHairUvs(Object& object) {
    for (Part& part : object.parts) {
        size_t c = 0;
        for (uint32_t n : part.strandSizes) {
            if (c >= part.cylinders.size()) break;
            UvSearch search;
            search.p = part.positions[part.cylinders[c]];
            searchUv(object, 0, search, 0);
            auto& uvs = part.uvChannels[0].elements;
            for (uint32_t k = 0; k < n && c + k < part.cylinders.size(); ++k) {
                const uint32_t v = part.cylinders[c + k];
                if (uvs.size() < size_t(v) + 2) uvs.resize(size_t(v) + 2, UV{0.0f, 0.0f});
                uvs[v] = search.bestUv;
                uvs[v + 1] = search.bestUv;
            }
            c += n;
        }
    }
}

void prepareObject(Object& object) {
    for (Part& part : object.parts)
        if (part.shader == 0 && part.shaderName == "undefined") part.shader = object.defaultShader;
    for (Part& part : object.parts) {
        preparePart(part);
        if (part.hasMotion) object.hasMotion = 1;
    }
    object.bounds = primitivesBox(object);
    for (Instance& instance : object.instances) {
        computeInstanceMatrices(instance);
        instance.bounds = transformedBox(instance.toWorld, registry.objects[instance.target].bounds);
        growBox(object.bounds, instance.bounds);
    }
    buildHierarchy(object);
    updateHierarchy(object);
    satOrder(object);
    assignHairUvs(object);
    buildSamplingTables(object);
    reportObject(object);
}
