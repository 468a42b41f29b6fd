// Shaders: finding them by name, preparing their derived fields, and
// choosing the layer that serves a hit.
#pragma once

#include <string>

#include "core/shader_record.h"

// Index of the shader with this name, made as a default shader when there is none.
int FindShader(const std::string& name);

// Preparation of one shader (all shaders are prepared by the shader stage).
void prepareShader(Shader& shader);
void prepareVolumeShader(VolumeShader& volume);

// The layer that serves a hit on `side` at `uv`: the only one of the side, or
// one drawn by weight with the uniform number u in [0, 1].
int chooseLayer(const Shader& shader, int side, const float uv[2], float u);

// Prepares every shader of the registry; releases them.
void prepareShaders();
void releaseShaders();
