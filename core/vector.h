// Three-float vectors and colours, the arithmetic of the whole renderer.
#pragma once

#include <cmath>

struct Vector {
    float x, y, z;
};

// A colour is a vector read as r, g, b.
using Color = Vector;

inline Vector operator+(Vector a, Vector b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vector operator-(Vector a, Vector b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vector operator-(Vector a) { return {-a.x, -a.y, -a.z}; }
inline Vector operator*(Vector a, Vector b) { return {a.x * b.x, a.y * b.y, a.z * b.z}; }
inline Vector operator*(Vector a, float s) { return {a.x * s, a.y * s, a.z * s}; }
inline Vector operator*(float s, Vector a) { return {a.x * s, a.y * s, a.z * s}; }
inline Vector operator/(Vector a, float s) { return {a.x / s, a.y / s, a.z / s}; }
inline Vector& operator+=(Vector& a, Vector b) { a = a + b; return a; }
inline Vector& operator*=(Vector& a, Vector b) { a = a * b; return a; }
inline Vector& operator*=(Vector& a, float s) { a = a * s; return a; }
inline bool operator==(Vector a, Vector b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

inline float dot(Vector a, Vector b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vector cross(Vector a, Vector b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// Unit length with the guard that every part of the renderer uses: a zero
// vector stays zero, a vector of squared length up to 1e-10 is scaled by
// 1 / 1e-5 (so it stays short), anything longer becomes unit length.
inline Vector normalized(Vector v) {
    float s = dot(v, v);
    float scale = s == 0.0f ? 1.0f : (s <= 1e-10f ? 1.0f / 1e-5f : 1.0f / std::sqrt(s));
    return v * scale;
}

// A 3 x 3 matrix, row by row, times a vector.
inline Vector times3x3(const float m[9], Vector v) {
    return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[3] * v.x + m[4] * v.y + m[5] * v.z,
            m[6] * v.x + m[7] * v.y + m[8] * v.z};
}

// A 4 x 4 matrix, row by row, times a point, with the homogeneous divide.
inline Vector transformPoint(const float m[16], Vector p) {
    const float w = m[12] * p.x + m[13] * p.y + m[14] * p.z + m[15];
    return {(m[0] * p.x + m[1] * p.y + m[2] * p.z + m[3]) / w, (m[4] * p.x + m[5] * p.y + m[6] * p.z + m[7]) / w,
            (m[8] * p.x + m[9] * p.y + m[10] * p.z + m[11]) / w};
}

// Length from a squared length, never below 1e-5.
inline float guardedLength(float squared) { return squared > 1e-10f ? std::sqrt(squared) : 1e-5f; }

// The mean of the three channels.
inline float mean(Color c) { return (c.x + c.y + c.z) / 3.0f; }
inline float largestChannel(Color c) { return std::fmax(c.x, std::fmax(c.y, c.z)); }
inline bool isBlack(Color c) { return c.x == 0.0f && c.y == 0.0f && c.z == 0.0f; }

inline constexpr Vector zero{0.0f, 0.0f, 0.0f};
inline constexpr Vector one{1.0f, 1.0f, 1.0f};
