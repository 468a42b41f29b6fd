// The scattering of hair fibres: three lobes, R (reflection at the surface),
// TT (transmission through the fibre) and TRT (one reflection inside), each a
// longitudinal term in closed form times an azimuthal term read from the
// shader's table, and the diffuse term of a lambertian cylinder.
//
// Directions are unit vectors away from the fibre: `view` towards where the
// path came from (the viewer, or the previous hit), `light` towards where
// light is taken from or a new ray goes. Longitudinal angles are measured
// from the plane normal to the tangent, azimuths in that plane.
#pragma once

#include <cstdint>

#include "core/records.h"
#include "shading/shader.h"

// The lobes R, TT and TRT, in that order wherever they are indexed.
inline constexpr int kHairLobes = 3;

// Texels of the table along each axis: azimuth in the columns, the half
// longitudinal difference in the rows.
inline constexpr int kBcsdfSize = 128;

// Fills the derived values of the block (roughness of TT and TRT, variances,
// normalizers, F0) from its R roughness, index and absorption, and integrates
// its four tables, rows in parallel.
void InitializeBcsdf(HairBlock& block);
// One texel: the integrals over the fibre's width of the three azimuthal
// lobes at azimuth `phi` and cosine `c` of the half longitudinal difference,
// with Fresnel and absorption (`colored`, R white) and without (`plain`).
void IntegrateBcsdf(const HairBlock& block, float phi, float c, Color colored[3], Vector& plain);

// The longitudinal term of a lobe with variance v and normalizer n for two
// directions of the given longitudinal cosines and sines.
float longitudinalScattering(float v, float n, float cosA, float sinA, float cosB, float sinB);

// The three lobes for light from `light` seen from `view`: their values per
// solid angle of `light` (the cosine included), and the density at which
// the lobe's sampling draws `light`.
void EvaluateBcsdf(const HairBlock& block, Color colored[3], Vector view, Vector light, Vector tangent,
                   float density[3]);
// The densities alone.
void DensityBcsdf(const HairBlock& block, float density[3], Vector view, Vector light, Vector tangent);

// The uniform numbers that one draw consumes: the lobe choice, the
// longitudinal draw (u, u2) and the Gaussian of the azimuth (u3, u4).
struct BcsdfNumbers {
    uint32_t lobe;
    float u, u2, u3, u4;
};
// Draws a new direction from a fibre seen at the longitudinal angle
// `thetaI` from `view`: `normal` is the unit direction of `view` in the plane
// normal to `tangent`, and `binormal` completes the frame. h in [-1, 1] is
// the offset across the fibre. Returns the lobe; `weight` is the lobe's
// value over the density of the draw.
int SampleBcsdf(const HairBlock& block, Vector& direction, Color& weight, float h, float thetaI, Vector tangent,
                Vector normal, Vector binormal, const BcsdfNumbers& numbers);

// The diffuse term of a fibre: the scattering of a lambertian cylinder,
// per solid angle of `light`, which integrates to 1 over all directions.
float EvaluateDiffuseHair(Vector view, Vector light, Vector tangent);

// What light sampling needs at a fibre hit: the lobes' values and the
// densities at which the fibre's own rays find `light`. A lobe that the
// shader never samples (TT and TRT without all lobes) has density 0, so
// that the light's samples carry it alone.
struct HairLobes {
    Color value[kHairLobes];
    float density[kHairLobes];
};
HairLobes hairLobesAt(const RayState& ray, const HitRecord& hit, Vector light);

// Draws a glossy ray from a fibre hit: the longitudinal numbers from the
// ray's sequence at `index`, the lobe, the offset across the fibre and the
// azimuth's Gaussian from the hardware source. Returns the lobe.
int sampleFibre(const RayState& ray, const HitRecord& hit, uint32_t index, Vector& direction, Color& weight);
