// The geometry light stage: all emissive faces as one light. Preparation
// draws a fixed set of points on them, stratified over the root object's
// emissive area, and weighs the points by their power for direct sampling.
#include "lights/geometry_light.h"

#include <vector>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"
#include "core/stages.h"
#include "geometry/surface_sampling.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "shading/images.h"

namespace {

// A point on a face in the face's own object, with what the emission and the
// light need of it.
struct FacePoint {
    Vector position;
    Vector normal;   // the face normal, not unit
    float uv[2];
    float area;
};

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

// A triangle point uniform over its area: t = sqrt(u2) and the weights
// 1 - t, t (1 - u1), t u1.
FacePoint triangleOf(const Part& part, uint32_t index, float u1, float u2) {
    const float t = guardedLength(u2);
    uint32_t vertex[4];
    float weight[4];
    primitiveCorners(part, kTriangle, index, {1.0f - t, t * (1.0f - u1), t * u1}, vertex, weight);
    FacePoint p = interpolate(part, vertex, weight, 3);
    const Vector a = part.positions[vertex[0]], b = part.positions[vertex[1]], c = part.positions[vertex[2]];
    p.normal = cross(b - a, c - a);
    p.area = triangleArea(a, b, c);
    return p;
}

// A tetragon point at (u1, u2) taken as the (u, v) that the tetragon's ray
// test reports, with its normal as that test forms it.
FacePoint tetragonOf(const Part& part, uint32_t index, float u1, float u2) {
    uint32_t vertex[4];
    float weight[4];
    primitiveCorners(part, kTetragon, index, {u1, u2, 0.0f}, vertex, weight);
    FacePoint p = interpolate(part, vertex, weight, 4);
    const Vector a = part.positions[vertex[0]], b = part.positions[vertex[1]];
    const Vector c = part.positions[vertex[2]], d = part.positions[vertex[3]];
    p.normal = cross(c - a, d - b);
    p.area = tetragonArea(a, b, c, d);
    return p;
}

// The emission of one side of a shader at uv: the emissive elements of the
// side's virtual-light layers, summed. Other layers are never sampled: a
// bounce that finds them counts all of their emission, and a sample of them
// would count it twice.
Color sideEmission(uint32_t shader, int side, const float uv[2]) {
    if (shader >= registry.shaders.size()) return zero;
    const Shader& s = registry.shaders[shader];
    Color sum = zero;
    for (int k = 0; k < s.layerCount[side]; ++k) {
        const SurfaceShader& layer = s.layers[s.layerList[side][k]];
        if (layer.virtual_light) sum += elementColor(layer.elements[LV_ELEMENT_EMISSIVE], uv);
    }
    return sum;
}

inline bool lit(Color c) { return c.x > kCutoff || c.y > kCutoff || c.z > kCutoff; }

Vector toWorld(const float m[16], Vector p) {
    const float w = m[12] * p.x + m[13] * p.y + m[14] * p.z + m[15];
    return {(m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3]) / w, (m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7]) / w,
            (m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]) / w};
}

Vector normalToWorld(const float m[9], Vector n) {
    return {m[0] * n.x + m[1] * n.y + m[2] * n.z, m[3] * n.x + m[4] * n.y + m[5] * n.z,
            m[6] * n.x + m[7] * n.y + m[8] * n.z};
}

// Point i of the set, or false when the surface there does not emit.
bool drawPoint(const Object& root, int i, std::vector<const Instance*>& chain, GeometryLightPoint& point) {
    chain.clear();
    const SurfaceTableEntry& row = drawLightSurface(root, i, kGeometryLightPoints, &chain);
    const Part& part = *static_cast<const Part*>(row.part);
    const float u1 = radicalInverse(uint32_t(i), 0), u2 = radicalInverse(uint32_t(i), 1);
    FacePoint face;
    uint32_t shader;
    if (row.kind == kTriangle) {
        face = triangleOf(part, row.index, u1, u2);
        shader = part.triangles[row.index].shader;
    } else {
        face = tetragonOf(part, row.index, u1, u2);
        shader = part.tetragons[row.index].shader;
    }
    const Color emission = sideEmission(shader, row.front ? kFaceSide : kBackSide, face.uv);
    if (!lit(emission)) return false;

    Vector position = face.position, normal = face.normal;
    uint64_t path = 0;
    for (const Instance* instance : chain) path = extendPath(path, *instance);
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        position = toWorld((*it)->toWorld, position);
        normal = normalToWorld((*it)->normalMatrix, normal);
    }
    normal = normalized(normal);
    point.position = position;
    point.normal = row.front ? normal : -normal;
    point.power = emission * (registry.geometryLight.totalArea * kInvPi);
    point.area = face.area;
    point.primitive = row.index;
    point.kind = row.kind;
    point.side = row.front;
    point.part = &part;
    point.path = path;
    return true;
}

// The point set and its distribution by power. With no point lit there is
// nothing a sample could find, and direct sampling is turned off.
void drawPoints(const Object* root) {
    GeometryLightValues& values = registry.geometryLight;
    if (!root || values.sample < 1 || values.totalArea <= 0.0f) {
        values.sample = 0;
        return;
    }
    std::vector<GeometryLightPoint>& points = registry.geometryLightPoints;
    points.assign(size_t(kGeometryLightPoints), GeometryLightPoint{});
    std::vector<const Instance*> chain;
    Distribution& distribution = registry.geometryLightDistribution;
    initializeDistribution(distribution, kGeometryLightPoints);
    bool anyLit = false;
    for (int i = 0; i < kGeometryLightPoints; ++i) {
        GeometryLightPoint& point = points[size_t(i)];
        if (!drawPoint(*root, i, chain, point)) continue;
        const Color& p = point.power;
        setWeight(distribution, i, (p.x + p.y + p.z) * 0.33333334f);
        anyLit = true;
    }
    if (anyLit) {
        finishDistribution(distribution);
        return;
    }
    points.clear();
    releaseDistribution(distribution);
    values.sample = 0;
}

}  // namespace

void prepareGeometryLight() {
    GeometryLightValues& values = registry.geometryLight;
    resolveLink(registry.geometryLightLink);
    // A scene without objects has no root, and no emissive area.
    const Object* root = registry.objects.empty() ? nullptr : &registry.objects[size_t(registry.rootObject)];
    values.totalArea = root ? root->lightArea : 0.0f;
    const float photonArea = root ? root->photonArea : 0.0f;
    if (values.photon > 0) {
        if (!root || root->photonTable.empty()) values.photon = 0;
        else {
            const float power = photonArea / float(values.photon);
            values.photonPower = {power, power, power};
        }
    }
    drawPoints(root);
    sizeAovs(registry.geometryLightAOVs);
    reportReal("geometry light area  ", photonArea, "m x m");
    reportCount("geometry light sample", values.sample, "n/a");
    reportRule();
}

void releaseGeometryLight() {
    registry.geometryLightPoints.clear();
    writeAovs(registry.geometryLightAOVs);
    releaseDistribution(registry.geometryLightDistribution);
    resetGeometryLightValues();
}
