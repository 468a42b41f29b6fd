// Quasi-random sequences, the vector guards and the discrete distribution.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "capture.h"
#include "core/distribution.h"
#include "core/random.h"
#include "core/vector.h"
#include "lv.h"

namespace {

// Radical inverse computed independently, in double precision.
double referenceRadicalInverse(uint32_t index, uint32_t base) {
    double v = 0.0, w = 1.0 / base;
    for (; index > 0; index /= base, w /= base) v += (index % base) * w;
    return v;
}

class RandomTables : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ReportCapture quiet;
        lvStartup();
    }
};

}  // namespace

TEST_F(RandomTables, PrimesAndKnownValues) {
    EXPECT_EQ(primes[0], 2u);
    EXPECT_EQ(primes[15], 53u);
    EXPECT_EQ(primes[kPrimeCount - 1], 8161u);
    for (uint32_t d : {0u, 1u, 7u, 15u, 16u, 300u}) EXPECT_EQ(radicalInverse(0, d), 0.0f) << d;
    EXPECT_EQ(radicalInverse(1, 0), 0.5f);
    EXPECT_FLOAT_EQ(radicalInverse(1, 1), 1.0f / 3.0f);
    EXPECT_EQ(radicalInverse(5, 0), 0.625f);     // 101 in base 2 mirrored
    EXPECT_FLOAT_EQ(radicalInverse(10, 20), 10.0f / 73.0f);
}

TEST_F(RandomTables, TablesAndLoopAgreeWithReference) {
    for (uint32_t d = 0; d < uint32_t(kRadicalTables); ++d) {
        ASSERT_EQ(radicalTables[d].size(), size_t(kRadicalTableSize));
        for (uint32_t i = 0; i < uint32_t(kRadicalTableSize); ++i)
            ASSERT_NEAR(radicalInverse(i, d), referenceRadicalInverse(i, primes[d]), 1e-6) << d << " " << i;
    }
    // Past the tables, in index and in dimension, the loop takes over.
    for (uint32_t i : {4096u, 4097u, 65535u, 1000000u})
        EXPECT_NEAR(radicalInverse(i, 3), referenceRadicalInverse(i, 7), 1e-6) << i;
    EXPECT_NEAR(radicalInverse(4095, 16), referenceRadicalInverse(4095, primes[16]), 1e-6);
    EXPECT_NEAR(radicalInverse(12345, 1023), referenceRadicalInverse(12345, 8161), 1e-6);
}

TEST_F(RandomTables, RotationsAndPermutation) {
    EXPECT_EQ(rotated(0.7f, 0.3f), 1.0f);
    EXPECT_FLOAT_EQ(rotated(0.8f, 0.3f), 0.1f);
    EXPECT_FLOAT_EQ(rotated(0.2f, 0.3f), 0.5f);
    const float* r = &pixelRotation[0][0][0];
    EXPECT_TRUE(std::all_of(r, r + 512, [](float v) { return v >= 0.0f && v <= 1.0f; }));
    const uint8_t head[] = {151, 160, 137, 91, 90, 15, 131, 13, 201, 95, 96, 53, 194, 233, 7, 225};
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(noisePermutation[i], head[i]);
        EXPECT_EQ(noisePermutation[256 + i], head[i]);
    }
    // A permutation: every byte once in each half.
    std::vector<int> seen(256, 0);
    for (int i = 0; i < 256; ++i) ++seen[noisePermutation[i]];
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 256);
}

TEST(VectorGuards, NormalizedAndGuardedLength) {
    const Vector tiny = normalized({1e-6f, 0.0f, 0.0f});
    EXPECT_NEAR(tiny.x, 0.1f, 1e-6f);
    EXPECT_EQ(normalized(zero), zero);
    const Vector unit = normalized({3.0f, 0.0f, -4.0f});
    EXPECT_FLOAT_EQ(unit.x, 0.6f);
    EXPECT_FLOAT_EQ(unit.z, -0.8f);
    EXPECT_EQ(guardedLength(1e-12f), 1e-5f);
    EXPECT_EQ(guardedLength(0.0f), 1e-5f);
    EXPECT_FLOAT_EQ(guardedLength(4.0f), 2.0f);
}

TEST(HardwareRandom, SeededSequenceRepeats) {
    seedHardwareRandom(1234);
    std::vector<uint32_t> first(8);
    for (auto& v : first) v = hardwareRandom();
    seedHardwareRandom(1234);
    for (uint32_t v : first) EXPECT_EQ(hardwareRandom(), v);
}

namespace {

Distribution makeDistribution(const std::vector<float>& weights) {
    Distribution d;
    initializeDistribution(d, int(weights.size()));
    for (size_t i = 0; i < weights.size(); ++i) setWeight(d, int(i), weights[i]);
    finishDistribution(d);
    return d;
}

// The first entry whose cumulative value is above u, by a plain search.
int plainSearch(const Distribution& d, float u) {
    const int i = int(std::upper_bound(d.cdf.begin(), d.cdf.begin() + d.count, u) - d.cdf.begin());
    return std::min(i, d.count - 1);
}

}  // namespace

TEST(Distribution, NormalisesWeights) {
    Distribution d = makeDistribution({1.0f, 0.0f, 3.0f});
    EXPECT_DOUBLE_EQ(d.total, 4.0);
    EXPECT_FLOAT_EQ(probability(d, 0), 0.25f);
    EXPECT_EQ(probability(d, 1), 0.0f);
    EXPECT_FLOAT_EQ(probability(d, 2), 0.75f);
    EXPECT_EQ(d.cdf[3], 1.0f);
    EXPECT_EQ(d.guide[3], 2);
}

TEST(Distribution, GuideAgreesWithPlainSearch) {
    seedHardwareRandom(99);
    for (int n : {1, 2, 3, 7, 64, 1000}) {
        std::vector<float> weights(static_cast<size_t>(n));
        for (int i = 0; i < n; ++i) weights[size_t(i)] = (hardwareRandom() % 4 == 0) ? 0.0f : hardwareRandomFloat();
        weights[0] += 0.5f;   // never all zero
        Distribution d = makeDistribution(weights);
        std::vector<float> us{0.0f, 1.0f, 0.5f};
        for (int i = 0; i < 20000; ++i) us.push_back(hardwareRandomFloat());
        // The boundaries of the guide cells and every cumulative value, with their neighbours.
        for (int i = 0; i <= n; ++i) {
            const float edge = float(i) / float(n);
            us.insert(us.end(), {edge, std::nextafter(edge, 0.0f), std::nextafter(edge, 1.0f)});
            const float c = d.cdf[size_t(i)];
            us.insert(us.end(), {c, std::nextafter(c, 0.0f), std::nextafter(c, 1.0f)});
        }
        for (float u : us) {
            if (u < 0.0f || u > 1.0f) continue;
            const int got = sample(d, u);
            ASSERT_EQ(got, plainSearch(d, u)) << "n " << n << " u " << u;
            if (u < 1.0f) {
                ASSERT_GT(weights[size_t(got)], 0.0f) << "zero weight drawn, n " << n << " u " << u;
            }
        }
    }
}

TEST(Distribution, UpperEndAndZeroWeights) {
    // u = 1.0 lands on the last index; with a zero weight there it is still the last index.
    EXPECT_EQ(sample(makeDistribution({1.0f, 2.0f, 3.0f}), 1.0f), 2);
    EXPECT_EQ(sample(makeDistribution({1.0f, 2.0f, 0.0f}), 1.0f), 2);
    Distribution d = makeDistribution({0.0f, 0.0f, 1.0f, 0.0f, 0.0f, 1.0f, 0.0f});
    for (int i = 0; i < 1000; ++i) {
        const int k = sample(d, float(i) / 1000.0f);
        EXPECT_TRUE(k == 2 || k == 5) << i;
    }
}

TEST(Distribution, DrawsFollowThePdf) {
    const std::vector<float> weights{1.0f, 0.0f, 3.0f, 6.0f, 0.5f, 2.0f, 8.0f};
    Distribution d = makeDistribution(weights);
    seedHardwareRandom(4242);
    const int draws = 200000;
    std::vector<int> counts(weights.size(), 0);
    for (int i = 0; i < draws; ++i) ++counts[size_t(sample(d, hardwareRandomFloat()))];
    EXPECT_EQ(counts[1], 0);
    double chi2 = 0.0;
    for (size_t i = 0; i < weights.size(); ++i) {
        if (weights[i] == 0.0f) continue;
        const double expected = draws * double(probability(d, int(i)));
        chi2 += (counts[i] - expected) * (counts[i] - expected) / expected;
    }
    EXPECT_LT(chi2, 22.46);   // 5 degrees of freedom, p = 0.9996
}
