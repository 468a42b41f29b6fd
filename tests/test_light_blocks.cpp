#include "lights/lights.h"
// The four light blocks with their link and aov blocks.
#include <gtest/gtest.h>

#include "scene_fixture.h"

namespace {

using Floats = std::vector<float>;
using Names = std::vector<std::string>;
using LightBlocks = SceneTest;

Floats axisOf(const float frame[9]) { return {frame[6], frame[7], frame[8]}; }

// A link and an aov block in the middle of a light block: their `end` lines
// must not close the light, so the keyword after them still counts.
const std::string kNested =
    " link\n  shader \"glass\"\n  shader \"glass\"\n  shader \"wood\"\n end\n"
    " aov\n  image \"lamp.hdr\"\n  type \"lambertian\"\n  type \"light_path\"\n end\n";

}  // namespace

TEST_F(LightBlocks, PointLightKeywordsFillTheAppendedRecord) {
    readScene("point_light\n position 1 2 3\nend\n"
              "point_light\n color 2 3 4\n position 5 6 7\n blur 0.5\n sample 8\n photon 3000000000\n"
              " direction 0 0 -1\n inner_angle 10\n outer_angle 40\n" +
              kNested + " offset 0.25\n ior 1.5\nend\n");
    ASSERT_EQ(registry.pointLights.size(), 2u);
    EXPECT_EQ(registry.pointLights[0].position, (Vector{1, 2, 3}));
    const PointLight& p = registry.pointLights[1];
    EXPECT_EQ(p.color, (Color{2, 3, 4}));
    EXPECT_EQ(p.position, (Vector{5, 6, 7}));
    EXPECT_EQ(p.direction, (Vector{0, 0, -1}));
    EXPECT_EQ((Floats{p.blur, p.innerAngle, p.outerAngle, p.offset, p.ior}), (Floats{0.5f, 10, 40, 0.25f, 1.5f}));
    EXPECT_EQ(p.sample, 8);
    EXPECT_EQ(p.photon, 3000000000LL);   // read in full
    EXPECT_EQ(p.link.names, (Names{"glass", "glass", "wood"}));
    EXPECT_TRUE(p.link.indices.empty());
    ASSERT_EQ(p.aovs.size(), 1u);
    EXPECT_EQ(p.aovs[0].image.name, "lamp.hdr");
    EXPECT_EQ(p.aovs[0].channel, 4u + 2);
}

TEST_F(LightBlocks, ParallelLightKeywordsFillTheAppendedRecord) {
    readScene("parallel_light\n color 0.5 0.5 0.5\n blur 2\n sample 4\n photon 3000000000\n direction 1 -1 0\n" +
              kNested + " ior 1.2\n offset 0.05\nend\n");
    ASSERT_EQ(registry.parallelLights.size(), 1u);
    const ParallelLight& l = registry.parallelLights[0];
    EXPECT_EQ(l.color, (Color{0.5f, 0.5f, 0.5f}));
    EXPECT_EQ(axisOf(l.frame), (Floats{1, -1, 0}));
    EXPECT_EQ((Floats{l.blur, l.ior, l.offset}), (Floats{2, 1.2f, 0.05f}));
    EXPECT_EQ(l.sample, 4);
    EXPECT_EQ(l.photon, 3000000000LL);
    EXPECT_EQ(l.link.names, (Names{"glass", "glass", "wood"}));
    ASSERT_EQ(l.aovs.size(), 1u);
    EXPECT_EQ(l.aovs[0].channel, 4u + 2);
}

TEST_F(LightBlocks, UnsetKeywordsKeepTheDefaults) {
    readScene("point_light\n link\n end\nend\nparallel_light\nend\ngeometry_light\nend\nsky_light\n link\n end\nend\n");
    const PointLight& p = registry.pointLights.at(0);
    EXPECT_EQ(p.color, (Color{1, 1, 1}));
    EXPECT_EQ(p.direction, (Vector{0, 1, 0}));
    EXPECT_EQ((Floats{p.blur, p.innerAngle, p.outerAngle, p.offset, p.ior}), (Floats{0, 0, 180, 0.1f, 1}));
    EXPECT_EQ((std::vector<int64_t>{p.photon, p.sample}), (std::vector<int64_t>{0, 1}));
    EXPECT_TRUE(p.link.names.empty());   // a link without shaders lights everything
    EXPECT_TRUE(p.aovs.empty());
    const ParallelLight& l = registry.parallelLights.at(0);
    EXPECT_EQ((Floats{l.blur, l.offset, l.ior}), (Floats{0, 0.1f, 1}));
    EXPECT_EQ(l.photon, 0);
    EXPECT_EQ((std::vector<int>{registry.geometryLight.photon, registry.geometryLight.sample, registry.skyLight.photon,
                                registry.skyLight.sample}),
              (std::vector<int>{1000000, 0, 1000000, 64}));
    EXPECT_EQ(axisOf(registry.skyLight.frame), (Floats{0, 0, 1}));
    EXPECT_TRUE(registry.skyLightLink.names.empty());
    EXPECT_EQ(registry.skyLight.image.name, "");
}

TEST_F(LightBlocks, GeometryAndSkyBlocksWriteTheGlobalSettings) {
    readScene("geometry_light\n photon 5000\n sample 3\n" + kNested + " sample 4\nend\n"
              "geometry_light\n aov\n end\nend\n"
              "sky_light\n image \"sky map.hdr\"\n backdrop \"wall.png\"\n color 1 2 3\n photon 700\n"
              " north 0 2 0.5\n zenith 0 0 3\n volume_shader\n  albedo 0.1 0.2 0.3\n  transmittance 0.5 0.5 0.5\n end\n"
              " sample 16\n thickness 20\n turbidity 3\n stretch 5\n albedo 0.4\n" +
              kNested + " ior 1.1\nend\n");
    const GeometryLightValues& g = registry.geometryLight;
    EXPECT_EQ((std::vector<int>{g.photon, g.sample}), (std::vector<int>{5000, 4}));
    EXPECT_EQ(registry.geometryLightAOVs.size(), 2u);   // later blocks add to the list
    EXPECT_EQ(registry.geometryLightLink.names, (Names{"glass", "glass", "wood"}));

    const SkyLightValues& s = registry.skyLight;
    EXPECT_EQ((Names{s.image.name, s.backdrop.name}), (Names{"sky map.hdr", "wall.png"}));
    EXPECT_EQ(s.color, (Color{1, 2, 3}));
    EXPECT_EQ((std::vector<int>{s.photon, s.sample}), (std::vector<int>{700, 16}));
    EXPECT_EQ(Floats(s.frame, s.frame + 9), (Floats{1, 0, 0, 0, 2, 0.5f, 0, 0, 3}));   // north and zenith as given
    EXPECT_EQ(s.medium.albedo, (Color{0.1f, 0.2f, 0.3f}));
    EXPECT_EQ(s.medium.transmittance, (Color{0.5f, 0.5f, 0.5f}));
    EXPECT_EQ((Floats{s.thickness, registry.skyLightTurbidity, registry.skyLightStretch, registry.skyLightAlbedo,
                      s.ior}),
              (Floats{20, 3, 5, 0.4f, 1.1f}));
    EXPECT_EQ(registry.skyLightAOVs.size(), 1u);
    EXPECT_EQ(registry.skyLightLink.names, (Names{"glass", "glass", "wood"}));
}

// The sky and the geometry light count photons in an int: a number past its
// range fails the line and keeps what was there.
TEST_F(LightBlocks, PhotonPastTheIntRangeIsKeptOnlyByDeltaLights) {
    readScene("sky_light\n photon 3000000000\nend\ngeometry_light\n photon 3000000000\nend\n"
              "point_light\n photon 3000000000\nend\n");
    EXPECT_EQ(registry.skyLight.photon, 1000000);
    EXPECT_EQ(registry.geometryLight.photon, 1000000);
    EXPECT_EQ(registry.pointLights.at(0).photon, 3000000000LL);
}
