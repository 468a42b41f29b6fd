// Work on a part's faces at load time, and the two stages that need the
// finished scene: the density estimator of the root's parts and hair tables.
#pragma once

#include "geometry/object.h"

struct Shader;

// Moves vertices along displacement shaders, splitting faces as needed.
void displace(Part& part);
// Splits vertices at creases by the shader's smoothing angle.
void smooth(Part& part);
// The per-primitive cells that photon deposits go into.
void prepareDensityEstimator(Part& part);
// The azimuthal tables of a hair shader.
void buildHairTable(Shader& shader);
