// lvimage: turns a rendered high dynamic range image into an 8-bit picture
// for viewing, with an exposure in stops and a display gamma; compares two
// rendered images; and summarises one.
//
//   lvimage [--exposure STOPS] [--gamma G] INPUT OUTPUT
//   lvimage --diff A B [OUTPUT]
//   lvimage --stats IMAGE
//
// The inputs are any images FreeImage reads (.hdr, .exr, .pfm, ...), taken
// as linear RGB floats; the output format follows the output name's
// extension (.png, .jpg, .bmp, ...).
//
// --diff compares two images of the same width and height and prints one line
//
//   rmse R max M at X Y
//
// R is the root mean square difference over every pixel and the three colour
// channels, M the largest absolute difference of one channel, and X Y the
// first pixel (row by row from the top left, counted from 0) where it
// occurs. Equal values differ by 0, infinities and NaNs included; a NaN in
// only one of the images makes R and M "nan". With OUTPUT, the absolute
// difference of each channel is written as an image: in floats when the
// format holds them (.pfm, .hdr, .exr, .tif), otherwise clipped to 0..1 and
// stored linearly, without exposure or gamma, so that a byte of 255 means a
// difference of 1 or more. To see small differences, write a float image and
// convert it with --exposure.
//
// --stats prints one line
//
//   mean R G B variance R G B nan N inf N
//
// the mean and the (population) variance of each channel over its finite
// values, then how many channel values are NaN and how many are infinite.
// A channel without finite values has mean and variance "nan".
//
// Numbers are printed with six significant digits. The exit status is 0 on
// success, 1 when an image cannot be read or written, and 2 for a wrong
// command line or, with --diff, images of different sizes.
#include <FreeImage.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

int usage(const char* message) {
    if (message) std::fprintf(stderr, "lvimage: %s\n", message);
    std::fprintf(message ? stderr : stdout,
                 "usage: lvimage [--exposure STOPS] [--gamma G] INPUT OUTPUT\n"
                 "       lvimage --diff A B [OUTPUT]\n"
                 "       lvimage --stats IMAGE\n");
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

// A number as the reports print it; NaN without the sign that printf may
// give it.
std::string number(double value) {
    if (std::isnan(value)) return "nan";
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

// The image at `path` as RGB floats, or null (after saying so) when it cannot
// be read.
FIBITMAP* readFloats(const std::string& path) {
    const FREE_IMAGE_FORMAT format = FreeImage_GetFileType(path.c_str(), 0);
    FIBITMAP* loaded = format == FIF_UNKNOWN ? nullptr : FreeImage_Load(format, path.c_str(), 0);
    FIBITMAP* rgbf = loaded ? FreeImage_ConvertToRGBF(loaded) : nullptr;
    if (loaded) FreeImage_Unload(loaded);
    if (!rgbf) std::fprintf(stderr, "lvimage: cannot read %s\n", path.c_str());
    return rgbf;
}

// Row `y` counted from the top; FreeImage keeps the bottom row first.
FIRGBF* row(FIBITMAP* image, unsigned y) {
    return reinterpret_cast<FIRGBF*>(FreeImage_GetScanLine(image, int(FreeImage_GetHeight(image) - 1 - y)));
}

float channel(const FIRGBF& pixel, int c) { return c == 0 ? pixel.red : c == 1 ? pixel.green : pixel.blue; }

// How far apart two values are: 0 when they are the same, even both infinite
// or both NaN.
float difference(float a, float b) {
    if (a == b || (std::isnan(a) && std::isnan(b))) return 0.0f;
    return std::fabs(a - b);
}

int convert(const std::string& input, const std::string& output, double exposure, double gamma) {
    int status = 1;
    FIBITMAP* rgbf = readFloats(input);
    const FREE_IMAGE_FORMAT out = FreeImage_GetFIFFromFilename(output.c_str());
    if (!rgbf) {
        // already reported
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
    return status;
}

// Writes the differences in floats where the format takes them, otherwise
// clipped to 0..1 in bytes. Returns whether the image was written.
bool writeDifference(FIBITMAP* difference, const std::string& output) {
    const FREE_IMAGE_FORMAT out = FreeImage_GetFIFFromFilename(output.c_str());
    if (out == FIF_UNKNOWN) {
        std::fprintf(stderr, "lvimage: no image format for %s\n", output.c_str());
        return false;
    }
    bool saved = false;
    if (FreeImage_FIFSupportsExportType(out, FIT_RGBF)) {
        saved = FreeImage_Save(out, difference, output.c_str(), 0);
    } else {
        const unsigned width = FreeImage_GetWidth(difference), height = FreeImage_GetHeight(difference);
        FIBITMAP* bytes = FreeImage_Allocate(int(width), int(height), 24);
        for (unsigned y = 0; y < height; ++y) {
            const FIRGBF* from = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(difference, int(y)));
            BYTE* to = FreeImage_GetScanLine(bytes, int(y));
            for (unsigned x = 0; x < width; ++x) {
                to[3 * x + FI_RGBA_RED] = toByte(from[x].red, 1.0, 1.0);
                to[3 * x + FI_RGBA_GREEN] = toByte(from[x].green, 1.0, 1.0);
                to[3 * x + FI_RGBA_BLUE] = toByte(from[x].blue, 1.0, 1.0);
            }
        }
        saved = FreeImage_Save(out, bytes, output.c_str(), 0);
        FreeImage_Unload(bytes);
    }
    if (!saved) std::fprintf(stderr, "lvimage: cannot write %s\n", output.c_str());
    return saved;
}

int diff(const std::string& first, const std::string& second, const std::string& output) {
    FIBITMAP* a = readFloats(first);
    FIBITMAP* b = a ? readFloats(second) : nullptr;
    if (!b) {
        if (a) FreeImage_Unload(a);
        return 1;
    }
    const unsigned width = FreeImage_GetWidth(a), height = FreeImage_GetHeight(a);
    if (FreeImage_GetWidth(b) != width || FreeImage_GetHeight(b) != height) {
        std::fprintf(stderr, "lvimage: %s is %ux%u but %s is %ux%u\n", first.c_str(), width, height,
                     second.c_str(), FreeImage_GetWidth(b), FreeImage_GetHeight(b));
        FreeImage_Unload(a);
        FreeImage_Unload(b);
        return 2;
    }
    FIBITMAP* differences = output.empty() ? nullptr : FreeImage_AllocateT(FIT_RGBF, int(width), int(height));
    double squares = 0.0;
    float largest = 0.0f;
    unsigned largestX = 0, largestY = 0;
    for (unsigned y = 0; y < height; ++y) {
        const FIRGBF* rowA = row(a, y);
        const FIRGBF* rowB = row(b, y);
        FIRGBF* rowD = differences ? row(differences, y) : nullptr;
        for (unsigned x = 0; x < width; ++x) {
            float d[3];
            for (int c = 0; c < 3; ++c) {
                d[c] = difference(channel(rowA[x], c), channel(rowB[x], c));
                squares += double(d[c]) * double(d[c]);
                // The first NaN stays the largest difference: the images
                // disagree there in a way no number measures.
                if (!std::isnan(largest) && (std::isnan(d[c]) || d[c] > largest)) {
                    largest = d[c];
                    largestX = x;
                    largestY = y;
                }
            }
            if (rowD) rowD[x] = FIRGBF{d[0], d[1], d[2]};
        }
    }
    const double count = 3.0 * double(width) * double(height);
    const double rmse = count > 0.0 ? std::sqrt(squares / count) : 0.0;
    std::printf("rmse %s max %s at %u %u\n", number(rmse).c_str(), number(largest).c_str(), largestX, largestY);
    std::fflush(stdout);
    int status = 0;
    if (differences && !writeDifference(differences, output)) status = 1;
    if (differences) FreeImage_Unload(differences);
    FreeImage_Unload(a);
    FreeImage_Unload(b);
    return status;
}

int stats(const std::string& input) {
    FIBITMAP* image = readFloats(input);
    if (!image) return 1;
    const unsigned width = FreeImage_GetWidth(image), height = FreeImage_GetHeight(image);
    // Two passes over the image: the sums give the means, then the squared
    // distances from them the variances, which stay accurate for values far
    // from zero.
    double sum[3] = {}, squares[3] = {};
    long long finite[3] = {}, nans = 0, infinities = 0;
    for (unsigned y = 0; y < height; ++y) {
        const FIRGBF* pixels = row(image, y);
        for (unsigned x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                const float v = channel(pixels[x], c);
                if (std::isnan(v)) {
                    ++nans;
                } else if (std::isinf(v)) {
                    ++infinities;
                } else {
                    sum[c] += v;
                    ++finite[c];
                }
            }
    }
    double mean[3];
    for (int c = 0; c < 3; ++c) mean[c] = finite[c] ? sum[c] / double(finite[c]) : std::nan("");
    for (unsigned y = 0; y < height; ++y) {
        const FIRGBF* pixels = row(image, y);
        for (unsigned x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) {
                const float v = channel(pixels[x], c);
                if (std::isfinite(v)) squares[c] += (double(v) - mean[c]) * (double(v) - mean[c]);
            }
    }
    std::string variance[3];
    for (int c = 0; c < 3; ++c) variance[c] = number(finite[c] ? squares[c] / double(finite[c]) : std::nan(""));
    std::printf("mean %s %s %s variance %s %s %s nan %lld inf %lld\n", number(mean[0]).c_str(),
                number(mean[1]).c_str(), number(mean[2]).c_str(), variance[0].c_str(), variance[1].c_str(),
                variance[2].c_str(), nans, infinities);
    FreeImage_Unload(image);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    enum class Mode { convert, diff, stats } mode = Mode::convert;
    double exposure = 0.0, gamma = 2.2;
    bool toneOptions = false;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") return usage(nullptr);
        if (arg == "--exposure" || arg == "--gamma") {
            if (i + 1 >= argc || !parseNumber(argv[++i], arg == "--gamma" ? gamma : exposure))
                return usage((arg + " needs a number").c_str());
            toneOptions = true;
        } else if (arg == "--diff" || arg == "--stats") {
            if (mode != Mode::convert) return usage("--diff and --stats go alone");
            mode = arg == "--diff" ? Mode::diff : Mode::stats;
        } else if (!arg.empty() && arg[0] == '-') {
            return usage(("unknown option " + arg).c_str());
        } else {
            names.push_back(arg);
        }
    }
    if (mode != Mode::convert && toneOptions)
        return usage("--exposure and --gamma apply only to converting an image");
    if (mode == Mode::diff && (names.size() < 2 || names.size() > 3))
        return usage("--diff needs two images and at most one output");
    if (mode == Mode::stats && names.size() != 1) return usage("--stats needs one image");
    if (mode == Mode::convert) {
        if (names.size() > 2) return usage("too many arguments");
        if (names.size() < 2) return usage("needs an input and an output image");
        if (gamma <= 0.0) return usage("--gamma must be above 0");
    }

    FreeImage_Initialise(0);
    int status = 0;
    switch (mode) {
        case Mode::convert: status = convert(names[0], names[1], exposure, gamma); break;
        case Mode::diff: status = diff(names[0], names[1], names.size() > 2 ? names[2] : ""); break;
        case Mode::stats: status = stats(names[0]); break;
    }
    FreeImage_DeInitialise();
    return status;
}
