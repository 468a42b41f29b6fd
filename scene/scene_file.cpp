// Reading one scene file: the top-level keywords and the blocks they start.
#include <fstream>

#include "scene/block_parsers.h"
#include "scene/block_reader.h"

namespace {

struct TopLevelKeyword {
    const char* word;
    void (*parse)(SceneInput& input);
};

// Compared in this order; the first match starts its block.
const TopLevelKeyword kTopLevel[] = {
    {"render", parseRenderBlock},
    {"sky_light", parseSkyLightBlock},
    {"geometry_light", parseGeometryLightBlock},
    {"camera", parseCameraBlock},
    {"point_light", parsePointLightBlock},
    {"parallel_light", parseParallelLightBlock},
    {"object", parseObjectBlock},
    {"shader", parseShaderBlock},
};

}  // namespace

void readSceneStream(std::istream& file) {
    SceneInput input(file);
    std::string text;
    LineStream line;
    while (!input.atEnd()) {
        if (!input.readLine(text)) break;
        if (text.empty() || text[0] == '#') continue;
        line.reset(text);
        const std::string word = firstWord(line.stream());
        for (const TopLevelKeyword& keyword : kTopLevel) {
            if (word == keyword.word) {
                keyword.parse(input);
                break;
            }
        }
    }
}

void readSceneFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) return;
    readSceneStream(file);
}
