#include "core/sequence.h"

#include <array>

#include "core/random.h"

namespace {

// The direction numbers of Sobol's second dimension, from the polynomial
// x + 1: each column is the one before, xor its own shift by one.
constexpr std::array<uint32_t, 32> kSecondDimension = [] {
    std::array<uint32_t, 32> v{};
    v[0] = 1u << 31;
    for (int k = 1; k < 32; ++k) v[k] = v[k - 1] ^ (v[k - 1] >> 1);
    return v;
}();

// Sobol's third dimension, from x^2 + x + 1 with the first numbers 1 and 3,
// and its fourth, from x^3 + x + 1 with 1, 3 and 1.
constexpr std::array<uint32_t, 32> kThirdDimension = [] {
    std::array<uint32_t, 32> v{};
    v[0] = 1u << 31;
    v[1] = 3u << 30;
    for (int k = 2; k < 32; ++k) v[k] = v[k - 1] ^ v[k - 2] ^ (v[k - 2] >> 2);
    return v;
}();
constexpr std::array<uint32_t, 32> kFourthDimension = [] {
    std::array<uint32_t, 32> v{};
    v[0] = 1u << 31;
    v[1] = 3u << 30;
    v[2] = 1u << 29;
    for (int k = 3; k < 32; ++k) v[k] = v[k - 2] ^ v[k - 3] ^ (v[k - 3] >> 3);
    return v;
}();

inline uint32_t reverseBits(uint32_t x) {
    x = (x << 16) | (x >> 16);
    x = ((x & 0x00FF00FFu) << 8) | ((x & 0xFF00FF00u) >> 8);
    x = ((x & 0x0F0F0F0Fu) << 4) | ((x & 0xF0F0F0F0u) >> 4);
    x = ((x & 0x33333333u) << 2) | ((x & 0xCCCCCCCCu) >> 2);
    return ((x & 0x55555555u) << 1) | ((x & 0xAAAAAAAAu) >> 1);
}

// 24 bits of a binary fraction as a float below 1.
inline float unit(uint32_t bits) { return float(bits >> 8) * 0x1p-24f; }

// The three seeds of one event: its index shuffle and its two dimensions.
struct EventSeeds {
    uint32_t shuffle, first, second;
};

inline EventSeeds eventSeeds(uint32_t key, uint32_t dimension, SequenceUse use) {
    const uint32_t base = mixBits(key + mixBits(dimension * 16u + uint32_t(use)));
    return {mixBits(base ^ 0x68E31DA4u), mixBits(base ^ 0xB5297A4Du), mixBits(base ^ 0x1B56C4E9u)};
}

}  // namespace

uint32_t mixBits(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    x ^= x >> 16;
    return x;
}

uint32_t sobolBits(uint32_t index, int dimension) {
    if (dimension == 0) return reverseBits(index);
    const std::array<uint32_t, 32>& columns =
        dimension == 1 ? kSecondDimension : (dimension == 2 ? kThirdDimension : kFourthDimension);
    uint32_t v = 0;
    for (; index != 0; index &= index - 1) v ^= columns[uint32_t(__builtin_ctz(index))];
    return v;
}

float drawWithJitter(uint32_t key, uint32_t frame, SequenceUse use) {
    // The jitter's own shuffle of the frame, and a dimension of the same
    // Sobol point beyond the jitter's two.
    const uint32_t index = nestedScramble(frame, eventSeeds(key, 0, kUseJitter).shuffle);
    const int dimension = use == kUseSkyTexel ? 3 : 2;
    return unit(nestedScramble(sobolBits(index, dimension), eventSeeds(key, 0, use).first));
}

uint32_t nestedScramble(uint32_t value, uint32_t seed) {
    // In reversed order the first digit of the fraction is the lowest bit.
    // An addition and xors with products by even numbers change each bit
    // by the bits below it alone, so each digit flips by the digits before
    // it: a nested scramble. The constants are Burley's.
    uint32_t x = reverseBits(value);
    x += seed;
    x ^= x * 0x6C50B47Cu;
    x ^= x * 0xB82F1E52u;
    x ^= x * 0xC7AFE638u;
    x ^= x * 0x8D22F6E6u;
    return reverseBits(x);
}

uint32_t pixelSequenceKey(uint32_t seed, int x, int y) {
    const uint32_t key = mixBits(seed ^ mixBits(uint32_t(x) + mixBits(uint32_t(y) ^ 0x5BD1E995u)));
    return key != 0 ? key : 1u;
}

void drawPair(const SequenceSampler& sampler, SequenceUse use, float& a, float& b) {
    if (sampler.key == 0) {
        a = radicalInverse(sampler.index, sampler.dimension);
        b = radicalInverse(sampler.index, sampler.dimension + 1);
        return;
    }
    const EventSeeds seeds = eventSeeds(sampler.key, sampler.dimension, use);
    // A shuffled index keeps every aligned block of 2^k indices together, so
    // the first 2^k draws still form a net.
    const uint32_t index = nestedScramble(sampler.index, seeds.shuffle);
    a = unit(nestedScramble(sobolBits(index, 0), seeds.first));
    b = unit(nestedScramble(sobolBits(index, 1), seeds.second));
}

float drawOne(const SequenceSampler& sampler, SequenceUse use) {
    if (sampler.key == 0) return radicalInverse(sampler.index, sampler.dimension);
    const EventSeeds seeds = eventSeeds(sampler.key, sampler.dimension, use);
    return unit(nestedScramble(sobolBits(nestedScramble(sampler.index, seeds.shuffle), 0), seeds.first));
}
