// Fuzz target: one buffer read as a scene file, through the line reader, the
// block grammar and every block parser behind it. A scene file reads the same
// in each of the five folders, so one target serves them all.
#include <string>

#include "fuzz_scene.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    freshScene();
    readSceneText(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
