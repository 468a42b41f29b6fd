// What the scene's geometry is made of: objects, their parts and instances,
// the primitive families and the named per-vertex channels.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/distribution.h"
#include "core/huge_pages.h"
#include "core/vector.h"

struct Bbox {
    float min[3] = {kInfinity, kInfinity, kInfinity};
    float max[3] = {-kInfinity, -kInfinity, -kInfinity};
};

#include "geometry/hierarchy.h"

// A direction in three signed bytes; the zero triple means "no direction".
struct PackedDirection {
    int8_t x, y, z;
};
inline bool operator==(PackedDirection a, PackedDirection b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

// Inline: smoothing and displacement pack and unpack several times per face.
inline PackedDirection packDirection(float x, float y, float z) {
    const float s = x * x + y * y + z * z;
    const float scale = s == 0.0f ? 1.0f : 1.0f / guardedLength(s);
    auto component = [scale](float c) {
        int v = int(c * 128.0f * scale);
        if (v > 127) v = 127;
        if (v < -127) v = -127;
        return int8_t(v);
    };
    return {component(x), component(y), component(z)};
}

inline Vector unpackDirection(PackedDirection d) { return normalized(Vector{float(d.x), float(d.y), float(d.z)}); }

enum PrimitiveKind : uint8_t {
    kParticle = 1,
    kCylinder = 2,
    kTriangle = 3,
    kTetragon = 4,
    kInstance = 5,
};

struct Part;

// One row of an object's sampling table: a face side or an instance.
struct SurfaceTableEntry {
    const void* part;   // the owning Part, or the object for an instance row
    uint8_t kind;
    uint32_t index;
    uint8_t front;
    float weight;
};

template <typename T>
struct VertexChannel {
    std::string name;
    std::vector<T> elements;
};

struct Triangle {
    uint32_t a, b, c;
    uint32_t shader;
};

struct Tetragon {
    uint32_t a, b, c, d;
    uint32_t shader;
};

struct UV {
    float u, v;
};

struct Part {
    std::vector<uint32_t> particles;
    std::vector<uint32_t> cylinders;
    std::vector<Triangle> triangles;
    std::vector<Tetragon> tetragons;
    std::vector<uint32_t> strandSizes;
    std::vector<VertexChannel<Vector>> vectorChannels;
    std::vector<VertexChannel<UV>> uvChannels{{"uv", {}}};
    std::vector<VertexChannel<float>> scalarChannels{{"radius", {}}};
    std::vector<Vector> positions;
    std::vector<PackedDirection> normals;
    std::vector<PackedDirection> tangents;
    // The density estimator's cells: each face owns n² cells from its base,
    // one array per side, filled by photon deposits in final gathering.
    std::vector<uint32_t> triangleCellBase, triangleCellResolution;
    std::vector<uint32_t> tetragonCellBase, tetragonCellResolution;
    std::vector<Color> triangleCellsFront, triangleCellsBack;
    std::vector<Color> tetragonCellsFront, tetragonCellsBack;
    // The linear part of the part's one placement in the scene, row by row:
    // cells measure their faces' areas as placed.
    float cellMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::string name = "undefined";
    std::string shaderName = "undefined";
    uint32_t shader = 0;
    uint8_t hasMotion = 0;
};

struct Instance {
    float toWorld[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    float toLocal[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    float normalMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    float directionMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    Bbox bounds;
    uint32_t target = 0xFFFFFFFFu;
    std::string targetName;
    std::string shaderName;
};

struct Object {
    Bbox bounds;
    double sahCost = 0.0;
    float photonArea = 0.0f;
    float lightArea = 0.0f;
    uint32_t level = 0;
    std::string name;
    std::string secondName;
    uint32_t defaultShader = 0;
    std::vector<Part> parts;
    std::vector<Instance> instances;
    std::vector<SurfaceTableEntry> photonTable;
    Distribution photonDistribution;
    std::vector<SurfaceTableEntry> lightTable;
    Distribution lightDistribution;
    uint8_t referenced = 0;
    uint8_t hasMotion = 0;
    // Placed once in the scene (the root, or an object that one chain of
    // instances reaches): its faces hold cells of their own, and its hits
    // may gather from them.
    uint8_t gatherable = 0;
    std::vector<WideNode, HugePageAllocator<WideNode>> wideNodes;
    std::vector<PrimitiveRef> primitiveRefs;   // in leaf order
    uint32_t maxWideDepth = 0;
    BbvhNodes bbvhNodes;
    BuildRefs buildRefs;                       // in the builder's order
    // The box of each of buildRefs, from the build until the update has
    // refit the leaves with them.
    std::vector<LaneBox, HugePageAllocator<LaneBox>> buildBoxes;
    uint32_t nodesPerDepth[256] = {};
    uint32_t nodesFilled[256] = {};
    std::vector<uint32_t> nodesAtDepth[256];
    // primitiveRefs with the faces they refer to, for the walks; filled with
    // the wide tree, so vertex data must not change without a new update.
    std::vector<LeafRecord, HugePageAllocator<LeafRecord>> leafRecords;
    std::vector<LeafRun> leafRuns;   // one per wide node, filled with the records
};

// Reports mixed primitive families and per-vertex arrays of another length
// than the positions, and gives "undefined"-shaded faces the part's shader.
void checkPart(Part& part);
// The object's statistics block: counts, memory and its box.
void reportObject(const Object& object);

// The corners of a primitive and the weights of a hit on it at `barycentric`:
// one for a particle, two for a hair segment, three or four for a face.
// Returns the number of corners; 0 for any other kind.
int primitiveCorners(const Part& part, uint8_t kind, uint32_t primitive, Vector barycentric, uint32_t vertex[4],
                     float weight[4]);
