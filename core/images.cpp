#include "core/images.h"

#include <FreeImage.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "core/constants.h"
#include "core/exponent.h"
#include "core/random.h"
#include "core/registry.h"
#include "core/report.h"

namespace {

// 8-bit and 16-bit texels alike are scaled by 1/255, so 16-bit images read
// up to 257 times brighter than 8-bit ones.
constexpr float kByteScale = 0.0039215684f;

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// The first path of the search list that opens for reading, or an empty one.
std::string findImageFile(const std::string& name) {
    for (const std::string& entry : registry.imagePaths) {
        std::string path = entry.empty() ? name : entry + "/" + name;
        std::replace(path.begin(), path.end(), '\\', '/');
        if (FILE* file = std::fopen(path.c_str(), "rb")) {
            std::fclose(file);
            return path;
        }
    }
    return {};
}

// Copies `channels` values a pixel from every scan line, row 0 first.
template <typename Stored, typename Source, typename Store>
void copyScanLines(FIBITMAP* dib, Store& store, int width, int height, int channels) {
    const size_t rowElements = size_t(width) * size_t(channels);
    for (int y = 0; y < height; ++y) {
        const Source* line = reinterpret_cast<const Source*>(FreeImage_GetScanLine(dib, y));
        for (size_t i = 0; i < rowElements; ++i) store[size_t(y) * rowElements + i] = Stored(line[i]);
    }
}

// Fills the image's store from the bitmap by its pixel type. Types and depths
// that have no store here leave the record empty.
void convertBitmap(ImageRecord& image, FIBITMAP* dib) {
    const int width = int(FreeImage_GetWidth(dib));
    const int height = int(FreeImage_GetHeight(dib));
    const unsigned depth = FreeImage_GetBPP(dib);
    switch (FreeImage_GetImageType(dib)) {
    case FIT_BITMAP:
        if (depth == 8 && !FreeImage_GetPalette(dib)) {
            SizeImage(image, width, height, 1, 8, false);
            copyScanLines<uint8_t, BYTE>(dib, image.byteStore, width, height, 1);
        } else if (depth == 8) {
            // A palette image reads as its indices: the palette's colours are
            // dropped on purpose, as if it were a grey ramp.
            SizeImage(image, width, height, 3, 8, false);
            for (int y = 0; y < height; ++y) {
                const BYTE* line = FreeImage_GetScanLine(dib, y);
                for (int x = 0; x < width; ++x)
                    std::fill_n(&image.byteStore[(size_t(y) * width + x) * 3], 3, line[x]);
            }
        } else if (depth == 24 || depth == 32) {
            const int channels = int(depth / 8);
            SizeImage(image, width, height, channels, 8, false);
            for (int y = 0; y < height; ++y) {
                const BYTE* line = FreeImage_GetScanLine(dib, y);
                for (int x = 0; x < width; ++x) {
                    const BYTE* pixel = line + x * channels;
                    uint8_t* out = &image.byteStore[(size_t(y) * width + x) * channels];
                    out[0] = pixel[FI_RGBA_RED];
                    out[1] = pixel[FI_RGBA_GREEN];
                    out[2] = pixel[FI_RGBA_BLUE];
                    if (channels == 4) out[3] = pixel[FI_RGBA_ALPHA];
                }
            }
        }
        break;
    case FIT_UINT16:
        SizeImage(image, width, height, 1, 16, false);
        copyScanLines<uint16_t, WORD>(dib, image.shortStore, width, height, 1);
        break;
    case FIT_UINT32:
        SizeImage(image, width, height, 1, 32, false);
        copyScanLines<float, DWORD>(dib, image.floatStore, width, height, 1);
        break;
    case FIT_FLOAT:
        SizeImage(image, width, height, 1, 32, false);
        copyScanLines<float, float>(dib, image.floatStore, width, height, 1);
        break;
    case FIT_RGB16:
        SizeImage(image, width, height, 3, 16, false);
        copyScanLines<uint16_t, WORD>(dib, image.shortStore, width, height, 3);
        break;
    case FIT_RGBA16:
        SizeImage(image, width, height, 4, 16, false);
        copyScanLines<uint16_t, WORD>(dib, image.shortStore, width, height, 4);
        break;
    case FIT_RGBF:
        if (!image.wantsRgbe) {
            SizeImage(image, width, height, 3, 32, false);
            copyScanLines<float, float>(dib, image.floatStore, width, height, 3);
            break;
        }
        SizeImage(image, width, height, 3, 32, true);
        for (int y = 0; y < height; ++y) {
            const FIRGBF* line = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(dib, y));
            for (int x = 0; x < width; ++x)
                image.rgbeStore[size_t(y) * width + x] = packRgbe({line[x].red, line[x].green, line[x].blue});
        }
        break;
    case FIT_RGBAF:
        SizeImage(image, width, height, 4, 32, false);
        copyScanLines<float, float>(dib, image.floatStore, width, height, 4);
        break;
    default:
        break;
    }
}

// Texel coordinate along one axis by the wrap mode.
int wrapCoordinate(int x, int size, uint8_t mode) {
    switch (mode) {
    case kWrapRepeat: return x >= 0 ? x % size : size - (std::max(x + 1, -(x + 1)) % size) - 1;
    case kWrapClamp: return std::clamp(x, 0, size - 1);
    default: return x;
    }
}

Color texel(const ImageRecord& image, const Sampler& sampler, int x, int y) {
    const int index = wrapCoordinate(y, image.height, sampler.wrapV) * image.width +
                      wrapCoordinate(x, image.width, sampler.wrapU);
    Color c = FetchPixel(image, index);
    if (sampler.gamma != 1.0f)
        c = {std::pow(c.x, sampler.gamma), std::pow(c.y, sampler.gamma), std::pow(c.z, sampler.gamma)};
    return c;
}

// Keeps texel coordinates (and NaN) inside the range of int with room for +1.
float boundedCoordinate(float x) { return std::fmin(std::fmax(x, -1e9f), 1e9f); }

}  // namespace

int FindImage(const std::string& name) {
    if (name.empty()) return -1;
    for (size_t i = 0; i < registry.textures.size(); ++i)
        if (registry.textures[i].name == name) return int(i);
    ImageRecord image;
    image.name = name;
    registry.textures.push_back(std::move(image));
    return int(registry.textures.size() - 1);
}

int LoadImage(ImageRecord& image) {
    if (image.name.empty()) return 0;
    if (image.loaded) return 1;
    const std::string path = findImageFile(image.name);
    if (path.empty()) {
        reportError("image - " + image.name + "\tcannot be found");
        reportRule();
        return 0;
    }
    const FREE_IMAGE_FORMAT format = FreeImage_GetFileType(path.c_str(), 0);
    FIBITMAP* dib = format == FIF_UNKNOWN ? nullptr : FreeImage_Load(format, path.c_str(), 0);
    if (!dib) {
        reportError("image - " + image.name + "\tcannot be read");
        reportRule();
        return 0;
    }
    // Radiance files keep their rows top first; turn them to the order of all others.
    if (contains(image.name, ".hdr") || contains(image.name, ".HDR")) FreeImage_FlipVertical(dib);
    convertBitmap(image, dib);
    FreeImage_Unload(dib);
    image.loaded = 1;
    return 1;
}

uint32_t packRgbe(Color rgb) {
    const float m = std::fmax(rgb.x, std::fmax(rgb.y, rgb.z));
    if (!(m >= 1e-32f) || !std::isfinite(m)) return 0;
    int exponent = 0;
    float s = 256.0f * std::frexp(m, &exponent) / m;
    // Mantissas are rounded to the nearest step, as nothing adds half a step
    // back when they are read: truncated, every channel would lose half a
    // step on average, most of all the small ones. A largest channel that
    // rounds up to 256 takes the next exponent.
    if (m * s + 0.5f >= 256.0f) s *= 0.5f, ++exponent;
    auto byte = [s](float c) { return uint32_t(wrappedByte(c >= 0.0f ? c * s + 0.5f : c * s)); };
    return byte(rgb.x) | byte(rgb.y) << 8 | byte(rgb.z) << 16 | uint32_t(uint8_t(exponent + 128)) << 24;
}

Color FetchPixel(const ImageRecord& image, int index) {
    if (image.usesRgbe) {
        const uint32_t p = image.rgbeStore[size_t(index)];
        const uint32_t e = p >> 24;
        if (e == 0) return zero;
        const float scale = exponentTable[e];
        return {float(p & 255u) * scale, float((p >> 8) & 255u) * scale, float((p >> 16) & 255u) * scale};
    }
    const size_t base = size_t(index) * size_t(image.channels);
    const size_t step = image.channels >= 3 ? 1 : 0;   // one channel goes to all three
    auto channel = [&](size_t i) -> float {
        switch (image.bits) {
        case 1: return storedBit(image, i) ? 1.0f : 0.0f;
        case 8: return float(image.byteStore[i]) * kByteScale;
        case 16: return float(image.shortStore[i]) * kByteScale;
        case 64: return float(image.doubleStore[i]);
        default: return image.floatStore[i];
        }
    };
    return {channel(base), channel(base + step), channel(base + 2 * step)};
}

void LookupTexture(const ImageRecord& image, Color& rgb, const float uv[2], const SurfaceElement& element) {
    const Sampler& sampler = element.sampler;
    rgb = zero;
    if (image.width <= 0 || image.height <= 0) return;   // a file that gave no pixels
    float u = uv[0], v = uv[1];
    if (!sampler.uvMatrixIdentity) {
        const float* m = sampler.uv_matrix;
        const float w = m[6] * u + m[7] * v + m[8];
        const float mappedU = (m[0] * u + m[1] * v + m[2]) / w;
        v = (m[3] * u + m[4] * v + m[5]) / w;
        u = mappedU;
    }
    const float x = boundedCoordinate(float(image.width) * u);
    const float y = boundedCoordinate(float(image.height) * v);
    const float floorX = std::floor(x), floorY = std::floor(y);
    const int ix = int(floorX), iy = int(floorY);
    const float fx = x - floorX, fy = y - floorY;
    switch (sampler.pixel_sampler) {
    case kSamplerNearest:
        rgb = texel(image, sampler, ix, iy);
        break;
    case kSamplerStochastic: {
        const float r1 = hardwareRandomFloat();
        const float r2 = hardwareRandomFloat();
        rgb = texel(image, sampler, ix + (fx > r1 ? 1 : 0), iy + (fy > r2 ? 1 : 0));
        break;
    }
    case kSamplerBilinear: {
        const Color bottom = texel(image, sampler, ix, iy) * (1.0f - fx) + texel(image, sampler, ix + 1, iy) * fx;
        const Color top = texel(image, sampler, ix, iy + 1) * (1.0f - fx) + texel(image, sampler, ix + 1, iy + 1) * fx;
        rgb = bottom * (1.0f - fy) + top * fy;
        break;
    }
    default:
        break;
    }
    if (!sampler.colorMatrixIdentity) {
        const float* m = sampler.color_matrix;
        const float r = rgb.x, g = rgb.y, b = rgb.z;
        // The divisor takes m14 on green and gives blue no part: kept as it stands.
        const float w = m[12] * r + (m[13] + m[14]) * g + m[15];
        rgb = {(m[0] * r + m[1] * g + m[2] * b + m[3]) / w, (m[4] * r + m[5] * g + m[6] * b + m[7]) / w,
               (m[8] * r + m[9] * g + m[10] * b + m[11]) / w};
    }
}

Color elementColor(const SurfaceElement& element, const float uv[2]) {
    if (element.imageIndex < 0) return element.color;
    Color texelColor;
    LookupTexture(registry.textures[size_t(element.imageIndex)], texelColor, uv, element);
    return element.color * texelColor;
}

bool elementColorTest(const SurfaceElement& element, const float uv[2], Color& rgb) {
    rgb = elementColor(element, uv);
    return rgb.x > kCutoff || rgb.y > kCutoff || rgb.z > kCutoff;
}

Vector elementVector(const SurfaceElement& element, const float uv[2]) {
    if (element.imageIndex < 0) return element.color;
    Color texelColor;
    LookupTexture(registry.textures[size_t(element.imageIndex)], texelColor, uv, element);
    return (texelColor - Vector{0.5f, 0.5f, 0.5f}) * element.color;
}

void prepareTextures() {
    bool failed = false;
    for (ImageRecord& image : registry.textures)
        if (!LoadImage(image)) failed = true;
    if (failed) reportRule();
    uint32_t bytes = 0;
    for (const ImageRecord& image : registry.textures) bytes += imageBytes(image);
    reportCountAndSize("textures", (long long)registry.textures.size(), double(float(bytes) * kMegabytes), "M bytes");
    reportRule();
}

void releaseTextures() {
    registry.textures.clear();
    registry.textures.shrink_to_fit();
}
