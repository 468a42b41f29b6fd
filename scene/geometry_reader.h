// The transient state of one geometry load: the raw lists that a file reader
// fills and that compiling turns into a part's deduplicated vertex arrays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "geometry/object.h"

// Position, UV and normal indices of three corners, then the shader; -1
// marks a missing attribute.
struct RawTriangle {
    int32_t position[3], uv[3], normal[3];
    int32_t shader;
};

struct RawQuadrangle {
    int32_t position[4], uv[4], normal[4];
    int32_t shader;
};

struct GeometryReader {
    Part* part = nullptr;
    bool warnedPolygons = false;
    bool warnedDegenerate = false;
    std::vector<Vector> positions;
    std::vector<UV> uvs;
    std::vector<Vector> normals;
    std::vector<RawTriangle> rawTriangles;
    std::vector<RawQuadrangle> rawQuadrangles;
    int32_t smoothing = 0;
    std::string uvTexture, unusedTexture, positionTexture, normalTexture, tangentTexture, triangleTexture;
};

// Reads an OBJ file into the reader's raw lists, in stretches of at least
// objStretchBytes on all threads; lists, indices and warnings are those of a
// reading from start to end.
void readObj(GeometryReader& reader, const std::string& fileName);
// The least bytes of a stretch (a megabyte); tests lower it to cut small files.
extern size_t objStretchBytes;
// Compiles the raw lists into the reader's part and releases them. Faces that
// index past the position list are dropped with one error line for `source`.
void compileReader(GeometryReader& reader, const std::string& source);
