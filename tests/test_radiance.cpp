// The radiance of camera paths in small scenes with known answers: furnaces,
// emitters seen directly and in a mirror, a glass slab and absorption by
// media.
#include <cmath>

#include "radiance_scene.h"

namespace {

// Inside a closed box that emits E and reflects a everywhere, each bounce
// adds E a^k until the bounce budget or the throughput cut-off ends the path.
TEST_F(RadianceScene, ClosedFurnaceSumsBouncesUpToTheBudget) {
    for (int bounce : {1, 16}) {
        lvSetRendererSample(4), lvSetRendererBounce(bounce), lvSetRendererRayDepth(16);
        block(-one, one, shader(one * 0.5f, one * 0.5f), true);
        camera({0, 0, 0.2f}, {0, 0, -1}, 60.0f, 8, 1);
        // One bounce: E + a E. Sixteen: the throughput a^10 = 2^-10 is cut,
        // which leaves ten terms E a^k.
        const float expected = bounce == 1 ? 0.75f : 1.0f - std::ldexp(1.0f, -10);
        expectMean(render(), 0, 8, one * expected, 1e-5f);
        restart();
    }
}

// A specular layer over a black base reflects colour x Schlick F(cos) of its
// index times the emitter it sees; at an index of 1 it reflects nothing.
TEST_F(RadianceScene, SpecularLayerReflectsSchlickFresnel) {
    for (float ior : {1.5f, 1.0f}) {
        SCOPED_TRACE(ior);
        quad({-10, 0, -10}, {-10, 0, 10}, {10, 0, 10}, {10, 0, -10}, specular(0.8f, ior, LV_MATERIAL_OPAQUE));
        quad({-60, 0, -20}, {-60, 80, -20}, {60, 80, -20}, {60, 0, -20}, shader(zero, {5, 5, 5}));
        camera({0, 5, 5}, {0, 0, 0}, 2.0f, 8, 1);   // 45 degrees to the mirror
        const float F = ior == 1.0f ? 0.0f : 0.04f + std::pow(1.0f - std::sqrt(0.5f), 5.0f) * 0.96f;
        expectMean(render(), 2, 6, one * (5.0f * 0.8f * F), 0.005f);
        restart();
    }
}

// A glass slab of index 1.5 seen head on passes (1 - F)^2 of the lamp behind
// it, plus the inner reflections (F^2 each round trip), with F = 0.04. Its
// medium absorbs pow(T, t) per channel over the thickness; outside, the air's
// medium does the same over the whole way. A thin sheet lets the light through
// unbent, less its summed reflectance: 1 - 2F / (1 + F).
TEST_F(RadianceScene, GlassSlabPassesFresnelAndAbsorbsByItsMedium) {
    const float F = 0.04f, C = 1.0f - F;
    const Color T{0.5f, 0.8f, 1.0f}, inside = T * T, thrice = inside * inside * inside;   // two units of glass
    const Color air{std::pow(0.9f, 8.0f), std::pow(0.95f, 8.0f), 1.0f};   // 6 units before, 2 after
    const struct { Material material; Color glassMedium, airMedium, expected; } cases[] = {
        {LV_MATERIAL_SOLID, one, one, one * (C * C * (1.0f + F * F))},
        {LV_MATERIAL_SOLID, T, one, (inside + thrice * (F * F)) * (C * C)},
        {LV_MATERIAL_SOLID, one, {0.9f, 0.95f, 1.0f}, air * (C * C * (1.0f + F * F))},
        {LV_MATERIAL_THIN, one, one, one * ((1.0f - F) / (1.0f + F))},
    };
    for (const auto& c : cases) {
        const int glass = specular(1.0f, 1.5f, c.material);
        registry.shaders[size_t(glass)].volume.transmittance = c.glassMedium;
        registry.skyLight.medium.transmittance = c.airMedium;
        square(0.0f, 10.0f, glass);
        if (c.material == LV_MATERIAL_SOLID) square(-2.0f, 10.0f, glass, false);
        square(-4.0f, 30.0f, shader(zero, {1, 1, 1}));
        camera({0, 0, 6}, {0, 0, 0}, 2.0f, 8, 1);
        expectMean(render(), 2, 6, c.expected, 0.005f);
        restart();
    }
}

}  // namespace
