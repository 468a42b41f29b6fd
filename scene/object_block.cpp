// The `object` block and its nested `instance` block: names, instances, and
// geometry from OBJ files, hair files and images that hold vertex data.
#include <bit>
#include <string>

#include "core/registry.h"
#include "core/report.h"
#include "scene/block_parsers.h"
#include "scene/geometry_reader.h"
#include "scene/hair_file.h"
#include "core/images.h"
#include "shading/shader.h"

namespace {

// What one object block works with: the object's index (the vector may not
// move while the block reads, but an index is safe regardless), and the
// reader with its local part that the image-held vertex data fills.
struct ObjectBlock {
    size_t object;
    GeometryReader images;
    Part local;
};

Object& objectOf(ObjectBlock& block) { return registry.objects[block.object]; }

// Reads one image with RGBE off, so that float pixels stay exact, and hands
// the first three channels of each pixel to `take`.
template <typename Take>
void eachPixel(const std::string& name, Take take) {
    ImageRecord image;
    image.name = name;
    image.wantsRgbe = false;
    if (!LoadImage(image) || image.floatStore.empty() || image.channels < 1) return;
    const size_t step = size_t(image.channels);
    const size_t count = image.floatStore.size() / step;
    for (size_t i = 0; i < count; ++i) {
        float v[3] = {0.0f, 0.0f, 0.0f};
        for (size_t k = 0; k < 3 && k < step; ++k) v[k] = image.floatStore[i * step + k];
        take(v);
    }
}

// Loads the named vertex-data images into the reader's part, then compiles
// whatever raw lists the reader holds.
void finishReader(GeometryReader& r) {
    Part& part = *r.part;
    if (!r.positionTexture.empty())
        eachPixel(r.positionTexture, [&](const float* v) { part.positions.push_back({v[0], v[1], v[2]}); });
    if (!r.uvTexture.empty())
        eachPixel(r.uvTexture, [&](const float* v) { part.uvChannels[0].elements.push_back({v[0], v[1]}); });
    if (!r.normalTexture.empty())
        eachPixel(r.normalTexture, [&](const float* v) { part.normals.push_back(packDirection(v[0], v[1], v[2])); });
    if (!r.tangentTexture.empty())
        eachPixel(r.tangentTexture, [&](const float* v) { part.tangents.push_back(packDirection(v[0], v[1], v[2])); });
    if (!r.triangleTexture.empty()) {
        bool outOfRange = false;
        eachPixel(r.triangleTexture, [&](const float* v) {
            const uint32_t a = std::bit_cast<uint32_t>(v[0]), b = std::bit_cast<uint32_t>(v[1]),
                           c = std::bit_cast<uint32_t>(v[2]);
            // A corner past the positions would be read outside the part.
            const size_t count = part.positions.size();
            if (a >= count || b >= count || c >= count) {
                outOfRange = true;
                return;
            }
            part.triangles.push_back({a, b, c, 0u});
        });
        if (outOfRange) {
            reportError("object - face index out of range in " + r.triangleTexture);
            reportRule();
        }
        reportMessage(std::to_string(part.positions.size()));
        reportMessage(std::to_string(part.triangles.size()));
    }
    compileReader(r, r.triangleTexture);
}

// Each group of four values of a particle image is a centre and a radius.
void readParticleImage(GeometryReader& r, const std::string& name) {
    ImageRecord image;
    image.name = name;
    image.wantsRgbe = false;
    if (!LoadImage(image)) return;
    Part& part = *r.part;
    const std::vector<float>& values = image.floatStore;
    for (size_t i = 0; i + 4 <= values.size(); i += 4) {
        part.positions.push_back({values[i], values[i + 1], values[i + 2]});
        part.scalarChannels[0].elements.push_back(values[i + 3]);
        part.particles.push_back(uint32_t(part.particles.size()));
    }
}

enum class FileKind { Obj, ParticleImage, Hair, Fur };

// A file keyword: a new part filled by the file's reader.
template <FileKind Kind>
void loadPart(SceneInput&, std::istream& line, ObjectBlock& block) {
    std::string name;
    ReadQuoted(line, name);
    Object& object = objectOf(block);
    object.parts.emplace_back();
    GeometryReader reader;
    reader.part = &object.parts.back();
    switch (Kind) {
    case FileKind::Obj: readObj(reader, name); break;
    case FileKind::ParticleImage: readParticleImage(reader, name); break;
    case FileKind::Hair: readHair(reader, name); break;
    case FileKind::Fur: readFur(reader, name); break;
    }
    finishReader(reader);
}

template <std::string GeometryReader::*Name>
void imageName(SceneInput&, std::istream& line, ObjectBlock& block) {
    ReadQuoted(line, block.images.*Name);
}

void triangleTexture(SceneInput&, std::istream& line, ObjectBlock& block) {
    ReadQuoted(line, block.images.triangleTexture);
    block.images.part = &block.local;
    finishReader(block.images);
    objectOf(block).parts.push_back(block.local);
}

void objectName(SceneInput&, std::istream& line, ObjectBlock& block) { ReadWord(line, objectOf(block).name); }

void objectShader(SceneInput&, std::istream& line, ObjectBlock& block) {
    std::string name;
    ReadQuoted(line, name);
    objectOf(block).defaultShader = uint32_t(FindShader(name));
}

void instanceMatrix(SceneInput&, std::istream& line, Instance& instance) { ReadFloats(line, instance.toWorld, 16); }
void instanceObject(SceneInput&, std::istream& line, Instance& instance) { ReadWord(line, instance.targetName); }
void instanceShader(SceneInput&, std::istream& line, Instance& instance) { ReadWord(line, instance.shaderName); }

constexpr BlockKeyword<Instance> kInstanceKeywords[] = {
    {"matrix", instanceMatrix},
    {"object", instanceObject},
    {"shader", instanceShader},
};

void instanceBlock(SceneInput& input, std::istream&, ObjectBlock& block) {
    Instance instance;
    readBlock(input, instance, kInstanceKeywords);
    objectOf(block).instances.push_back(instance);
}

constexpr BlockKeyword<ObjectBlock> kObjectKeywords[] = {
    {"name", objectName},
    {"instance", instanceBlock},
    {"uv_texture", imageName<&GeometryReader::uvTexture>},
    {"position_texture", imageName<&GeometryReader::positionTexture>},
    {"normal_texture", imageName<&GeometryReader::normalTexture>},
    {"tangent_texture", imageName<&GeometryReader::tangentTexture>},
    {"triangle_texture", triangleTexture},
    {"particle_texture", loadPart<FileKind::ParticleImage>},
    {"shader", objectShader},
    {"hair", loadPart<FileKind::Hair>},
    {"fur", loadPart<FileKind::Fur>},
    {"obj", loadPart<FileKind::Obj>},
};

}  // namespace

void parseObjectBlock(SceneInput& input) {
    registry.objects.emplace_back();
    ObjectBlock block{registry.objects.size() - 1, {}, {}};
    readBlock(input, block, kObjectKeywords);
}
