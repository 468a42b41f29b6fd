// The appearance record of the system, known by index into registry.shaders:
// surface layers that scatter and emit, a geometry shader that displaces,
// smooths, clips and hides, the medium behind the surface, and the hair
// tables. The geometry reads its block as the shading reads the layers, so
// the record stands under both.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "core/constants.h"
#include "core/records.h"
#include "core/sampler.h"
#include "core/vector.h"

// Sides of a surface, as indices of the per-side arrays of a Shader; they are
// also the one-sided values of a layer's sideness.
inline constexpr int kFaceSide = 0;
inline constexpr int kBackSide = 1;
inline constexpr uint8_t kSidenessBoth = 2;

// Layers a side can hold.
inline constexpr int kMaxSideLayers = 16;
inline constexpr int kElementCount = 16;

// The parameters and azimuthal tables of the hair model. Every layer carries
// one as well; only the shader's own is used.
struct HairBlock {
    float angle[3] = {10.0f * kDegree, 20.0f * kDegree, 30.0f * kDegree};  // roughness of R, TT, TRT
    float ior = 1.55f;
    Color absorption{0.01f, 0.02f, 0.01f};
    float unused = 0.0f;
    ImageRecord BcsdfImage0;   // plain integrals of R, TT, TRT
    ImageRecord BcsdfImage1;   // coloured integrals of R, TT, TRT
    ImageRecord BcsdfImage2;
    ImageRecord BcsdfImage3;
    float variance[3] = {0.0f, 0.0f, 0.0f};
    float normalizer[3] = {0.0f, 0.0f, 0.0f};
    float F0 = 0.0f;
    bool allLobes = false;
};

// The default colour of each element of a layer: white for `normal`, `ior`
// and element 13, black for the rest.
inline Color defaultElementColor(int element) {
    return element == 7 || element == 12 || element == 13 ? one : zero;
}

// One surface layer.
struct SurfaceShader {
    HairBlock hairBlock;
    SurfaceElement elements[kElementCount] = {
        elementWithColor(defaultElementColor(0)),  elementWithColor(defaultElementColor(1)),
        elementWithColor(defaultElementColor(2)),  elementWithColor(defaultElementColor(3)),
        elementWithColor(defaultElementColor(4)),  elementWithColor(defaultElementColor(5)),
        elementWithColor(defaultElementColor(6)),  elementWithColor(defaultElementColor(7)),
        elementWithColor(defaultElementColor(8)),  elementWithColor(defaultElementColor(9)),
        elementWithColor(defaultElementColor(10)), elementWithColor(defaultElementColor(11)),
        elementWithColor(defaultElementColor(12)), elementWithColor(defaultElementColor(13)),
        elementWithColor(defaultElementColor(14)), elementWithColor(defaultElementColor(15)),
    };
    int32_t spare[2] = {0, 0};
    uint8_t sideness = kSidenessBoth;   // 0 face, 1 back, 2 both
    uint8_t material = 0;               // 0 opaque, 1 solid, 2 thin
    bool virtual_light = false;
    bool window = false;

    // Derived by preparation.
    bool needs_uv = false;          // some element has an image
    bool needs_tangent = false;     // normal mapped or anisotropic
    bool has_angle = false;         // tangent frame and a rotation angle
    bool has_normal_image = false;  // the normal element has an image
    bool has_roughness = false;     // glossy with a roughness
    bool has_anisotropy = false;    // rough glossy with an anisotropy
    bool scatter_reserved = false;  // left for the scatter stage
    bool lambert_like = false;      // lambertian or transmissive
    bool gloss_like = false;        // glossy or specular
    bool matte_only = false;        // no image, no gloss
    bool has_diffusion = false;
    bool has_lambertian = false;
    bool has_transmissive = false;
    bool has_glossy = false;
    bool has_specular = false;
    bool has_diffusion_color = false;
};

// Displacement, smoothing, clipping and visibility of a shader's surfaces.
struct GeometryShader {
    std::vector<SurfaceElement> radius;
    std::vector<SurfaceElement> length;
    std::vector<SurfaceElement> vector;
    std::vector<SurfaceElement> height;
    std::vector<SurfaceElement> unusedList;
    SurfaceElement clip = elementWithColor(one);
    float spare = 0.0f;
    float smooth_angle = -1.0f;     // negative: no smoothing
    float round_corner = 1.0f;
    float reduction = 3.4e38f;
    uint8_t visibility = 3;         // Visibility of the exported interface
    bool flip_face = false;
    bool assign_hair_texture_uv = false;
    bool trivial_connection = false;
    bool hasClipImage = false;      // derived
};

struct Shader {
    uint8_t prepared = 0;
    uint8_t hair = 0;                 // set when strands use this shader
    std::string name = "undefined";
    HairBlock hairBlock;
    GeometryShader geometry;
    VolumeShader volume;

    // Derived: the layers that serve each side, in layer order.
    int32_t layerCount[2] = {0, 0};
    uint8_t layerList[2][kMaxSideLayers] = {};

    std::vector<SurfaceShader> layers;
    float opacity = 1.0f;

    // Derived per side (kFaceSide, kBackSide).
    bool hasVirtualLight[2] = {false, false};
    bool emits[2] = {false, false};
    bool hasLambertian[2] = {false, false};
    bool hasTransmissive[2] = {false, false};
};
