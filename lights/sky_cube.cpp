// The sky's cube: the warped parametrisation of its six faces, texel codes,
// and the bake of the sky image into RGBE texels with their distribution.
#include <algorithm>
#include <cmath>

#include "core/constants.h"
#include "core/exponent.h"
#include "core/hilbert.h"
#include "core/registry.h"
#include "lights/sky_light.h"
#include "core/images.h"

std::vector<uint32_t> skyCube[6];

namespace {

Distribution cubeDistribution;

// The warp of one cube coordinate a (in -128..128): with a' = a / 128 and
// g = sin(a' pi / 6), g / sqrt(0.5 - g^2). It is 1 at a' = 1 and evens out
// the solid angles of the texels across a face.
inline float warp(float a) {
    const float g = std::sin(a / 128.0f * (kPi / 6.0f));
    return g / guardedLength(0.5f - g * g);
}

// The inverse of the warp on a coordinate already divided by the dominant
// one, giving a' in -1..1.
inline float unwarp(float q) {
    const float r = q / guardedLength(2.0f + 2.0f * q * q);
    return (6.0f / kPi) * std::asin(std::clamp(r, -1.0f, 1.0f));
}

// The direction of a face from the warped values of A = 128 - s and
// B = 128 - t and of the face's fixed coordinate (+128 warps to `plus`,
// -128 to `minus`).
inline Vector faceDirection(int face, float wa, float wb, float plus, float minus) {
    switch (face) {
    case 0: return normalized({plus, wb, wa});
    case 1: return normalized({-wa, wb, plus});
    case 2: return normalized({minus, wb, -wa});
    case 3: return normalized({wa, wb, minus});
    case 4: return normalized({wa, plus, wb});
    default: return normalized({-wa, minus, wb});
    }
}

}  // namespace

const Distribution& skyDistribution() { return cubeDistribution; }

Vector cubeDirection(int face, float s, float t) {
    return faceDirection(face, warp(128.0f - s), warp(128.0f - t), warp(128.0f), warp(-128.0f));
}

uint32_t skyEntryOf(uint32_t code) {
    return (code & 0xFFFF0000u) | hilbertIndex(code & 0xFFu, (code >> 8) & 0xFFu, 8);
}

uint32_t skyTexelOfEntry(uint32_t entry) {
    uint32_t x, y;
    hilbertCell(entry & 0xFFFFu, 8, x, y);
    return (entry & 0xFFFF0000u) | y << 8 | x;
}

uint32_t cubeTexelOf(Vector d) {
    const float ax = std::fabs(d.x), ay = std::fabs(d.y), az = std::fabs(d.z);
    uint32_t face;
    float s, t;
    if (az > std::fmax(ax, ay)) {
        const float a = d.x / az, b = d.y / az;
        face = d.z > 0.0f ? 1 : 3;
        t = 1.0f - unwarp(b);
        s = d.z > 0.0f ? unwarp(a) + 1.0f : 1.0f - unwarp(a);
    } else if (ay > ax) {
        const float a = d.x / ay, c = d.z / ay;
        face = d.y > 0.0f ? 4 : 5;
        t = 1.0f - unwarp(c);
        s = d.y > 0.0f ? 1.0f - unwarp(a) : unwarp(a) + 1.0f;
    } else {
        const float b = d.y / ax, c = d.z / ax;
        face = d.x > 0.0f ? 0 : 2;
        t = 1.0f - unwarp(b);
        s = d.x > 0.0f ? 1.0f - unwarp(c) : unwarp(c) + 1.0f;
    }
    // NaN coordinates (a zero direction) fall to texel 0.
    const uint32_t x = uint32_t(std::clamp(int(s * 128.0f), 0, 255));
    const uint32_t y = uint32_t(std::clamp(int(t * 128.0f), 0, 255));
    return face << 16 | y << 8 | x;
}

namespace {

// Area of the spherical triangle of three unit vectors.
double sphericalTriangle(Vector a, Vector b, Vector c) {
    const double numerator = std::fabs(double(dot(a, cross(b, c))));
    return 2.0 * std::atan2(numerator, 1.0 + double(dot(a, b)) + double(dot(b, c)) + double(dot(c, a)));
}

// The solid angles of the texels of one face; every face is a turn of the
// first. Lines of constant s or t are great circles, so a texel is a
// spherical quad of two triangles.
std::vector<float> faceSolidAngles() {
    std::vector<float> angles(kCubeFaceTexels);
    for (int y = 0; y < kCubeFaceSize; ++y)
        for (int x = 0; x < kCubeFaceSize; ++x) {
            const float s = float(x), t = float(y);
            const Vector a = cubeDirection(0, s, t), b = cubeDirection(0, s + 1.0f, t);
            const Vector c = cubeDirection(0, s + 1.0f, t + 1.0f), d = cubeDirection(0, s, t + 1.0f);
            angles[size_t(y * kCubeFaceSize + x)] = float(sphericalTriangle(a, b, c) + sphericalTriangle(a, c, d));
        }
    return angles;
}

}  // namespace

float texelSolidAngle(uint32_t code) {
    static const std::vector<float> angles = faceSolidAngles();
    return angles[code & 0xFFFFu];
}

Color cubeTexelColor(uint32_t code) {
    const uint32_t p = skyCube[code >> 16][code & 0xFFFFu];
    const uint32_t e = p >> 24;
    if (e == 0) return zero;
    const float scale = exponentTable[e];
    return {float(p & 255u) * scale, float((p >> 8) & 255u) * scale, float((p >> 16) & 255u) * scale};
}

bool bakeSkyCube() {
    // Texels are averaged over 4 x 4 sub-positions, so a face coordinate
    // takes 1024 values; their warps are shared by all texels and faces.
    static float warped[4 * kCubeFaceSize];
    for (int i = 0; i < 4 * kCubeFaceSize; ++i) warped[i] = warp(128.0f - float(i) * 0.25f);
    const float plus = warp(128.0f), minus = warp(-128.0f);

    for (std::vector<uint32_t>& face : skyCube) face.resize(kCubeFaceTexels);
    initializeDistribution(cubeDistribution, kCubeTexels);

#pragma omp parallel for schedule(dynamic, 1)
    for (int face = 0; face < 6; ++face) {
        uint32_t* texels = skyCube[face].data();
        for (int y = 0; y < kCubeFaceSize; ++y)
            for (int x = 0; x < kCubeFaceSize; ++x) {
                Color sum = zero;
                for (int sy = 0; sy < 4; ++sy)
                    for (int sx = 0; sx < 4; ++sx) {
                        const Vector d = faceDirection(face, warped[4 * x + sx], warped[4 * y + sy], plus, minus);
                        sum += skyRadiance(d);
                    }
                const Color average = sum * 0.0625f;
                const uint32_t code = uint32_t(face) << 16 | uint32_t(y) << 8 | uint32_t(x);
                texels[y * kCubeFaceSize + x] = packRgbe(average);
                setWeight(cubeDistribution, int(skyEntryOf(code)), largestChannel(average));
            }
    }

    // An all-black sky cannot be normalised; it keeps no distribution.
    if (std::none_of(cubeDistribution.pdf.begin(), cubeDistribution.pdf.end(), [](float w) { return w > 0.0f; })) {
        releaseDistribution(cubeDistribution);
        cubeDistribution = {};
        return false;
    }
    finishDistribution(cubeDistribution);
    return true;
}

void releaseSkyCube() {
    releaseDistribution(cubeDistribution);
    cubeDistribution = {};
    // The faces keep their storage for the next bake.
    for (std::vector<uint32_t>& face : skyCube) face.clear();
}
