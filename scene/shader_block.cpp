// The `shader` block and the blocks nested in it: surface layers, their
// elements with a sampler, the geometry shader and the volume shader.
#include <string>

#include "core/registry.h"
#include "scene/block_parsers.h"
#include "shading/shader.h"

namespace {

// Flags of the files are integers; only the value 1 sets one.
bool readFlag(std::istream& line, int fallback) {
    int value = fallback;
    ReadInt(line, value);
    return value == 1;
}

// Sampler.

void pixelSampler(SceneInput&, std::istream& line, Sampler& sampler) {
    std::string mode;
    ReadQuoted(line, mode);
    if (mode == "stochastic") sampler.pixel_sampler = kSamplerStochastic;
    if (mode == "bilinear") sampler.pixel_sampler = kSamplerBilinear;
    if (mode == "nearest") sampler.pixel_sampler = kSamplerNearest;
}

void samplerGamma(SceneInput&, std::istream& line, Sampler& sampler) { ReadFloat(line, sampler.gamma); }

// A matrix stands on one line, row by row; a short line keeps the entries it
// does not reach, and the matrix counts as given all the same.
void uvMatrix(SceneInput&, std::istream& line, Sampler& sampler) {
    ReadFloats(line, sampler.uv_matrix, 9);
    sampler.uvMatrixIdentity = false;
}

void colorMatrix(SceneInput&, std::istream& line, Sampler& sampler) {
    ReadFloats(line, sampler.color_matrix, 16);
    sampler.colorMatrixIdentity = false;
}

constexpr BlockKeyword<Sampler> kSamplerKeywords[] = {
    {"pixel_sampler", pixelSampler},
    {"gamma", samplerGamma},
    {"uv_matrix", uvMatrix},
    {"color_matrix", colorMatrix},
};

// Element.

template <Color SurfaceElement::*Field>
void elementVector(SceneInput&, std::istream& line, SurfaceElement& element) {
    ReadVector(line, element.*Field);
}

template <std::string SurfaceElement::*Field>
void elementText(SceneInput&, std::istream& line, SurfaceElement& element) {
    ReadQuoted(line, element.*Field);
}

void elementLevel(SceneInput&, std::istream& line, SurfaceElement& element) { ReadInt(line, element.level); }

void elementSampler(SceneInput& input, std::istream&, SurfaceElement& element) {
    readBlock(input, element.sampler, kSamplerKeywords);
}

constexpr BlockKeyword<SurfaceElement> kElementKeywords[] = {
    {"color", elementVector<&SurfaceElement::color>},
    {"fresnel", elementVector<&SurfaceElement::fresnel>},
    {"direction", elementVector<&SurfaceElement::direction>},
    {"level", elementLevel},
    {"image", elementText<&SurfaceElement::image>},
    {"fresnel_image", elementText<&SurfaceElement::fresnel_image>},
    {"uv_set", elementText<&SurfaceElement::uv_set>},
    {"sampler", elementSampler},
};

void readElement(SceneInput& input, SurfaceElement& element) { readBlock(input, element, kElementKeywords); }

// Surface layer.

template <int Element>
void layerElement(SceneInput& input, std::istream&, SurfaceShader& layer) {
    readElement(input, layer.elements[Element]);
}

void layerWindow(SceneInput&, std::istream& line, SurfaceShader& layer) { layer.window = readFlag(line, 0); }

void layerVirtualLight(SceneInput&, std::istream& line, SurfaceShader& layer) {
    layer.virtual_light = readFlag(line, 0);
}

void layerSideness(SceneInput&, std::istream& line, SurfaceShader& layer) {
    std::string side;
    ReadQuoted(line, side);
    if (side == "both") layer.sideness = kSidenessBoth;
    if (side == "face") layer.sideness = kFaceSide;
    if (side == "back") layer.sideness = kBackSide;
}

constexpr BlockKeyword<SurfaceShader> kSurfaceKeywords[] = {
    {"emissive", layerElement<4>},
    {"specular", layerElement<3>},
    {"transmissive", layerElement<1>},
    {"lambertian", layerElement<0>},
    {"glossy", layerElement<2>},
    {"shadow_transparency", layerElement<6>},
    {"angle", layerElement<11>},
    {"ior", layerElement<12>},
    {"thickness", layerElement<14>},
    {"roughness", layerElement<10>},
    {"anisotropy", layerElement<9>},
    {"normal", layerElement<7>},
    {"diffusion", layerElement<5>},
    {"weight", layerElement<8>},
    {"window", layerWindow},
    {"virtual_light", layerVirtualLight},
    {"sideness", layerSideness},
};

// Geometry shader.

void geometryClip(SceneInput& input, std::istream&, GeometryShader& geometry) { readElement(input, geometry.clip); }

// Each list keyword appends an element and reads the block into it.
template <std::vector<SurfaceElement> GeometryShader::*List>
void geometryList(SceneInput& input, std::istream&, GeometryShader& geometry) {
    std::vector<SurfaceElement>& list = geometry.*List;
    list.emplace_back();
    readElement(input, list.back());
}

template <float GeometryShader::*Field>
void geometryFloat(SceneInput&, std::istream& line, GeometryShader& geometry) {
    ReadFloat(line, geometry.*Field);
}

// The visibility keywords overwrite one another; one whose test fails leaves
// the value alone.
void cameraPrimary(SceneInput&, std::istream& line, GeometryShader& geometry) {
    int value = 1;
    ReadInt(line, value);
    if (value != 1) geometry.visibility = 2;
}

void lightPrimary(SceneInput&, std::istream& line, GeometryShader& geometry) {
    int value = 1;
    ReadInt(line, value);
    if (value != 1) geometry.visibility = 1;
}

void invisible(SceneInput&, std::istream& line, GeometryShader& geometry) {
    if (readFlag(line, 0)) geometry.visibility = 0;
}

template <bool GeometryShader::*Field>
void geometryFlag(SceneInput&, std::istream& line, GeometryShader& geometry) {
    geometry.*Field = readFlag(line, 0);
}

constexpr BlockKeyword<GeometryShader> kGeometryKeywords[] = {
    {"clip", geometryClip},
    {"vector", geometryList<&GeometryShader::vector>},
    {"radius", geometryList<&GeometryShader::radius>},
    {"length", geometryList<&GeometryShader::length>},
    {"height", geometryList<&GeometryShader::height>},
    {"round_corner", geometryFloat<&GeometryShader::round_corner>},
    {"smooth_angle", geometryFloat<&GeometryShader::smooth_angle>},
    {"reduction", geometryFloat<&GeometryShader::reduction>},
    {"camera_primary", cameraPrimary},
    {"light_primary", lightPrimary},
    {"invisible", invisible},
    {"flip_face", geometryFlag<&GeometryShader::flip_face>},
    {"trivial_connection", geometryFlag<&GeometryShader::trivial_connection>},
    {"assign_hair_texture_uv", geometryFlag<&GeometryShader::assign_hair_texture_uv>},
};

// Volume shader.

template <Color VolumeShader::*Field>
void volumeColor(SceneInput&, std::istream& line, VolumeShader& volume) {
    ReadVector(line, volume.*Field);
}

void averageCosine(SceneInput&, std::istream& line, VolumeShader& volume) { ReadFloat(line, volume.average_cosine); }

void mediumId(SceneInput&, std::istream& line, VolumeShader& volume) { ReadUnsigned(line, volume.medium_id); }

constexpr BlockKeyword<VolumeShader> kVolumeKeywords[] = {
    {"transmittance", volumeColor<&VolumeShader::transmittance>},
    {"average_cosine", averageCosine},
    {"albedo", volumeColor<&VolumeShader::albedo>},
    {"medium_id", mediumId},
};

// Shader.

void shaderOpacity(SceneInput&, std::istream& line, Shader& shader) { ReadFloat(line, shader.opacity); }

void shaderName(SceneInput&, std::istream& line, Shader& shader) { ReadQuoted(line, shader.name); }

void shaderGeometry(SceneInput& input, std::istream&, Shader& shader) {
    readBlock(input, shader.geometry, kGeometryKeywords);
}

void shaderVolume(SceneInput& input, std::istream&, Shader& shader) { parseVolumeShaderBlock(input, shader.volume); }

void shaderSurface(SceneInput& input, std::istream&, Shader& shader) {
    shader.layers.emplace_back();
    readBlock(input, shader.layers.back(), kSurfaceKeywords);
}

constexpr BlockKeyword<Shader> kShaderKeywords[] = {
    {"opacity", shaderOpacity},
    {"name", shaderName},
    {"geometry_shader", shaderGeometry},
    {"volume_shader", shaderVolume},
    {"surface_shader", shaderSurface},
};

}  // namespace

void parseVolumeShaderBlock(SceneInput& input, VolumeShader& volume) { readBlock(input, volume, kVolumeKeywords); }

// The block fills a fresh record, which then replaces whatever the shader of
// its name held; a name mentioned earlier keeps its index.
void parseShaderBlock(SceneInput& input) {
    Shader shader;
    readBlock(input, shader, kShaderKeywords);
    const int index = FindShader(shader.name);
    registry.shaders[size_t(index)] = std::move(shader);
}
