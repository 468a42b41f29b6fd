// Reading every scene file of one directory.
#pragma once

#include <string>
#include <vector>

// The paths of the `*.lv` entries of a directory, directory + "/" + name, in
// byte-wise order of their names. A directory that cannot be read gives none.
std::vector<std::string> sceneFilesOf(const std::string& directory);

// The folders of a scene directory, in the order they are read: shaders
// first, so that objects and lights find their shaders by name.
inline constexpr const char* kSceneFolders[] = {"shader", "render", "light", "camera", "geometry"};

// Reads a scene directory as lvGo does. The image and geometry search lists
// become `directory` + "image" (or "geometry"), `directory` and "": plain
// concatenations, so a directory that ends in a separator names its
// subfolders. Then every scene file of each folder, folder after folder.
// A non-empty `overlay` is a second directory whose files replace the
// scene's files of the same name in the same folder, or join them; the
// files of a folder are read in byte-wise order of their names.
void readSceneDirectory(const std::string& directory, const std::string& overlay = "");
