// Face areas and the stratified pick of a surface from an object's tables.
#pragma once

#include <vector>

#include "geometry/object.h"

// Area from the squared side lengths, with the guarded root.
float triangleArea(Vector p0, Vector p1, Vector p2);
// Area of a quadrangle from its sides and diagonals.
float tetragonArea(Vector p0, Vector p1, Vector p2, Vector p3);

// The face picked for stratum i of n: a row of the photon or light table,
// followed through instances down to a face. The light pick can also list
// the instances it went through, outermost first, appended to `chain`.
const SurfaceTableEntry& drawPhotonSurface(const Object& object, int i, int n);
const SurfaceTableEntry& drawLightSurface(const Object& object, int i, int n,
                                         std::vector<const Instance*>* chain = nullptr);
