// The four light blocks and the `link` block that they share. Point and
// parallel lights are records: each block appends a default light and fills
// it. The geometry light and the sky light exist once, so their blocks write
// the registry's settings, and a later block overwrites what an earlier one
// set (the `aov` and `link` lists add up).
#include <string>

#include "core/registry.h"
#include "scene/block_parsers.h"

namespace {

// `shader` appends a name as it stands, without a test for equals; the names
// are resolved against the shaders at preparation.
void linkShader(SceneInput&, std::istream& line, ShaderLink& link) {
    std::string name;
    ReadQuoted(line, name);
    link.names.push_back(std::move(name));
}

constexpr BlockKeyword<ShaderLink> kLink[] = {{"shader", linkShader}};

void readLink(SceneInput& input, ShaderLink& link) { readBlock(input, link, kLink); }

void readAov(SceneInput& input, std::vector<Aov>& aovs) {
    aovs.emplace_back();
    parseAovBlock(input, aovs.back());
}

// Keywords that point and parallel lights share. `photon` is 64-bit here
// only: the sky and the geometry light count their photons in an int.

template <class Light>
void lightColor(SceneInput&, std::istream& line, Light& light) {
    ReadVector(line, light.color);
}
template <class Light>
void lightBlur(SceneInput&, std::istream& line, Light& light) {
    ReadFloat(line, light.blur);
}
template <class Light>
void lightSample(SceneInput&, std::istream& line, Light& light) {
    ReadInt(line, light.sample);
}
template <class Light>
void lightPhoton(SceneInput&, std::istream& line, Light& light) {
    ReadLong(line, light.photon);
}
template <class Light>
void lightIor(SceneInput&, std::istream& line, Light& light) {
    ReadFloat(line, light.ior);
}
template <class Light>
void lightOffset(SceneInput&, std::istream& line, Light& light) {
    ReadFloat(line, light.offset);
}
template <class Light>
void lightAov(SceneInput& input, std::istream&, Light& light) {
    readAov(input, light.aovs);
}
template <class Light>
void lightLink(SceneInput& input, std::istream&, Light& light) {
    readLink(input, light.link);
}

// A parallel light's direction is the third vector of its frame.
void parallelDirection(SceneInput&, std::istream& line, ParallelLight& light) {
    ReadFloats(line, light.frame + 6, 3);
}

constexpr BlockKeyword<ParallelLight> kParallelLight[] = {
    {"color", lightColor<ParallelLight>},
    {"blur", lightBlur<ParallelLight>},
    {"sample", lightSample<ParallelLight>},
    {"photon", lightPhoton<ParallelLight>},
    {"direction", parallelDirection},
    {"ior", lightIor<ParallelLight>},
    {"offset", lightOffset<ParallelLight>},
    {"aov", lightAov<ParallelLight>},
    {"link", lightLink<ParallelLight>},
};

constexpr BlockKeyword<PointLight> kPointLight[] = {
    {"color", lightColor<PointLight>},
    {"position", [](SceneInput&, std::istream& line, PointLight& l) { ReadVector(line, l.position); }},
    {"blur", lightBlur<PointLight>},
    {"sample", lightSample<PointLight>},
    {"photon", lightPhoton<PointLight>},
    {"direction", [](SceneInput&, std::istream& line, PointLight& l) { ReadVector(line, l.direction); }},
    {"inner_angle", [](SceneInput&, std::istream& line, PointLight& l) { ReadFloat(line, l.innerAngle); }},
    {"outer_angle", [](SceneInput&, std::istream& line, PointLight& l) { ReadFloat(line, l.outerAngle); }},
    {"offset", lightOffset<PointLight>},
    {"ior", lightIor<PointLight>},
    {"aov", lightAov<PointLight>},
    {"link", lightLink<PointLight>},
};

// The geometry and sky blocks fill the registry itself.
using GlobalKeyword = BlockKeyword<Registry>;

constexpr GlobalKeyword kGeometryLight[] = {
    {"photon", [](SceneInput&, std::istream& line, Registry& r) { ReadInt(line, r.geometryLight.photon); }},
    {"sample", [](SceneInput&, std::istream& line, Registry& r) { ReadInt(line, r.geometryLight.sample); }},
    {"aov", [](SceneInput& input, std::istream&, Registry& r) { readAov(input, r.geometryLightAOVs); }},
    {"link", [](SceneInput& input, std::istream&, Registry& r) { readLink(input, r.geometryLightLink); }},
};

// North and zenith are rows 1 and 2 of the sky's frame, kept as given; the
// frame is made orthonormal when the sky is prepared.
constexpr GlobalKeyword kSkyLight[] = {
    {"image", [](SceneInput&, std::istream& line, Registry& r) { ReadQuoted(line, r.skyLight.image.name); }},
    {"backdrop", [](SceneInput&, std::istream& line, Registry& r) { ReadQuoted(line, r.skyLight.backdrop.name); }},
    {"color", [](SceneInput&, std::istream& line, Registry& r) { ReadVector(line, r.skyLight.color); }},
    {"photon", [](SceneInput&, std::istream& line, Registry& r) { ReadInt(line, r.skyLight.photon); }},
    {"north", [](SceneInput&, std::istream& line, Registry& r) { ReadFloats(line, r.skyLight.frame + 3, 3); }},
    {"zenith", [](SceneInput&, std::istream& line, Registry& r) { ReadFloats(line, r.skyLight.frame + 6, 3); }},
    {"volume_shader",
     [](SceneInput& input, std::istream&, Registry& r) { parseVolumeShaderBlock(input, r.skyLight.medium); }},
    {"sample", [](SceneInput&, std::istream& line, Registry& r) { ReadInt(line, r.skyLight.sample); }},
    // Thickness and stretch are kept; nothing reads them.
    {"thickness", [](SceneInput&, std::istream& line, Registry& r) { ReadFloat(line, r.skyLight.thickness); }},
    {"turbidity", [](SceneInput&, std::istream& line, Registry& r) { ReadFloat(line, r.skyLightTurbidity); }},
    {"stretch", [](SceneInput&, std::istream& line, Registry& r) { ReadFloat(line, r.skyLightStretch); }},
    {"albedo", [](SceneInput&, std::istream& line, Registry& r) { ReadFloat(line, r.skyLightAlbedo); }},
    {"ior", [](SceneInput&, std::istream& line, Registry& r) { ReadFloat(line, r.skyLight.ior); }},
    {"aov", [](SceneInput& input, std::istream&, Registry& r) { readAov(input, r.skyLightAOVs); }},
    {"link", [](SceneInput& input, std::istream&, Registry& r) { readLink(input, r.skyLightLink); }},
};

}  // namespace

void parseParallelLightBlock(SceneInput& input) {
    registry.parallelLights.emplace_back();
    readBlock(input, registry.parallelLights.back(), kParallelLight);
}

void parsePointLightBlock(SceneInput& input) {
    registry.pointLights.emplace_back();
    readBlock(input, registry.pointLights.back(), kPointLight);
}

void parseGeometryLightBlock(SceneInput& input) { readBlock(input, registry, kGeometryLight); }

void parseSkyLightBlock(SceneInput& input) { readBlock(input, registry, kSkyLight); }
