// Scene assembly: objects, their hierarchies and the root object. The stage
// stands in its place until objects exist.
#include "core/stages.h"

void prepareAccelerator() {}
void releaseAccelerator() {}

void clearNodeHitCounters() {}
void reorderHierarchies() {}
