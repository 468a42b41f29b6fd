// The binary and text hair files: what they put in a part, with and without
// each optional array, and how damaged files are refused.
#include <gtest/gtest.h>

#include "hair_file_writer.h"
#include "scene/geometry_reader.h"
#include "scene_fixture.h"

namespace {

// A line in the report's error form, with the rule and blank line after it.
std::string errorLine(const std::string& text) { return "error :( \t" + text + "\n" + kRule + "\n\n"; }

class HairFiles : public SceneTest {
protected:
    // Reads a file with one of the two readers into a fresh part; returns
    // the report.
    std::string load(const std::string& name, bool binary) {
        part = Part{};
        GeometryReader reader;
        reader.part = &part;
        ReportCapture capture;
        if (binary) readHair(reader, name);
        else readFur(reader, name);
        return capture.text();
    }
    std::string loadBytes(const std::string& bytes) {
        writeBytes(path("strands.hair"), bytes);
        return load(path("strands.hair"), true);
    }
    void expectEmpty() const {
        EXPECT_TRUE(part.positions.empty());
        EXPECT_TRUE(part.cylinders.empty());
        EXPECT_TRUE(part.strandSizes.empty());
        EXPECT_TRUE(part.uvChannels[0].elements.empty());
        EXPECT_TRUE(part.scalarChannels[0].elements.empty());
    }

    Part part;
};

// Strands of 3, 0, 2 segments over 3 + 1 + 3 points: the empty strand starts
// nothing but takes a point, and the last point of each strand starts nothing.
HairFileData threeStrands() {
    HairFileData d;
    d.strandCount = 3;
    d.segments = {3, 0, 2};
    for (int i = 0; i < 8; ++i) d.points.push_back({float(i), float(i * i), -float(i)});
    return d;
}

TEST_F(HairFiles, BinaryFileRoundTripsWithAndWithoutEachOptionalArray) {
    // Bits of the optional arrays: segments, thickness, transparency, color.
    for (int mask = 0; mask < 16; ++mask) {
        SCOPED_TRACE(mask);
        HairFileData d = threeStrands();
        d.defaultSegments = 2;
        d.defaultThickness = 0.02f;
        const size_t N = d.points.size();
        if (!(mask & 1)) d.segments.clear(), d.points.resize(9), d.points[8] = {1, 2, 3};   // 3 strands of 2
        if (mask & 2)
            for (size_t i = 0; i < d.points.size(); ++i) d.thickness.push_back(0.1f + 0.01f * float(i));
        if (mask & 4) d.transparency.assign(d.points.size(), 0.25f);
        if (mask & 8) d.color.assign(d.points.size(), Color{0.9f, 0.1f, 0.2f});
        EXPECT_EQ(loadBytes(hairFileBytes(d)), "");

        const std::vector<uint32_t> cylinders = (mask & 1) ? std::vector<uint32_t>{0, 1, 2, 5, 6}
                                                           : std::vector<uint32_t>{0, 1, 3, 4, 6, 7};
        EXPECT_EQ(part.cylinders, cylinders);
        const std::vector<uint32_t> sizes = (mask & 1) ? std::vector<uint32_t>{3, 0, 2} : std::vector<uint32_t>{2, 2, 2};
        EXPECT_EQ(part.strandSizes, sizes);
        const size_t n = (mask & 1) ? N : 9;
        ASSERT_EQ(part.positions.size(), n);
        ASSERT_EQ(part.uvChannels[0].elements.size(), n);
        ASSERT_EQ(part.scalarChannels[0].elements.size(), n);
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
        writeFile(dir / "strands.fur", text);
        EXPECT_EQ(load(path("strands.fur"), false), "");
        EXPECT_EQ(part.cylinders, (std::vector<uint32_t>{0, 1, 3}));
        EXPECT_EQ(part.strandSizes, (std::vector<uint32_t>{2, 1}));
        ASSERT_EQ(part.positions.size(), 5u);
        EXPECT_TRUE(part.positions[2] == (Vector{2, 0.5f, -1}));
        for (size_t i = 0; i < 5; ++i) {
            EXPECT_EQ(part.scalarChannels[0].elements[i], 0.003f);
            EXPECT_EQ(part.uvChannels[0].elements[i].u, 0.0f);
            EXPECT_EQ(part.uvChannels[0].elements[i].v, 0.0f);
        }
    }
}

TEST_F(HairFiles, DamagedBinaryFilesLeaveThePartEmptyWithTheirLine) {
    const std::string name = path("strands.hair");
    EXPECT_EQ(load(path("absent.hair"), true), "cannot open " + path("absent.hair") + "\n");
    expectEmpty();

    HairFileData d = threeStrands();
    d.thickness.assign(d.points.size(), 0.1f);
    d.transparency.assign(d.points.size(), 0.5f);
    d.color.assign(d.points.size(), one);
    const std::string whole = hairFileBytes(d);
    EXPECT_EQ(loadBytes(whole.substr(0, 100)), "cannot open hair file header " + name + "\n");
    expectEmpty();
    std::string renamed = whole;
    renamed[3] = 'X';
    EXPECT_EQ(loadBytes(renamed), "hair file has wrong signature " + name + "\n");
    expectEmpty();

    // Cut inside each array in turn: segments, points, thickness, transparency, color.
    const size_t ends[5] = {128 + 6, 128 + 6 + 96, 128 + 6 + 128, 128 + 6 + 160, 128 + 6 + 256};
    const char* arrays[5] = {"segments", "points", "thickness", "transparency", "color"};
    ASSERT_EQ(whole.size(), ends[4]);
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(loadBytes(whole.substr(0, ends[k] - 1)), std::string("cannot read hair ") + arrays[k] + " " + name + "\n");
        expectEmpty();
    }

    // Counts far beyond the file are refused before anything is allocated.
    std::string absurd = whole;
    const uint32_t huge = 0xFFFFFFFFu;
    std::memcpy(&absurd[8], &huge, 4);
    EXPECT_EQ(loadBytes(absurd), "cannot read hair points " + name + "\n");
    std::memcpy(&absurd[4], &huge, 4);
    EXPECT_EQ(loadBytes(absurd), "cannot read hair segments " + name + "\n");
    expectEmpty();
}

TEST_F(HairFiles, StrandsThatNeedMorePointsThanTheFileHoldsAreRefused) {
    const std::string name = path("strands.hair");
    const std::string refused = errorLine("hair - the strands of " + name + " need more than its 8 points");
    HairFileData d = threeStrands();
    d.segments[2] = 3;   // one point short
    EXPECT_EQ(loadBytes(hairFileBytes(d)), refused);
    expectEmpty();
    // Four billion strands of the default size, each of at least one point.
    d = threeStrands();
    d.segments.clear();
    d.strandCount = 0xFFFFFFF0u;
    EXPECT_EQ(loadBytes(hairFileBytes(d)), refused);
    expectEmpty();
    // Points counted in the header but no points array.
    d = threeStrands();
    std::string bytes = hairFileBytes(d).substr(0, 128 + 6);
    const uint32_t bits = kHairSegments;
    std::memcpy(&bytes[12], &bits, 4);
    EXPECT_EQ(loadBytes(bytes), errorLine("hair - " + name + " has no points array for its 8 points"));
    expectEmpty();

    writeFile(dir / "strands.fur", "segment 2\nsegment -1\nposition 0 0 0\n");
    EXPECT_EQ(load(path("strands.fur"), false),
              errorLine("hair - negative segment count -1 in " + path("strands.fur")));
    expectEmpty();
    writeFile(dir / "strands.fur", "segment 2\nposition 0 0 0\nposition 1 0 0\n");
    EXPECT_EQ(load(path("strands.fur"), false),
              errorLine("hair - the strands of " + path("strands.fur") + " need more than its 2 points"));
    expectEmpty();
    EXPECT_EQ(load(path("absent.fur"), false), "");
    expectEmpty();
}

TEST_F(HairFiles, ObjectBlockLoadsEachFileIntoAPartOfItsOwn) {
    writeBytes(path("a.hair"), hairFileBytes(threeStrands()));
    writeFile(dir / "b.fur", "segment 1\nposition 0 0 0\nposition 0 0 1\n");
    const std::string report = readScene("object\nhair \"" + path("a.hair") + "\"\nfur \"" + path("b.fur") +
                                         "\"\nhair \"" + path("absent.hair") + "\"\nend\n");
    EXPECT_EQ(report, "cannot open " + path("absent.hair") + "\n");
    ASSERT_EQ(registry.objects.size(), 1u);
    const Object& object = registry.objects[0];
    ASSERT_EQ(object.parts.size(), 3u);
    EXPECT_EQ(object.parts[0].cylinders.size(), 5u);
    EXPECT_EQ(object.parts[1].cylinders, std::vector<uint32_t>{0});
    EXPECT_TRUE(object.parts[2].positions.empty());
}

}  // namespace
