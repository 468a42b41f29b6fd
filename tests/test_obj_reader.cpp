// The OBJ subset: faces into triangles and tetragons, relative indices,
// warnings once a file, normal orientation and the vertex table.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "capture.h"
#include "core/registry.h"
#include "lv.h"
#include "scene/geometry_reader.h"

namespace {

class ObjReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        ReportCapture quiet;
        lvStartup();
        dir_ = std::filesystem::temp_directory_path() / ("lv_obj_" + std::to_string(::getpid()));
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override {
        ReportCapture quiet;
        lvFinalize();
        lvShutdown();
        std::filesystem::remove_all(dir_);
    }

    // Reads `text` as an OBJ file into a fresh part; the report goes to `report`.
    Part load(const std::string& text, std::string* report = nullptr) {
        const std::string path = (dir_ / "mesh.obj").string();
        std::ofstream(path) << text;
        Part part;
        GeometryReader reader;
        reader.part = &part;
        ReportCapture capture;
        readObj(reader, path);
        compileReader(reader, path);
        if (report) *report = capture.text();
        return part;
    }

    std::filesystem::path dir_;
};

const char* kSquare = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";

TEST_F(ObjReaderTest, QuadranglesStayTetragonsOnlyWhenPlanarRectangles) {
    Part square = load(std::string(kSquare) + "f 1 2 3 4\n");
    EXPECT_EQ(square.tetragons.size(), 1u);
    EXPECT_TRUE(square.triangles.empty());

    Part trapezoid = load("v 0 0 0\nv 2 0 0\nv 1.5 1 0\nv 0.5 1 0\nf 1 2 3 4\n");
    ASSERT_EQ(trapezoid.triangles.size(), 2u);
    // Split along the 0-2 diagonal: (0, 1, 2) and (2, 3, 0).
    EXPECT_EQ(trapezoid.positions[trapezoid.triangles[1].a], (Vector{1.5f, 1, 0}));
    EXPECT_EQ(trapezoid.positions[trapezoid.triangles[1].c], (Vector{0, 0, 0}));

    Part bent = load("v 0 0 0\nv 1 0 0\nv 1 1 0.5\nv 0 1 0\nf 1 2 3 4\n");
    EXPECT_EQ(bent.triangles.size(), 2u);
}

TEST_F(ObjReaderTest, DegenerateQuadranglesWarnOnceAFile) {
    std::string report;
    Part part = load(std::string(kSquare) + "f 1 1 2 3\nf 2 3 3 4\n", &report);
    ASSERT_EQ(part.triangles.size(), 2u);
    const std::string warning = "warning :( \tobject - there are degenerated quadrangles\n";
    EXPECT_EQ(report, warning + std::string(80, '_') + "\n\n");
    // q0 = q1 gives corners 0, 2, 3.
    EXPECT_EQ(part.positions[part.triangles[0].b], (Vector{1, 0, 0}));
    EXPECT_EQ(part.positions[part.triangles[0].c], (Vector{1, 1, 0}));
}

TEST_F(ObjReaderTest, PolygonsAreSkippedWithOneWarning) {
    std::string report;
    Part part = load(std::string(kSquare) + "v 2 2 0\nf 1 2 3 4 5\nf 1 2 3 4 5 1 2 3 4\nf 1 2 3\n", &report);
    EXPECT_EQ(part.triangles.size(), 1u);
    EXPECT_EQ(report, "warning :( \tobject - please triangulate/quadrangulate the input model(s)\n" +
                          std::string(80, '_') + "\n\n");
}

TEST_F(ObjReaderTest, RelativeIndicesAndVertexForms) {
    Part part = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.5 0.25\nvn 0 0 1\nf -3/1/1 -2//1 -1/1\n");
    ASSERT_EQ(part.triangles.size(), 1u);
    EXPECT_EQ(part.positions.size(), 3u);
    const auto& uvs = part.uvChannels[0].elements;
    ASSERT_EQ(uvs.size(), 3u);
    EXPECT_EQ(uvs[part.triangles[0].a].u, 0.5f);
    EXPECT_EQ(uvs[part.triangles[0].b].u, 0.0f);   // p//n has no UV
    EXPECT_EQ(part.normals[part.triangles[0].a], (PackedDirection{0, 0, 127}));
    EXPECT_EQ(part.normals[part.triangles[0].c], (PackedDirection{0, 0, 0}));   // p/t has no normal
}

TEST_F(ObjReaderTest, SharedCornersMergeUnlessAnAttributeDiffers) {
    // Two triangles, each corner written out with its own copy of equal values.
    Part merged = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 3\nf 4 5 6\n");
    EXPECT_EQ(merged.positions.size(), 4u);
    EXPECT_EQ(merged.triangles[1].a, merged.triangles[0].a);

    Part split = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\nvt 0 0\nvt 1 1\nf 1/1 2/1 3/1\nf 1/2 2/1 4/1\n");
    EXPECT_EQ(split.positions.size(), 5u);
}

TEST_F(ObjReaderTest, NormalsFlipOnlyWhenAllThreeOpposeTheWinding) {
    Part flipped = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 -1\nf 1//1 2//1 3//1\n");
    EXPECT_EQ(flipped.normals[0], (PackedDirection{0, 0, 127}));
    Part kept = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 -1\nvn 0 0 1\nf 1//1 2//1 3//2\n");
    EXPECT_EQ(kept.normals[kept.triangles[0].a], (PackedDirection{0, 0, -127}));
}

TEST_F(ObjReaderTest, DropsDegenerateTrianglesButKeepsCollinearOnes) {
    Part part = load("v 0 0 0\nv 1 0 0\nv 2 0 0\nv 0 0 0\nf 1 2 4\nf 1 2 3\n");
    ASSERT_EQ(part.triangles.size(), 1u);
    Part onlyVertices = load("v 0 0 0\nv 1 0 0\n");
    EXPECT_TRUE(onlyVertices.positions.empty());
}

TEST_F(ObjReaderTest, UsemtlOnlyInTheFirstColumnAndMalformedNumbers) {
    Part part = load("usemtl red extra\nv 0 0 0\nv 1x 0 0\nv 0 1 0\nf 1 2 3\n usemtl blue\nf 3 2 1\n");
    const int red = FindShader("red");
    ASSERT_EQ(part.triangles.size(), 2u);
    EXPECT_EQ(part.triangles[0].shader, uint32_t(red));
    EXPECT_EQ(part.triangles[1].shader, uint32_t(red));
    EXPECT_EQ(part.positions[1].x, 1.0f);   // "1x" reads as 1
}

TEST_F(ObjReaderTest, MissingFilesAndIndicesPastTheListsAreReported) {
    Part part;
    GeometryReader reader;
    reader.part = &part;
    ReportCapture capture;
    readObj(reader, (dir_ / "absent.obj").string());
    EXPECT_EQ(capture.lines()[0], "error :( \tobject - cannot open " + (dir_ / "absent.obj").string());
    capture.restore();

    std::string report;
    Part outside = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\nf 1 2 -7\nf 1 2 3\n", &report);
    EXPECT_EQ(outside.triangles.size(), 1u);
    EXPECT_NE(report.find("error :( \tobject - face index out of range"), std::string::npos);
}

TEST_F(ObjReaderTest, BinaryAndOversizedLinesNeverCrash) {
    std::string noise;
    for (int i = 0; i < 20000; ++i) noise.push_back(char((i * 7919) & 0xff));
    load(noise);
    load("f " + std::string(10000, '1') + "\nv " + std::string(9000, ' ') + "1 2 3\nf 1/2/3/4/5 2 3\n");
    SUCCEED();
}

}  // namespace
