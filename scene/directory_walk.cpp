#include "scene/directory_walk.h"

#include <dirent.h>

#include <algorithm>
#include <map>

#include "core/registry.h"

#include "scene/block_reader.h"

namespace {

bool isSceneFileName(const std::string& name) {
    static const std::string suffix = ".lv";
    return name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

std::vector<std::string> sceneFilesOf(const std::string& directory) {
    // All names are collected and the directory closed before any file is
    // read. The enumeration order of the file system is arbitrary, so the
    // names are sorted to make a run repeatable.
    std::vector<std::string> names;
    if (DIR* dir = opendir(directory.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            std::string name = entry->d_name;
            if (isSceneFileName(name)) names.push_back(std::move(name));
        }
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    std::vector<std::string> paths;
    paths.reserve(names.size());
    for (const std::string& name : names) paths.push_back(directory + "/" + name);
    return paths;
}

void readSceneDirectory(const std::string& directory, const std::string& overlay) {
    registry.imagePaths.clear();
    registry.geometryPaths.clear();
    for (const std::string& entry : {directory + "image", directory, std::string()})
        if (std::find(registry.imagePaths.begin(), registry.imagePaths.end(), entry) == registry.imagePaths.end())
            registry.imagePaths.push_back(entry);
    registry.geometryPaths = {directory + "geometry", directory, ""};
    registry.sceneDirectory = directory;

    for (const char* folder : kSceneFolders) {
        // By name, so that an overlay file takes the place of the scene's.
        std::map<std::string, std::string> byName;
        for (const std::string& root : overlay.empty() ? std::vector<std::string>{directory}
                                                       : std::vector<std::string>{directory, overlay}) {
            const std::string path = root + "/" + folder;
            for (const std::string& file : sceneFilesOf(path)) byName[file.substr(path.size() + 1)] = file;
        }
        // A subdirectory whose name ends in ".lv" is among the paths; reading
        // it yields nothing.
        for (const auto& entry : byName) readSceneFile(entry.second);
    }
}
