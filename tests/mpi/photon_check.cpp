// Renders a scene directory as the lumivane host does, alone or as one of
// the processes that mpirun starts, and prints on rank 0 what the photon
// cast left behind just before the images are combined: the stored photons'
// count and power, the tree's node count, the cells' count and sum, and
// whether every process holds the very same photons, tree and cells.
#include <mpi.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "apps/process_group.h"
#include "core/registry.h"
#include "geometry/object.h"
#include "photons/photon_tree.h"
#include "lv.h"

namespace {

struct Fingerprint {
    long long photons = 0, nodes = 0, cells = 0;
    double power[3] = {}, cellSum[3] = {};
    uint64_t hash = 1469598103934665603ull;
};

Fingerprint print;
void (*combine)() = nullptr;

void mix(uint64_t& hash, const void* data, size_t bytes) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < bytes; ++i) hash = (hash ^ p[i]) * 1099511628211ull;
}

void takeFingerprint() {
    print.photons = (long long)registry.photons.size();
    for (const Photon& p : registry.photons) {
        print.power[0] += p.power.x, print.power[1] += p.power.y, print.power[2] += p.power.z;
        mix(print.hash, &p, sizeof p);
    }
    print.nodes = (long long)registry.photonNodes.size();
    for (const PhotonNode& node : registry.photonNodes) {
        // Field by field: the node's padding is not part of it.
        mix(print.hash, &node.first, sizeof node.first);
        mix(print.hash, &node.count, sizeof node.count);
        mix(print.hash, &node.axis, sizeof node.axis);
        mix(print.hash, &node.children, sizeof node.children);
    }
    for (const Object& object : registry.objects)
        for (const Part& part : object.parts)
            for (const std::vector<Color>* cells : {&part.triangleCellsFront, &part.triangleCellsBack,
                                                    &part.tetragonCellsFront, &part.tetragonCellsBack}) {
                print.cells += (long long)cells->size();
                for (const Color& c : *cells) {
                    print.cellSum[0] += c.x, print.cellSum[1] += c.y, print.cellSum[2] += c.z;
                    mix(print.hash, &c, sizeof c);
                }
            }
    if (combine) combine();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || chdir(argv[1]) != 0) return 2;
    joinGroup(argc, argv);
    combine = registry.processes.combineAovs;
    registry.processes.combineAovs = takeFingerprint;
    lvGo("./");
    int same = 1;
    if (inGroup()) {
        uint64_t low = 0, high = 0;
        MPI_Allreduce(&print.hash, &low, 1, MPI_UINT64_T, MPI_MIN, MPI_COMM_WORLD);
        MPI_Allreduce(&print.hash, &high, 1, MPI_UINT64_T, MPI_MAX, MPI_COMM_WORLD);
        same = low == high;
    }
    if (registry.processes.rank == 0)
        std::fprintf(stderr, "photons %lld power %.6e %.6e %.6e nodes %lld cells %lld sum %.6e %.6e %.6e same %d\n",
                     print.photons, print.power[0], print.power[1], print.power[2], print.nodes, print.cells,
                     print.cellSum[0], print.cellSum[1], print.cellSum[2], same);
    leaveGroup();
    return 0;
}
