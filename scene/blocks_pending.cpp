// Placeholder parsers for the blocks whose records are not there yet: shaders,
// lights and the sky. Each reads its block with the nesting that the
// real parser will have, so that an `end` of a nested block never closes the
// outer one, and drops what it read. A real parser replaces its entry here.
#include "scene/block_parsers.h"

namespace {

struct Dropped {};
using Drop = BlockKeyword<Dropped>;

void dropFlat(SceneInput& input, std::istream&, Dropped&) { skipBlock(input); }

template <const auto& Table>
void dropNested(SceneInput& input, std::istream&, Dropped& dropped) {
    readBlock(input, dropped, Table);
}

// Shaders: element blocks hold a sampler; surface and geometry shaders hold
// element blocks.
constexpr Drop kElement[] = {{"sampler", dropFlat}};
constexpr Drop kSurfaceShader[] = {
    {"emissive", dropNested<kElement>},   {"specular", dropNested<kElement>},
    {"transmissive", dropNested<kElement>}, {"lambertian", dropNested<kElement>},
    {"glossy", dropNested<kElement>},     {"shadow_transparency", dropNested<kElement>},
    {"angle", dropNested<kElement>},      {"ior", dropNested<kElement>},
    {"thickness", dropNested<kElement>},  {"roughness", dropNested<kElement>},
    {"anisotropy", dropNested<kElement>}, {"normal", dropNested<kElement>},
    {"diffusion", dropNested<kElement>},  {"weight", dropNested<kElement>},
};
constexpr Drop kGeometryShader[] = {
    {"clip", dropNested<kElement>},   {"vector", dropNested<kElement>}, {"radius", dropNested<kElement>},
    {"length", dropNested<kElement>}, {"height", dropNested<kElement>},
};
constexpr Drop kShader[] = {
    {"geometry_shader", dropNested<kGeometryShader>},
    {"volume_shader", dropFlat},
    {"surface_shader", dropNested<kSurfaceShader>},
};

constexpr Drop kLight[] = {{"aov", dropFlat}, {"link", dropFlat}};
constexpr Drop kSkyLight[] = {{"volume_shader", dropFlat}, {"aov", dropFlat}, {"link", dropFlat}};

template <const auto& Table>
void drop(SceneInput& input) {
    Dropped dropped;
    readBlock(input, dropped, Table);
}

}  // namespace

void parseSkyLightBlock(SceneInput& input) { drop<kSkyLight>(input); }
void parseGeometryLightBlock(SceneInput& input) { drop<kLight>(input); }
void parsePointLightBlock(SceneInput& input) { drop<kLight>(input); }
void parseParallelLightBlock(SceneInput& input) { drop<kLight>(input); }
void parseShaderBlock(SceneInput& input) { drop<kShader>(input); }
