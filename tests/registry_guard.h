// Lends a test an empty-listed registry with the current values, and puts the
// registry back as it was when the test ends (the arrays keep their storage).
#pragma once

#include <utility>

#include "core/registry.h"

struct RegistryGuard {
    Registry saved = std::move(registry);
    RegistryGuard() {
        registry.cameras.clear();
        registry.imagePaths.clear();
    }
    ~RegistryGuard() { registry = std::move(saved); }
};
