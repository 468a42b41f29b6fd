// A small writer of binary hair files, for the tests and benchmarks that
// need one: the header, then each array that is not empty, in file order.
#pragma once

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/vector.h"
#include "scene/hair_file.h"

struct HairFileData {
    uint32_t strandCount = 0;
    uint32_t defaultSegments = 0;
    float defaultThickness = 0.0f;
    std::vector<uint16_t> segments;   // per strand
    std::vector<Vector> points;
    std::vector<float> thickness, transparency;   // per point
    std::vector<Color> color;                     // per point
};

// The file's bytes; the header counts the strands given and the points, and
// its bits name the arrays that are not empty.
inline std::string hairFileBytes(const HairFileData& d) {
    HairFileHeader header{};
    std::memcpy(header.signature, "HAIR", 4);
    header.strandCount = d.strandCount;
    header.pointCount = uint32_t(d.points.size());
    header.arrays = (d.segments.empty() ? 0u : uint32_t(kHairSegments)) | (d.points.empty() ? 0u : uint32_t(kHairPoints)) |
                    (d.thickness.empty() ? 0u : uint32_t(kHairThickness)) |
                    (d.transparency.empty() ? 0u : uint32_t(kHairTransparency)) | (d.color.empty() ? 0u : uint32_t(kHairColor));
    header.defaultSegments = d.defaultSegments;
    header.defaultThickness = d.defaultThickness;
    header.defaultTransparency = 0.5f;
    header.defaultColor[0] = header.defaultColor[1] = header.defaultColor[2] = 0.3f;
    std::strncpy(header.text, "written by the lumivane tests", sizeof header.text);
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
    auto append = [&](const auto& values) {
        bytes.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof values[0]);
    };
    append(d.segments), append(d.points), append(d.thickness), append(d.transparency), append(d.color);
    return bytes;
}

inline void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}
