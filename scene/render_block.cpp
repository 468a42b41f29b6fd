// The `render` block and its `final_gather` block: global renderer values.
#include "core/registry.h"
#include "scene/block_parsers.h"

namespace {

struct Globals {};
using RenderKeyword = BlockKeyword<Globals>;

constexpr RenderKeyword kFinalGather[] = {
    {"ray_depth", [](SceneInput&, std::istream& line, Globals&) { ReadInt(line, registry.ray_depth); }},
    {"photon_depth", [](SceneInput&, std::istream& line, Globals&) { ReadInt(line, registry.photon_depth); }},
    {"sample", [](SceneInput&, std::istream& line, Globals&) { ReadInt(line, registry.rendererSample); }},
    {"bounce", [](SceneInput&, std::istream& line, Globals&) { ReadInt(line, registry.bounce); }},
    {"distance", [](SceneInput&, std::istream& line, Globals&) { ReadFloat(line, registry.distance); }},
    {"resolution", [](SceneInput&, std::istream& line, Globals&) { ReadFloat(line, registry.resolution); }},
    {"radius", [](SceneInput&, std::istream& line, Globals&) { ReadFloat(line, registry.radius); }},
};

constexpr RenderKeyword kRender[] = {
    {"clamp", [](SceneInput&, std::istream& line, Globals&) { ReadFloats(line, registry.clamp, 3); }},
    {"gamma", [](SceneInput&, std::istream& line, Globals&) { ReadFloat(line, registry.displayGamma); }},
    // Kept for files that carry it; nothing reads it.
    {"exposure", [](SceneInput&, std::istream& line, Globals&) { ReadFloat(line, registry.renderExposure); }},
    {"final_gather", [](SceneInput& input, std::istream&, Globals& g) { readBlock(input, g, kFinalGather); }},
    {"image_path",
     [](SceneInput&, std::istream& line, Globals&) {
         std::string path;
         ReadQuoted(line, path);
         registry.imagePaths.push_back(path);
     }},
};

}  // namespace

void parseRenderBlock(SceneInput& input) {
    Globals globals;
    readBlock(input, globals, kRender);
}
