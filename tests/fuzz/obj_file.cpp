// Fuzz target: one buffer as an OBJ file that an object block names, read,
// compiled into a part and built into the scene's hierarchy, so that indices
// the reader lets through meet the code that uses them.
#include "fuzz_scene.h"
#include "lv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    freshScene();
    const std::string path = writeScratchFile("mesh.obj", data, size);
    readSceneText("object\n  name \"mesh\"\n  obj \"" + path + "\"\nend\n");
    lvInitializeShaders();
    lvInitializeAccelerator();
    lvFinalizeAccelerator();
    return 0;
}
