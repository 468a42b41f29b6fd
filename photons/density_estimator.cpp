// The density estimator's cells of the root object's parts. No cells exist
// until photons are cast.
#include "geometry/load_time.h"

void prepareDensityEstimator(Part&) {}
