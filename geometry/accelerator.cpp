// Scene assembly: objects, their hierarchies and the root object. The stage
// stands in its place until objects exist.
#include "core/registry.h"
#include "core/stages.h"

void prepareAccelerator() {}
void releaseAccelerator() { registry.objects = {}; }

void clearNodeHitCounters() {}
void reorderHierarchies() {}
