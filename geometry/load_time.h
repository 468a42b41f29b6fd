// Work on a part's faces at load time.
#pragma once

#include <cstdint>
#include <vector>

#include "geometry/object.h"

// Moves vertices along displacement shaders, splitting faces as needed.
void displace(Part& part);
// One point of a curved patch: its barycentric weights and its position.
struct PatchPoint {
    float b[3];
    Vector p;
};
// The curved patch of level n over a triangle with unit corner normals: the
// (n + 1)(n + 2) / 2 points row by row from corner 0, and n² triangles as
// index triples into them. Level 0 gives nothing.
void subdividePatch(const Vector P[3], const Vector N[3], int level, std::vector<PatchPoint>& points,
                    std::vector<uint32_t>& triangles);
// Splits vertices at creases by the shader's smoothing angle.
void smooth(Part& part);
