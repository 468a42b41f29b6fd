// The Hilbert curve over a square of 2^bits by 2^bits cells: neighbours on
// the curve are neighbours in the square. The lights store their sampling
// tables in its order, so that a stratified pick of an entry is stratified
// over the area the entries cover.
#pragma once

#include <cstdint>
#include <utility>

// The place of cell (x, y) along the curve.
inline uint32_t hilbertIndex(uint32_t x, uint32_t y, int bits) {
    const uint32_t side = 1u << bits;
    uint32_t d = 0;
    for (uint32_t s = side / 2; s > 0; s /= 2) {
        const uint32_t rx = (x & s) ? 1u : 0u, ry = (y & s) ? 1u : 0u;
        d += s * s * ((3u * rx) ^ ry);
        if (ry == 0) {
            if (rx == 1) {
                x = side - 1 - x;
                y = side - 1 - y;
            }
            std::swap(x, y);
        }
    }
    return d;
}

// The cell at place d along the curve: the inverse of hilbertIndex.
inline void hilbertCell(uint32_t d, int bits, uint32_t& x, uint32_t& y) {
    const uint32_t side = 1u << bits;
    x = y = 0;
    for (uint32_t s = 1; s < side; s *= 2) {
        const uint32_t rx = 1u & (d / 2), ry = 1u & (d ^ rx);
        if (ry == 0) {
            if (rx == 1) {
                x = s - 1 - x;
                y = s - 1 - y;
            }
            std::swap(x, y);
        }
        x += s * rx;
        y += s * ry;
        d /= 4;
    }
}
