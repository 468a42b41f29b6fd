// The Halton sequence (radical inverses) of photons and of the geometry
// light's points, the noise permutation, and the hardware-like source of
// uniform 32-bit integers.
#pragma once

#include <cstdint>
#include <vector>

inline constexpr int kRadicalTables = 16;
inline constexpr int kRadicalTableSize = 4096;
inline constexpr int kPrimeCount = 1024;

extern std::vector<float> radicalTables[kRadicalTables];
extern uint32_t primes[kPrimeCount];
extern uint8_t noisePermutation[512];

// Fills the radical inverse tables and the permutation.
void initializeRandomTables();
// Empties the radical inverse tables; their storage stays.
void releaseRandomTables();

// Radical inverse of index in base primes[dimension]: a table load for the
// first 4096 indices of the first 16 dimensions, the digit loop otherwise.
float radicalInverse(uint32_t index, uint32_t dimension);
// The digit loop alone, in 32-bit floats.
float radicalInverseLoop(uint32_t index, uint32_t dimension);

// A uniform 32-bit integer from this thread's own generator, which is seeded
// once per thread from the system's entropy source.
uint32_t hardwareRandom();
// A uniform float in [0, 1] from hardwareRandom.
float hardwareRandomFloat();
// Test hook: reseeds the generators deterministically. Each thread's
// generator takes seed + its thread number the next time it draws.
void seedHardwareRandom(uint64_t seed);
