// Helpers of the photon benchmarks: a scene directory read as lvGo reads it,
// optionally with a variant folder laid over it, the report captured, and
// the few figures that the benchmarks print about the machine and the
// report.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/random.h"
#include "core/registry.h"
#include "lv.h"
#include "scene/block_reader.h"
#include "scene/directory_walk.h"

namespace bench {

// The report goes to a string while an instance lives.
class CapturedReport {
public:
    CapturedReport() : saved_(std::cout.rdbuf(text_.rdbuf())) {}
    ~CapturedReport() { std::cout.rdbuf(saved_); }
    CapturedReport(const CapturedReport&) = delete;
    CapturedReport& operator=(const CapturedReport&) = delete;
    std::string text() const { return text_.str(); }
    void clear() { text_.str(""); }

private:
    std::ostringstream text_;
    std::streambuf* saved_;
};

inline std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return in ? a + " " + b + " " + c : std::string("unknown");
}

// Starts the library and reads the scene in the working directory, with
// `variant` (an absolute folder, or empty) laid over it, as lvGo reads a
// directory.
inline void readScene(uint64_t seed, const std::string& variant) {
    lvStartup();
    seedHardwareRandom(seed);
    readSceneDirectory("./", variant);
}

// The value of the first report line that starts with `label` and carries
// `unit`, or -1.
inline double reportedValue(const std::string& report, const std::string& label, const std::string& unit) {
    std::istringstream in(report);
    for (std::string line; std::getline(in, line, '\n');) {
        // Progress lines end in a carriage return and share the line.
        const size_t cut = line.find_last_of('\r');
        if (cut != std::string::npos) line = line.substr(cut + 1);
        if (line.rfind(label, 0) != 0 || line.find("[ " + unit + " ]") == std::string::npos) continue;
        return std::atof(line.c_str() + label.size());
    }
    return -1.0;
}

// The threads the library may use, at most kMaxThreads.
inline int useAllThreads() {
    const int threads = std::min(omp_get_max_threads(), kMaxThreads);
    omp_set_num_threads(threads);
    return threads;
}

}  // namespace bench
