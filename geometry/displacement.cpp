// Displacement of triangle meshes at load time. Parts are kept as they were
// read until displacement shaders are evaluated.
#include "geometry/load_time.h"

void displace(Part&) {}
