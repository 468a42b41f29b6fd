#include "geometry/surface_sampling.h"

#include <algorithm>

#include "core/random.h"
#include "core/registry.h"

namespace {

float squared(Vector v) { return dot(v, v); }

// Position, uv and normal at the corner weights, uv from the first uv set
// when every corner has one.
FacePoint interpolate(const Part& part, const uint32_t vertex[4], const float weight[4], int corners) {
    FacePoint p{zero, zero, {0.0f, 0.0f}, 0.0f};
    const std::vector<UV>* uvs = part.uvChannels.empty() ? nullptr : &part.uvChannels[0].elements;
    bool hasUv = uvs != nullptr;
    for (int k = 0; k < corners; ++k) {
        p.position += part.positions[vertex[k]] * weight[k];
        hasUv = hasUv && vertex[k] < uvs->size();
    }
    if (hasUv)
        for (int k = 0; k < corners; ++k) {
            p.uv[0] += weight[k] * (*uvs)[vertex[k]].u;
            p.uv[1] += weight[k] * (*uvs)[vertex[k]].v;
        }
    return p;
}

// A table row for the stratum; instance rows hand the pick on to their
// target, and are listed in `chain` when the caller asks for them.
const SurfaceTableEntry& drawSurface(const Object& object, int i, int n, bool photons,
                                     std::vector<const Instance*>* chain) {
    // (r + i) / n is below 1 for every r below 1, but in floats the last
    // stratum rounds to 1 when r comes close to 1 (about 3 % of the time for
    // a million strata). A draw of 1 takes the table's last row whatever its
    // weight, and that may be an instance with nothing to sample, whose own
    // table is empty; the draw is kept below 1.
    constexpr float kBelowOne = 0x1.fffffep-1f;
    const float u = std::min((hardwareRandomFloat() + float(i)) / float(n), kBelowOne);
    const std::vector<SurfaceTableEntry>& table = photons ? object.photonTable : object.lightTable;
    const Distribution& distribution = photons ? object.photonDistribution : object.lightDistribution;
    const SurfaceTableEntry& row = table[size_t(sample(distribution, u))];
    if (row.kind != kInstance) return row;
    const Instance& instance = object.instances[row.index];
    if (chain) chain->push_back(&instance);
    return drawSurface(registry.objects[instance.target], i, n, photons, chain);
}

}  // namespace

float triangleArea(Vector p0, Vector p1, Vector p2) {
    const float a = squared(p0 - p1), b = squared(p1 - p2), c = squared(p2 - p0);
    const float sum = a + b + c;
    return 0.25f * guardedLength(sum * sum - 2.0f * (a * a + b * b + c * c));
}

float tetragonArea(Vector p0, Vector p1, Vector p2, Vector p3) {
    const float a = squared(p0 - p1), b = squared(p1 - p2), c = squared(p2 - p3), d = squared(p3 - p0);
    const float p = squared(p0 - p2), q = squared(p1 - p3);
    const float e = a - b + c - d;
    return 0.25f * guardedLength(4.0f * p * q - e * e);
}

const SurfaceTableEntry& drawPhotonSurface(const Object& object, int i, int n,
                                          std::vector<const Instance*>* chain) {
    return drawSurface(object, i, n, true, chain);
}

const SurfaceTableEntry& drawLightSurface(const Object& object, int i, int n,
                                         std::vector<const Instance*>* chain) {
    return drawSurface(object, i, n, false, chain);
}

FacePoint facePoint(const Part& part, uint8_t kind, uint32_t index, float u1, float u2) {
    uint32_t vertex[4];
    float weight[4];
    const std::vector<Vector>& P = part.positions;
    if (kind == kTriangle) {
        // Weights 1 - t, t (1 - u1), t u1 with t = sqrt(u2).
        const float t = guardedLength(u2);
        primitiveCorners(part, kTriangle, index, {1.0f - t, t * (1.0f - u1), t * u1}, vertex, weight);
        FacePoint p = interpolate(part, vertex, weight, 3);
        const Vector a = P[vertex[0]], b = P[vertex[1]], c = P[vertex[2]];
        p.normal = cross(b - a, c - a);
        p.area = triangleArea(a, b, c);
        return p;
    }
    primitiveCorners(part, kTetragon, index, {u1, u2, 0.0f}, vertex, weight);
    FacePoint p = interpolate(part, vertex, weight, 4);
    const Vector a = P[vertex[0]], b = P[vertex[1]], c = P[vertex[2]], d = P[vertex[3]];
    p.normal = cross(c - a, d - b);
    p.area = tetragonArea(a, b, c, d);
    return p;
}

uint32_t faceShader(const Part& part, uint8_t kind, uint32_t index) {
    return kind == kTriangle ? part.triangles[index].shader : part.tetragons[index].shader;
}

void toWorldThroughChain(const std::vector<const Instance*>& chain, Vector& position, Vector& normal) {
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        position = transformPoint((*it)->toWorld, position);
        normal = times3x3((*it)->normalMatrix, normal);
    }
}
