#include "core/records.h"

#include <algorithm>

void SizeImage(ImageRecord& image, int width, int height, int channels, int bits, bool useRgbe) {
    image.loaded = 0;
    image.width = width;
    image.height = height;
    image.channels = channels;
    image.bits = bits;
    image.usesRgbe = useRgbe;
    if (width <= 0 || height <= 0 || channels <= 0) return;
    size_t pixels = size_t(width) * size_t(height);
    size_t elements = pixels * size_t(channels);
    image.bitStore.clear();
    image.byteStore.clear();
    image.shortStore.clear();
    image.floatStore.clear();
    image.doubleStore.clear();
    image.rgbeStore.clear();
    if (useRgbe) {
        image.rgbeStore.assign(pixels, 0u);
        return;
    }
    switch (bits) {
    case 1: image.bitStore.assign((elements + 7) / 8, 0); break;
    case 8: image.byteStore.assign(elements, 0); break;
    case 16: image.shortStore.assign(elements, 0); break;
    case 64: image.doubleStore.assign(elements, 0.0); break;
    default: image.floatStore.assign(elements, 0.0f); break;
    }
}

namespace {
template <typename T>
T quantize(float v, float scale) {
    if (v >= 1.0f) return T(scale);
    if (v < 0.0f) return T(0);
    return T(v * scale);
}
}  // namespace

void StorePixel(ImageRecord& image, int index, Color rgb) {
    const float c[3] = {rgb.x, rgb.y, rgb.z};
    size_t base = size_t(index) * size_t(image.channels);
    for (int k = 0; k < 3; ++k) {
        switch (image.bits) {
        case 8: image.byteStore[base + k] = quantize<uint8_t>(c[k], 255.0f); break;
        case 16: image.shortStore[base + k] = quantize<uint16_t>(c[k], 65535.0f); break;
        case 64: image.doubleStore[base + k] = double(c[k]); break;
        default: image.floatStore[base + k] = c[k]; break;
        }
    }
}

Color storedPixel(const ImageRecord& image, int index) {
    size_t base = size_t(index) * size_t(image.channels);
    float c[3];
    for (int k = 0; k < 3; ++k) {
        switch (image.bits) {
        case 8: c[k] = float(image.byteStore[base + k]) / 255.0f; break;
        case 16: c[k] = float(image.shortStore[base + k]) / 65535.0f; break;
        case 64: c[k] = float(image.doubleStore[base + k]); break;
        default: c[k] = image.floatStore[base + k]; break;
        }
    }
    return {c[0], c[1], c[2]};
}

uint32_t imageBytes(const ImageRecord& image) {
    return uint32_t(image.bitStore.size() + image.byteStore.size() + image.shortStore.size() * 2 +
                    image.floatStore.size() * 4 + image.doubleStore.size() * 8 + image.rgbeStore.size() * 4);
}

Camera defaultCamera() {
    Camera camera;
    Aov beauty;
    beauty.image.name = "beauty.hdr";
    camera.aovs.push_back(beauty);
    return camera;
}

