// The value holder of all shaders: a constant colour, optionally modulated
// by an image that is read through a sampler.
#pragma once

#include <cstdint>
#include <string>

#include "core/vector.h"

// How an image is read: gamma, colour and uv transforms, wrap and filter.
struct Sampler {
    float gamma = 1.0f;
    float color_matrix[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    float uv_matrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    uint8_t wrapU = 0;            // 0 repeat, 1 clamp
    uint8_t wrapV = 0;
    uint8_t pixel_sampler = 2;    // 0 nearest, 1 stochastic, 2 bilinear
    uint8_t spare = 0;
    uint32_t spareWord = 0;
    bool colorMatrixIdentity = true;
    bool uvMatrixIdentity = true;
};

inline constexpr uint8_t kWrapRepeat = 0;
inline constexpr uint8_t kWrapClamp = 1;
inline constexpr uint8_t kSamplerNearest = 0;
inline constexpr uint8_t kSamplerStochastic = 1;
inline constexpr uint8_t kSamplerBilinear = 2;

struct SurfaceElement {
    Sampler sampler;
    std::string image;
    std::string fresnel_image;
    std::string uv_set;
    Vector direction{0.0f, 0.0f, 0.0f};
    Color color{0.0f, 0.0f, 0.0f};
    Color fresnel{0.0f, 0.0f, 0.0f};
    int32_t imageIndex = -1;
    int32_t fresnelImageIndex = -1;
    int32_t level = 1;
};

// A default element whose colour is the given one; elements differ only in
// their default colour.
inline SurfaceElement elementWithColor(Color color) {
    SurfaceElement element;
    element.color = color;
    return element;
}
