#include "lights/lights.h"
// The four light blocks with their link and aov blocks.
#include <gtest/gtest.h>

#include <functional>

#include "scene_fixture.h"

namespace {

using Values = std::vector<double>;
using Names = std::vector<std::string>;
using LightBlocks = SceneTest;

Values values(Vector v) { return {v.x, v.y, v.z}; }
const PointLight& point() { return registry.pointLights.back(); }
const ParallelLight& parallel() { return registry.parallelLights.back(); }

// A link and an aov block before the keyword of a row: their `end` lines
// must not close the light, so the keyword after them still counts.
const std::string kNested =
    " link\n  shader \"glass\"\n  shader \"glass\"\n  shader \"wood\"\n end\n"
    " aov\n  image \"lamp.hdr\"\n  type \"lambertian\"\n  type \"light_path\"\n end\n";

}  // namespace

TEST_F(LightBlocks, EachKeywordFillsItsField) {
    const SkyLightValues& sky = registry.skyLight;
    const struct {
        const char* block;
        const char* line;
        std::function<Values()> field;
        Values expected;
    } rows[] = {
        {"point_light", "color 2 3 4", [] { return values(point().color); }, {2, 3, 4}},
        {"point_light", "position 5 6 7", [] { return values(point().position); }, {5, 6, 7}},
        {"point_light", "direction 0 0 -1", [] { return values(point().direction); }, {0, 0, -1}},
        {"point_light", "blur 0.5", [] { return Values{point().blur}; }, {0.5}},
        {"point_light", "sample 8", [] { return Values{double(point().sample)}; }, {8}},
        {"point_light", "photon 3000000000", [] { return Values{double(point().photon)}; }, {3e9}},   // read in full
        {"point_light", "inner_angle 10", [] { return Values{point().innerAngle}; }, {10}},
        {"point_light", "outer_angle 40", [] { return Values{point().outerAngle}; }, {40}},
        {"point_light", "offset 0.25", [] { return Values{point().offset}; }, {0.25}},
        {"point_light", "ior 1.5", [] { return Values{point().ior}; }, {1.5}},
        {"parallel_light", "color 0.5 0.5 0.5", [] { return values(parallel().color); }, {0.5, 0.5, 0.5}},
        {"parallel_light", "direction 1 -1 0", [] { return Values(parallel().frame + 6, parallel().frame + 9); },
         {1, -1, 0}},
        {"parallel_light", "blur 2", [] { return Values{parallel().blur}; }, {2}},
        {"parallel_light", "sample 4", [] { return Values{double(parallel().sample)}; }, {4}},
        {"parallel_light", "photon 3000000000", [] { return Values{double(parallel().photon)}; }, {3e9}},
        {"parallel_light", "ior 1.25", [] { return Values{parallel().ior}; }, {1.25}},
        {"parallel_light", "offset 0.5", [] { return Values{parallel().offset}; }, {0.5}},
        {"geometry_light", "photon 5000", [] { return Values{double(registry.geometryLight.photon)}; }, {5000}},
        {"geometry_light", "sample 3", [] { return Values{double(registry.geometryLight.sample)}; }, {3}},
        {"sky_light", "color 1 2 3", [&] { return values(sky.color); }, {1, 2, 3}},
        {"sky_light", "photon 700", [&] { return Values{double(sky.photon)}; }, {700}},
        {"sky_light", "sample 16", [&] { return Values{double(sky.sample)}; }, {16}},
        {"sky_light", "north 0 2 0.5", [&] { return Values(sky.frame + 3, sky.frame + 6); }, {0, 2, 0.5}},
        {"sky_light", "zenith 0 0 3", [&] { return Values(sky.frame + 6, sky.frame + 9); }, {0, 0, 3}},
        {"sky_light", "thickness 20", [&] { return Values{sky.thickness}; }, {20}},
        {"sky_light", "turbidity 3", [] { return Values{registry.skyLightTurbidity}; }, {3}},
        {"sky_light", "stretch 5", [] { return Values{registry.skyLightStretch}; }, {5}},
        {"sky_light", "albedo 0.5", [] { return Values{registry.skyLightAlbedo}; }, {0.5}},
        {"sky_light", "ior 1.5", [&] { return Values{sky.ior}; }, {1.5}},
        {"sky_light", "volume_shader\n  albedo 0.25 0.5 1\n end", [&] { return values(sky.medium.albedo); }, {0.25, 0.5, 1}},
        {"sky_light", "volume_shader\n  transmittance 0.5 0.5 0.25\n end",
         [&] { return values(sky.medium.transmittance); }, {0.5, 0.5, 0.25}},
    };
    for (const auto& row : rows) {
        readScene(std::string(row.block) + "\n" + kNested + " " + row.line + "\nend\n");
        EXPECT_EQ(row.field(), row.expected) << row.block << ": " << row.line;
    }

    // Each block took the link and the aov that came before its keyword; the
    // global lights' lists add up, block after block.
    const Names linked = {"glass", "glass", "wood"};
    EXPECT_EQ(point().link.names, linked);
    EXPECT_TRUE(point().link.indices.empty());
    EXPECT_EQ(parallel().link.names, linked);
    for (const std::vector<Aov>* aovs : {&point().aovs, &parallel().aovs}) {
        ASSERT_EQ(aovs->size(), 1u);
        EXPECT_EQ(aovs->back().channel, uint32_t(LV_CHANNEL_LAMBERTIAN | LV_CHANNEL_LIGHT_PATH));
    }
    EXPECT_EQ(point().aovs.back().image.name, "lamp.hdr");
    EXPECT_EQ((std::vector<size_t>{registry.geometryLightAOVs.size(), registry.geometryLightLink.names.size(),
                                   registry.skyLightAOVs.size(), registry.skyLightLink.names.size()}),
              (std::vector<size_t>{2, 2 * 3, 12, 12 * 3}));

    readScene("sky_light\n image \"sky map.hdr\"\n backdrop \"wall.png\"\nend\n");
    EXPECT_EQ((Names{sky.image.name, sky.backdrop.name}), (Names{"sky map.hdr", "wall.png"}));
}

// The sky and the geometry light count photons in an int: a number past its
// range fails the line and keeps what was there.
TEST_F(LightBlocks, PhotonPastTheIntRangeIsKeptOnlyByDeltaLights) {
    readScene("sky_light\n photon 3000000000\nend\ngeometry_light\n photon 3000000000\nend\n");
    EXPECT_EQ(registry.skyLight.photon, 1000000);
    EXPECT_EQ(registry.geometryLight.photon, 1000000);
}
