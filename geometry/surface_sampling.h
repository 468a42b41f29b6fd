// Face areas and the stratified pick of a surface from an object's tables.
#pragma once

#include <vector>

#include "geometry/object.h"

// Area from the squared side lengths, with the guarded root.
float triangleArea(Vector p0, Vector p1, Vector p2);
// Area of a quadrangle from its sides and diagonals.
float tetragonArea(Vector p0, Vector p1, Vector p2, Vector p3);

// The face picked for stratum i of n: a row of the photon or light table,
// followed through instances down to a face. Either pick can also list the
// instances it went through, outermost first, appended to `chain`.
const SurfaceTableEntry& drawPhotonSurface(const Object& object, int i, int n,
                                          std::vector<const Instance*>* chain = nullptr);
const SurfaceTableEntry& drawLightSurface(const Object& object, int i, int n,
                                         std::vector<const Instance*>* chain = nullptr);

// A point on a face in the face's own object, with what emission needs of it.
struct FacePoint {
    Vector position;
    Vector normal;   // the face normal, not unit
    float uv[2];
    float area;
};
// The point of face `index` of kind kTriangle or kTetragon at (u1, u2): a
// triangle uniformly over its area, a tetragon at the (u, v) that its ray
// test reports, each with the normal that its ray test forms.
FacePoint facePoint(const Part& part, uint8_t kind, uint32_t index, float u1, float u2);
// The shader of that face.
uint32_t faceShader(const Part& part, uint8_t kind, uint32_t index);
// A point and a normal of the innermost object carried out through a chain
// of instances, listed outermost first, into the root's space.
void toWorldThroughChain(const std::vector<const Instance*>& chain, Vector& position, Vector& normal);
