#include "core/random.h"

#include <omp.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <random>

#include "core/constants.h"

std::vector<float> radicalTables[kRadicalTables];
uint32_t primes[kPrimeCount];
uint8_t noisePermutation[512];

namespace {

// The classic permutation of improved noise.
constexpr uint8_t kPermutation[256] = {
    151, 160, 137, 91,  90,  15,  131, 13,  201, 95,  96,  53,  194, 233, 7,   225, 140, 36,  103, 30,  69,
    142, 8,   99,  37,  240, 21,  10,  23,  190, 6,   148, 247, 120, 234, 75,  0,   26,  197, 62,  94,  252,
    219, 203, 117, 35,  11,  32,  57,  177, 33,  88,  237, 149, 56,  87,  174, 20,  125, 136, 171, 168, 68,
    175, 74,  165, 71,  134, 139, 48,  27,  166, 77,  146, 158, 231, 83,  111, 229, 122, 60,  211, 133, 230,
    220, 105, 92,  41,  55,  46,  245, 40,  244, 102, 143, 54,  65,  25,  63,  161, 1,   216, 80,  73,  209,
    76,  132, 187, 208, 89,  18,  169, 200, 196, 135, 130, 116, 188, 159, 86,  164, 100, 109, 198, 173, 186,
    3,   64,  52,  217, 226, 250, 124, 123, 5,   202, 38,  147, 118, 126, 255, 82,  85,  212, 207, 206, 59,
    227, 47,  16,  58,  17,  182, 189, 28,  42,  223, 183, 170, 213, 119, 248, 152, 2,   44,  154, 163, 70,
    221, 153, 101, 155, 167, 43,  172, 9,   129, 22,  39,  253, 19,  98,  108, 110, 79,  113, 224, 232, 178,
    185, 112, 104, 218, 246, 97,  228, 251, 34,  242, 193, 238, 210, 144, 12,  191, 179, 162, 241, 81,  51,
    145, 235, 249, 14,  239, 107, 49,  192, 214, 31,  181, 199, 106, 157, 184, 84,  204, 176, 115, 121, 50,
    45,  127, 4,   150, 254, 138, 236, 205, 93,  222, 114, 67,  29,  24,  72,  243, 141, 128, 195, 78,  66,
    215, 61,  156, 180};

void fillPrimes() {
    int n = 0;
    for (uint32_t candidate = 2; n < kPrimeCount; ++candidate) {
        bool prime = true;
        for (int i = 0; i < n && primes[i] * primes[i] <= candidate; ++i)
            if (candidate % primes[i] == 0) { prime = false; break; }
        if (prime) primes[n++] = candidate;
    }
}

// Seeds handed out by the test hook; 0 means the system's entropy source.
std::atomic<uint64_t> forcedSeed{0};
std::atomic<uint32_t> seedGeneration{0};

struct ThreadGenerator {
    std::mt19937 engine;
    uint32_t generation = ~0u;
};

thread_local ThreadGenerator threadGenerator;

}  // namespace

uint32_t hardwareRandom() {
    ThreadGenerator& g = threadGenerator;
    uint32_t generation = seedGeneration.load(std::memory_order_relaxed);
    if (g.generation != generation) {
        uint64_t seed = forcedSeed.load(std::memory_order_relaxed);
        if (seed == 0) {
            std::random_device device;
            g.engine.seed(device());
        } else {
            g.engine.seed(uint32_t(seed + uint64_t(omp_get_thread_num())));
        }
        g.generation = generation;
    }
    return uint32_t(g.engine());
}

float hardwareRandomFloat() { return float(hardwareRandom()) * kUnitScale; }

void seedHardwareRandom(uint64_t seed) {
    forcedSeed.store(seed);
    seedGeneration.fetch_add(1);
}

float radicalInverseLoop(uint32_t index, uint32_t dimension) {
    uint32_t b = primes[dimension];
    float f = 1.0f / float(b);
    float v = 0.0f, w = f;
    while (index > 0) {
        v += float(index % b) * w;
        w *= f;
        index /= b;
    }
    return v;
}

float radicalInverse(uint32_t index, uint32_t dimension) {
    if (dimension < uint32_t(kRadicalTables) && index < uint32_t(kRadicalTableSize))
        return radicalTables[dimension][index];
    return radicalInverseLoop(index, dimension);
}

void initializeRandomTables() {
    std::srand(unsigned(std::time(nullptr)));
    fillPrimes();
#pragma omp parallel for schedule(static)
    for (int d = 0; d < kRadicalTables; ++d) {
        radicalTables[d].resize(kRadicalTableSize);
        for (int i = 0; i < kRadicalTableSize; ++i) radicalTables[d][i] = radicalInverseLoop(uint32_t(i), uint32_t(d));
    }
    for (int i = 0; i < 512; ++i) noisePermutation[i] = kPermutation[i & 255];
}

void releaseRandomTables() {
    for (auto& table : radicalTables) table.clear();
}
