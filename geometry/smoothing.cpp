// Vertex normals and tangents by angle. Every point in space collects the
// corners of the faces that meet there; each corner averages the faces that
// lie within its shader's smoothing angle, and the vertex is split wherever
// corners end up with different values. The part's vertex arrays are rebuilt
// and the primitives' indices rewritten. The phases live in the
// geometry/smoothing_*.cpp files, in the order smooth() runs them.
#include <cmath>
#include <vector>

#include "core/clock.h"
#include "core/registry.h"
#include "core/shader_record.h"
#include "geometry/load_time.h"
#include "geometry/smoothing_phases.h"

using namespace smoothing;

namespace {

// Unit faces that all lie within half the limit, less this margin, of one
// face lie within the limit of each other, by the triangle inequality of
// angles. The margin outweighs the rounding of lengths and dot products for
// limits between 0.1 and pi - 0.1. Faces too small for the guarded
// normalisation to make them unit take the test of all pairs.
constexpr float kReferenceMargin = 1e-3f;

AngleLimit angleLimit(float radians) {
    static const float largestAngle = std::acos(-1.0f);
    if (!(radians > 0.0f)) return {radians, 1.0f, 0, false, 1.0f};
    if (radians > largestAngle) return {radians, -1.0f, 1, false, -1.0f};
    const bool byReference = radians >= 0.1f && radians <= largestAngle - 0.1f;
    return {radians, std::cos(radians), 2, byReference, std::cos(radians / 2.0f - kReferenceMargin)};
}

// The smoothing angle of every shader in radians; shaders past the list are
// taken as keeping what they were given.
std::vector<float> shaderAnglesInRadians() {
    std::vector<float> angles;
    angles.reserve(registry.shaders.size());
    for (const Shader& shader : registry.shaders) angles.push_back(shader.geometry.smooth_angle * kDegree);
    return angles;
}

float angleOf(const std::vector<float>& angles, uint32_t shader) {
    return shader < angles.size() ? angles[shader] : -kDegree;
}

}  // namespace

void smooth(Part& part) {
    const uint64_t start = systemTime100ns();
    const std::vector<float> angles = shaderAnglesInRadians();
    bool any = false;
    for (const Triangle& t : part.triangles) any = any || angleOf(angles, t.shader) >= 0.0f;
    for (const Tetragon& q : part.tetragons) any = any || angleOf(angles, q.shader) >= 0.0f;
    if (any) {
        std::vector<uint32_t> weld;
        const uint32_t W = weldPositions(part.positions, weld);

        std::vector<AngleLimit> limits;
        for (float radians : angles) limits.push_back(angleLimit(radians));
        const SmoothInput in{part, limits,
                             !part.tangents.empty() && !part.uvChannels.empty() && !part.uvChannels[0].elements.empty(),
                             angleLimit(-kDegree)};

        GatheredCorners gathered = gatherCorners(in, weld, W);
        const SlotPlan slots = planSlots(part, gathered, W);
        NewVertices made = makeVertices(in, gathered, slots);
        std::vector<WeldState>().swap(gathered.states);
        const std::vector<uint64_t> base = mergeVertices(part, made.outputs, slots.count);
        std::vector<SmoothOutput>().swap(made.outputs);
        rewriteIndices(part, weld, made.code.get(), base, gathered.records.get(), gathered.rangeRecords.back());
    }
    registry.smoothMilliseconds += uint32_t((systemTime100ns() - start) / 10000);
}
