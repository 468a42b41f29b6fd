#include "fuzz_scene.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "core/registry.h"
#include "geometry/object.h"
#include "lights/geometry_light.h"
#include "lights/lights.h"
#include "photons/photon_tree.h"
#include "lv.h"
#include "scene/block_reader.h"

void freshScene() {
    static const Registry startedScene = [] {
        std::cout.rdbuf(nullptr);
        lvStartup();
        return registry;
    }();
    registry = startedScene;
}

const std::string& scratchDirectory() {
    static const std::string directory = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/lv-fuzz.XXXXXX";
        if (!mkdtemp(pattern.data())) std::abort();
        return pattern + "/";
    }();
    return directory;
}

std::string writeScratchFile(const std::string& name, const uint8_t* data, size_t size) {
    const std::string path = scratchDirectory() + name;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) std::abort();
    if (size > 0 && std::fwrite(data, 1, size, file) != size) std::abort();
    std::fclose(file);
    return path;
}

void readSceneText(const std::string& text) {
    std::istringstream stream(text);
    readSceneStream(stream);
}
