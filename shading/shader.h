// The appearance record of the system, known by index into registry.shaders.
#pragma once

#include <cstdint>
#include <string>

struct Shader {
    uint8_t prepared = 0;
    uint8_t hair = 0;
    std::string name = "undefined";
};

// Index of the shader with this name, made as a default shader when there is none.
int FindShader(const std::string& name);
