// The records that the spine of the renderer passes around: cameras with
// their poses, output images, rasters in memory, ray state and hit records.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "core/vector.h"

struct Part;
struct SurfaceShader;

// A raster in memory. Exactly one store holds the pixels, row after row,
// channels interleaved; row 0 is the bottom line of the picture.
struct ImageRecord {
    uint8_t loaded = 0;
    std::vector<uint8_t> bitStore;     // one bit a channel, packed eight to a byte
    std::vector<uint8_t> byteStore;
    std::vector<uint16_t> shortStore;
    std::vector<float> floatStore;
    std::vector<double> doubleStore;
    std::vector<uint32_t> rgbeStore;   // r, g, b mantissas then the exponent, low byte first
    std::string name;
    int32_t bits = 32;
    int32_t channels = 3;
    int32_t width = 0;
    int32_t height = 0;
    bool usesRgbe = false;
    bool wantsRgbe = true;
};

// Sizes the store that the bit depth selects (or the RGBE store) and clears it.
// A non-positive size leaves the store as it was; the loaded flag is cleared.
void SizeImage(ImageRecord& image, int width, int height, int channels, int bits, bool useRgbe);
// Encodes the three channels of one pixel by the image's bit depth.
void StorePixel(ImageRecord& image, int index, Color rgb);
// Reads back the three channels of one pixel that StorePixel wrote.
Color storedPixel(const ImageRecord& image, int index);
// Bytes held by all stores of an image.
uint32_t imageBytes(const ImageRecord& image);

// One output image and the rule for what goes into it.
struct Aov {
    std::string shaderFilter;
    std::string userData = "undefined";
    ImageRecord image;
    int shaderIndex = -1;
    int width = 0, height = 0;
    uint32_t channel = 1;
};

struct CameraPose {
    Vector right, forward, up;
    float basis[9];       // row i: component i of right, forward, up
    Vector position, target, upVector;
    float bokeh;
    float targetDistance;
    float planeDistance;
    float fieldOfView;    // horizontal, degrees
};

struct Camera {
    float inverseSample = 1.0f / 17.0f;
    uint8_t moving = 0;
    std::vector<Aov> aovs;
    uint8_t projection = 0;
    uint8_t angleMeasure = 0;
    int currentPose = 0;
    CameraPose poses[2]{};
    std::string name;
    float exposure[3] = {1.0f, 1.0f, 1.0f};
    int poseCount = 0;
    int width = 960, height = 540;
    int sample = 17;
    int regionLeft = 0, regionRight = 1048576, regionBottom = 1048576, regionTop = 0;
    float ior = 1.0f;
};

// A camera in its default state, with its beauty AOV "beauty.hdr".
Camera defaultCamera();

// The state of one ray along a path.
struct RayState {
    // The key of the pixel's sample sequence; 0 on photon paths, which draw
    // from the plain Halton sequence.
    uint32_t sequence_key;
    uint32_t sample_index;
    uint32_t dimension;
    Vector origin;
    Vector direction;
    Vector inverse_direction;
    Vector barycentric;
    float t;
    Color throughput;
    Color power;
    const void* parent_hit;   // the HitRecord the ray left from, or the emitting light of a photon
    const Part* part;
    float ior;
    uint32_t split;
    uint32_t shader;
    uint32_t primitive;
    uint8_t kind;
    uint8_t hair_lobe;
    uint32_t previous_shader;
    uint32_t previous_primitive;
    uint8_t previous_kind;
    uint8_t previous_hair_lobe;
    // The rest of the parent hit's identity: its part and the chain of
    // instances through which the ray reached it.
    const Part* previous_part;
    uint64_t previous_path;
    // The chain of instances that a walk is inside now, and that of the hit.
    uint64_t instance_path;
    uint64_t hit_path;
    uint8_t earlier_lobe, lobe;
    uint8_t thread;
    uint8_t depth;
    uint8_t diffuse_bounces, glossy_bounces, specular_bounces;
    uint8_t instance_depth;
    uint8_t hit_instance_depth;
    uint8_t front;
    uint8_t photon_path;
    uint8_t caustic;
    uint8_t gatherable;
};

inline constexpr uint32_t kNoPrimitive = 0xFFFFFFFFu;
inline constexpr uint8_t kKindNotAsked = 255;

// The start values of a fresh ray: no hit yet, zero path distance. Inline,
// since every ray begins here and most of it is overwritten at once.
inline RayState freshRay() {
    RayState ray{};
    ray.primitive = kNoPrimitive;
    ray.kind = kKindNotAsked;
    ray.previous_primitive = kNoPrimitive;
    ray.throughput = one;
    return ray;
}

// What a ray found at its closest hit, shaded.
struct HitRecord {
    Vector tangent, bitangent, normal;
    Vector geometric_normal;
    Vector position;
    Vector out_direction;
    float uv[2];
    float alpha[2];
    Color lambertian, transmissive, glossy, specular, diffusion;
    float fresnel, fresnel_complement, eta, cos_out;
    float fibre_width;
    // What sizes the first hit's share of every light's samples: the mean
    // colour of the brightest class that takes light, times the sum of the
    // ray's throughput. Rays that leave the hit read it back to weigh the
    // light they find against the samples that the hit took.
    float light_weight;
    const SurfaceShader* layer;
    uint8_t terminal;
    uint8_t material, visibility, virtual_light;
    uint8_t has_lambertian, has_transmissive, has_glossy, has_specular, has_diffusion;
};

// The medium behind a surface, or the sky's air.
struct VolumeShader {
    Color albedo{0.0f, 0.0f, 0.0f};
    Color transmittance{1.0f, 1.0f, 1.0f};   // per unit of length
    float average_cosine = 0.0f;
    uint32_t medium_id = 0;
};

// Absorption of a medium: -ln of its transmittance per channel, where the
// logarithm of a value below 1e-10 counts as -10.
inline Color volumeAbsorption(const VolumeShader& volume) {
    auto absorb = [](float t) { return t < 1e-10f ? 10.0f : -std::log(t); };
    return {absorb(volume.transmittance.x), absorb(volume.transmittance.y), absorb(volume.transmittance.z)};
}

// The shaders a light reaches. Indices come from the exported link setters
// and from the names of `link` blocks, resolved at preparation; an empty
// index list lights everything.
struct ShaderLink {
    std::vector<int> indices;
    std::vector<std::string> names;
};
