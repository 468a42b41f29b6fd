// One scene rendered by several processes together. Each process reads and
// prepares the whole scene; the passes and the photons are divided among
// them by index, and the host that starts them supplies the two exchanges
// below. A process alone is rank 0 of 1 and has no exchanges: every loop then
// runs as it always does.
#pragma once

#include <cstdint>

struct ProcessGroup {
    int rank = 0;
    int size = 1;
    // After the photon cast and before the tree is built: gives every process
    // all photons and the cells that every process's photons filled.
    void (*gatherPhotons)() = nullptr;
    // After the last pass and before the statistics: folds every process's
    // AOVs into rank 0's.
    void (*combineAovs)() = nullptr;
    // At preparation: gives every process rank 0's seed of the sample
    // sequences, so that the passes of all together are one sequence.
    void (*shareSeed)(uint32_t& seed) = nullptr;
};

// Whether pass or photon `index` is this process's to do.
inline bool ownsIndex(const ProcessGroup& group, unsigned long long index) {
    return index % unsigned(group.size) == unsigned(group.rank);
}
