#include "geometry/object.h"

#include <cmath>
#include <cstring>

#include "core/registry.h"
#include "core/report.h"
#include "lv.h"

void checkPart(Part& part) {
    const bool particles = !part.particles.empty();
    const bool cylinders = !part.cylinders.empty();
    const bool faces = !part.triangles.empty() || !part.tetragons.empty();
    const int mixedPairs = int(particles && cylinders) + int(particles && faces) + int(cylinders && faces);
    for (int i = 0; i < mixedPairs; ++i) {
        reportError("object - mixed types (ex. cylinders and triangles in the same group) ");
        reportRule();
    }

    const size_t count = part.positions.size();
    auto differs = [count](size_t n) { return n != 0 && n != count; };
    bool mismatch = differs(part.normals.size()) || differs(part.tangents.size());
    for (const auto& channel : part.scalarChannels) mismatch = mismatch || differs(channel.elements.size());
    for (const auto& channel : part.uvChannels) mismatch = mismatch || differs(channel.elements.size());
    for (const auto& channel : part.vectorChannels) mismatch = mismatch || differs(channel.elements.size());
    if (mismatch) {
        reportError("object - different size of per vertex data array");
        reportRule();
    }

    auto undefinedShader = [](uint32_t shader) {
        return shader < registry.shaders.size() && registry.shaders[shader].name == "undefined";
    };
    for (Triangle& t : part.triangles)
        if (undefinedShader(t.shader)) t.shader = part.shader;
    for (Tetragon& t : part.tetragons)
        if (undefinedShader(t.shader)) t.shader = part.shader;
}

void reportObject(const Object& object) {
    size_t positions = 0, uvs = 0, scalars = 0, normals = 0, tangents = 0;
    size_t particles = 0, cylinders = 0, triangles = 0, tetragons = 0;
    for (const Part& part : object.parts) {
        positions += part.positions.size();
        for (const auto& channel : part.vectorChannels) positions += channel.elements.size();
        for (const auto& channel : part.uvChannels) uvs += channel.elements.size();
        for (const auto& channel : part.scalarChannels) scalars += channel.elements.size();
        normals += part.normals.size();
        tangents += part.tangents.size();
        particles += part.particles.size();
        cylinders += part.cylinders.size();
        triangles += part.triangles.size();
        tetragons += part.tetragons.size();
    }
    auto row = [](const char* label, size_t count, size_t bytes) {
        reportCountAndSize(label, (long long)count, double(float(count) * float(bytes) * kMegabytes), "M bytes");
    };
    row("positions", positions, sizeof(Vector));
    row("uv coords", uvs, sizeof(UV));
    row("scalars  ", scalars, sizeof(float));
    row("normals  ", normals, 3);
    row("tangents ", tangents, 3);
    row("particles", particles, 4);
    row("cylinders", cylinders, 4);
    row("triangles", triangles, sizeof(Triangle));
    row("tetragons", tetragons, sizeof(Tetragon));
    row("instances", object.instances.size(), sizeof(Instance));
    const Bbox& b = object.bounds;
    reportVector("bbox size  ", b.max[0] - b.min[0], b.max[1] - b.min[1], b.max[2] - b.min[2], "m");
    reportVector("bbox min   ", b.min[0], b.min[1], b.min[2], "n/a");
    reportVector("bbox max   ", b.max[0], b.max[1], b.max[2], "n/a");
    reportVector("bbox center", (b.min[0] + b.max[0]) * 0.5f, (b.min[1] + b.max[1]) * 0.5f,
                 (b.min[2] + b.max[2]) * 0.5f, "n/a");
    reportRule();
}

// The exported object family. Nothing is checked: indices are the host's duty.
namespace {
Part& partOf(int object, int part) { return registry.objects[size_t(object)].parts[size_t(part)]; }

template <typename T, typename Make>
void appendEach(std::vector<T>& into, int count, Make make) {
    if (count < 1) return;
    into.reserve(into.size() + size_t(count));
    for (int i = 0; i < count; ++i) into.push_back(make(i));
}
}  // namespace

extern "C" {

LV_API int lvAddObject(void) {
    registry.objects.emplace_back();
    return int(registry.objects.size()) - 1;
}

LV_API void lvSetObjectName(int object, const char* name) {
    registry.objects[size_t(object)].name.assign(std::string(name));
}

LV_API int lvAddPart(int object) {
    auto& parts = registry.objects[size_t(object)].parts;
    parts.emplace_back();
    return int(parts.size()) - 1;
}

LV_API void lvSetShaderID(int object, int part, int shader) { partOf(object, part).shader = uint32_t(shader); }

LV_API int lvAddInstance(int object) {
    auto& instances = registry.objects[size_t(object)].instances;
    instances.emplace_back();
    return int(instances.size()) - 1;
}

LV_API void lvSetInstance(int object, int instance, int source, float (*matrix)[4]) {
    Instance& in = registry.objects[size_t(object)].instances[size_t(instance)];
    in.target = uint32_t(source);
    // The exported matrix is 3 rows of 4; the fourth row of an affine transform is implied.
    if (matrix) {
        std::memcpy(in.toWorld, matrix, 12 * sizeof(float));
        in.toWorld[12] = in.toWorld[13] = in.toWorld[14] = 0.0f;
        in.toWorld[15] = 1.0f;
    }
    in.targetName = "particles";
}

LV_API void lvAddPositions(int object, int part, int count, const float* xyz) {
    appendEach(partOf(object, part).positions, count,
               [xyz](int i) { return Vector{xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]}; });
}

LV_API void lvAddNormals(int object, int part, int count, const float* xyz) {
    appendEach(partOf(object, part).normals, count,
               [xyz](int i) { return packDirection(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]); });
}

LV_API void lvAddTangents(int object, int part, int count, const float* xyz) {
    appendEach(partOf(object, part).tangents, count,
               [xyz](int i) { return packDirection(xyz[3 * i], xyz[3 * i + 1], xyz[3 * i + 2]); });
}

LV_API void lvAddUVs(int object, int part, int count, const float* uv) {
    appendEach(partOf(object, part).uvChannels[0].elements, count,
               [uv](int i) { return UV{uv[2 * i], uv[2 * i + 1]}; });
}

LV_API void lvAddRadii(int object, int part, int count, const float* radii) {
    appendEach(partOf(object, part).scalarChannels[0].elements, count, [radii](int i) { return radii[i]; });
}

LV_API void lvAddParticles(int object, int part, int count, const int* indices) {
    appendEach(partOf(object, part).particles, count, [indices](int i) { return uint32_t(indices[i]); });
}

LV_API void lvAddCylinders(int object, int part, int count, const int* indices) {
    appendEach(partOf(object, part).cylinders, count, [indices](int i) { return uint32_t(indices[i]); });
}

LV_API void lvAddTriangles(int object, int part, int count, const int* v) {
    Part& p = partOf(object, part);
    appendEach(p.triangles, count, [v, &p](int i) {
        return Triangle{uint32_t(v[3 * i]), uint32_t(v[3 * i + 1]), uint32_t(v[3 * i + 2]), p.shader};
    });
}

LV_API void lvAddTetragons(int object, int part, int count, const int* v) {
    Part& p = partOf(object, part);
    appendEach(p.tetragons, count, [v, &p](int i) {
        return Tetragon{uint32_t(v[4 * i]), uint32_t(v[4 * i + 1]), uint32_t(v[4 * i + 2]), uint32_t(v[4 * i + 3]),
                        p.shader};
    });
}

LV_API void lvAddVertexData(int object, int part, const char* name, int count, int components, const float* data) {
    Part& p = partOf(object, part);
    switch (components) {
    case 1:
        p.scalarChannels.push_back({name, {}});
        appendEach(p.scalarChannels.back().elements, count, [data](int i) { return data[i]; });
        break;
    case 2:
        p.uvChannels.push_back({name, {}});
        appendEach(p.uvChannels.back().elements, count, [data](int i) { return UV{data[2 * i], data[2 * i + 1]}; });
        break;
    case 3:
        p.vectorChannels.push_back({name, {}});
        appendEach(p.vectorChannels.back().elements, count,
                   [data](int i) { return Vector{data[3 * i], data[3 * i + 1], data[3 * i + 2]}; });
        break;
    default: break;
    }
}

}  // extern "C"

int primitiveCorners(const Part& part, uint8_t kind, uint32_t primitive, Vector b, uint32_t vertex[4], float weight[4]) {
    switch (kind) {
    case kParticle:
        vertex[0] = part.particles[primitive];
        weight[0] = 1.0f;
        return 1;
    case kCylinder:
        vertex[0] = part.cylinders[primitive];
        vertex[1] = vertex[0] + 1;
        weight[0] = 1.0f - b.z;
        weight[1] = b.z;
        return 2;
    case kTriangle: {
        const Triangle& t = part.triangles[primitive];
        vertex[0] = t.a, vertex[1] = t.b, vertex[2] = t.c;
        weight[0] = b.x, weight[1] = b.y, weight[2] = b.z;
        return 3;
    }
    case kTetragon: {
        const Tetragon& t = part.tetragons[primitive];
        vertex[0] = t.a, vertex[1] = t.b, vertex[2] = t.c, vertex[3] = t.d;
        weight[0] = (1.0f - b.x) * (1.0f - b.y), weight[1] = (1.0f - b.x) * b.y;
        weight[2] = b.x * b.y, weight[3] = b.x * (1.0f - b.y);
        return 4;
    }
    default: return 0;
    }
}
