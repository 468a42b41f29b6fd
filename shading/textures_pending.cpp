// Placeholder until the image list lands.
#include "core/stages.h"

void prepareTextures() {}
void releaseTextures() {}
