// What the fuzz targets share: a quiet report, a scene put back to the state
// of a fresh start-up after every input, and a scratch directory for the
// files that an input becomes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Starts the library once, silences the report, and from the second call on
// puts the scene back to the state that start-up left.
void freshScene();
// A private directory of this process, made on first use, with a trailing '/'.
const std::string& scratchDirectory();
// Writes `size` bytes to `name` in the scratch directory; returns its path.
std::string writeScratchFile(const std::string& name, const uint8_t* data, size_t size);
// Reads `text` as a scene file.
void readSceneText(const std::string& text);
