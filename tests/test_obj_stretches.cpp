// An OBJ file read in many stretches on several threads gives the lists,
// faces and warnings of a reading from start to end, wherever the cuts fall:
// inside over-long lines, between relative indices and their vertices,
// around material lines and bad faces.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "capture.h"
#include "core/registry.h"
#include "scene/geometry_reader.h"

namespace {

std::string mixedObj() {
    std::mt19937 random(11);
    std::uniform_real_distribution<float> coordinate(-5.0f, 5.0f);
    std::string text;
    for (int k = 0; k < 4000; ++k) {
        const unsigned r = random() % 100;
        if (r < 30) {
            text += "v " + std::to_string(coordinate(random)) + " " + std::to_string(coordinate(random)) + " 0\n";
        } else if (r < 34) {
            text += "vn 0 0 1\r\n  vt 0.5 " + std::to_string(r) + "\n";
        } else if (r < 36) {
            text += "usemtl stretch" + std::to_string(random() % 4) + "\nusemtl\n";
        } else if (r < 37) {
            text += "v " + std::string(5000, '1') + " 2 3\n";   // the rest is read as a line of its own
        } else if (r < 38) {
            text += "f 1 2 3" + std::string(4090, ' ') + "f 1 2 3\n";
        } else if (r < 39) {
            text += std::string("v 1 2\0 3\nf 1\0 2 3\n", 17);
        } else if (r < 41) {
            text += "f 1 2 3 4 5\nf 1 1 2 3\nf 1 2 999999\n";
        } else if (r < 43) {
            text += "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf -4 -3 -2 -1\n";
        } else {
            text += "f " + std::to_string(1 + random() % 300) + "/-1 -" + std::to_string(1 + random() % 4) + " " +
                    std::to_string(1 + random() % 300) + (r < 60 ? " 7//1\n" : "\n");
        }
    }
    return text + "f 1 2 3";   // no newline at the end
}

struct Reading {
    GeometryReader reader;
    std::string report;
};

Reading read(const std::string& path, size_t stretchBytes, int threads) {
    const size_t savedBytes = objStretchBytes;
    objStretchBytes = stretchBytes;
    omp_set_num_threads(threads);
    Reading r;
    {
        ReportCapture capture;
        readObj(r.reader, path);
        readObj(r.reader, path);   // a second file counts from the first one's end
        r.report = capture.text();
    }
    objStretchBytes = savedBytes;
    omp_set_num_threads(omp_get_num_procs());
    return r;
}

template <typename T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

TEST(ObjStretches, CutsAnywhereReadAsOneStretch) {
    const std::string path = (std::filesystem::temp_directory_path() / "lumivane-stretches.obj").string();
    std::ofstream(path, std::ios::binary) << mixedObj();
    const Reading whole = read(path, size_t(1) << 20, 1);
    ASSERT_GT(whole.reader.rawTriangles.size(), 1000u);
    ASSERT_NE(whole.report.find("degenerated quadrangles"), std::string::npos);
    ASSERT_NE(whole.report.find("please triangulate"), std::string::npos);
    for (size_t bytes : {97, 1000, 4096}) {
        const Reading cut = read(path, bytes, 2);
        const GeometryReader &a = cut.reader, &b = whole.reader;
        EXPECT_EQ((std::vector<bool>{sameBytes(a.positions, b.positions), sameBytes(a.normals, b.normals),
                                     sameBytes(a.uvs, b.uvs), sameBytes(a.rawTriangles, b.rawTriangles),
                                     sameBytes(a.rawQuadrangles, b.rawQuadrangles)}),
                  std::vector<bool>(5, true)) << bytes;
        EXPECT_EQ(cut.report, whole.report) << bytes;
    }
    std::filesystem::remove(path);
}

}  // namespace
