// The stored caustic photons and the kd-tree over them, queried for the 32
// photons nearest to a diffuse hit of a camera path.
#pragma once

#include <cstdint>

#include "core/records.h"

// One stored photon: 28 bytes, its directions packed into 16 bits each.
struct Photon {
    Vector position;
    Color power;                // power × throughput at the hit, without the surface's colour
    uint16_t out_direction;     // the reverse of the photon's flight
    uint16_t geometric_normal;
};

// A node of the tree. An inner node keeps the index of its first child in
// `first` and the split plane in `split`; a leaf keeps its first photon in
// `first` and its photon count in `count`.
struct PhotonNode {
    uint32_t first;
    union {
        float split;
        int32_t count;
    };
    uint8_t axis;
    uint8_t children;   // 1 low child only, 2 high only, 3 both (at first and first + 1), 0 a leaf
};

// The 16-bit direction of a photon: major axis, signs and two 5-bit ratios.
uint16_t packPhotonDirection(Vector d);
Vector unpackPhotonDirection(uint16_t packed);

// Builds `photonNodes` over `photons`, which it reorders, sets the squared
// and cubed radius and the photon bounds, clears every thread's last query
// and prints the "photons" line.
void buildPhotonTree();

inline constexpr int kPhotonNeighbours = 32;

// The photons found by one query, kept on the caller's stack.
struct PhotonNeighbours {
    int count = 0;
    int farthest = 0;                 // the entry with the largest squared distance
    float farthestDistance2 = 0.0f;
    uint32_t photon[kPhotonNeighbours];      // indices into `photons`
    float distance2[kPhotonNeighbours];
};

// The up to 32 photons nearest to `position` at a squared distance below
// `r2` whose out_direction does not face away from `normal`. Fills `list`
// (emptied first) and returns its count.
int nearestPhotons(Vector position, Vector normal, float r2, PhotonNeighbours& list);

// The photons' radiance estimate at a hit: the power of the nearest photons
// over the disc that holds them. Black without photons, outside their
// bounds, or with fewer than two found.
Color densityEstimate(const RayState& ray, const HitRecord& hit);
