// Fuzz target: the conversions of image records. The buffer's first bytes
// choose a store of a read image (bit depth, channels, size, RGBE), the next
// fill it as raw bytes, and every pixel is fetched. Floats of the buffer (NaN,
// infinities and all) are then stored into a three-channel output image of
// every depth, read back and packed to RGBE.
#include <algorithm>
#include <cstring>

#include "core/records.h"
#include "fuzz_scene.h"
#include "core/images.h"

namespace {

template <typename T>
void fill(std::vector<T>& store, const uint8_t* data, size_t size) {
    if (store.empty()) return;
    std::memcpy(store.data(), data, std::min(size, store.size() * sizeof(T)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    freshScene();
    static const int kBits[] = {1, 8, 16, 32, 64};
    static const int kChannels[] = {1, 3, 4};
    ImageRecord image;
    const bool rgbe = data[0] & 0x80;
    SizeImage(image, 1 + data[1] % 16, 1 + data[2] % 16, kChannels[(data[0] >> 3) % 3], kBits[data[0] % 5], rgbe);
    data += 3;
    size -= 3;
    fill(image.bitStore, data, size);
    fill(image.byteStore, data, size);
    fill(image.shortStore, data, size);
    fill(image.floatStore, data, size);
    fill(image.doubleStore, data, size);
    fill(image.rgbeStore, data, size);
    const int pixels = image.width * image.height;
    float sink = 0.0f;
    for (int i = 0; i < pixels; ++i) sink += FetchPixel(image, i).x;

    ImageRecord output;
    SizeImage(output, 1 + int(size / sizeof(Color)), 1, 3, kBits[1 + data[0] % 4], false);
    for (int i = 0; i < output.width; ++i) {
        Color c{};
        const size_t at = size_t(i) * sizeof c;
        if (at < size) std::memcpy(&c, data + at, std::min(size - at, sizeof c));
        StorePixel(output, i, c);
        sink += storedPixel(output, i).y + float(packRgbe(c) & 1u);
    }
    volatile float keep = sink;
    (void)keep;
    return 0;
}
