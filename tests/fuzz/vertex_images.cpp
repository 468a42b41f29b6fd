// Fuzz target: images that hold vertex data. The buffer's first byte picks
// the keywords, the rest is split in two float images written as PFM files:
// the first holds positions (and the UVs, normals or tangents that the
// first byte asks for), the second triangle indices or particles. The
// object is then built into the scene's hierarchy.
#include <algorithm>
#include <string>

#include "fuzz_scene.h"
#include "lv.h"

namespace {

// A one-row PFM image of three-channel pixels made of `bytes`, zero-padded
// to whole pixels; its file name in the scratch directory.
std::string writePfm(const std::string& name, const uint8_t* bytes, size_t size) {
    const size_t pixels = std::max<size_t>((size + 11) / 12, 1);
    std::string file = "PF\n" + std::to_string(pixels) + " 1\n-1.0\n";
    file.append(reinterpret_cast<const char*>(bytes), size).append(pixels * 12 - size, '\0');
    return writeScratchFile(name, reinterpret_cast<const uint8_t*>(file.data()), file.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    freshScene();
    const uint8_t choice = data[0];
    const size_t half = (size - 1) / 2;
    const std::string first = writePfm("first.pfm", data + 1, half);
    const std::string second = writePfm("second.pfm", data + 1 + half, size - 1 - half);
    std::string text = "object\n  name \"data\"\n";
    if (choice & 1) {
        text += "  particle_texture \"" + second + "\"\n";
    } else {
        text += "  position_texture \"" + first + "\"\n";
        if (choice & 2) text += "  uv_texture \"" + first + "\"\n";
        if (choice & 4) text += "  normal_texture \"" + first + "\"\n";
        if (choice & 8) text += "  tangent_texture \"" + first + "\"\n";
        text += "  triangle_texture \"" + second + "\"\n";
    }
    text += "end\n";
    readSceneText(text);
    lvInitializeShaders();
    lvInitializeAccelerator();
    lvFinalizeAccelerator();
    return 0;
}
