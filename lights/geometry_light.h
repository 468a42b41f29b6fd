// The geometry light: every emissive surface of the scene as one light, seen
// through a fixed set of points drawn on those surfaces at preparation and
// sampled by their power.
#pragma once

#include <cstdint>

#include "core/vector.h"

struct Part;

// The number of points drawn on the emissive surfaces.
inline constexpr int kGeometryLightPoints = 18481;

// One point of the set; a point whose emission fell below the cut-off is all
// zero. `part` and `path` name the surface the point lies on as a ray that
// hits it names it (`part`, `hit_path`), so that a shadow ray towards the
// point can pass that one surface.
struct GeometryLightPoint {
    Vector position;     // where the surface is seen, through all instances
    Vector normal;       // unit, towards the side that emits
    Color power;         // emission times the total emissive area / pi
    float area;          // the primitive's own area
    uint32_t primitive;  // index in its part's family
    uint8_t kind;        // kTriangle or kTetragon
    uint8_t side;        // 1 emits along the face normal, 0 against it
};

void prepareGeometryLight();
void releaseGeometryLight();
