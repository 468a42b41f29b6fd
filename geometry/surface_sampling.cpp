#include "geometry/surface_sampling.h"

#include "core/random.h"
#include "core/registry.h"

namespace {

float squared(Vector v) { return dot(v, v); }

// A table row for the stratum; instance rows hand the pick on to their
// target, and are listed in `chain` when the caller asks for them.
const SurfaceTableEntry& drawSurface(const Object& object, int i, int n, bool photons,
                                     std::vector<const Instance*>* chain) {
    const float u = (hardwareRandomFloat() + float(i)) / float(n);
    const std::vector<SurfaceTableEntry>& table = photons ? object.photonTable : object.lightTable;
    const Distribution& distribution = photons ? object.photonDistribution : object.lightDistribution;
    const SurfaceTableEntry& row = table[size_t(sample(distribution, u))];
    if (row.kind != kInstance) return row;
    const Instance& instance = object.instances[row.index];
    if (chain) chain->push_back(&instance);
    return drawSurface(registry.objects[instance.target], i, n, photons, chain);
}

}  // namespace

float triangleArea(Vector p0, Vector p1, Vector p2) {
    const float a = squared(p0 - p1), b = squared(p1 - p2), c = squared(p2 - p0);
    const float sum = a + b + c;
    return 0.25f * guardedLength(sum * sum - 2.0f * (a * a + b * b + c * c));
}

float tetragonArea(Vector p0, Vector p1, Vector p2, Vector p3) {
    const float a = squared(p0 - p1), b = squared(p1 - p2), c = squared(p2 - p3), d = squared(p3 - p0);
    const float p = squared(p0 - p2), q = squared(p1 - p3);
    const float e = a - b + c - d;
    return 0.25f * guardedLength(4.0f * p * q - e * e);
}

const SurfaceTableEntry& drawPhotonSurface(const Object& object, int i, int n) {
    return drawSurface(object, i, n, true, nullptr);
}

const SurfaceTableEntry& drawLightSurface(const Object& object, int i, int n,
                                         std::vector<const Instance*>* chain) {
    return drawSurface(object, i, n, false, chain);
}
