// Fuzz target: one buffer as a binary hair file and as a text hair file,
// each loaded into a part of one object by its keyword, and the object
// prepared: strand parameters and tangents, the hierarchy that the curve
// test walks, and the texture coordinates of the roots. The hair tables are
// left out, as they cost far more than the reading and depend on no file.
#include "core/registry.h"
#include "fuzz_scene.h"
#include "geometry/prepare.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    freshScene();
    const std::string binary = writeScratchFile("strands.hair", data, size);
    const std::string text = writeScratchFile("strands.fur", data, size);
    readSceneText("object\n  name \"hair\"\n  hair \"" + binary + "\"\n  fur \"" + text + "\"\nend\n");
    for (Object& object : registry.objects) prepareObject(object);
    return 0;
}
