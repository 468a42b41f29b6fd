// The geometry light stage: all emissive faces as one light. Preparation
// draws a fixed set of points on them, stratified over the root object's
// emissive area, and weighs the points by their power for direct sampling.
#include "lights/geometry_light.h"

#include <algorithm>
#include <vector>

#include "core/constants.h"
#include "core/hilbert.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"
#include "output/write_image.h"
#include "geometry/surface_sampling.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "lights/aov_images.h"
#include "core/images.h"
#include "geometry/object.h"
#include "lights/lights.h"

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

// The face that a point lies on: its row and the instances that lead to it.
struct FaceOfPoint {
    const void* part = nullptr;
    uint8_t kind = 0;
    uint32_t index = 0;
    std::vector<const Instance*> chain;
    bool operator==(const FaceOfPoint&) const = default;
};

// Point i of the set, or false when the surface there does not emit; `face`
// tells where it was drawn either way.
bool drawPoint(const Object& root, int i, FaceOfPoint& face, GeometryLightPoint& point) {
    std::vector<const Instance*>& chain = face.chain;
    chain.clear();
    const SurfaceTableEntry& row = drawLightSurface(root, i, kGeometryLightPoints, &chain);
    face.part = row.part;
    face.kind = row.kind;
    face.index = row.index;
    const Part& part = *static_cast<const Part*>(row.part);
    const float u1 = radicalInverse(uint32_t(i), 0), u2 = radicalInverse(uint32_t(i), 1);
    const FacePoint at = facePoint(part, row.kind, row.index, u1, u2);
    const uint32_t shader = faceShader(part, row.kind, row.index);
    const Color emission = sideEmission(shader, row.front ? kFaceSide : kBackSide, at.uv);
    if (!lit(emission)) return false;

    Vector position = at.position, normal = at.normal;
    toWorldThroughChain(chain, position, normal);
    normal = normalized(normal);
    point.position = position;
    point.normal = row.front ? normal : -normal;
    point.power = emission * (registry.geometryLight.totalArea * kInvPi);
    point.area = at.area;
    point.primitive = row.index;
    point.kind = row.kind;
    point.side = row.front;
    return true;
}

// The point set and its distribution by power. With no point lit there is
// nothing a sample could find, and direct sampling is turned off.
//
// The stratified pick of faces puts the points of one face side by side;
// among them, the points are stored in the order of a Hilbert curve over the
// two numbers that placed them, so that neighbouring entries of the
// distribution are neighbours on the face. A stratified draw from the
// distribution then spreads its samples over the emitters' area, and not
// only over their power.
void drawPoints(const Object* root) {
    GeometryLightValues& values = registry.geometryLight;
    if (!root || values.sample < 1 || values.totalArea <= 0.0f) {
        values.sample = 0;
        return;
    }
    const size_t n = size_t(kGeometryLightPoints);
    std::vector<GeometryLightPoint> drawn(n, GeometryLightPoint{});
    std::vector<uint64_t> keys(n);
    std::vector<char> lit(n, 0);
    FaceOfPoint previous, face;
    uint64_t run = 0;
    for (size_t i = 0; i < n; ++i) {
        lit[i] = drawPoint(*root, int(i), face, drawn[i]);
        if (i > 0 && !(face == previous)) ++run;
        std::swap(previous, face);
        const uint32_t x = uint32_t(radicalInverse(uint32_t(i), 0) * 65535.0f);
        const uint32_t y = uint32_t(radicalInverse(uint32_t(i), 1) * 65535.0f);
        keys[i] = run << 32 | hilbertIndex(x, y, 16);
    }
    std::vector<uint32_t> order(n);
    for (size_t i = 0; i < n; ++i) order[i] = uint32_t(i);
    std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return keys[a] < keys[b]; });

    std::vector<GeometryLightPoint>& points = registry.geometryLightPoints;
    points.resize(n);
    Distribution& distribution = registry.geometryLightDistribution;
    initializeDistribution(distribution, kGeometryLightPoints);
    bool anyLit = false;
    for (size_t j = 0; j < n; ++j) {
        points[j] = drawn[order[j]];
        if (!lit[order[j]]) continue;
        const Color& p = points[j].power;
        setWeight(distribution, int(j), (p.x + p.y + p.z) * 0.33333334f);
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
