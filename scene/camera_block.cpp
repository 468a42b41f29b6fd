// The `camera` block with its `pose` blocks, and the `aov` block that cameras
// and lights share.
#include "core/registry.h"
#include "lv.h"
#include "scene/block_parsers.h"

namespace {

using PoseKeyword = BlockKeyword<CameraPose>;
using CameraKeyword = BlockKeyword<Camera>;
using AovKeyword = BlockKeyword<Aov>;

constexpr PoseKeyword kPose[] = {
    {"position", [](SceneInput&, std::istream& line, CameraPose& p) { ReadVector(line, p.position); }},
    {"target", [](SceneInput&, std::istream& line, CameraPose& p) { ReadVector(line, p.target); }},
    {"up_vector", [](SceneInput&, std::istream& line, CameraPose& p) { ReadVector(line, p.upVector); }},
    {"bokeh", [](SceneInput&, std::istream& line, CameraPose& p) { ReadFloat(line, p.bokeh); }},
    {"field_of_view", [](SceneInput&, std::istream& line, CameraPose& p) { ReadFloat(line, p.fieldOfView); }},
};

void readProjection(SceneInput&, std::istream& line, Camera& camera) {
    std::string word;
    ReadQuoted(line, word);
    if (word == "perspective" || word == "pinhole") camera.projection = 0;
    if (word == "spherical" || word == "panorama") camera.projection = 1;
}

// The first two `pose` blocks fill the opening and the closing pose. A third
// is not served: its lines fall to the camera block, whose keywords they are
// not, and its `end` closes the camera.
void readPose(SceneInput& input, std::istream&, Camera& camera) {
    if (camera.poseCount >= 2) return;
    readBlock(input, camera.poses[camera.poseCount], kPose);
    ++camera.poseCount;
}

void readCameraAov(SceneInput& input, std::istream&, Camera& camera) {
    camera.aovs.emplace_back();
    parseAovBlock(input, camera.aovs.back());
}

constexpr CameraKeyword kCamera[] = {
    {"name", [](SceneInput&, std::istream& line, Camera& c) { ReadQuoted(line, c.name); }},
    {"resolution",
     [](SceneInput&, std::istream& line, Camera& c) {
         ReadInt(line, c.width);
         ReadInt(line, c.height);
     }},
    {"region",
     [](SceneInput&, std::istream& line, Camera& c) {
         ReadInt(line, c.regionLeft);
         ReadInt(line, c.regionTop);
         ReadInt(line, c.regionRight);
         ReadInt(line, c.regionBottom);
     }},
    {"sample", [](SceneInput&, std::istream& line, Camera& c) { ReadInt(line, c.sample); }},
    {"ior", [](SceneInput&, std::istream& line, Camera& c) { ReadFloat(line, c.ior); }},
    // Kept with the camera; nothing reads it.
    {"exposure", [](SceneInput&, std::istream& line, Camera& c) { ReadFloats(line, c.exposure, 3); }},
    {"projection", readProjection},
    {"pose", readPose},
    {"aov", readCameraAov},
};

struct ChannelWord {
    const char* word;
    uint32_t bit;
};

// Compared in this order; the first match gives the bit.
constexpr ChannelWord kChannelWords[] = {
    {"lambertian", 4},     {"transmissive", 16},       {"glossy", 64},
    {"specular", 256},     {"lambertian_color", 8},    {"transmissive_color", 32},
    {"glossy_color", 128}, {"specular_color", 512},    {"emissive", 1024},
    {"position", 8192},    {"normal", 2048},           {"tangent", 4096},
    {"depth", 16384},      {"light_path", 2},
};

// The first known word replaces the start value 1 (the beauty bit, which no
// known word has) with its own bit, so that `type "normal"` alone asks for
// normals; later known words add their bits. Any other word names
// per-vertex data and replaces the whole word with the user channel.
void readAovType(SceneInput&, std::istream& line, Aov& aov) {
    std::string type;
    ReadQuoted(line, type);
    const uint32_t bit = aovChannelBit(type);
    if (bit != 0) {
        aov.channel = aov.channel == LV_CHANNEL_BEAUTY ? bit : aov.channel | bit;
    } else {
        aov.channel = 32768;
        aov.userData = type;
    }
}

constexpr AovKeyword kAov[] = {
    {"image", [](SceneInput&, std::istream& line, Aov& a) { ReadQuoted(line, a.image.name); }},
    {"shader", [](SceneInput&, std::istream& line, Aov& a) { ReadQuoted(line, a.shaderFilter); }},
    {"type", readAovType},
};

}  // namespace

uint32_t aovChannelBit(const std::string& type) {
    for (const ChannelWord& c : kChannelWords)
        if (type == c.word) return c.bit;
    return 0;
}

void parseAovBlock(SceneInput& input, Aov& aov) { readBlock(input, aov, kAov); }

void parseCameraBlock(SceneInput& input) {
    Camera camera = defaultCamera();
    readBlock(input, camera, kCamera);
    registry.cameras.push_back(std::move(camera));
}
