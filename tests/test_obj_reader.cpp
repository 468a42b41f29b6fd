// The OBJ subset: faces into triangles and tetragons, relative indices,
// warnings once a file, normal orientation, the vertex table, and reading
// in stretches on several threads.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <random>
#include <string>

#include "scene/geometry_reader.h"
#include "geometry/object.h"
#include "shading/shader.h"
#include "scene_fixture.h"

namespace {

class ObjReaderTest : public SceneTest {
protected:
    // Reads `text` as an OBJ file into a fresh part; the report goes to `report`.
    Part load(const std::string& text, std::string* report = nullptr) {
        writeFile(dir / "mesh.obj", text);
        Part part;
        GeometryReader reader;
        reader.part = &part;
        ReportCapture capture;
        readObj(reader, path("mesh.obj"));
        compileReader(reader, path("mesh.obj"));
        if (report) *report = capture.text();
        return part;
    }
};

// A mesh of a few thousand corners that repeat: positions written twice with
// the same text, UV and normal indices shared and not, normals that face
// away from their faces, quadrangles and corners past the lists.
std::string repeatingMesh() {
    std::mt19937 random(5);
    std::string text;
    for (int k = 0; k < 400; ++k) {
        std::string v = "v";
        for (unsigned range : {7u, 5u, 3u}) v.append(" ").append(std::to_string(random() % range * 0.5f));
        text += k % 5 == 0 ? v + "\n" + v + "\n" : v + "\n";
    }
    text += "v 0 0 9\nv 1 0 9\nv 1 1 9\nv 0 1 9\n";   // a square, 481 to 484
    for (int k = 0; k < 30; ++k) text += "vt " + std::to_string(random() % 4 * 0.25f) + " 0.5\n";
    for (int k = 0; k < 30; ++k) text += "vn 0 " + std::to_string(int(random() % 3) - 1) + " 1\n";
    auto number = [&random](unsigned range) { return std::to_string(1 + random() % range); };
    for (int k = 0; k < 1500; ++k) {
        const int corners = random() % 6 == 0 ? 4 : 3;
        const bool square = corners == 4 && k % 2 == 0;
        text += "f";
        for (int c = 0; c < corners; ++c) {
            const unsigned form = random() % 4;
            text.append(" ").append(square ? std::to_string(481 + c) : number(485));
            if (form == 1) text.append("/").append(number(30));
            if (form == 2) text.append("//").append(number(31));
            if (form == 3) text.append("/").append(number(4)).append("/").append(number(3));
        }
        text += "\n";
    }
    return text;
}

// FNV-1a over the part's arrays.
uint64_t partDigest(const Part& part) {
    uint64_t h = 1469598103934665603ull;
    auto mix = [&h](const auto& v) {
        const auto* c = reinterpret_cast<const unsigned char*>(v.data());
        for (size_t i = 0; i < v.size() * sizeof(v[0]); ++i) h = (h ^ c[i]) * 1099511628211ull;
    };
    mix(part.positions), mix(part.normals), mix(part.uvChannels[0].elements), mix(part.triangles), mix(part.tetragons);
    return h;
}

const std::string kSquare = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";

TEST_F(ObjReaderTest, FacesBecomeTrianglesAndTetragons) {
    const std::string warned = "warning :( \tobject - ";
    const struct {
        std::string obj;
        size_t triangles, tetragons, positions;
        std::string report;
    } cases[] = {
        // Only planar rectangles stay tetragons.
        {kSquare + "f 1 2 3 4\n", 0, 1, 4, ""},
        {"v 0 0 0\nv 1 0 0\nv 1 1 0.5\nv 0 1 0\nf 1 2 3 4\n", 2, 0, 4, ""},
        // Degenerate quadrangles become triangles, with one warning a file.
        {kSquare + "f 1 1 2 3\nf 2 3 3 4\n", 2, 0, 4, warned + "there are degenerated quadrangles\n" + kRule + "\n\n"},
        {kSquare + "v 2 2 0\nf 1 2 3 4 5\nf 1 2 3 4 5 1 2 3 4\nf 1 2 3\n", 1, 0, 3,
         warned + "please triangulate/quadrangulate the input model(s)\n" + kRule + "\n\n"},
        // Degenerate triangles are dropped, collinear ones kept; unused vertices are not kept.
        {"v 0 0 0\nv 1 0 0\nv 2 0 0\nv 0 0 0\nf 1 2 4\nf 1 2 3\n", 1, 0, 3, ""},
        {"v 0 0 0\nv 1 0 0\n", 0, 0, 0, ""},
        // Corners with equal values merge, whatever vertex they name, unless an attribute differs.
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 3\nf 4 5 6\n", 2, 0, 4, ""},
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\nvt 0 0\nvt 1 1\nf 1/1 2/1 3/1\nf 1/2 2/1 4/1\n", 2, 0, 5, ""},
        // Faces past the lists are dropped, with one error.
        {"v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 9\nf 1 2 -7\nf 1 2 3\n", 1, 0, 3,
         "error :( \tobject - face index out of range in " + path("mesh.obj") + "\n" + kRule + "\n\n"},
    };
    for (const auto& c : cases) {
        std::string report;
        const Part part = load(c.obj, &report);
        EXPECT_EQ(part.triangles.size(), c.triangles) << c.obj;
        EXPECT_EQ(part.tetragons.size(), c.tetragons) << c.obj;
        EXPECT_EQ(part.positions.size(), c.positions) << c.obj;
        EXPECT_EQ(report, c.report) << c.obj;
    }
}

TEST_F(ObjReaderTest, WhichCornersTheSplitsAndMergesUse) {
    // A trapezoid splits along the 0-2 diagonal: (0, 1, 2) and (2, 3, 0).
    Part trapezoid = load("v 0 0 0\nv 2 0 0\nv 1.5 1 0\nv 0.5 1 0\nf 1 2 3 4\n");
    ASSERT_EQ(trapezoid.triangles.size(), 2u);
    EXPECT_EQ(trapezoid.positions[trapezoid.triangles[1].a], (Vector{1.5f, 1, 0}));
    EXPECT_EQ(trapezoid.positions[trapezoid.triangles[1].c], (Vector{0, 0, 0}));
    // A degenerate quadrangle with q0 = q1 gives corners 0, 2, 3.
    Part degenerate = load(kSquare + "f 1 1 2 3\n");
    ASSERT_EQ(degenerate.triangles.size(), 1u);
    EXPECT_EQ(degenerate.positions[degenerate.triangles[0].b], (Vector{1, 0, 0}));
    EXPECT_EQ(degenerate.positions[degenerate.triangles[0].c], (Vector{1, 1, 0}));
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

TEST_F(ObjReaderTest, NormalsFlipOnlyWhenAllThreeOpposeTheWinding) {
    Part flipped = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 -1\nf 1//1 2//1 3//1\n");
    EXPECT_EQ(flipped.normals[0], (PackedDirection{0, 0, 127}));
    Part kept = load("v 0 0 0\nv 1 0 0\nv 0 1 0\nvn 0 0 -1\nvn 0 0 1\nf 1//1 2//1 3//2\n");
    EXPECT_EQ(kept.normals[kept.triangles[0].a], (PackedDirection{0, 0, -127}));
}

TEST_F(ObjReaderTest, UsemtlOnlyInTheFirstColumnAndMalformedNumbers) {
    Part part = load("usemtl red extra\nv 0 0 0\nv 1x 0 0\nv 0 1 0\nf 1 2 3\n usemtl blue\nf 3 2 1\n");
    const int red = FindShader("red");
    ASSERT_EQ(part.triangles.size(), 2u);
    EXPECT_TRUE(part.triangles[0].shader == uint32_t(red) && part.triangles[1].shader == uint32_t(red));
    EXPECT_EQ(part.positions[1].x, 1.0f);   // "1x" reads as 1
}

// The vertex table is an exact deduplication whatever its buckets and
// shortcuts: a mesh whose corners repeat in every way compiles to the arrays
// that the first table, one of fixed size, gave them (their digest then).
TEST_F(ObjReaderTest, RepeatingCornersCompileToTheArraysOfTheFirstTable) {
    EXPECT_EQ(partDigest(load(repeatingMesh())), 0x23493d6a2ee19ac0ull);
}

// A file read in many stretches on two threads gives the lists, faces and
// warnings of one stretch, wherever the cuts fall: inside over-long lines,
// between relative indices and their vertices, around material lines, bad
// faces and NUL bytes.
TEST_F(ObjReaderTest, StretchesOnThreadsReadAsOne) {
    std::mt19937 random(11);
    std::string text;
    for (int k = 0; k < 4000; ++k) {
        const unsigned r = random() % 100;
        const std::string n = std::to_string(1 + random() % 300);
        if (r < 30) text += "v " + std::to_string(random() % 1000 * 0.01f) + " " + n + " 0\n";
        else if (r < 34) text += "vn 0 0 1\r\n  vt 0.5 " + n + "\n";
        else if (r < 36) text += "usemtl stretch" + std::to_string(r) + "\nusemtl\n";
        else if (r < 37) text += "v " + std::string(5000, '1') + " 2 3\n";   // the rest reads as a line
        else if (r < 38) text += "f 1 2 3" + std::string(4090, ' ') + "f 1 2 3\n";
        else if (r < 39) text += std::string("v 1 2\0 3\nf 1\0 2 3\n", 17);
        else if (r < 41) text += "f 1 2 3 4 5\nf 1 1 2 3\nf 1 2 999999\n";
        else if (r < 43) text += kSquare + "f -4 -3 -2 -1\n";
        else text += "f " + n + "/-1 -" + std::to_string(1 + r % 4) + " " + n + (r < 60 ? " 7//1\n" : "\n");
    }
    writeFile(dir / "mesh.obj", text + "f 1 2 3");   // no newline at the end
    const size_t saved = objStretchBytes;
    auto read = [&](size_t bytes, int threads, GeometryReader& reader) {
        objStretchBytes = bytes;
        omp_set_num_threads(threads);
        ReportCapture capture;
        readObj(reader, path("mesh.obj"));
        readObj(reader, path("mesh.obj"));   // a second file counts from the first one's end
        return capture.text();
    };
    GeometryReader whole;
    const std::string report = read(saved, 1, whole);
    ASSERT_GT(whole.rawTriangles.size(), 1000u);
    ASSERT_NE(report.find("degenerated quadrangles"), std::string::npos);
    ASSERT_NE(report.find("please triangulate"), std::string::npos);
    auto same = [](const auto& a, const auto& b) {
        return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])) == 0;
    };
    for (size_t bytes : {97, 1000, 4096}) {
        GeometryReader cut;
        EXPECT_EQ(read(bytes, 2, cut), report) << bytes;
        EXPECT_TRUE(same(cut.positions, whole.positions) && same(cut.normals, whole.normals) &&
                    same(cut.uvs, whole.uvs) && same(cut.rawTriangles, whole.rawTriangles) &&
                    same(cut.rawQuadrangles, whole.rawQuadrangles))
            << bytes;
    }
    objStretchBytes = saved;
    omp_set_num_threads(omp_get_num_procs());
}

}  // namespace
