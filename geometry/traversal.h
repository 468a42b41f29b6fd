// Ray queries over the objects' eight-wide hierarchies: the closest hit over
// all primitive kinds, the closest hit over faces alone, and the
// transmittance along a shadow segment.
#pragma once

#include <cstdint>

#include "core/constants.h"
#include "core/records.h"
#include "geometry/object.h"

// The chain of instances extended by one, as the walks carry it in a ray's
// `instance_path` from 0 at the root: a mix of the chain so far and the
// instance's record, which tells apart chains that differ in any link or in
// their order (a collision of the 64-bit mix is not a practical concern).
inline uint64_t extendPath(uint64_t path, const Instance& instance) {
    uint64_t x = (path ^ uint64_t(reinterpret_cast<uintptr_t>(&instance))) * 0x9E3779B97F4A7C15ull;
    return x ^ (x >> 31);
}

// The normal matrices of the instances on the way to each thread's closest hit.
extern InstanceStack instanceStacks[kMaxThreads];

// The logging occlusion walk runs only when this is 0.
extern int occludeLogGate;

// A primitive that a shadow segment passes through.
struct ShadowHit {
    const Part* part;
    uint32_t primitive;
    uint32_t shader;
    uint8_t kind;
    uint8_t front;
    Vector barycentric;
    float t;
};

// The colour that a surface lets through, which the transmittance walk
// multiplies into the ray's throughput. Shading answers through this hook;
// until it does, every surface lets everything through.
using ShadowFactorHook = Color (*)(const RayState& ray, const ShadowHit& hit);
extern ShadowFactorHook shadowFactorHook;

// Closest hit over all kinds from the root object; `t` starts at infinity.
bool intersectClosest(RayState& ray);
// Closest hit over triangles and tetragons within the caller's `t`.
bool intersectSurfaces(RayState& ray);
// Multiplies the factors of all surfaces within `t` into `throughput`; true
// as soon as every channel fell to the cut-off.
bool transmittanceQuery(Object& object, RayState& ray);
// The same walk, counting in `hits` which slot held the blocking leaf.
bool OccludeLog(Object& object, RayState& ray);
