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
#include "render/aovs.h"
#include "shading/images.h"

namespace {

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

// Point i of the set, or false when the surface there does not emit.
bool drawPoint(const Object& root, int i, std::vector<const Instance*>& chain, GeometryLightPoint& point) {
    chain.clear();
    const SurfaceTableEntry& row = drawLightSurface(root, i, kGeometryLightPoints, &chain);
    const Part& part = *static_cast<const Part*>(row.part);
    const float u1 = radicalInverse(uint32_t(i), 0), u2 = radicalInverse(uint32_t(i), 1);
    const FacePoint face = facePoint(part, row.kind, row.index, u1, u2);
    const uint32_t shader = faceShader(part, row.kind, row.index);
    const Color emission = sideEmission(shader, row.front ? kFaceSide : kBackSide, face.uv);
    if (!lit(emission)) return false;

    Vector position = face.position, normal = face.normal;
    toWorldThroughChain(chain, position, normal);
    normal = normalized(normal);
    point.position = position;
    point.normal = row.front ? normal : -normal;
    point.power = emission * (registry.geometryLight.totalArea * kInvPi);
    point.area = face.area;
    point.primitive = row.index;
    point.kind = row.kind;
    point.side = row.front;
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
    prepareLightAovs(registry.geometryLightAOVs);
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
