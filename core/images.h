// The image list, reading image files, and texture lookups.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/records.h"
#include "core/sampler.h"

// Index of the image with exactly this name in registry.textures, appended as
// a default record when there is none; -1 for an empty name.
int FindImage(const std::string& name);
// Searches the image paths for the file and reads it. 0 for an empty name or
// a file that was not found, 1 when the image is (or already was) loaded.
int LoadImage(ImageRecord& image);

// RGB of one pixel; index counts pixels. Alpha is never returned.
Color FetchPixel(const ImageRecord& image, int index);
// The filtered, gamma-corrected and colour-transformed texel at uv.
void LookupTexture(const ImageRecord& image, Color& rgb, const float uv[2], const SurfaceElement& element);

// One pixel in RGBE form: mantissas in the low three bytes, exponent on top.
uint32_t packRgbe(Color rgb);

// The bit of element `element` in a 1-bit store.
inline bool storedBit(const ImageRecord& image, size_t element) {
    return (image.bitStore[element >> 3] >> (element & 7)) & 1;
}

// v truncated toward zero and kept to its low 8 bits, so negatives wrap.
// Values beyond the range of a 64-bit integer, and NaN, give 0.
inline uint8_t wrappedByte(double v) {
    return v > -9e18 && v < 9e18 ? uint8_t(int64_t(v)) : uint8_t(0);
}

// The three ways a shader reads an element at a surface uv.
// Colour: `color`, times the image when there is one.
Color elementColor(const SurfaceElement& element, const float uv[2]);
// As elementColor; true when a channel of the result is above the cut-off.
bool elementColorTest(const SurfaceElement& element, const float uv[2], Color& rgb);
// Displacement: `color`, or (texel - 0.5) times `color` with an image.
Vector elementVector(const SurfaceElement& element, const float uv[2]);

// Loads every texture the shaders name; releases them all.
void prepareTextures();
void releaseTextures();
