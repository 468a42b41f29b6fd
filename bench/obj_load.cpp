// OBJ load-and-compile throughput on the shared terrain mesh, beside the same
// file loaded by tinyobjloader (triangulated) when it is installed.
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "core/registry.h"
#include "scene/geometry_reader.h"

#ifdef LV_HAVE_TINYOBJ
#include <tiny_obj_loader.h>
#endif

namespace {

double seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

template <typename Load>
double best(int runs, Load load) {
    double fastest = 1e30;
    for (int i = 0; i < runs; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        load();
        fastest = std::min(fastest, seconds(t0));
    }
    return fastest;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : std::string(LV_SHARED_ASSETS) + "/terrain.obj";
    if (!std::filesystem::exists(path)) {
        std::printf("obj_load: %s is absent, skipped\n", path.c_str());
        return 0;
    }
    const double megabytes = double(std::filesystem::file_size(path)) / 1e6;
    registry.shaders.push_back(Shader{});
    const int runs = 5;

    size_t triangles = 0, vertices = 0, bytes = 0;
    const double ours = best(runs, [&] {
        Part part;
        GeometryReader reader;
        reader.part = &part;
        readObj(reader, path);
        compileReader(reader, path);
        triangles = part.triangles.size() + 2 * part.tetragons.size();
        vertices = part.positions.size();
        bytes = part.positions.size() * sizeof(Vector) + part.uvChannels[0].elements.size() * sizeof(UV) +
                part.normals.size() * 3 + part.tangents.size() * 3 + part.triangles.size() * sizeof(Triangle) +
                part.tetragons.size() * sizeof(Tetragon);
    });
    std::printf("lumivane      %8.1f MB/s %8.2f M triangles/s  (%zu triangles, %zu vertices, %.1f MB compiled)\n",
                megabytes / ours, double(triangles) / ours / 1e6, triangles, vertices, double(bytes) / 1e6);

#ifdef LV_HAVE_TINYOBJ
    size_t theirs_triangles = 0;
    const double theirs = best(runs, [&] {
        tinyobj::attrib_t attrib;
        std::vector<tinyobj::shape_t> shapes;
        std::vector<tinyobj::material_t> materials;
        std::string warn, err;
        tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str(), nullptr, true);
        theirs_triangles = 0;
        for (const auto& s : shapes) theirs_triangles += s.mesh.num_face_vertices.size();
    });
    std::printf("tinyobjloader %8.1f MB/s %8.2f M triangles/s  (%zu triangles)\n", megabytes / theirs,
                double(theirs_triangles) / theirs / 1e6, theirs_triangles);
    std::printf("ratio lumivane / tinyobjloader: %.2f x\n", theirs / ours);
#else
    std::printf("tinyobjloader not found at configure time: no comparison\n");
#endif
    return 0;
}
