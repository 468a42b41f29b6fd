// The images of AOVs: sized at the camera that will render, then added into
// in place. The lights size their own AOVs; the integrator and the photons
// add to them.
#pragma once

#include <vector>

#include "core/records.h"

// Sizes an AOV's image (three zeroed float channels) and resolves its shader
// filter: the last shader of that name, or -1 for none.
void prepareAov(Aov& aov, int width, int height);
// Prepares light AOVs at the size of the camera that will render.
void prepareLightAovs(std::vector<Aov>& aovs);

// Adds `v` to the pixel of index `pixel`, when the image has been sized and
// holds that pixel.
inline void addToAovPixel(Aov& aov, size_t pixel, Color v) {
    std::vector<float>& store = aov.image.floatStore;
    const size_t at = pixel * size_t(aov.image.channels);
    if (aov.image.channels < 3 || at + 3 > store.size()) return;
    store[at] += v.x;
    store[at + 1] += v.y;
    store[at + 2] += v.z;
}
