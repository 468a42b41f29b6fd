#include "shading/shader.h"

#include "core/registry.h"

int FindShader(const std::string& name) {
    auto& shaders = registry.shaders;
    for (size_t i = 0; i < shaders.size(); ++i)
        if (shaders[i].name == name) return int(i);
    Shader shader;
    shader.name = name;
    shaders.push_back(shader);
    return int(shaders.size()) - 1;
}
