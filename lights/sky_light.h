// The sky light: a constant colour, or a longitude-latitude image turned by
// the sky's frame, with a backdrop that only camera rays see. For sampling,
// the image is baked into a cube of six 256 x 256 faces of RGBE texels with
// a discrete distribution over all 393216 of them.
#pragma once

#include <cstdint>
#include <vector>

#include "core/distribution.h"
#include "core/records.h"

inline constexpr int kCubeFaceSize = 256;
inline constexpr int kCubeFaceTexels = kCubeFaceSize * kCubeFaceSize;
inline constexpr int kCubeTexels = 6 * kCubeFaceTexels;

// The baked cube: texel (x, y) of face f is skyCube[f][y * 256 + x], red,
// green and blue mantissas in the low three bytes and the exponent on top.
extern std::vector<uint32_t> skyCube[6];
// One entry per texel, weighted by the texel's largest channel; empty unless
// an image was baked. The entries run face by face, and over each face along
// a Hilbert curve, so that a stratified pick of entries is stratified over
// the sky: entry (face << 16) + d is the texel at place d of its face's curve.
const Distribution& skyDistribution();
// The entry of a texel code, and the texel code of an entry.
uint32_t skyEntryOf(uint32_t code);
uint32_t skyTexelOfEntry(uint32_t entry);

// The unit direction through cube position (s, t) of a face, s and t in
// texels (0 to 256). The cube is warped so that texels cover more nearly
// equal solid angles than a plain projection would give them.
Vector cubeDirection(int face, float s, float t);
// The texel that a direction falls in, as (face << 16) | (y << 8) | x.
uint32_t cubeTexelOf(Vector direction);
// The colour of a baked texel by its code; black for an exponent of 0.
Color cubeTexelColor(uint32_t code);
// The solid angle that a texel covers, in steradians. The warp leaves texels
// between 0.9 and 1.2 times the mean 4 pi / 393216, the same on every face.
float texelSolidAngle(uint32_t code);
// The density per steradian at which the lights draw directions in a texel:
// its probability in the distribution over its solid angle.
inline float skyDensity(uint32_t code) {
    return probability(skyDistribution(), int(skyEntryOf(code))) / texelSolidAngle(code);
}

// The sky along a direction: the image times the colour, or the colour
// alone. Photons and window surfaces see this.
Color skyRadiance(Vector direction);
// What a ray sees on leaving the scene: the backdrop for camera rays, the
// exact image on mirror-like paths, the blurrier cube after a diffuse or
// glossy bounce.
Color skyRadianceForRay(const RayState& ray);

// The bake alone, from the prepared frame, colour and image into skyCube
// and the distribution. False when every texel came out black, which
// leaves no distribution.
bool bakeSkyCube();
// Frees the distribution and empties the faces, which keep their storage.
void releaseSkyCube();

void prepareSkyLight();
void releaseSkyLight();
