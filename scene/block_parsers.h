// The parsers of the top-level blocks of a scene file and of the blocks that
// several of them share. Each is called with the file positioned on the line
// after its keyword and returns after the block's `end` or at the end of the
// file.
#pragma once

#include "core/records.h"
#include "scene/block_reader.h"

// Top-level blocks, in the order in which the dispatch compares them.
void parseRenderBlock(SceneInput& input);
void parseSkyLightBlock(SceneInput& input);
void parseGeometryLightBlock(SceneInput& input);
void parseCameraBlock(SceneInput& input);
void parsePointLightBlock(SceneInput& input);
void parseParallelLightBlock(SceneInput& input);
void parseObjectBlock(SceneInput& input);
void parseShaderBlock(SceneInput& input);

// The `volume_shader` block of shaders and of the sky light.
struct VolumeShader;
void parseVolumeShaderBlock(SceneInput& input, VolumeShader& volume);

// The `aov` block of cameras and lights, into an Aov that the caller has just
// appended with the defaults of a new Aov.
void parseAovBlock(SceneInput& input, Aov& aov);
// The bit of a `type` word; 0 for a word that names per-vertex data.
uint32_t aovChannelBit(const std::string& type);
