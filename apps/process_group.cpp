#include "process_group.h"

#include <fcntl.h>
#include <mpi.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/registry.h"
#include "core/report.h"
#include "geometry/object.h"
#include "lights/lights.h"
#include "photons/photon_tree.h"

namespace {

bool joined = false;
bool exchanged = false;   // the photons were gathered: the scene was rendered
double exchangeSeconds = 0.0;   // moving data
double waitSeconds = 0.0;       // waiting for the slowest process to arrive
// Set on rank 0 once its images hold every process's passes: from then on
// the end of another process no longer matters.
volatile std::sig_atomic_t combined = 0;

constexpr char kStopped[] =
    "error :( \tlumivane - another process of the job failed or was stopped; "
    "the job ends without writing images\n";

// mpirun ends the other processes with SIGTERM when one fails. Rank 0 says so
// in its report, and the job ends before any image is written.
void onTerminate(int) {
    if (combined) return;
    const int fd = registry.processes.rank == 0 ? STDOUT_FILENO : STDERR_FILENO;
    ssize_t written = write(fd, kStopped, sizeof kStopped - 1);
    (void)written;
    _exit(1);
}

// The end of the job on every process at once, after rank 0 has printed why.
[[noreturn]] void endJob(const std::string& message) {
    if (registry.processes.rank == 0) {
        reportError("lumivane - " + message);
        reportRule();
    }
    MPI_Finalize();
    std::exit(1);
}

// Times an exchange from its start to the end of the scope: first the wait
// until every process has arrived, then the moving of the data.
struct Timer {
    double start = MPI_Wtime();
    Timer() {
        MPI_Barrier(MPI_COMM_WORLD);
        const double now = MPI_Wtime();
        waitSeconds += now - start;
        start = now;
    }
    ~Timer() { exchangeSeconds += MPI_Wtime() - start; }
};

// Every float array of the AOVs, in one order on every process.
template <typename Visit>
void forEachAovImage(Visit visit) {
    for (Camera& camera : registry.cameras)
        for (size_t k = 0; k < camera.aovs.size(); ++k) visit(camera.aovs[k].image.floatStore, k == 0);
    for (PointLight& light : registry.pointLights)
        for (Aov& aov : light.aovs) visit(aov.image.floatStore, false);
    for (ParallelLight& light : registry.parallelLights)
        for (Aov& aov : light.aovs) visit(aov.image.floatStore, false);
    for (Aov& aov : registry.skyLightAOVs) visit(aov.image.floatStore, false);
    for (Aov& aov : registry.geometryLightAOVs) visit(aov.image.floatStore, false);
}

template <typename Visit>
void forEachCellArray(Visit visit) {
    for (Object& object : registry.objects)
        for (Part& part : object.parts)
            for (std::vector<Color>* cells : {&part.triangleCellsFront, &part.triangleCellsBack,
                                              &part.tetragonCellsFront, &part.tetragonCellsBack})
                visit(*cells);
}

// Counts that every process must share for the exchanges to line up; a
// process that read a different scene (a file missing on its machine)
// differs in one of them.
void checkSameScene() {
    long long shape[6] = {};
    shape[0] = registry.currentCameraRecord ? registry.currentCameraRecord->sample : -1;
    shape[1] = (long long)registry.objects.size();
    forEachAovImage([&](const std::vector<float>& image, bool) { shape[2] += (long long)image.size(); });
    forEachCellArray([&](const std::vector<Color>& cells) { shape[3] += (long long)cells.size(); });
    for (const PointLight& light : registry.pointLights) shape[4] += light.photon;
    for (const ParallelLight& light : registry.parallelLights) shape[4] += light.photon;
    shape[4] += (long long)registry.geometryLight.photon + registry.skyLight.photon;
    for (const Object& object : registry.objects) shape[5] += (long long)object.parts.size();
    long long low[6], high[6];
    MPI_Allreduce(shape, low, 6, MPI_LONG_LONG, MPI_MIN, MPI_COMM_WORLD);
    MPI_Allreduce(shape, high, 6, MPI_LONG_LONG, MPI_MAX, MPI_COMM_WORLD);
    if (std::memcmp(low, high, sizeof low) != 0)
        endJob("the processes prepared different scenes (cameras, objects, AOVs, cells or photon counts differ)");
}

// Every process's stored photons, in rank order, on every process; the
// cells summed on rank 0 and sent back, so that all hold the same bits.
void gatherPhotons() {
    checkSameScene();
    exchanged = true;
    const Timer timer;
    const int size = registry.processes.size;
    std::vector<Photon>& photons = registry.photons;
    const long long own = (long long)(photons.size() * sizeof(Photon));
    std::vector<long long> bytes(size_t(size), 0);
    MPI_Allgather(&own, 1, MPI_LONG_LONG, bytes.data(), 1, MPI_LONG_LONG, MPI_COMM_WORLD);
    std::vector<int> counts(static_cast<size_t>(size)), offsets(static_cast<size_t>(size));
    long long total = 0;
    for (int r = 0; r < size; ++r) {
        if (total + bytes[size_t(r)] > 0x7FFFFFFF) endJob("more stored photons than one exchange carries (2 GB)");
        offsets[size_t(r)] = int(total);
        counts[size_t(r)] = int(bytes[size_t(r)]);
        total += bytes[size_t(r)];
    }
    std::vector<Photon> all(size_t(total) / sizeof(Photon));
    MPI_Allgatherv(photons.data(), int(own), MPI_BYTE, all.data(), counts.data(), offsets.data(), MPI_BYTE,
                   MPI_COMM_WORLD);
    photons.swap(all);

    std::vector<float> cells;
    forEachCellArray([&](const std::vector<Color>& a) {
        const float* f = &a.data()->x;
        cells.insert(cells.end(), f, f + 3 * a.size());
    });
    if (cells.empty()) return;
    const bool root = registry.processes.rank == 0;
    MPI_Reduce(root ? MPI_IN_PLACE : cells.data(), cells.data(), int(cells.size()), MPI_FLOAT, MPI_SUM, 0,
               MPI_COMM_WORLD);
    MPI_Bcast(cells.data(), int(cells.size()), MPI_FLOAT, 0, MPI_COMM_WORLD);
    size_t at = 0;
    forEachCellArray([&](std::vector<Color>& a) {
        std::memcpy(a.data(), cells.data() + at, 3 * a.size() * sizeof(float));
        at += 3 * a.size();
    });
}

// A camera's first AOV is the running mean of the process's own passes: it
// is weighed by its share of the passes. Every other AOV is a sum (samples
// already divided by the pass count, or photons' light): it adds up.
void combineAovs() {
    const Timer timer;
    const ProcessGroup& group = registry.processes;
    const long long passes = registry.currentCameraRecord->sample;
    const long long own = passes > group.rank ? (passes - group.rank + group.size - 1) / group.size : 0;
    const float share = float(own) / float(passes);
    std::vector<float> sums;
    forEachAovImage([&](const std::vector<float>& image, bool mean) {
        for (const float v : image) sums.push_back(mean ? v * share : v);
    });
    const bool root = group.rank == 0;
    if (!sums.empty())
        MPI_Reduce(root ? MPI_IN_PLACE : sums.data(), sums.data(), int(sums.size()), MPI_FLOAT, MPI_SUM, 0,
                   MPI_COMM_WORLD);
    if (!root) return;
    size_t at = 0;
    forEachAovImage([&](std::vector<float>& image, bool) {
        std::memcpy(image.data(), sums.data() + at, image.size() * sizeof(float));
        at += image.size();
    });
    combined = 1;
}

// Rank 0's seed of the sample sequences, on every process.
void shareSeed(uint32_t& seed) { MPI_Bcast(&seed, 1, MPI_UINT32_T, 0, MPI_COMM_WORLD); }

}  // namespace

void joinGroup(int& argc, char**& argv) {
    // Open MPI's launcher names the size of the job; a process started by
    // hand has no such variable and stays alone.
    if (!std::getenv("OMPI_COMM_WORLD_SIZE")) return;
    MPI_Init(&argc, &argv);
    int size = 1;
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    // A job of one process renders as a process started by hand does.
    if (size < 2) {
        MPI_Finalize();
        return;
    }
    joined = true;
    ProcessGroup& group = registry.processes;
    group.size = size;
    MPI_Comm_rank(MPI_COMM_WORLD, &group.rank);
    group.gatherPhotons = gatherPhotons;
    group.combineAovs = combineAovs;
    group.shareSeed = shareSeed;
    std::signal(SIGTERM, onTerminate);
    if (group.rank != 0) {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            std::fflush(stdout);
            dup2(null, STDOUT_FILENO);
            close(null);
        }
    }
}

bool inGroup() { return joined; }

bool agreeToRender(const std::string& problem) {
    constexpr int kLength = 512;
    char own[kLength] = {};
    std::snprintf(own, kLength, "%s", problem.c_str());
    const int size = registry.processes.size;
    std::vector<char> all(size_t(size) * kLength);
    MPI_Allgather(own, kLength, MPI_CHAR, all.data(), kLength, MPI_CHAR, MPI_COMM_WORLD);
    bool fine = true;
    for (int r = 0; r < size; ++r) {
        const char* text = &all[size_t(r) * kLength];
        if (!text[0]) continue;
        fine = false;
        if (registry.processes.rank == 0)
            reportError("lumivane - process " + std::to_string(r) + " of " + std::to_string(size) + ": " + text);
    }
    if (!fine && registry.processes.rank == 0) reportRule();
    return fine;
}

void leaveGroup() {
    if (!joined) return;
    if (exchanged && registry.processes.rank == 0)
        std::fprintf(stderr,
                     "lumivane: %d processes, %.4f seconds in communication on rank 0, "
                     "and %.4f seconds waiting for the others before it\n",
                     registry.processes.size, exchangeSeconds, waitSeconds);
    MPI_Barrier(MPI_COMM_WORLD);
    MPI_Finalize();
}
