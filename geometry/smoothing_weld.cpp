// Welding for smoothing: the vertices of a part that share a position, found
// through a hash table over the bit patterns of their coordinates.
#include <algorithm>
#include <bit>

#include "geometry/smoothing_phases.h"

namespace smoothing {

namespace {

constexpr int kWeldBucketBits = 18;   // 262144 buckets at least

// The bit pattern of a coordinate, with -0 taken as +0: positions that are
// equal as floats must meet in one bucket.
uint32_t bitsOf(float f) { return f == 0.0f ? 0u : std::bit_cast<uint32_t>(f); }

// The bucket of a position among 2^bits, from the bit patterns of its
// floats. The prime sum alone would be decided by the low mantissa bits,
// which are zero for coordinates on a grid or read from short decimals, so
// that a flat region would fill a few buckets; the top bits of the mixed sum
// spread them.
uint32_t weldBucket(Vector p, int bits) {
    const uint32_t sum = bitsOf(p.x) * 15485843u + bitsOf(p.y) * 15485849u + bitsOf(p.z) * 15485857u;
    return (sum * 0x9E3779B1u) >> (32 - bits);
}

}  // namespace

// The table has 262144 buckets, and more for parts of more than 131072
// vertices, so that it stays at most half full: which positions weld depends
// only on their equality, never on the table's size. A bucket holds the first vertex of its position, and a full
// bucket passes the search on to the next one.
uint32_t weldPositions(const std::vector<Vector>& positions, std::vector<uint32_t>& weld) {
    const size_t count = positions.size();
    int bits = kWeldBucketBits;
    while (bits < 31 && (size_t(1) << bits) < 2 * count) ++bits;
    const uint32_t mask = uint32_t((size_t(1) << bits) - 1);
    std::vector<uint32_t> table(size_t(1) << bits, kNone);
    weld.resize(count);
    // Large parts miss the cache on every bucket and on the vertex it names:
    // the bucket of a vertex 16 ahead, and the vertex in the bucket of one 8
    // ahead, are fetched early. Buckets wait in a ring until their turn.
    constexpr size_t kAhead = 16;
    uint32_t ring[kAhead];
    for (size_t v = 0; v < std::min(count, kAhead); ++v) ring[v] = weldBucket(positions[v], bits);
    uint32_t unique = 0;
    for (size_t v = 0; v < count; ++v) {
        uint32_t bucket = ring[v % kAhead];
        if (v + kAhead < count) {
            ring[v % kAhead] = weldBucket(positions[v + kAhead], bits);
            __builtin_prefetch(&table[ring[v % kAhead]]);
        }
        if (v + kAhead / 2 < count) {
            const uint32_t ahead = table[ring[(v + kAhead / 2) % kAhead]];
            if (ahead != kNone) __builtin_prefetch(&positions[ahead]), __builtin_prefetch(&weld[ahead]);
        }
        const Vector p = positions[v];
        for (;;) {
            const uint32_t first = table[bucket];
            if (first == kNone) {
                table[bucket] = uint32_t(v);
                weld[v] = unique++;
                break;
            }
            if (positions[first] == p) {
                weld[v] = weld[first];
                break;
            }
            bucket = (bucket + 1) & mask;
        }
    }
    return unique;
}

}  // namespace smoothing
