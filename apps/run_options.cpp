#include "run_options.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "core/registry.h"
#include "core/report.h"

const char kRunOptionsHelp[] =
    "  -o, --output NAME            the beauty image's file (.exr and .pfm keep floats)\n"
    "  --frames N                   passes over the image (the camera's sample)\n"
    "  --resolution WxH             the camera's resolution\n"
    "  --scale F                    scale the resolution by F\n"
    "  --region LEFT TOP RIGHT BOTTOM  render these pixels only\n"
    "  -t, --threads N              render on N threads\n"
    "  --quiet                      print error lines only\n";

namespace {

constexpr int kMaxFrames = 65535;   // the running mean counts in 16 bits
constexpr int kMaxSide = 65535;

bool readInt(const char* text, long low, long high, int& value) {
    char* end = nullptr;
    errno = 0;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || v < low || v > high) return false;
    value = int(v);
    return true;
}

bool readResolution(const std::string& text, int& width, int& height) {
    const size_t x = text.find('x');
    return x != std::string::npos && readInt(text.substr(0, x).c_str(), 1, kMaxSide, width) &&
           readInt(text.substr(x + 1).c_str(), 1, kMaxSide, height);
}

}  // namespace

bool readRunOption(int argc, char** argv, int& i, RunOptions& options, std::string& error) {
    const std::string arg = argv[i];
    auto value = [&](int k) -> const char* { return i + k < argc ? argv[i + k] : nullptr; };
    auto needs = [&](int count, const char* what) {
        for (int k = 1; k <= count; ++k)
            if (!value(k)) error = arg + " needs " + what;
        return error.empty();
    };
    error.clear();
    if (arg == "--quiet") {
        options.quiet = true;
    } else if (arg == "-o" || arg == "--output") {
        if (!needs(1, "a file name")) return true;
        const std::filesystem::path name = value(1);
        if (name.filename().empty() || name.extension().empty())
            error = arg + " needs a file name with an extension, such as beauty.exr";
        else
            options.output = std::filesystem::absolute(name).string();
        i += 1;
    } else if (arg == "--frames") {
        if (needs(1, "a number") && !readInt(value(1), 1, kMaxFrames, options.frames))
            error = "--frames needs a whole number from 1 to 65535, not '" + std::string(value(1)) + "'";
        i += 1;
    } else if (arg == "--resolution") {
        if (needs(1, "WIDTHxHEIGHT") && !readResolution(value(1), options.width, options.height))
            error = "--resolution needs WIDTHxHEIGHT, such as 640x480, not '" + std::string(value(1)) + "'";
        i += 1;
    } else if (arg == "--scale") {
        if (needs(1, "a number")) {
            char* end = nullptr;
            options.scale = std::strtod(value(1), &end);
            if (end == value(1) || *end != '\0' || !(options.scale > 0.0) || options.scale > 1000.0)
                error = "--scale needs a number above 0 and up to 1000, not '" + std::string(value(1)) + "'";
        }
        i += 1;
    } else if (arg == "--region") {
        if (needs(4, "LEFT TOP RIGHT BOTTOM")) {
            for (int k = 0; k < 4 && error.empty(); ++k)
                if (!readInt(value(k + 1), 0, kMaxSide, options.region[k])) error = "--region needs four pixel numbers";
            if (error.empty() && (options.region[0] >= options.region[2] || options.region[1] >= options.region[3]))
                error = "--region needs LEFT below RIGHT and TOP below BOTTOM";
            options.hasRegion = true;
        }
        i += 4;
    } else if (arg == "-t" || arg == "--threads") {
        if (needs(1, "a number") && !readInt(value(1), 1, 256, options.threads))
            error = arg + " needs a whole number from 1 to 256, not '" + std::string(value(1)) + "'";
        i += 1;
    } else {
        return false;
    }
    return true;
}

void applyRunOptions(const RunOptions& options) {
    if (registry.cameras.empty()) return;
    Camera& camera = registry.cameras[size_t(std::clamp(registry.currentCamera, 0, int(registry.cameras.size()) - 1))];
    bool noted = false;
    auto note = [&](const std::string& text) { reportMessage("command line - " + text), noted = true; };
    if (options.width > 0) {
        camera.width = options.width, camera.height = options.height;
        note("resolution " + std::to_string(camera.width) + " x " + std::to_string(camera.height));
    }
    if (options.scale > 0.0) {
        camera.width = int(std::clamp(std::lround(camera.width * options.scale), 1L, long(kMaxSide)));
        camera.height = int(std::clamp(std::lround(camera.height * options.scale), 1L, long(kMaxSide)));
        note("resolution scaled to " + std::to_string(camera.width) + " x " + std::to_string(camera.height));
    }
    if (options.hasRegion) {
        camera.regionLeft = options.region[0], camera.regionTop = options.region[1];
        camera.regionRight = options.region[2], camera.regionBottom = options.region[3];
        note("region " + std::to_string(options.region[0]) + " " + std::to_string(options.region[1]) + " " +
             std::to_string(options.region[2]) + " " + std::to_string(options.region[3]));
    }
    if (options.frames > 0) {
        camera.sample = options.frames;
        note("frames " + std::to_string(camera.sample));
    }
    if (!options.output.empty() && !camera.aovs.empty()) {
        camera.aovs[0].image.name = options.output;
        note("output " + options.output);
    }
    if (options.threads > 0) note("threads " + std::to_string(options.threads));
    if (noted) reportRule();
}
