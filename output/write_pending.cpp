// Placeholder until image writing lands.
#include "core/stages.h"

void writeImage(const ImageRecord&) {}
