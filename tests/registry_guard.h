// Lends a test an empty-listed registry with the current values, and puts the
// registry back as it was when the test ends (the arrays keep their storage).
// It moves the whole registry, so every record it holds is completed here.
#pragma once

#include <utility>

#include "core/registry.h"
#include "geometry/object.h"
#include "lights/geometry_light.h"
#include "lights/lights.h"
#include "photons/photon_tree.h"

struct RegistryGuard {
    Registry saved = std::move(registry);
    RegistryGuard() {
        registry.cameras.clear();
        registry.imagePaths.clear();
    }
    ~RegistryGuard() { registry = std::move(saved); }
};
