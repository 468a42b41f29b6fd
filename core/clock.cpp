#include "core/clock.h"

#include <chrono>

namespace {
const auto processStart = std::chrono::steady_clock::now();
}

uint64_t processClockMilliseconds() {
    return uint64_t(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - processStart).count());
}

uint64_t systemTime100ns() {
    using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10000000>>;
    return uint64_t(std::chrono::duration_cast<Ticks>(std::chrono::system_clock::now().time_since_epoch()).count());
}
