// The binary and text hair files: what they put in a part, with and without
// each optional array, and how damaged files are refused.
#include <gtest/gtest.h>

#include "hair_file_writer.h"
#include "scene/geometry_reader.h"
#include "geometry/object.h"
#include "scene_fixture.h"

namespace {

std::string errorLine(const std::string& text) { return "error :( \t" + text + "\n" + kRule + "\n\n"; }

class HairFiles : public SceneTest {
protected:
    // Reads `bytes` as a binary (.hair) or text (.fur) file into a fresh
    // part; returns the report.
    std::string load(const std::string& bytes, bool binary) {
        writeBytes(path(binary ? "s.hair" : "s.fur"), bytes);
        part = Part{};
        GeometryReader reader;
        reader.part = &part;
        ReportCapture capture;
        binary ? readHair(reader, path("s.hair")) : readFur(reader, path("s.fur"));
        return capture.text();
    }
    Part part;
};

// Strands of 3, 0 and 2 segments over 4 + 1 + 3 points: the empty strand
// starts nothing but takes a point, and the last point of each strand
// starts nothing.
HairFileData threeStrands() {
    HairFileData d;
    d.strandCount = 3;
    d.segments = {3, 0, 2};
    for (int i = 0; i < 8; ++i) d.points.push_back({float(i), float(i * i), -float(i)});
    return d;
}

TEST_F(HairFiles, BinaryFileRoundTripsWithAndWithoutEachOptionalArray) {
    for (int mask = 0; mask < 16; ++mask) {   // segments, thickness, transparency, color
        SCOPED_TRACE(mask);
        HairFileData d = threeStrands();
        d.defaultSegments = 2, d.defaultThickness = 0.02f;
        if (!(mask & 1)) d.segments.clear(), d.points.push_back({1, 2, 3});   // three strands of 2
        for (size_t i = 0; i < d.points.size(); ++i) {
            if (mask & 2) d.thickness.push_back(0.1f + 0.01f * float(i));
            if (mask & 4) d.transparency.push_back(0.25f);
            if (mask & 8) d.color.push_back({0.9f, 0.1f, 0.2f});
        }
        EXPECT_EQ(load(hairFileBytes(d), true), "");
        const bool counted = mask & 1;
        EXPECT_EQ(part.cylinders,
                  counted ? std::vector<uint32_t>({0, 1, 2, 5, 6}) : std::vector<uint32_t>({0, 1, 3, 4, 6, 7}));
        EXPECT_EQ(part.strandSizes, counted ? std::vector<uint32_t>({3, 0, 2}) : std::vector<uint32_t>({2, 2, 2}));
        const size_t n = d.points.size();
        ASSERT_EQ(part.positions.size(), n);
        for (size_t i = 0; i < n; ++i) {
            EXPECT_TRUE(part.positions[i] == d.points[i]);
            EXPECT_EQ(part.uvChannels[0].elements[i].u, float(i) / float(n));
            EXPECT_EQ(part.uvChannels[0].elements[i].v, float(i + 1) / float(n));
            EXPECT_EQ(part.scalarChannels[0].elements[i], (mask & 2) ? 0.5f * d.thickness[i] : 0.01f);
        }
    }
}

TEST_F(HairFiles, TextFileLaysOutStrandsAfterItsEndWhateverTheOrderOfItsLines) {
    const std::string points = "position 0 0 0\nposition 1 0 0\n# position 9 9 9\nposition 2 0.5 -1\n"
                               "colour 1 1 1\nposition 3 0 0\nposition 4 0 0\n";
    for (const std::string& text : {"segment 2\nsegment 1\n" + points, points + "segment 2\n\nsegment 1"}) {
        EXPECT_EQ(load(text, false), "");
        EXPECT_EQ(part.cylinders, std::vector<uint32_t>({0, 1, 3}));
        EXPECT_EQ(part.strandSizes, std::vector<uint32_t>({2, 1}));
        ASSERT_EQ(part.positions.size(), 5u);
        EXPECT_TRUE(part.positions[2] == (Vector{2, 0.5f, -1}));
        EXPECT_EQ(part.scalarChannels[0].elements, std::vector<float>(5, 0.003f));
        for (const UV& uv : part.uvChannels[0].elements) EXPECT_TRUE(uv.u == 0.0f && uv.v == 0.0f);
    }
}

// Cut files, wrong signatures, counts beyond the file or beyond the points:
// each leaves the part empty, with its line, and nothing is read or
// allocated beyond what the file holds.
TEST_F(HairFiles, DamagedFilesLeaveThePartEmptyWithTheirLine) {
    HairFileData d = threeStrands();
    d.thickness.assign(8, 0.1f), d.transparency.assign(8, 0.5f), d.color.assign(8, one);
    const std::string whole = hairFileBytes(d), name = path("s.hair");
    auto patched = [](std::string bytes, size_t at, uint32_t value) {
        std::memcpy(&bytes[at], &value, 4);
        return bytes;
    };
    HairFileData longer = threeStrands(), many = threeStrands();
    longer.segments[2] = 3;                                 // one point short
    many.segments.clear(), many.strandCount = 0xFFFFFFF0u;  // four billion strands of the default 0 segments
    const std::pair<std::string, std::string> cases[] = {
        {whole.substr(0, 100), "cannot open hair file header " + name + "\n"},
        {"HAIX" + whole.substr(4), "hair file has wrong signature " + name + "\n"},
        {whole.substr(0, 128 + 5), "cannot read hair segments " + name + "\n"},
        {whole.substr(0, 128 + 6 + 95), "cannot read hair points " + name + "\n"},
        {whole.substr(0, 128 + 6 + 127), "cannot read hair thickness " + name + "\n"},
        {whole.substr(0, 128 + 6 + 159), "cannot read hair transparency " + name + "\n"},
        {whole.substr(0, whole.size() - 1), "cannot read hair color " + name + "\n"},
        {patched(whole, 8, 0xFFFFFFFFu), "cannot read hair points " + name + "\n"},
        {patched(whole, 4, 0xFFFFFFFFu), "cannot read hair segments " + name + "\n"},
        {hairFileBytes(longer), errorLine("hair - the strands of " + name + " need more than its 8 points")},
        {hairFileBytes(many), errorLine("hair - the strands of " + name + " need more than its 8 points")},
        {patched(whole.substr(0, 128 + 6), 12, kHairSegments),
         errorLine("hair - " + name + " has no points array for its 8 points")},
    };
    for (const auto& [bytes, report] : cases) {
        EXPECT_EQ(load(bytes, true), report);
        EXPECT_TRUE(part.positions.empty() && part.cylinders.empty() && part.strandSizes.empty());
        EXPECT_TRUE(part.uvChannels[0].elements.empty() && part.scalarChannels[0].elements.empty());
    }
    EXPECT_EQ(load("segment 2\nsegment -1\nposition 0 0 0\n", false),
              errorLine("hair - negative segment count -1 in " + path("s.fur")));
    EXPECT_EQ(load("segment 2\nposition 0 0 0\nposition 1 0 0\n", false),
              errorLine("hair - the strands of " + path("s.fur") + " need more than its 2 points"));
    EXPECT_TRUE(part.positions.empty() && part.cylinders.empty());
}

TEST_F(HairFiles, ObjectBlockLoadsEachFileIntoAPartOfItsOwn) {
    writeBytes(path("a.hair"), hairFileBytes(threeStrands()));
    writeFile(dir / "b.fur", "segment 1\nposition 0 0 0\nposition 0 0 1\n");
    const std::string report = readScene("object\nhair \"" + path("a.hair") + "\"\nfur \"" + path("b.fur") +
                                         "\"\nhair \"" + path("absent.hair") + "\"\nfur \"" + path("absent.fur") +
                                         "\"\nend\n");
    EXPECT_EQ(report, "cannot open " + path("absent.hair") + "\n");   // a text file that is absent is silent
    ASSERT_EQ(registry.objects.size(), 1u);
    const std::vector<Part>& parts = registry.objects[0].parts;
    ASSERT_EQ(parts.size(), 4u);
    EXPECT_EQ(parts[0].cylinders.size(), 5u);
    EXPECT_EQ(parts[1].cylinders, std::vector<uint32_t>{0});
    EXPECT_TRUE(parts[2].positions.empty() && parts[3].positions.empty());
}

}  // namespace
