// The exported shader family: shaders, their surface layers and their
// displacement elements. Setters only store; preparation derives the rest.
#include <string>

#include "core/registry.h"
#include "lv.h"
#include "shading/shader.h"

namespace {

Shader& shaderAt(int shader) { return registry.shaders[size_t(shader)]; }

SurfaceShader& layerAt(int shader, int layer) { return shaderAt(shader).layers[size_t(layer)]; }

SurfaceElement& displacementAt(int shader, int element) {
    return shaderAt(shader).geometry.vector[size_t(element)];
}

// An image with its gamma and, where given, its matrices. The identity flags
// stay as they are, so lookups keep skipping the transforms.
void setImage(SurfaceElement& element, const char* file, float gamma, const float (*colorMatrix)[4],
              const float (*uvMatrix)[3]) {
    element.image.assign(std::string(file));
    element.sampler.gamma = gamma;
    if (colorMatrix)
        for (int i = 0; i < 16; ++i) element.sampler.color_matrix[i] = colorMatrix[i / 4][i % 4];
    if (uvMatrix)
        for (int i = 0; i < 9; ++i) element.sampler.uv_matrix[i] = uvMatrix[i / 3][i % 3];
}

}  // namespace

extern "C" {

LV_API int lvAddShader(void) {
    registry.shaders.emplace_back();
    return int(registry.shaders.size()) - 1;
}

LV_API void lvSetShaderName(int shader, const char* name) { shaderAt(shader).name.assign(std::string(name)); }

LV_API void lvSetShaderVisibility(int shader, Visibility visibility) {
    shaderAt(shader).geometry.visibility = uint8_t(visibility);
}

LV_API void lvSetShaderSmoothAngle(int shader, float angle) { shaderAt(shader).geometry.smooth_angle = angle; }

LV_API void lvSetShaderRoundCorner(int shader, float value) { shaderAt(shader).geometry.round_corner = value; }

LV_API void lvSetShaderTime(int, float) {}

LV_API int lvAddSurfaceShader(int shader) {
    std::vector<SurfaceShader>& layers = shaderAt(shader).layers;
    layers.emplace_back();
    return int(layers.size()) - 1;
}

LV_API void lvSetSurfaceColor(int shader, int layer, Element element, float r, float g, float b) {
    layerAt(shader, layer).elements[element].color = {r, g, b};
}

LV_API void lvSetSurfaceImage(int shader, int layer, Element element, const char* file, float gamma,
                              const float (*colorMatrix)[4], const float (*uvMatrix)[3]) {
    setImage(layerAt(shader, layer).elements[element], file, gamma, colorMatrix, uvMatrix);
}

LV_API void lvSetSurfaceMaterial(int shader, int layer, Material material) {
    layerAt(shader, layer).material = uint8_t(material);
}

LV_API void lvSetSurfaceSideness(int shader, int layer, Sideness sideness) {
    layerAt(shader, layer).sideness = uint8_t(sideness);
}

LV_API void lvSetSurfaceVirtualLight(int shader, int layer, bool flag) {
    layerAt(shader, layer).virtual_light = flag;
}

LV_API int lvAddDisplacementShader(int shader) {
    std::vector<SurfaceElement>& list = shaderAt(shader).geometry.vector;
    list.emplace_back();
    return int(list.size()) - 1;
}

LV_API void lvSetDisplacementImage(int shader, int displacement, const char* file, float gamma,
                                   const float (*colorMatrix)[4], const float (*uvMatrix)[3]) {
    setImage(displacementAt(shader, displacement), file, gamma, colorMatrix, uvMatrix);
}

LV_API void lvSetDisplacementLevel(int shader, int displacement, int level) {
    displacementAt(shader, displacement).level = level;
}

LV_API void lvSetDisplacementVector(int shader, int displacement, float x, float y, float z) {
    displacementAt(shader, displacement).color = {x, y, z};
}

}  // extern "C"
