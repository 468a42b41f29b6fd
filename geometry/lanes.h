// Eight floats at a time for the load-time geometry code: vectors of lanes
// whose arithmetic is the scalar arithmetic of core/vector.h lane by lane,
// operation for operation, so that a result is the same float as the scalar
// code gives (the build fuses no multiply-adds).
#pragma once

#include <cmath>
#include <cstdint>

#include "core/vector.h"

inline constexpr int kLanes = 8;
using Lanes = float __attribute__((vector_size(32)));
using LaneInts = int32_t __attribute__((vector_size(32)));

inline Lanes broadcast(float x) { return Lanes{x, x, x, x, x, x, x, x}; }

inline Lanes squareRoot(Lanes x) {
    Lanes r;
    for (int i = 0; i < kLanes; ++i) r[i] = std::sqrt(x[i]);
    return r;
}

struct LaneVector {
    Lanes x, y, z;
};

inline LaneVector broadcast(Vector v) { return {broadcast(v.x), broadcast(v.y), broadcast(v.z)}; }
inline LaneVector operator+(const LaneVector& a, const LaneVector& b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline LaneVector operator-(const LaneVector& a, const LaneVector& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline LaneVector operator*(const LaneVector& a, Lanes s) { return {a.x * s, a.y * s, a.z * s}; }
inline LaneVector operator/(const LaneVector& a, Lanes s) { return {a.x / s, a.y / s, a.z / s}; }
inline Lanes dot(const LaneVector& a, const LaneVector& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline LaneVector cross(const LaneVector& a, const LaneVector& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// normalized() of core/vector.h on every lane.
inline LaneVector normalized(const LaneVector& v) {
    const Lanes s = dot(v, v);
    const Lanes inverse = 1.0f / squareRoot(s);
    const Lanes scale = s == 0.0f ? broadcast(1.0f) : (s <= 1e-10f ? broadcast(1.0f / 1e-5f) : inverse);
    return v * scale;
}

// Lane i of a vector of lanes.
inline Vector lane(const LaneVector& v, int i) { return {v.x[i], v.y[i], v.z[i]}; }

// Eight floats from memory, and to it.
inline Lanes load(const float* p) {
    Lanes r;
    __builtin_memcpy(&r, p, sizeof r);
    return r;
}

inline void store(Lanes x, float* p) { __builtin_memcpy(p, &x, sizeof x); }

// Four vectors of lanes from four vectors per lane: fetch(i, values) gives
// lane i's.
template <typename Fetch>
[[gnu::always_inline]] inline void gather(Fetch fetch, LaneVector (&out)[4]) {
    alignas(32) float gathered[12][kLanes];
    for (int i = 0; i < kLanes; ++i) {
        Vector values[4];
        fetch(i, values);
        for (int v = 0; v < 4; ++v) {
            gathered[3 * v][i] = values[v].x;
            gathered[3 * v + 1][i] = values[v].y;
            gathered[3 * v + 2][i] = values[v].z;
        }
    }
    for (int v = 0; v < 4; ++v) out[v] = {load(gathered[3 * v]), load(gathered[3 * v + 1]), load(gathered[3 * v + 2])};
}
