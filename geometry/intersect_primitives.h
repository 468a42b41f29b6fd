// The exact ray tests of the four primitive families, and the visibility rule
// that decides whether a ray may see a shader at all.
#pragma once

#include <immintrin.h>

#include <bit>
#include <cstdint>

#include "core/records.h"
#include "core/registry.h"
#include "geometry/object.h"

// Each family keeps its own distance epsilon; all are 1e-6.
inline constexpr float kParticleEpsilon = std::bit_cast<float>(0x358637BDu);
inline constexpr float kCylinderEpsilon = std::bit_cast<float>(0x358637BDu);
inline constexpr float kTriangleEpsilon = std::bit_cast<float>(0x358637BDu);
inline constexpr float kTetragonEpsilon = std::bit_cast<float>(0x358637BDu);
// Lower limit of the entry distance of a box.
inline constexpr float kBoxEpsilon = std::bit_cast<float>(0x322BCC77u);

// The cubic of a hair segment, C(x) = p0 + (p0 - p1) a(x) + T0 b(x) + T1 c(x),
// tabulated at x = k / 8 for k = 0..8 to six significant digits. Lane k of the
// curve test runs from entry k to entry k + 1.
inline constexpr float kCurveA[9] = {0.0f, -0.0429688f, -0.15625f, -0.316406f, -0.5f,
                                     -0.683594f, -0.84375f, -0.957031f, -1.0f};
inline constexpr float kCurveB[9] = {0.0f, 0.0957031f, 0.140625f, 0.146484f, 0.125f,
                                     0.0878906f, 0.046875f, 0.0136719f, 0.0f};
inline constexpr float kCurveC[9] = {0.0f, -0.0136719f, -0.046875f, -0.0878906f, -0.125f,
                                     -0.146484f, -0.140625f, -0.0957031f, 0.0f};
// Radius blend of lane k: the weight of the second end, k / 7.
inline constexpr float kCurveRadius[8] = {0.0f, 0.142857f, 0.285714f, 0.428571f,
                                          0.571429f, 0.714286f, 0.857143f, 1.0f};

// Point k (0..8) of the curve, in the same order of operations as the test.
inline Vector curvePoint(Vector p0, Vector p1, Vector t0, Vector t1, int k) {
    return ((p0 + (p0 - p1) * kCurveA[k]) + t0 * kCurveB[k]) + t1 * kCurveC[k];
}

// The radius of a vertex from scalar channel 0; a short channel gives 0.
inline float vertexRadius(const Part& part, uint32_t vertex) {
    if (part.scalarChannels.empty()) return 0.0f;
    const std::vector<float>& radii = part.scalarChannels[0].elements;
    return vertex < radii.size() ? radii[vertex] : 0.0f;
}

// The unit tangent of a vertex, or the zero vector when it has none.
inline Vector vertexTangent(const Part& part, uint32_t vertex) {
    return vertex < part.tangents.size() ? unpackDirection(part.tangents[vertex]) : Vector{0.0f, 0.0f, 0.0f};
}

// Whether a ray may see a shader's surfaces, by the shader's visibility: 0
// invisible, 1 hidden from first rays of lights, 2 hidden from first rays of
// the camera, 3 visible to all. A shader index past the list sees all rays.
inline bool visibleTo(const RayState& ray, uint32_t shader) {
    const uint8_t visibility = shader < registry.shaders.size() ? registry.shaders[shader].geometry.visibility : 3;
    if (visibility == 0) return false;
    if (ray.depth == 0) return ray.photon_path ? visibility != 1 : visibility != 2;
    return true;
}

// A ray never meets the surface it left: the same kind and index in the same
// part, reached through the same chain of instances. Kind and index first,
// as they almost always differ.
inline bool isParentSurface(const RayState& ray, uint8_t kind, uint32_t index, const Part* part) {
    return ray.previous_primitive == index && ray.previous_kind == kind && ray.previous_part == part &&
           ray.previous_path == ray.instance_path;
}
// The same for the hit that a shadow ray starts from.
inline bool isCurrentSurface(const RayState& ray, uint8_t kind, uint32_t index, const Part* part) {
    return ray.primitive == index && ray.kind == kind && ray.part == part && ray.hit_path == ray.instance_path;
}

// Results of a successful test. `det` is set by the face tests only.
struct PrimitiveHit {
    float t;
    float det;
    uint32_t shader;
    Vector barycentric;
    uint8_t front;
};

// Each test takes the part, the index into its family and the ray, whose `t`
// is the far limit; it does not change the ray.
bool intersectParticle(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit);
bool intersectCylinder(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit);
// The face tests are inline: the walks run them in their innermost loop.
// Each face form (the part's arrays, or a leaf record) feeds one shared test,
// so both give the same bits.

// The triangle from its corner a, its normal n = e1 x e2, the axes e2 x n and
// n x e1 and the squared length of n.
inline bool triangleTest(Vector a, Vector n, Vector uAxis, Vector vAxis, float nn, uint32_t shader,
                         const RayState& ray, PrimitiveHit& hit) {
    const Vector& d = ray.direction;
    const float det = dot(n, d);
    const Vector w = a - ray.origin;
    // A det of 0 gives an infinite or NaN distance, which the limits turn
    // down or which falls through to the corner tests.
    const float t = dot(n, w) / det;
    const Vector r = (d * t - w) / nn;
    const float u = dot(r, uAxis);
    const float v = dot(r, vAxis);
    const float w0 = 1.0f - u - v;
    // All limits are tested together, with one branch: which of them turns a
    // ray down is not predictable, and the arithmetic is cheaper than a miss.
    const bool inside = !(t < kTriangleEpsilon) & !(t > ray.t - kTriangleEpsilon) & (u >= 0.0f) & (u <= 1.0f) &
                        (v >= 0.0f) & (v <= 1.0f) & !(w0 < 0.0f);
    if (!inside || !visibleTo(ray, shader)) return false;
    hit.t = t;
    hit.det = det;
    hit.shader = shader;
    hit.front = det < 0.0f;
    hit.barycentric = {w0, u, v};
    return true;
}

// The four corners in order around the face, taken as one plane whether or not they are.
inline bool tetragonTest(Vector a, Vector b, Vector c, Vector e, uint32_t shader, const RayState& ray,
                         PrimitiveHit& hit) {
    const Vector& o = ray.origin;
    const Vector& d = ray.direction;
    const Vector n = cross(c - a, e - b);
    const float det = dot(n, d);
    const float t = dot(n, a - o) / det;
    const Vector A = a - o, B = b - o, C = c - o, E = e - o;
    const float s0 = dot(d, cross(A, B));
    const float s1 = dot(d, cross(B, C));
    const float s2 = dot(d, cross(C, E));
    const float s3 = dot(d, cross(E, A));
    // The limits and the side tests are combined into one branch, as in the
    // triangle test.
    const bool negative = (s0 < 0.0f) | (s1 < 0.0f) | (s2 < 0.0f) | (s3 < 0.0f);
    const bool positive = (s0 > 0.0f) | (s1 > 0.0f) | (s2 > 0.0f) | (s3 > 0.0f);
    const bool inside = !(t < kTetragonEpsilon) & !(t > ray.t - kTetragonEpsilon) & !((det > 0.0f) & negative) &
                        !((det < 0.0f) & positive);
    if (!inside || !visibleTo(ray, shader)) return false;
    const float u = s0 / (s0 + s2);
    const float v = s3 / (s1 + s3);
    hit.t = t;
    hit.det = det;
    hit.shader = shader;
    hit.front = det < 0.0f;
    hit.barycentric = {u, v, 0.0f};
    return true;
}

inline bool intersectTriangle(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit) {
    const Triangle& face = part.triangles[index];
    const Vector a = part.positions[face.a];
    const Vector e1 = part.positions[face.b] - a;
    const Vector e2 = part.positions[face.c] - a;
    const Vector n = cross(e1, e2);
    return triangleTest(a, n, cross(e2, n), cross(n, e1), dot(n, n), face.shader, ray, hit);
}

inline bool intersectTetragon(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit) {
    const Tetragon& face = part.tetragons[index];
    return tetragonTest(part.positions[face.a], part.positions[face.b], part.positions[face.c],
                        part.positions[face.d], face.shader, ray, hit);
}

// The face tests on a leaf record (geometry/hierarchy.h), whose ray-free
// terms were computed once when the hierarchy was finished.

// The ray's origin and direction in lanes 0 to 2 of SSE registers, set once
// per walk for the triangle test on records.
struct RayLanes {
    __m128 origin, direction;
};

inline RayLanes rayLanes(const RayState& ray) {
    return {_mm_setr_ps(ray.origin.x, ray.origin.y, ray.origin.z, 0.0f),
            _mm_setr_ps(ray.direction.x, ray.direction.y, ray.direction.z, 0.0f)};
}

// Two dot products at once, in lanes 0 and 1: the products x + y, then + z,
// the order of `dot`, so both sums have its bits.
inline __m128 dotPair(__m128 a, __m128 b, __m128 c, __m128 d) {
    const __m128 ab = _mm_mul_ps(a, b), cd = _mm_mul_ps(c, d);
    const __m128 low = _mm_unpacklo_ps(ab, cd), high = _mm_unpackhi_ps(ab, cd);
    return _mm_add_ps(_mm_add_ps(low, _mm_movehl_ps(low, low)), high);
}

// `triangleTest` on a record, with each vector in one register: every lane
// does the operation of the scalar test on its component, in the same order,
// so the results are the same bits. Lane 3 carries the next field of the
// record along and is never summed.
inline bool triangleRecordTest(const LeafRecord& face, const RayLanes& lanes, const RayState& ray, PrimitiveHit& hit) {
    const float* p = &face.p[0].x;
    const __m128 a = _mm_loadu_ps(p), n = _mm_loadu_ps(p + 3), uAxis = _mm_loadu_ps(p + 6),
                 vAxis = _mm_loadu_ps(p + 9);
    const __m128 w = _mm_sub_ps(a, lanes.origin);
    const __m128 detAndNw = dotPair(n, lanes.direction, n, w);
    const __m128 t = _mm_div_ss(_mm_movehdup_ps(detAndNw), detAndNw);
    const __m128 r = _mm_div_ps(_mm_sub_ps(_mm_mul_ps(lanes.direction, _mm_shuffle_ps(t, t, 0)), w),
                                _mm_set1_ps(face.nn));
    const __m128 uv = dotPair(r, uAxis, r, vAxis);
    const __m128 w0 = _mm_sub_ss(_mm_sub_ss(_mm_set_ss(1.0f), uv), _mm_movehdup_ps(uv));
    // u, v, w0 and t against their limits in one comparison. The scalar test
    // lets a NaN t through its limits, but a NaN t makes u NaN, which fails
    // here as there, so ordered comparisons give the same answers.
    const __m128 values = _mm_movelh_ps(uv, _mm_unpacklo_ps(w0, t));
    const __m128 low = _mm_setr_ps(0.0f, 0.0f, 0.0f, kTriangleEpsilon);
    const __m128 high = _mm_setr_ps(1.0f, 1.0f, kInfinity, ray.t - kTriangleEpsilon);
    const __m128 inside = _mm_and_ps(_mm_cmpge_ps(values, low), _mm_cmple_ps(values, high));
    if (_mm_movemask_ps(inside) != 0xF || !visibleTo(ray, face.shader)) return false;
    const float det = _mm_cvtss_f32(detAndNw);
    hit.t = _mm_cvtss_f32(t);
    hit.det = det;
    hit.shader = face.shader;
    hit.front = det < 0.0f;
    hit.barycentric = {_mm_cvtss_f32(w0), _mm_cvtss_f32(uv), _mm_cvtss_f32(_mm_movehdup_ps(uv))};
    return true;
}

inline bool intersectTriangleRecord(const LeafRecord& face, const RayState& ray, PrimitiveHit& hit) {
    return triangleRecordTest(face, rayLanes(ray), ray, hit);
}

inline bool intersectTetragonRecord(const LeafRecord& face, const RayState& ray, PrimitiveHit& hit) {
    return tetragonTest(face.p[0], face.p[1], face.p[2], face.p[3], face.shader, ray, hit);
}

// The sphere as the occlusion walk sees it: entry and exit at b -+ D, with D
// the discriminant itself, and the current and parent particles skipped.
bool intersectParticleShadow(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit);
