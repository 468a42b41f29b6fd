// The azimuthal tables of hair shaders, built once the scene is assembled.
#pragma once

#include "core/shader_record.h"

// The azimuthal tables of one hair shader.
void buildHairTable(Shader& shader);
// The tables of every shader that strands use.
void prepareHairTables();
