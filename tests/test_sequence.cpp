// The sample sequence of camera paths: nets in every prefix, and keys that
// keep pixels and events apart.
#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <tuple>
#include <vector>

#include "core/hilbert.h"
#include "core/random.h"
#include "core/sequence.h"

namespace {

// Whether every elementary box of area 2^(t - k), of each shape, holds 2^t
// of the first 2^k points (x[n], y[n]): a net of quality t.
bool isNet(const std::vector<float>& x, const std::vector<float>& y, int k, int t) {
    for (int i = 0; i <= k - t; ++i) {
        const int columns = 1 << i, rows = 1 << (k - t - i);
        std::vector<int> boxes(size_t(1) << (k - t), 0);
        for (int n = 0; n < (1 << k); ++n) ++boxes[size_t(int(x[n] * columns) * rows + int(y[n] * rows))];
        for (int count : boxes)
            if (count != 1 << t) return false;
    }
    return true;
}

// Every prefix of 2^k pairs, k up to 10, is a (0, k, 2)-net; the first draw
// alone is stratified in 2^k intervals.
TEST(Sequence, EveryPrefixIsANetInEachEvent) {
    for (uint32_t key : {1u, 0x9E3779B9u, 0xDEADBEEFu})
        for (uint32_t dimension : {0u, 2u, 7u})
            for (SequenceUse use : {kUseJitter, kUseLobe, kUseGeometryLight, kUseSkyPosition}) {
                std::vector<float> a, b;
                for (uint32_t i = 0; i < 1024; ++i) {
                    float x, y;
                    drawPair({key, i, dimension}, use, x, y);
                    ASSERT_TRUE(x >= 0.0f && x < 1.0f && y >= 0.0f && y < 1.0f);
                    ASSERT_EQ(drawOne({key, i, dimension}, use), x);
                    a.push_back(x), b.push_back(y);
                }
                for (int k = 0; k <= 10; ++k)
                    ASSERT_TRUE(isNet(a, b, k, 0)) << key << " " << dimension << " " << use << " " << k;
            }
}

// The picks that a first hit takes once a frame come from the same Sobol
// point as the pixel's jitter: each alone is stratified in every prefix, and
// with either coordinate of the jitter it forms a net of quality t (every box
// of area 2^(t - k) holds 2^t of the first 2^k points): 1 for the geometry
// light's third dimension, 2 for the sky's fourth. Independent sequences
// would leave boxes empty at every size.
TEST(Sequence, LightPicksAreStratifiedWithTheJitter) {
    for (uint32_t key : {5u, 0xC0FFEE11u})
        for (auto [use, t] : {std::pair{kUseGeometryLight, 1}, std::pair{kUseSkyTexel, 2}}) {
            std::vector<float> jitter[2], pick;
            for (uint32_t f = 0; f < 1024; ++f) {
                float x, y;
                drawPair({key, f, 0}, kUseJitter, x, y);
                jitter[0].push_back(x), jitter[1].push_back(y);
                pick.push_back(drawWithJitter(key, f, use));
            }
            for (int k = t; k <= 10; ++k) {
                std::vector<int> strata(size_t(1) << k, 0);
                for (int n = 0; n < (1 << k); ++n) ++strata[size_t(pick[n] * float(1 << k))];
                for (int count : strata) ASSERT_EQ(count, 1) << use << " " << k;
                for (const std::vector<float>& j : jitter) ASSERT_TRUE(isNet(j, pick, k, t)) << use << " " << k;
            }
        }
}

// Pixels side by side and 16 apart, events of one ray, and the dimensions
// of a path each draw their own numbers; over many pixels the first draw is
// spread evenly (a chi-square over 8 x 8 cells), so no pixel pattern repeats.
TEST(Sequence, PixelsAndEventsDrawApart) {
    const uint32_t seed = 12345;
    std::set<uint32_t> keys;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) keys.insert(pixelSequenceKey(seed, x, y));
    EXPECT_EQ(keys.size(), 64u * 64u);
    EXPECT_NE(pixelSequenceKey(seed, 3, 5), pixelSequenceKey(seed + 1, 3, 5));

    int cells[8][8] = {};
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 64; ++x) {
            float a, b, c, d;
            drawPair({pixelSequenceKey(seed, x, y), 0, 0}, kUseJitter, a, b);
            ++cells[int(a * 8)][int(b * 8)];
            drawPair({pixelSequenceKey(seed, x + 16, y), 0, 0}, kUseJitter, c, d);
            EXPECT_TRUE(a != c || b != d);
        }
    double chi2 = 0.0;
    for (auto& row : cells)
        for (int n : row) chi2 += (n - 64.0) * (n - 64.0) / 64.0;
    EXPECT_LT(chi2, 110.0);   // 63 degrees of freedom, p < 1e-4

    // Two events of one ray at the same index are unrelated: their first
    // numbers over 256 indices correlate no more than chance allows.
    for (auto [u, v, dv] : {std::tuple{kUseJitter, kUseLobe, 0u}, std::tuple{kUseLobe, kUseGeometryLight, 0u},
                            std::tuple{kUseLobe, kUseLobe, 2u}}) {
        double sum = 0.0;
        for (uint32_t i = 0; i < 256; ++i)
            sum += (drawOne({77, i, 4}, u) - 0.5) * (drawOne({77, i, 4 + dv}, v) - 0.5);
        EXPECT_LT(std::fabs(sum / 256.0 * 12.0), 0.25) << u << " " << v << " " << dv;
    }
}

// Photons keep the plain Halton sequence of their index.
TEST(Sequence, KeyZeroDrawsTheHaltonSequence) {
    initializeRandomTables();
    float a, b;
    drawPair({0, 5, 2}, kUseLobe, a, b);
    EXPECT_EQ((std::pair{a, b}), (std::pair{radicalInverse(5, 2), radicalInverse(5, 3)}));
    EXPECT_EQ(drawOne({0, 9, 0}, kUseGeometryLight), 0.5625f);
}

// The second Sobol dimension and the scramble: known first values, and a
// scramble that swaps the halves of dyadic intervals and nothing else.
TEST(Sequence, SobolAndScramble) {
    const uint32_t expected[8] = {0, 1u << 31, 3u << 30, 1u << 30, 5u << 29, 1u << 29, 3u << 29, 7u << 29};
    for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(sobolBits(i, 1), expected[i]) << i;
    EXPECT_EQ(sobolBits(6, 0), 3u << 29);   // 110 mirrored: 0.011
    for (uint32_t seed : {0u, 1u, 0xABCDEF01u}) {
        std::set<uint32_t> top;
        for (uint32_t v = 0; v < 256; ++v) {
            const uint32_t s = nestedScramble(v << 24, seed);
            top.insert(s >> 24);
            // Values that share their first digits keep sharing them.
            EXPECT_EQ(nestedScramble((v << 24) | 0x00FFFFFFu, seed) >> 24, s >> 24);
        }
        EXPECT_EQ(top.size(), 256u);   // a permutation of the first eight digits
    }
}

// The order the lights store their tables in: every step along the curve
// goes to a side neighbour, and the index inverts the cell.
TEST(HilbertCurve, StepsToANeighbourAndInverts) {
    for (int bits : {1, 3, 8}) {
        uint32_t px = 0, py = 0;
        for (uint32_t d = 0; d < (1u << (2 * bits)); ++d) {
            uint32_t x, y;
            hilbertCell(d, bits, x, y);
            ASSERT_EQ(hilbertIndex(x, y, bits), d) << bits;
            ASSERT_TRUE(d == 0 || (x > px ? x - px : px - x) + (y > py ? y - py : py - y) == 1u) << bits << " " << d;
            px = x, py = y;
        }
    }
}

}  // namespace
