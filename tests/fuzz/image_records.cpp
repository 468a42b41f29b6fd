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

// Copies the buffer into every store of `image` (the ones its size made).
void fill(ImageRecord& image, const uint8_t* data, size_t size) {
    auto into = [&](auto& store) {
        if (!store.empty()) std::memcpy(store.data(), data, std::min(size, store.size() * sizeof store[0]));
    };
    into(image.bitStore), into(image.byteStore), into(image.shortStore);
    into(image.floatStore), into(image.doubleStore), into(image.rgbeStore);
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
    fill(image, data, size);
    float sink = 0.0f;
    for (int i = 0; i < image.width * image.height; ++i) sink += FetchPixel(image, i).x;

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
