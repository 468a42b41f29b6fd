// Preparation of objects and parts, and the assembly of the scene.
#pragma once

#include "geometry/object.h"

void prepareObject(Object& object);
void preparePart(Part& part);
// Texture coordinates of hair strands from the faces under their roots.
void assignHairUvs(Object& object);

// The accelerator stage: every object bottom-up, then the root; and its release.
void prepareAccelerator();
void releaseAccelerator();
