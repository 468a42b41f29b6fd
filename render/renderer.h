// The renderer stage: the mode banner, the photon casts and the photon tree.
#pragma once

void prepareRenderer();
void releaseRenderer();
