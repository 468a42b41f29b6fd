#include "progress_line.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "core/registry.h"

namespace {

using Clock = std::chrono::steady_clock;
Clock::time_point start;
double frameSeconds = 0.0;   // of the frames done so far

// Seconds as m:ss, or h:mm:ss from an hour on.
std::string duration(double seconds) {
    const long s = long(seconds + 0.5);
    char text[32];
    if (s >= 3600) std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

}  // namespace

void startProgress() {
    start = Clock::now();
    frameSeconds = 0.0;
}

void showProgress() {
    const Camera* camera = registry.currentCameraRecord;
    if (!camera || !isatty(STDERR_FILENO) || registry.processes.rank != 0) return;
    const unsigned done = registry.frameCounter, all = unsigned(camera->sample);
    const double micro = double(registry.elapsedMicroseconds);
    frameSeconds += micro * 1e-6;
    char line[80] = "";
    if (done < all)
        std::snprintf(line, sizeof line, "frame %u of %u, %s gone, %s left, %.2f M rays/s", done, all,
                      duration(std::chrono::duration<double>(Clock::now() - start).count()).c_str(),
                      duration(frameSeconds / done * (all - done)).c_str(),
                      micro > 0.0 ? double(registry.rayCount) / micro : 0.0);
    // The cursor goes back to the line's start: the report's next line, on
    // the same terminal, writes over it; the last frame leaves it blank.
    std::fprintf(stderr, "\r%-79s\r", line);
    std::fflush(stderr);
}
