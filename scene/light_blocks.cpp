// The four light blocks and the `link` block that they share. Point and
// parallel lights are records: each block appends a default light and fills
// it. The geometry light and the sky light exist once, so their blocks write
// the registry's settings, and a later block overwrites what an earlier one
// set (the `aov` and `link` lists add up).
#include <cstdint>
#include <string>
#include <type_traits>

#include "core/registry.h"
#include "scene/block_parsers.h"
#include "lights/lights.h"

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

// A value of a point or parallel light, read by the field's type. `photon`
// is 64-bit here only: the sky and the geometry light count their photons in
// an int.
template <class Light, auto Field>
void lightField(SceneInput&, std::istream& line, Light& light) {
    auto& value = light.*Field;
    using T = std::remove_reference_t<decltype(value)>;
    if constexpr (std::is_same_v<T, float>) ReadFloat(line, value);
    else if constexpr (std::is_same_v<T, int>) ReadInt(line, value);
    else if constexpr (std::is_same_v<T, int64_t>) ReadLong(line, value);
    else ReadVector(line, value);
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

using Parallel = ParallelLight;
constexpr BlockKeyword<Parallel> kParallelLight[] = {
    {"color", lightField<Parallel, &Parallel::color>},
    {"blur", lightField<Parallel, &Parallel::blur>},
    {"sample", lightField<Parallel, &Parallel::sample>},
    {"photon", lightField<Parallel, &Parallel::photon>},
    {"direction", parallelDirection},
    {"ior", lightField<Parallel, &Parallel::ior>},
    {"offset", lightField<Parallel, &Parallel::offset>},
    {"aov", lightAov<Parallel>},
    {"link", lightLink<Parallel>},
};

using Point = PointLight;
constexpr BlockKeyword<Point> kPointLight[] = {
    {"color", lightField<Point, &Point::color>},
    {"position", lightField<Point, &Point::position>},
    {"blur", lightField<Point, &Point::blur>},
    {"sample", lightField<Point, &Point::sample>},
    {"photon", lightField<Point, &Point::photon>},
    {"direction", lightField<Point, &Point::direction>},
    {"inner_angle", lightField<Point, &Point::innerAngle>},
    {"outer_angle", lightField<Point, &Point::outerAngle>},
    {"offset", lightField<Point, &Point::offset>},
    {"ior", lightField<Point, &Point::ior>},
    {"aov", lightAov<Point>},
    {"link", lightLink<Point>},
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
