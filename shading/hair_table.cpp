// The azimuthal scattering tables of hair shaders, filled once per shader.
#include "geometry/load_time.h"

void buildHairTable(Shader&) {}
