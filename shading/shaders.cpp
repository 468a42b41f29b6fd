// Shader preparation and release, and the choice of a layer at a hit.
#include <algorithm>
#include <cmath>

#include "core/registry.h"
#include "core/report.h"
#include "core/images.h"
#include "shading/shader.h"

namespace {

bool lit(Color c) { return c.x > kCutoff || c.y > kCutoff || c.z > kCutoff; }

float limitToUnit(float v) { return std::fmin(std::fmax(v, 0.0f), 1.0f); }

// The index of a named image in the image list, registered and loaded on
// first use; -1 without a name or when the file cannot be read.
int32_t registerImage(const std::string& name) {
    if (name.empty()) return -1;
    const int index = FindImage(name);
    return LoadImage(registry.textures[size_t(index)]) ? index : -1;
}

void prepareElement(SurfaceElement& element) {
    element.imageIndex = registerImage(element.image);
    element.fresnelImageIndex = registerImage(element.fresnel_image);
}

void prepareElements(std::vector<SurfaceElement>& elements) {
    for (SurfaceElement& element : elements) prepareElement(element);
}

void prepareGeometryShader(GeometryShader& geometry) {
    geometry.round_corner = limitToUnit(geometry.round_corner);
    geometry.reduction = limitToUnit(geometry.reduction);
    prepareElement(geometry.clip);
    geometry.hasClipImage = geometry.clip.imageIndex >= 0;
    prepareElements(geometry.vector);
    prepareElements(geometry.radius);
    prepareElements(geometry.length);
    prepareElements(geometry.height);
}

void prepareLayer(SurfaceShader& layer) {
    bool textured = false;
    for (SurfaceElement& element : layer.elements) {
        prepareElement(element);
        textured = textured || element.imageIndex >= 0;
    }
    auto litElement = [&](int element) { return lit(layer.elements[element].color); };
    const bool lambertian = litElement(0), transmissive = litElement(1), glossy = litElement(2),
               specular = litElement(3), diffusion = litElement(5);

    layer.needs_uv = textured;
    layer.has_roughness = litElement(10) && glossy;
    layer.has_anisotropy = layer.has_roughness && litElement(9);
    layer.has_normal_image = layer.elements[7].imageIndex >= 0;
    layer.needs_tangent = layer.has_normal_image || layer.has_anisotropy;
    layer.has_angle = layer.needs_tangent && litElement(11);
    layer.lambert_like = lambertian || transmissive;
    layer.gloss_like = specular || glossy;
    layer.has_diffusion = diffusion;
    layer.matte_only = !textured && !specular && !glossy && !layer.scatter_reserved;
    layer.has_lambertian = lambertian;
    layer.has_transmissive = transmissive;
    layer.has_glossy = glossy;
    layer.has_specular = specular;
    layer.has_diffusion_color = diffusion;
}

void addToSide(Shader& shader, int side, size_t layer) {
    // A side holds at most 16 layers; the format allows no more.
    int32_t& count = shader.layerCount[side];
    if (count < kMaxSideLayers) shader.layerList[side][count++] = uint8_t(layer);
}

void deriveSideFlags(Shader& shader) {
    for (int side : {kFaceSide, kBackSide}) {
        bool virtualLight = false, emits = false, lambertian = false, transmissive = false;
        for (int i = 0; i < shader.layerCount[side]; ++i) {
            const SurfaceShader& layer = shader.layers[shader.layerList[side][i]];
            virtualLight = virtualLight || layer.virtual_light;
            emits = emits || lit(layer.elements[4].color);
            lambertian = lambertian || lit(layer.elements[0].color);
            transmissive = transmissive || lit(layer.elements[1].color);
        }
        shader.hasVirtualLight[side] = virtualLight;
        shader.emits[side] = emits;
        shader.hasLambertian[side] = lambertian;
        shader.hasTransmissive[side] = transmissive;
    }
}

SurfaceShader layerOnSide(uint8_t sideness) {
    SurfaceShader layer;
    layer.sideness = sideness;
    return layer;
}

}  // namespace

void prepareVolumeShader(VolumeShader& volume) {
    volume.average_cosine = std::fmin(std::fmax(volume.average_cosine, -1.0f), 1.0f);
}

void prepareShader(Shader& shader) {
    if (shader.prepared) return;
    std::vector<SurfaceShader>& layers = shader.layers;
    if (layers.empty()) layers.push_back(layerOnSide(kSidenessBoth));
    // A one-sided surface is black on its other side.
    if (layers.size() == 1 && layers[0].sideness == kFaceSide) layers.push_back(layerOnSide(kBackSide));
    else if (layers.size() == 1 && layers[0].sideness == kBackSide) layers.push_back(layerOnSide(kFaceSide));

    shader.layerCount[kFaceSide] = shader.layerCount[kBackSide] = 0;
    for (size_t i = 0; i < layers.size(); ++i) {
        const uint8_t sideness = layers[i].sideness;
        if (sideness == kFaceSide || sideness == kSidenessBoth) addToSide(shader, kFaceSide, i);
        if (sideness == kBackSide || sideness == kSidenessBoth) addToSide(shader, kBackSide, i);
    }

    prepareGeometryShader(shader.geometry);
    prepareVolumeShader(shader.volume);
    for (SurfaceShader& layer : layers) prepareLayer(layer);
    deriveSideFlags(shader);
    shader.prepared = 1;
}

void prepareShaders() {
    std::vector<Shader>& shaders = registry.shaders;
    const auto undefined = std::find_if(shaders.begin(), shaders.end(),
                                        [](const Shader& s) { return s.name == "undefined"; });
    // Names that were mentioned but never defined become the default shader.
    const bool hasUndefined = undefined != shaders.end();
    if (hasUndefined) prepareShader(*undefined);
    const size_t undefinedIndex = size_t(undefined - shaders.begin());
    for (size_t i = 0; i < shaders.size(); ++i) {
        if (shaders[i].layers.empty() && hasUndefined) shaders[i] = shaders[undefinedIndex];
        else prepareShader(shaders[i]);
    }
    const uint32_t bytes = uint32_t(shaders.size() * sizeof(Shader));
    reportCountAndSize("shaders ", (long long)shaders.size(), double(float(bytes) * kMegabytes), "M bytes");
    reportRule();
}

void releaseShaders() {
    registry.shaders.clear();
    registry.shaders.shrink_to_fit();
}

int chooseLayer(const Shader& shader, int side, const float uv[2], float u) {
    const int count = shader.layerCount[side];
    const uint8_t* list = shader.layerList[side];
    if (count == 1) return list[0];

    // Running sums of the layers' mean weights; unused slots stay at infinity.
    float table[kMaxSideLayers];
    std::fill(table, table + kMaxSideLayers, kInfinity);
    float total = 0.0f;
    for (int i = 0; i < count; ++i) {
        const Color w = elementColor(shader.layers[list[i]].elements[8], uv);
        total += mean(w);
        table[i] = total;
    }
    // The first slot strictly above u * total, by halving all 16 slots.
    const float target = u * total;
    int first = 0, length = kMaxSideLayers;
    while (length > 0) {
        const int half = length / 2;
        if (table[first + half] <= target) {
            first += half + 1;
            length -= half + 1;
        } else {
            length = half;
        }
    }
    // Past the last filled slot (weights that sum to nothing) the list's unused
    // entries answer, which hold layer 0.
    return list[std::min(first, kMaxSideLayers - 1)];
}
