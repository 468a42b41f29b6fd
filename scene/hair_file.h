// The two hair files that object blocks name: the binary file with the
// signature "HAIR" (`hair`) and the text list of strands (`fur`). Both fill
// one part with a position, a UV and a radius per point, the cylinder
// segments between consecutive points and the strand sizes.
#pragma once

#include <bit>
#include <cstdint>
#include <string>

struct GeometryReader;

static_assert(std::endian::native == std::endian::little, "hair files are little-endian and read as they lie");

// The 128-byte header of a binary hair file, fields in file order.
struct HairFileHeader {
    char signature[4];          // "HAIR"
    uint32_t strandCount;
    uint32_t pointCount;
    uint32_t arrays;            // the HairArray bits of the arrays present
    uint32_t defaultSegments;   // segments of each strand without a segments array
    float defaultThickness;
    float defaultTransparency;
    float defaultColor[3];
    char text[88];              // free text, not read
};
static_assert(sizeof(HairFileHeader) == 128, "the header is 128 bytes without padding");

// The arrays that may follow the header, in this order: segments (u16 a
// strand), points (3 floats a point), thickness, transparency (a float a
// point each) and color (3 floats a point).
enum HairArray : uint32_t {
    kHairSegments = 1u << 0,
    kHairPoints = 1u << 1,
    kHairThickness = 1u << 2,
    kHairTransparency = 1u << 3,
    kHairColor = 1u << 4,
};

// The radius of every point of a text hair file.
inline constexpr float kFurRadius = 0.003f;

// Reads a binary hair file into the reader's part. A file that cannot be
// read whole leaves the part empty, with a line that names the file.
void readHair(GeometryReader& reader, const std::string& fileName);
// Reads a text hair file: `segment n` lines give the strand sizes in file
// order, `position x y z` lines the points. A file that cannot be opened
// gives an empty part, silently.
void readFur(GeometryReader& reader, const std::string& fileName);
