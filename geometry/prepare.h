// Preparation of objects and parts, and the assembly of the scene.
#pragma once

#include "geometry/object.h"

void prepareObject(Object& object);
void preparePart(Part& part);
// Texture coordinates of hair strands from the faces under their roots.
void assignHairUvs(Object& object);

// The geometry of the accelerator stage: the root, every object bottom-up,
// the scene's bounds and the objects that final gathering may read cells
// on; and its release.
void prepareAccelerator();
// The report lines of the scene's size, corners and centre.
void reportSceneBounds();
void releaseAccelerator();
