// Placeholder parsers for the blocks whose records are not there yet: lights
// and the sky. Each reads its block with the nesting that the
// real parser will have, so that an `end` of a nested block never closes the
// outer one, and drops what it read. A real parser replaces its entry here.
#include "scene/block_parsers.h"

namespace {

struct Dropped {};
using Drop = BlockKeyword<Dropped>;

void dropFlat(SceneInput& input, std::istream&, Dropped&) { skipBlock(input); }

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
