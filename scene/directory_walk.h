// Reading every scene file of one directory.
#pragma once

#include <string>
#include <vector>

// The paths of the `*.lv` entries of a directory, directory + "/" + name, in
// byte-wise order of their names. A directory that cannot be read gives none.
std::vector<std::string> sceneFilesOf(const std::string& directory);
// Reads the scene files of a directory, one after another in that order.
void walkSceneDirectory(const std::string& directory);
