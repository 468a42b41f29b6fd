// The binary and the text hair file. Every array of a binary file is checked
// against the bytes the file still holds before anything is allocated, and
// strands that would run past the points are refused, so that no file can
// make the reader or the curve test read past an array.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

#include "core/report.h"
#include "scene/block_reader.h"
#include "scene/geometry_reader.h"
#include "scene/hair_file.h"

namespace {

// An open file with the number of bytes left after the read position.
struct HairInput {
    std::FILE* file;
    uint64_t left;
};

// Reads `count` elements of `components` values of T, or fails without
// allocating when the file holds fewer bytes.
template <typename T>
bool readArray(HairInput& in, uint64_t count, int components, std::vector<T>& values) {
    const uint64_t bytes = count * uint64_t(components) * sizeof(T);
    if (bytes > in.left) return false;
    values.resize(size_t(count) * size_t(components));
    if (bytes > 0 && std::fread(values.data(), 1, size_t(bytes), in.file) != bytes) return false;
    in.left -= bytes;
    return true;
}

// Passes over an array whose values the part does not keep.
bool skipArray(HairInput& in, uint64_t count, int components) {
    const uint64_t bytes = count * uint64_t(components) * sizeof(float);
    if (bytes > in.left) return false;
    if (bytes > 0 && std::fseek(in.file, long(bytes), SEEK_CUR) != 0) return false;
    in.left -= bytes;
    return true;
}

// True when the strands, laid one after the other with one point more than
// segments each, fit in `points` points. Stops counting as soon as they do
// not, so that a huge strand count costs no more than the points it has.
template <typename SizeOf>
bool strandsFit(uint64_t strands, SizeOf sizeOf, uint64_t points) {
    uint64_t needed = 0;
    for (uint64_t i = 0; i < strands; ++i) {
        needed += uint64_t(sizeOf(i)) + 1;
        if (needed > points) return false;
    }
    return true;
}

// Appends the segment starts of each strand: a strand of n segments that
// begins at point s starts segments at s, ..., s + n - 1 and the next strand
// begins at s + n + 1.
template <typename SizeOf>
void layOutStrands(Part& part, uint64_t strands, SizeOf sizeOf) {
    uint64_t total = 0;
    for (uint64_t i = 0; i < strands; ++i) total += sizeOf(i);
    part.cylinders.reserve(part.cylinders.size() + size_t(total));
    part.strandSizes.reserve(part.strandSizes.size() + size_t(strands));
    uint32_t s = 0;
    for (uint64_t i = 0; i < strands; ++i) {
        const uint32_t n = uint32_t(sizeOf(i));
        for (uint32_t k = 0; k < n; ++k) part.cylinders.push_back(s + k);
        part.strandSizes.push_back(n);
        s += n + 1;
    }
}

void refuseStrands(const std::string& fileName, uint64_t points) {
    reportError("hair - the strands of " + fileName + " need more than its " + std::to_string(points) + " points");
    reportRule();
}

// The arrays of a binary file that reach the part.
struct HairArrays {
    std::vector<uint16_t> segments;
    std::vector<float> points;
    std::vector<float> thickness;
};

// Reads header and arrays; false after the line of the first failure.
bool readHairFile(std::FILE* file, const std::string& fileName, HairFileHeader& header, HairArrays& arrays) {
    HairInput in{file, 0};
    if (std::fseek(file, 0, SEEK_END) == 0) {
        const long size = std::ftell(file);
        in.left = size > 0 ? uint64_t(size) : 0;
    }
    std::rewind(file);
    if (in.left < sizeof header || std::fread(&header, sizeof header, 1, file) != 1) {
        reportMessage("cannot open hair file header " + fileName);
        return false;
    }
    in.left -= sizeof header;
    if (std::memcmp(header.signature, "HAIR", 4) != 0) {
        reportMessage("hair file has wrong signature " + fileName);
        return false;
    }
    const uint32_t bits = header.arrays;
    auto failed = [&](const char* what) {
        reportMessage(std::string("cannot read hair ") + what + " " + fileName);
        return false;
    };
    if ((bits & kHairSegments) && !readArray(in, header.strandCount, 1, arrays.segments)) return failed("segments");
    if ((bits & kHairPoints) && !readArray(in, header.pointCount, 3, arrays.points)) return failed("points");
    if ((bits & kHairThickness) && !readArray(in, header.pointCount, 1, arrays.thickness)) return failed("thickness");
    if ((bits & kHairTransparency) && !skipArray(in, header.pointCount, 1)) return failed("transparency");
    if ((bits & kHairColor) && !skipArray(in, header.pointCount, 3)) return failed("color");
    return true;
}

// Positions, UVs and radii of the points, then the strands. The UV of point
// i is (i / N, (i + 1) / N): a running number along the file.
void fillHairPart(Part& part, const HairFileHeader& header, const HairArrays& arrays) {
    const size_t N = header.pointCount;
    part.positions.resize(N);
    if (N > 0) std::memcpy(part.positions.data(), arrays.points.data(), N * sizeof(Vector));
    std::vector<UV>& uvs = part.uvChannels[0].elements;
    std::vector<float>& radii = part.scalarChannels[0].elements;
    uvs.resize(N);
    radii.resize(N);
    const bool thick = !arrays.thickness.empty();
    for (size_t i = 0; i < N; ++i) {
        uvs[i] = {float(i) / float(N), float(i + 1) / float(N)};
        radii[i] = 0.5f * (thick ? arrays.thickness[i] : header.defaultThickness);
    }
}

}  // namespace

void readHair(GeometryReader& reader, const std::string& fileName) {
    std::FILE* file = std::fopen(fileName.c_str(), "rb");
    if (!file) {
        reportMessage("cannot open " + fileName);
        return;
    }
    HairFileHeader header{};
    HairArrays arrays;
    const bool read = readHairFile(file, fileName, header, arrays);
    std::fclose(file);
    if (!read) return;

    if (!(header.arrays & kHairPoints) && header.pointCount > 0) {
        reportError("hair - " + fileName + " has no points array for its " + std::to_string(header.pointCount) +
                    " points");
        reportRule();
        return;
    }
    const bool counted = !arrays.segments.empty();
    auto sizeOf = [&](uint64_t i) { return counted ? uint32_t(arrays.segments[size_t(i)]) : header.defaultSegments; };
    if (!strandsFit(header.strandCount, sizeOf, header.pointCount)) {
        refuseStrands(fileName, header.pointCount);
        return;
    }
    Part& part = *reader.part;
    fillHairPart(part, header, arrays);
    layOutStrands(part, header.strandCount, sizeOf);
}

void readFur(GeometryReader& reader, const std::string& fileName) {
    std::ifstream file(fileName);
    if (!file) return;
    SceneInput input(file);
    LineStream words;
    std::string line;
    std::vector<Vector> positions;
    std::vector<int> sizes;
    while (input.readLine(line)) {
        words.reset(line);
        std::istream& stream = words.stream();
        const std::string word = firstWord(stream);
        if (word == "segment") {
            int n = 0;
            ReadInt(stream, n);
            sizes.push_back(n);
        } else if (word == "position") {
            Vector p{0.0f, 0.0f, 0.0f};
            ReadVector(stream, p);
            positions.push_back(p);
        }
    }
    for (int n : sizes)
        if (n < 0) {
            reportError("hair - negative segment count " + std::to_string(n) + " in " + fileName);
            reportRule();
            return;
        }
    auto sizeOf = [&](uint64_t i) { return uint32_t(sizes[size_t(i)]); };
    if (!strandsFit(sizes.size(), sizeOf, positions.size())) {
        refuseStrands(fileName, positions.size());
        return;
    }
    Part& part = *reader.part;
    part.positions = std::move(positions);
    part.uvChannels[0].elements.assign(part.positions.size(), UV{0.0f, 0.0f});
    part.scalarChannels[0].elements.assign(part.positions.size(), kFurRadius);
    layOutStrands(part, sizes.size(), sizeOf);
}
