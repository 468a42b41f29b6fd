#include "core/sequence.h"

#include <array>
#include <cstddef>

#include "core/random.h"

namespace {

constexpr uint32_t reverseBitsSlowly(uint32_t x) {
    uint32_t r = 0;
    for (int k = 0; k < 32; ++k) r |= ((x >> k) & 1u) << (31 - k);
    return r;
}

// The columns of Sobol's generator matrices from a primitive polynomial of
// degree s (its middle coefficients as the bits of `a`, the highest first)
// and its first s direction numbers m: each column from the s before it.
constexpr std::array<uint32_t, 32> sobolColumns(int s, uint32_t a, std::array<uint32_t, 3> m) {
    std::array<uint32_t, 32> v{};
    for (int k = 0; k < s; ++k) v[std::size_t(k)] = m[std::size_t(k)] << (31 - k);
    for (int k = s; k < 32; ++k) {
        uint32_t c = v[std::size_t(k - s)] ^ (v[std::size_t(k - s)] >> s);
        for (int j = 1; j < s; ++j)
            if ((a >> (s - 1 - j)) & 1u) c ^= v[std::size_t(k - j)];
        v[std::size_t(k)] = c;
    }
    return v;
}

// For each byte of an index, the xor of the bit-reversed columns of its set
// bits: four loads give a dimension of the point in reversed bit order.
using ByteTables = std::array<std::array<uint32_t, 256>, 4>;
constexpr ByteTables byteTables(const std::array<uint32_t, 32>& columns) {
    ByteTables t{};
    for (int b = 0; b < 4; ++b)
        for (uint32_t value = 0; value < 256; ++value)
            for (int j = 0; j < 8; ++j)
                if ((value >> j) & 1u) t[std::size_t(b)][value] ^= reverseBitsSlowly(columns[std::size_t(8 * b + j)]);
    return t;
}

// Dimensions 1 to 3: from x + 1, x^2 + x + 1 and x^3 + x + 1, with the first
// direction numbers 1; 1, 3; and 1, 3, 1. (Dimension 0 is the radical
// inverse in base 2.)
constexpr ByteTables kDimensionTables[3] = {
    byteTables(sobolColumns(1, 0, {1, 0, 0})),
    byteTables(sobolColumns(2, 1, {1, 3, 0})),
    byteTables(sobolColumns(3, 1, {1, 3, 1})),
};

inline uint32_t reverseBits(uint32_t x) {
    x = __builtin_bswap32(x);
    x = ((x & 0x0F0F0F0Fu) << 4) | ((x & 0xF0F0F0F0u) >> 4);
    x = ((x & 0x33333333u) << 2) | ((x & 0xCCCCCCCCu) >> 2);
    return ((x & 0x55555555u) << 1) | ((x & 0xAAAAAAAAu) >> 1);
}

// Sobol dimension `dimension` at `index`, in reversed bit order: the first
// digit of the fraction in the lowest bit.
inline uint32_t reversedSobol(uint32_t index, int dimension) {
    if (dimension == 0) return index;
    const ByteTables& t = kDimensionTables[dimension - 1];
    return t[0][index & 255u] ^ t[1][(index >> 8) & 255u] ^ t[2][(index >> 16) & 255u] ^ t[3][index >> 24];
}

// Owen's scramble in reversed order, where the first digit of the fraction
// is the lowest bit: an addition and xors with products by even numbers
// change each bit by the bits below it alone, so that each digit flips by
// the digits before it. The constants are Burley's.
inline uint32_t laineKarras(uint32_t x, uint32_t seed) {
    x += seed;
    x ^= x * 0x6C50B47Cu;
    x ^= x * 0xB82F1E52u;
    x ^= x * 0xC7AFE638u;
    x ^= x * 0x8D22F6E6u;
    return x;
}

// Dimension `dimension` of the Sobol point at `index`, scrambled by `seed`.
inline uint32_t scrambledSobol(uint32_t index, int dimension, uint32_t seed) {
    return reverseBits(laineKarras(reversedSobol(index, dimension), seed));
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

// The index shuffled by Owen's scramble of its bits taken as a fraction in
// reverse: every aligned block of 2^k indices stays together.
inline uint32_t shuffled(uint32_t index, uint32_t seed) { return reverseBits(laineKarras(reverseBits(index), seed)); }

}  // namespace

uint32_t mixBits(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7FEB352Du;
    x ^= x >> 15;
    x *= 0x846CA68Bu;
    x ^= x >> 16;
    return x;
}

uint32_t sobolBits(uint32_t index, int dimension) { return reverseBits(reversedSobol(index, dimension)); }

uint32_t nestedScramble(uint32_t value, uint32_t seed) { return reverseBits(laineKarras(reverseBits(value), seed)); }

float drawWithJitter(uint32_t key, uint32_t frame, SequenceUse use) {
    // The jitter's own shuffle of the frame, and a dimension of the same
    // Sobol point beyond the jitter's two.
    const uint32_t index = shuffled(frame, eventSeeds(key, 0, kUseJitter).shuffle);
    return unit(scrambledSobol(index, use == kUseSkyTexel ? 3 : 2, eventSeeds(key, 0, use).first));
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
    const uint32_t index = shuffled(sampler.index, seeds.shuffle);
    a = unit(scrambledSobol(index, 0, seeds.first));
    b = unit(scrambledSobol(index, 1, seeds.second));
}

float drawOne(const SequenceSampler& sampler, SequenceUse use) {
    if (sampler.key == 0) return radicalInverse(sampler.index, sampler.dimension);
    const EventSeeds seeds = eventSeeds(sampler.key, sampler.dimension, use);
    return unit(scrambledSobol(shuffled(sampler.index, seeds.shuffle), 0, seeds.first));
}
