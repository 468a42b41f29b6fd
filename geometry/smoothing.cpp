// Smoothing by the shader's angle at load time. Parts keep the normals they
// were given until creases are split.
#include "geometry/load_time.h"

void smooth(Part&) {}
