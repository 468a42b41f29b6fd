// The gaffer stage: point and parallel lights.
#include "core/stages.h"

void prepareGaffer() {}
void releaseGaffer() {}
