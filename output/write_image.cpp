#include "output/write_image.h"

#include <FreeImage.h>

#include <string>

#include "core/images.h"
#include "core/registry.h"

namespace {

struct FormatRow {
    const char* lower;
    const char* upper;
    FREE_IMAGE_FORMAT format;
};

// Walked in this order; a name that holds several extensions tries each.
// ".wabmp" and ".WBMP" differ on purpose: both forms are accepted.
constexpr FormatRow kFormats[] = {
    {".bmp", ".BMP", FIF_BMP},     {".cut", ".CUT", FIF_CUT},       {".dds", ".DDS", FIF_DDS},
    {".exr", ".EXR", FIF_EXR},     {".g3", ".G3", FIF_FAXG3},       {".gif", ".GIF", FIF_GIF},
    {".hdr", ".HDR", FIF_HDR},     {".ico", ".ICO", FIF_ICO},       {".iff", ".IFF", FIF_IFF},
    {".j2k", ".J2K", FIF_J2K},     {".jng", ".JNG", FIF_JNG},       {".jp2", ".JP2", FIF_JP2},
    {".jpg", ".JPG", FIF_JPEG},    {".jpeg", ".JPEG", FIF_JPEG},    {".koa", ".KOA", FIF_KOALA},
    {".mng", ".MNG", FIF_MNG},     {".pbm", ".PBM", FIF_PBM},       {".pcd", ".PCD", FIF_PCD},
    {".pfm", ".PFM", FIF_PFM},     {".pgm", ".PGM", FIF_PGM},       {".pic", ".PIC", FIF_PICT},
    {".pct", ".PCT", FIF_PICT},    {".pict", ".PICT", FIF_PICT},    {".png", ".PNG", FIF_PNG},
    {".ppm", ".PPM", FIF_PPM},     {".psd", ".PSD", FIF_PSD},       {".ras", ".RAS", FIF_RAS},
    {".raw", ".RAW", FIF_RAW},     {".sgi", ".SGI", FIF_SGI},       {".tga", ".TGA", FIF_TARGA},
    {".targa", ".TARGA", FIF_TARGA}, {".tif", ".TIF", FIF_TIFF},    {".tiff", ".TIFF", FIF_TIFF},
    {".wap", ".WAP", FIF_WBMP},    {".wabmp", ".WBMP", FIF_WBMP},   {".wbm", ".WBM", FIF_WBMP},
    {".xbm", ".XBM", FIF_XBM},     {".xpm", ".XPM", FIF_XPM},
};
static_assert(sizeof(kFormats) / sizeof(kFormats[0]) == 38);

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// Elements held by the store that the image's depth selects.
size_t storedElements(const ImageRecord& image) {
    switch (image.bits) {
    case 1: return image.bitStore.size() * 8;
    case 8: return image.byteStore.size();
    case 16: return image.shortStore.size();
    case 64: return image.doubleStore.size();
    default: return image.floatStore.size();
    }
}

float floatElement(const ImageRecord& image, size_t i) {
    switch (image.bits) {
    case 1: return storedBit(image, i) ? 1.0f : 0.0f;
    case 8: return float(image.byteStore[i]) / 255.0f;
    case 16: return float(image.shortStore[i]) / 65535.0f;
    case 64: return float(image.doubleStore[i]);
    default: return image.floatStore[i];
    }
}

// Clipped above at 1.0 and truncated; there is no lower clip, so negatives wrap.
uint8_t byteElement(const ImageRecord& image, size_t i) {
    switch (image.bits) {
    case 1: return storedBit(image, i) ? 255 : 0;
    case 8: return image.byteStore[i];
    case 16: return uint8_t(image.shortStore[i] >> 8);
    case 64: {
        const double v = image.doubleStore[i];
        return v > 1.0 ? 255 : wrappedByte(v * 255.0);
    }
    default: {
        const float v = image.floatStore[i];
        return v > 1.0f ? 255 : wrappedByte(v * 255.0f);
    }
    }
}

FIBITMAP* floatBitmap(const ImageRecord& image) {
    const bool alpha = image.channels >= 4;
    FIBITMAP* dib = FreeImage_AllocateT(alpha ? FIT_RGBAF : FIT_RGBF, image.width, image.height, alpha ? 128 : 96);
    if (!dib) return nullptr;
    const size_t count = storedElements(image);
    auto element = [&](size_t i) { return i < count ? floatElement(image, i) : 0.0f; };
    const int stride = alpha ? 4 : 3;
    for (int y = 0; y < image.height; ++y) {
        float* line = reinterpret_cast<float*>(FreeImage_GetScanLine(dib, y));
        for (int x = 0; x < image.width; ++x) {
            float* out = line + x * stride;
            const size_t base = (size_t(y) * size_t(image.width) + size_t(x)) * size_t(image.channels);
            if (image.channels == 1) {
                out[0] = out[1] = out[2] = element(base);
            } else if (image.channels >= 3) {   // two channels are not copied
                for (int k = 0; k < stride; ++k) out[k] = element(base + size_t(k));
            }
        }
    }
    return dib;
}

// Three elements a pixel whatever the channel count.
FIBITMAP* byteBitmap(const ImageRecord& image) {
    FIBITMAP* dib = FreeImage_Allocate(image.width, image.height, image.channels * 8);
    if (!dib) return nullptr;
    const size_t count = storedElements(image);
    auto element = [&](size_t i) { return i < count ? byteElement(image, i) : uint8_t(0); };
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const size_t base = (size_t(y) * size_t(image.width) + size_t(x)) * 3;
            RGBQUAD color{};
            color.rgbRed = element(base);
            color.rgbGreen = element(base + 1);
            color.rgbBlue = element(base + 2);
            color.rgbReserved = 255;
            FreeImage_SetPixelColor(dib, unsigned(x), unsigned(y), &color);
        }
    }
    return dib;
}

}  // namespace

int saveImage(const ImageRecord& image) {
    const std::string& name = image.name;
    if (name.empty()) return 0;
    bool floatRoute = false, flip = true;
    if (name.size() >= 4) {
        floatRoute = contains(name, ".exr") || contains(name, ".EXR") || contains(name, ".hdr") || contains(name, ".HDR");
        if (contains(name, ".pfm") || contains(name, ".PFM")) {
            floatRoute = true;
            flip = false;   // PFM stores its rows from the bottom
        }
    }
    FIBITMAP* dib = floatRoute ? floatBitmap(image) : byteBitmap(image);
    if (!dib) return 0;
    if (flip) FreeImage_FlipVertical(dib);
    for (const FormatRow& row : kFormats) {
        if (!contains(name, row.lower) && !contains(name, row.upper)) continue;
        if (FreeImage_Save(row.format, dib, name.c_str(), 0)) {
            FreeImage_Unload(dib);
            return 1;
        }
    }
    FreeImage_Unload(dib);
    return 0;
}

void writeImage(const ImageRecord& image) { saveImage(image); }

// Of several processes, rank 0 alone holds the combined images and writes.
void writeAovs(const std::vector<Aov>& aovs) {
    if (registry.processes.rank != 0) return;
    for (const Aov& aov : aovs) writeImage(aov.image);
}
