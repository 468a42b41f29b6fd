// The radiance that a ray carries back along its path.
#pragma once

#include "core/records.h"

Color radiance(RayState& ray);
