#include "geometry/intersect_primitives.h"

#include <immintrin.h>

bool intersectParticle(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit) {
    // Spheres decide visibility before any arithmetic.
    if (!visibleTo(ray, part.shader)) return false;
    if (isParentSurface(ray, kParticle, index, &part)) return false;
    const uint32_t vertex = part.particles[index];
    const float r = vertexRadius(part, vertex);
    const Vector q = part.positions[vertex] - ray.origin;
    const float c = dot(q, q);
    const float b = dot(q, ray.direction);
    const float disc = b * b - c + r * r;
    if (disc < 0.0f) return false;
    const float s = guardedLength(disc);
    // The far limit adds the epsilon here; the face tests subtract it.
    float t = b - s;
    if (!(t > kParticleEpsilon && t < kParticleEpsilon + ray.t)) {
        t = b + s;
        if (!(t > kParticleEpsilon && t < kParticleEpsilon + ray.t)) return false;
    }
    hit.t = t;
    hit.det = 0.0f;
    hit.shader = part.shader;
    hit.front = c > r * r + 1e-6f;   // the origin lies outside
    hit.barycentric = ray.direction * t - q;
    return true;
}

bool intersectParticleShadow(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit) {
    if (!visibleTo(ray, part.shader)) return false;
    if (isCurrentSurface(ray, kParticle, index, &part) || isParentSurface(ray, kParticle, index, &part)) return false;
    const uint32_t vertex = part.particles[index];
    const float r = vertexRadius(part, vertex);
    const Vector d = part.positions[vertex] - ray.origin;
    const float b = dot(d, ray.direction);
    const float disc = b * b - dot(d, d) + r * r;
    if (disc < 0.0f) return false;
    // Entry and exit are b -+ disc: the discriminant is used without its root.
    float t = b - disc;
    if (!(t > kParticleEpsilon && t < kParticleEpsilon + ray.t)) {
        t = b + disc;
        if (!(t > kParticleEpsilon && t < kParticleEpsilon + ray.t)) return false;
    }
    hit.t = t;
    hit.det = 0.0f;
    hit.shader = part.shader;
    hit.front = 1;
    hit.barycentric = ray.direction * t - d;
    return true;
}

// The hair segment as eight straight sub-segments of the cubic, one per lane:
// the ray must pass within the lane's radius of the sub-segment's line, at a
// point between the end planes that the interpolated tangents set.
bool intersectCylinder(const Part& part, uint32_t index, const RayState& ray, PrimitiveHit& hit) {
    const uint32_t vertex = part.cylinders[index];
    const Vector p0 = part.positions[vertex];
    const Vector p1 = part.positions[vertex + 1];
    const Vector t0 = vertexTangent(part, vertex);
    const Vector t1 = vertexTangent(part, vertex + 1);
    const float r0 = vertexRadius(part, vertex);
    const float r1 = vertexRadius(part, vertex + 1);

    const __m256 aStart = _mm256_loadu_ps(kCurveA), aEnd = _mm256_loadu_ps(kCurveA + 1);
    const __m256 bStart = _mm256_loadu_ps(kCurveB), bEnd = _mm256_loadu_ps(kCurveB + 1);
    const __m256 cStart = _mm256_loadu_ps(kCurveC), cEnd = _mm256_loadu_ps(kCurveC + 1);
    const __m256 blend = _mm256_loadu_ps(kCurveRadius);

    auto curve = [](float p, float q, float s, float e, __m256 a, __m256 b, __m256 c) {
        __m256 v = _mm256_add_ps(_mm256_set1_ps(p), _mm256_mul_ps(_mm256_set1_ps(p - q), a));
        v = _mm256_add_ps(v, _mm256_mul_ps(_mm256_set1_ps(s), b));
        return _mm256_add_ps(v, _mm256_mul_ps(_mm256_set1_ps(e), c));
    };
    const __m256 ax = curve(p0.x, p1.x, t0.x, t1.x, aStart, bStart, cStart);
    const __m256 ay = curve(p0.y, p1.y, t0.y, t1.y, aStart, bStart, cStart);
    const __m256 az = curve(p0.z, p1.z, t0.z, t1.z, aStart, bStart, cStart);
    const __m256 bx = curve(p0.x, p1.x, t0.x, t1.x, aEnd, bEnd, cEnd);
    const __m256 by = curve(p0.y, p1.y, t0.y, t1.y, aEnd, bEnd, cEnd);
    const __m256 bz = curve(p0.z, p1.z, t0.z, t1.z, aEnd, bEnd, cEnd);
    const __m256 radius = _mm256_add_ps(_mm256_mul_ps(_mm256_set1_ps(r0), _mm256_sub_ps(_mm256_set1_ps(1.0f), blend)),
                                        _mm256_mul_ps(_mm256_set1_ps(r1), blend));

    const __m256 dx = _mm256_set1_ps(ray.direction.x), dy = _mm256_set1_ps(ray.direction.y),
                 dz = _mm256_set1_ps(ray.direction.z);
    const __m256 ox = _mm256_set1_ps(ray.origin.x), oy = _mm256_set1_ps(ray.origin.y),
                 oz = _mm256_set1_ps(ray.origin.z);
    const __m256 ex = _mm256_sub_ps(bx, ax), ey = _mm256_sub_ps(by, ay), ez = _mm256_sub_ps(bz, az);
    const __m256 qx = _mm256_sub_ps(ax, ox), qy = _mm256_sub_ps(ay, oy), qz = _mm256_sub_ps(az, oz);

    // W = normalised D x E; dist = W . Q is the ray's offset from the line.
    __m256 wx = _mm256_sub_ps(_mm256_mul_ps(dy, ez), _mm256_mul_ps(dz, ey));
    __m256 wy = _mm256_sub_ps(_mm256_mul_ps(dz, ex), _mm256_mul_ps(dx, ez));
    __m256 wz = _mm256_sub_ps(_mm256_mul_ps(dx, ey), _mm256_mul_ps(dy, ex));
    __m256 scale = _mm256_rsqrt_ps(
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(wx, wx), _mm256_mul_ps(wy, wy)), _mm256_mul_ps(wz, wz)));
    wx = _mm256_mul_ps(wx, scale);
    wy = _mm256_mul_ps(wy, scale);
    wz = _mm256_mul_ps(wz, scale);
    const __m256 dist =
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(wx, qx), _mm256_mul_ps(wy, qy)), _mm256_mul_ps(wz, qz));
    const __m256 absDist = _mm256_andnot_ps(_mm256_set1_ps(-0.0f), dist);
    __m256 keep = _mm256_cmp_ps(absDist, radius, _CMP_LT_OQ);
    if (_mm256_movemask_ps(keep) == 0) return false;

    if (!visibleTo(ray, part.shader)) return false;

    // N = normalised E x W; the ray meets the plane through the line at t.
    __m256 nx = _mm256_sub_ps(_mm256_mul_ps(ey, wz), _mm256_mul_ps(ez, wy));
    __m256 ny = _mm256_sub_ps(_mm256_mul_ps(ez, wx), _mm256_mul_ps(ex, wz));
    __m256 nz = _mm256_sub_ps(_mm256_mul_ps(ex, wy), _mm256_mul_ps(ey, wx));
    scale = _mm256_rsqrt_ps(
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(nx, nx), _mm256_mul_ps(ny, ny)), _mm256_mul_ps(nz, nz)));
    nx = _mm256_mul_ps(nx, scale);
    ny = _mm256_mul_ps(ny, scale);
    nz = _mm256_mul_ps(nz, scale);
    const __m256 nq =
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(nx, qx), _mm256_mul_ps(ny, qy)), _mm256_mul_ps(nz, qz));
    const __m256 nd =
        _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(nx, dx), _mm256_mul_ps(ny, dy)), _mm256_mul_ps(nz, dz));
    const __m256 t = _mm256_div_ps(nq, nd);
    const __m256 epsilon = _mm256_set1_ps(kCylinderEpsilon);
    keep = _mm256_and_ps(keep, _mm256_cmp_ps(t, epsilon, _CMP_GT_OQ));
    keep = _mm256_and_ps(keep, _mm256_cmp_ps(_mm256_add_ps(t, epsilon), _mm256_set1_ps(ray.t), _CMP_LT_OQ));
    if (_mm256_movemask_ps(keep) == 0) return false;

    // End planes at right angles to the tangents interpolated at k/8 and (k+1)/8.
    const __m256 px = _mm256_add_ps(ox, _mm256_mul_ps(t, dx));
    const __m256 py = _mm256_add_ps(oy, _mm256_mul_ps(t, dy));
    const __m256 pz = _mm256_add_ps(oz, _mm256_mul_ps(t, dz));
    const __m256 kStart = _mm256_setr_ps(0.0f, 0.125f, 0.25f, 0.375f, 0.5f, 0.625f, 0.75f, 0.875f);
    const __m256 kEnd = _mm256_add_ps(kStart, _mm256_set1_ps(0.125f));
    auto lerp = [](float s, float e, __m256 f) {
        return _mm256_add_ps(_mm256_set1_ps(s), _mm256_mul_ps(_mm256_set1_ps(e - s), f));
    };
    const __m256 sx = lerp(t0.x, t1.x, kStart), sy = lerp(t0.y, t1.y, kStart), sz = lerp(t0.z, t1.z, kStart);
    const __m256 fx = lerp(t0.x, t1.x, kEnd), fy = lerp(t0.y, t1.y, kEnd), fz = lerp(t0.z, t1.z, kEnd);
    const __m256 startSide = _mm256_add_ps(
        _mm256_add_ps(_mm256_mul_ps(sx, _mm256_sub_ps(px, ax)), _mm256_mul_ps(sy, _mm256_sub_ps(py, ay))),
        _mm256_mul_ps(sz, _mm256_sub_ps(pz, az)));
    const __m256 endSide = _mm256_add_ps(
        _mm256_add_ps(_mm256_mul_ps(fx, _mm256_sub_ps(px, bx)), _mm256_mul_ps(fy, _mm256_sub_ps(py, by))),
        _mm256_mul_ps(fz, _mm256_sub_ps(pz, bz)));
    keep = _mm256_and_ps(keep, _mm256_cmp_ps(startSide, _mm256_setzero_ps(), _CMP_GE_OQ));
    keep = _mm256_and_ps(keep, _mm256_cmp_ps(endSide, _mm256_setzero_ps(), _CMP_LT_OQ));
    int lanes = _mm256_movemask_ps(keep);
    if (lanes == 0) return false;

    alignas(32) float ts[8], dists[8], radii[8];
    _mm256_store_ps(ts, t);
    _mm256_store_ps(dists, dist);
    _mm256_store_ps(radii, radius);
    int best = __builtin_ctz(unsigned(lanes));
    for (lanes &= lanes - 1; lanes; lanes &= lanes - 1) {
        const int k = __builtin_ctz(unsigned(lanes));
        if (ts[k] < ts[best]) best = k;   // the lower lane wins a tie
    }
    hit.t = ts[best];
    hit.det = 0.0f;
    hit.shader = part.shader;
    hit.front = 1;   // a fibre has no inside
    hit.barycentric = {dists[best] / radii[best], 0.0f, (float(best) + 0.5f) * 0.125f};
    return true;
}
