#include "scene/directory_walk.h"

#include <dirent.h>

#include <algorithm>

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

void walkSceneDirectory(const std::string& directory) {
    // A subdirectory whose name ends in ".lv" is among the paths; reading it
    // yields nothing.
    for (const std::string& path : sceneFilesOf(directory)) readSceneFile(path);
}
