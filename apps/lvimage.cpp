// lvimage: turns a rendered high dynamic range image into an 8-bit picture
// for viewing, with an exposure in stops and a display gamma.
//
//   lvimage [--exposure STOPS] [--gamma G] INPUT OUTPUT
//
// The input is any image FreeImage reads (.hdr, .exr, .pfm, ...); the output
// format follows the output name's extension (.png, .jpg, .bmp, ...).
#include <FreeImage.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

int usage(const char* message) {
    if (message) std::fprintf(stderr, "lvimage: %s\n", message);
    std::fprintf(message ? stderr : stdout, "usage: lvimage [--exposure STOPS] [--gamma G] INPUT OUTPUT\n");
    return message ? 2 : 0;
}

bool parseNumber(const char* text, double& value) {
    char* end = nullptr;
    value = std::strtod(text, &end);
    return end != text && *end == '\0' && std::isfinite(value);
}

uint8_t toByte(float linear, double scale, double inverseGamma) {
    const double v = std::pow(std::fmax(0.0, double(linear) * scale), inverseGamma);
    return uint8_t(std::lround(std::fmin(1.0, v) * 255.0));
}

}  // namespace

int main(int argc, char** argv) {
    double exposure = 0.0, gamma = 2.2;
    std::string input, output;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") return usage(nullptr);
        if (arg == "--exposure" || arg == "--gamma") {
            if (i + 1 >= argc || !parseNumber(argv[++i], arg == "--gamma" ? gamma : exposure))
                return usage((arg + " needs a number").c_str());
        } else if (!arg.empty() && arg[0] == '-') {
            return usage(("unknown option " + arg).c_str());
        } else if (input.empty()) {
            input = arg;
        } else if (output.empty()) {
            output = arg;
        } else {
            return usage("too many arguments");
        }
    }
    if (input.empty() || output.empty()) return usage("needs an input and an output image");
    if (gamma <= 0.0) return usage("--gamma must be above 0");

    FreeImage_Initialise(0);
    int status = 1;
    const FREE_IMAGE_FORMAT in = FreeImage_GetFileType(input.c_str(), 0);
    FIBITMAP* loaded = in == FIF_UNKNOWN ? nullptr : FreeImage_Load(in, input.c_str(), 0);
    FIBITMAP* rgbf = loaded ? FreeImage_ConvertToRGBF(loaded) : nullptr;
    const FREE_IMAGE_FORMAT out = FreeImage_GetFIFFromFilename(output.c_str());
    if (!rgbf) {
        std::fprintf(stderr, "lvimage: cannot read %s\n", input.c_str());
    } else if (out == FIF_UNKNOWN) {
        std::fprintf(stderr, "lvimage: no image format for %s\n", output.c_str());
    } else {
        const unsigned width = FreeImage_GetWidth(rgbf), height = FreeImage_GetHeight(rgbf);
        FIBITMAP* bytes = FreeImage_Allocate(int(width), int(height), 24);
        const double scale = std::pow(2.0, exposure), inverseGamma = 1.0 / gamma;
        for (unsigned y = 0; y < height; ++y) {
            const FIRGBF* from = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(rgbf, int(y)));
            BYTE* to = FreeImage_GetScanLine(bytes, int(y));
            for (unsigned x = 0; x < width; ++x) {
                to[3 * x + FI_RGBA_RED] = toByte(from[x].red, scale, inverseGamma);
                to[3 * x + FI_RGBA_GREEN] = toByte(from[x].green, scale, inverseGamma);
                to[3 * x + FI_RGBA_BLUE] = toByte(from[x].blue, scale, inverseGamma);
            }
        }
        if (FreeImage_Save(out, bytes, output.c_str(), 0)) {
            status = 0;
        } else {
            std::fprintf(stderr, "lvimage: cannot write %s\n", output.c_str());
        }
        FreeImage_Unload(bytes);
    }
    if (rgbf) FreeImage_Unload(rgbf);
    if (loaded) FreeImage_Unload(loaded);
    FreeImage_DeInitialise();
    return status;
}
