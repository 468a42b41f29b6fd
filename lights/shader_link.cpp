#include "core/registry.h"
#include "lights/lights.h"

void resolveLink(ShaderLink& link) {
    for (const std::string& name : link.names)
        for (size_t s = 0; s < registry.shaders.size(); ++s)
            if (registry.shaders[s].name == name) {
                link.indices.push_back(int(s));
                break;
            }
}

bool linkAllows(const ShaderLink& link, uint32_t shader) {
    if (link.indices.empty()) return true;
    for (int index : link.indices)
        if (uint32_t(index) == shader) return true;
    return false;
}
