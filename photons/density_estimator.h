// The density estimator: per-face cells on the surfaces of the objects that
// the scene places once (the root object and any that one chain of instances
// reaches), into which diffuse photons deposit their energy in final
// gathering, and which a terminal gather hit reads back.
#pragma once

#include <cstdint>

#include "core/records.h"

struct Part;

// Sizes and clears the cells of a part's faces by `resolution`, the area of
// one cell. Ends the process when the cells would pass one gigabyte.
void prepareDensityEstimator(Part& part);
// The cells of every part of the objects that final gathering may read.
void prepareDensityEstimators();
// The cell, counted from the face's base, that the hit weights fall in:
// (u, v, w) of a triangle, (u, v) of a tetragon; n is the face's resolution.
uint32_t triangleCell(uint32_t n, Vector barycentric);
uint32_t tetragonCell(uint32_t n, Vector barycentric);
// Adds a photon's colour, per unit of cell area, to the cell of the ray's
// hit on the side it arrived from.
void depositPhoton(const RayState& ray, Color color);
// The cell of the hit on its own side (`ownSide`) or on the other side;
// black for hits that no cell serves.
Color readCell(const RayState& ray, bool ownSide);
