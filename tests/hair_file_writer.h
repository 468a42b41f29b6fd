// A small writer of binary hair files for the tests and benchmarks: the
// header, then each array that is not empty, in file order; the header's
// bits name those arrays and its count of points is theirs.
#pragma once

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/vector.h"
#include "scene/hair_file.h"

struct HairFileData {
    uint32_t strandCount = 0, defaultSegments = 0;
    float defaultThickness = 0.0f;
    std::vector<uint16_t> segments;
    std::vector<Vector> points;
    std::vector<float> thickness, transparency;
    std::vector<Color> color;
};

inline std::string hairFileBytes(const HairFileData& d) {
    HairFileHeader header{{'H', 'A', 'I', 'R'}, d.strandCount, uint32_t(d.points.size()), 0, d.defaultSegments,
                          d.defaultThickness, 0.5f, {0.3f, 0.3f, 0.3f}, "written by the lumivane tests"};
    std::string body;
    auto append = [&](const auto& values, uint32_t bit) {
        if (!values.empty()) header.arrays |= bit;
        body.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof values[0]);
    };
    append(d.segments, kHairSegments), append(d.points, kHairPoints), append(d.thickness, kHairThickness);
    append(d.transparency, kHairTransparency), append(d.color, kHairColor);
    return std::string(reinterpret_cast<const char*>(&header), sizeof header) + body;
}

inline void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
