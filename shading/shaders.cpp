// Shader preparation and release. The shader records and their layers come
// with the shading subsystem; the stage stands in its place until then.
#include "core/registry.h"
#include "core/stages.h"

void prepareShaders() {}
void releaseShaders() { registry.shaders = {}; }
