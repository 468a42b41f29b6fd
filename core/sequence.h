// The numbers that the events of a camera path draw: Owen-scrambled Sobol
// points (B. Burley, "Practical Hash-based Owen Scrambling", JCGT 9(4),
// 2020), scrambled per pixel and per event from a hash of the pixel, the
// path's dimension, the kind of event and a seed drawn once per run.
//
// Each event takes the first two Sobol dimensions at a shuffled index. Over
// the indices 0 to 2^k - 1 (the frames of a run, or the rays of a split) the
// pairs of one event then form a (0, k, 2)-net: every dyadic box of area
// 2^-k holds exactly one. Events differ by their scramble and their shuffle,
// so that no two of them, and no two pixels, draw related numbers.
//
// Photons keep the plain Halton sequence, indexed by the photon: a sampler
// with key 0 draws it.
#pragma once

#include <cstdint>

// What an event draws its numbers for; each has a scramble of its own.
enum SequenceUse : uint32_t {
    kUseJitter = 1,         // the camera ray's place in its pixel
    kUseLobe,               // a lobe's direction
    kUseGeometryLight,      // a point of the geometry light
    kUseSkyTexel,           // a texel of the sky's cube
    kUseSkyPosition,        // the place inside that texel
    kUsePointLight,         // a point on a blurred point light
    kUseParallelLight,      // a direction in a blurred parallel light's cone
};

// Where in the sequence an event draws: the path's key (0 for photons), the
// sample index and the dimension of the ray that asks.
struct SequenceSampler {
    uint32_t key;
    uint32_t index;
    uint32_t dimension;
};

// Two numbers in [0, 1) for the event `use`. With key 0 they are the radical
// inverses of the index in `dimension` and `dimension` + 1, and `use` plays
// no part.
void drawPair(const SequenceSampler& sampler, SequenceUse use, float& a, float& b);
// The first of the pair alone.
float drawOne(const SequenceSampler& sampler, SequenceUse use);

// The key of pixel (x, y) for a run's seed: never 0.
uint32_t pixelSequenceKey(uint32_t seed, int x, int y);

// Dimension 0 to 3 of the Sobol sequence at `index`, as 32 bits of a binary
// fraction.
uint32_t sobolBits(uint32_t index, int dimension);
// Owen's nested uniform scramble of a 32-bit binary fraction: a random swap
// of the halves of every dyadic interval, chosen by the hash of `seed`. A
// bijection that keeps every dyadic interval together.
uint32_t nestedScramble(uint32_t value, uint32_t seed);
// The pick of a light (kUseGeometryLight or kUseSkyTexel) that a pixel's
// first hit takes once a frame, drawn with the pixel's jitter of `frame`: a
// third and a fourth dimension of the jitter's Sobol point, so that the
// picks of the frames are stratified jointly with the places in the pixel
// (light that changes across a pixel, as in a penumbra, converges faster).
float drawWithJitter(uint32_t key, uint32_t frame, SequenceUse use);
// A 32-bit mix with full avalanche, for seeds and keys.
uint32_t mixBits(uint32_t value);
