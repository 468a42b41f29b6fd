// Quasi-random sequences, the vector guards and the discrete distribution.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "core/distribution.h"
#include "core/random.h"
#include "scene_fixture.h"

namespace {

using RandomTables = SceneTest;

// Radical inverse computed independently, in double precision.
double referenceRadicalInverse(uint32_t index, uint32_t base) {
    double v = 0.0, w = 1.0 / base;
    for (; index > 0; index /= base, w /= base) v += (index % base) * w;
    return v;
}

Distribution makeDistribution(const std::vector<float>& weights) {
    Distribution d;
    initializeDistribution(d, int(weights.size()));
    for (size_t i = 0; i < weights.size(); ++i) setWeight(d, int(i), weights[i]);
    finishDistribution(d);
    return d;
}

}  // namespace

TEST_F(RandomTables, TablesAndLoopAgreeWithReference) {
    for (uint32_t d = 0; d < uint32_t(kRadicalTables); ++d) {
        ASSERT_EQ(radicalTables[d].size(), size_t(kRadicalTableSize));
        for (uint32_t i = 0; i < uint32_t(kRadicalTableSize); ++i)
            ASSERT_NEAR(radicalInverse(i, d), referenceRadicalInverse(i, primes[d]), 1e-6) << d << " " << i;
    }
    // Past the tables, in index and in dimension, the loop takes over.
    for (auto [i, d] : {std::pair{4096u, 3u}, {4097u, 3u}, {65535u, 3u}, {1000000u, 3u}, {4095u, 16u}, {10u, 20u},
                        {12345u, 1023u}})
        EXPECT_NEAR(radicalInverse(i, d), referenceRadicalInverse(i, primes[d]), 1e-6) << i << " " << d;
}

// Noise reads the permutation through index + 256 too: two copies of one
// permutation of the bytes.
TEST_F(RandomTables, PermutationIsDoubled) {
    std::vector<int> bytes(256);
    std::iota(bytes.begin(), bytes.end(), 0);
    EXPECT_TRUE(std::is_permutation(noisePermutation, noisePermutation + 256, bytes.begin()));
    EXPECT_TRUE(std::equal(noisePermutation, noisePermutation + 256, noisePermutation + 256));
}

// Each entry owns the stretch of the cdf that its probability says, so a
// draw that finds its stretch follows the pdf.
TEST(Distribution, NormalisesWeightsIntoAMatchingCdf) {
    const std::vector<float> weights{1.0f, 0.0f, 3.0f, 6.0f, 0.5f, 2.0f, 8.0f};
    const Distribution d = makeDistribution(weights);
    EXPECT_DOUBLE_EQ(d.total, 20.5);
    for (int i = 0; i < int(weights.size()); ++i) {
        EXPECT_NEAR(probability(d, i), weights[size_t(i)] / 20.5f, 1e-6f) << i;
        EXPECT_NEAR(d.cdf[size_t(i)] - (i ? d.cdf[size_t(i - 1)] : 0.0f), probability(d, i), 1e-6f) << i;
    }
    EXPECT_EQ(d.cdf[weights.size()], 1.0f);
}

TEST(Distribution, GuideAgreesWithPlainSearch) {
    seedHardwareRandom(99);
    std::vector<std::vector<float>> cases{{0, 0, 1, 0, 0, 1, 0}};   // zero runs at both ends
    for (int n : {1, 2, 3, 7, 64, 1000}) {
        std::vector<float>& weights = cases.emplace_back(size_t(n));
        for (float& w : weights) w = (hardwareRandom() % 4 == 0) ? 0.0f : hardwareRandomFloat();
        weights[0] += 0.5f;   // never all zero
    }
    for (const std::vector<float>& weights : cases) {
        const int n = int(weights.size());
        Distribution d = makeDistribution(weights);
        std::vector<float> us{0.0f, 1.0f, 0.5f};
        for (int i = 0; i < 20000; ++i) us.push_back(hardwareRandomFloat());
        // The boundaries of the guide cells and every cumulative value, with their neighbours.
        for (int i = 0; i <= n; ++i) {
            const float edge = float(i) / float(n), c = d.cdf[size_t(i)];
            us.insert(us.end(), {edge, std::nextafter(edge, 0.0f), std::nextafter(edge, 1.0f)});
            us.insert(us.end(), {c, std::nextafter(c, 0.0f), std::nextafter(c, 1.0f)});
        }
        for (float u : us) {
            if (u < 0.0f || u > 1.0f) continue;
            // The first entry whose cumulative value is above u, by a plain search.
            const int plain = std::min(n - 1, int(std::upper_bound(d.cdf.begin(), d.cdf.begin() + n, u) - d.cdf.begin()));
            const int got = sample(d, u);
            ASSERT_EQ(got, plain) << "n " << n << " u " << u;
            ASSERT_TRUE(u == 1.0f || weights[size_t(got)] > 0.0f) << "zero weight drawn, n " << n << " u " << u;
        }
    }
}
