// Shader blocks of scene files, preparation of shaders with its derived
// flags, and the choice of a layer by weight.
#include <gtest/gtest.h>

#include "core/random.h"
#include "scene_fixture.h"
#include "shading/shader.h"

using ShaderTest = SceneTest;

TEST_F(ShaderTest, BlocksReplaceRecordsByName) {
    const int wood = FindShader("wood");   // mentioned before its definition
    readScene(
        "shader\n name \"wood\"\n opacity 0.5\n surface_shader\n  lambertian\n   color 1 0 0\n  end\n end\nend\n"
        "shader\n surface_shader\n  emissive\n   color 2 2 2\n  end\n end\nend\n"
        "shader\n name \"wood\"\n"
        " surface_shader\n  sideness back\n  window 2\n  virtual_light 1\n"
        "  glossy\n   color 0.5 0.5 0.5\n   image \"grain.png\"\n"
        "   sampler\n    pixel_sampler \"stochastic\"\n    uv_matrix 1 2 3 4 5 6 7 8\n    lambertian\n   end\n"
        "  end\n end\n"
        " surface_shader\n  sideness \"face\"\n  window 1\n end\n"
        " geometry_shader\n  vector\n   color 1 0 0\n  end\n  vector\n   level 3\n  end\n"
        "  light_primary 0\n  camera_primary 1\n end\n"
        " volume_shader\n  transmittance 0.5 0.25 1\n  medium_id 7\n"   // no end: takes the shader's
        "end\n");

    ASSERT_EQ(registry.shaders.size(), 2u);
    // A block without a name replaces the default shader.
    EXPECT_EQ(registry.shaders[0].name, "undefined");
    ASSERT_EQ(registry.shaders[0].layers.size(), 1u);
    EXPECT_EQ(registry.shaders[0].layers[0].elements[4].color, (Color{2, 2, 2}));
    EXPECT_EQ(registry.shaders[0].layers[0].elements[0].color, zero);

    // The second "wood" replaces the first wholesale, at the index of the mention.
    const Shader& s = registry.shaders[size_t(wood)];
    EXPECT_TRUE(s.name == "wood" && s.opacity == 1.0f);
    ASSERT_EQ(s.layers.size(), 2u);
    const SurfaceShader& back = s.layers[0];
    EXPECT_EQ((std::vector<Color>{back.elements[0].color, back.elements[12].color}), (std::vector<Color>{zero, one}));
    EXPECT_EQ(back.sideness, 2);   // an unquoted word reads as nothing
    EXPECT_EQ((std::vector<bool>{back.window, back.virtual_light, s.layers[1].window}), (std::vector<bool>{false, true, true}));
    EXPECT_EQ(s.layers[1].sideness, 0);
    EXPECT_EQ(back.elements[2].image, "grain.png");
    const Sampler& sampler = back.elements[2].sampler;
    EXPECT_EQ(sampler.pixel_sampler, kSamplerStochastic);
    EXPECT_EQ((std::vector<float>{sampler.uv_matrix[7], sampler.uv_matrix[8]}), (std::vector<float>{8.0f, 1.0f}));
    EXPECT_FALSE(sampler.uvMatrixIdentity);
    EXPECT_TRUE(sampler.colorMatrixIdentity);

    ASSERT_EQ(s.geometry.vector.size(), 2u);
    EXPECT_EQ(s.geometry.vector[0].color, (Color{1, 0, 0}));
    EXPECT_EQ((std::vector<int>{s.geometry.vector[1].level, s.geometry.visibility}), (std::vector<int>{3, 1}));
    EXPECT_EQ(s.volume.transmittance, (Color{0.5f, 0.25f, 1.0f}));
    EXPECT_EQ(s.volume.medium_id, 7u);
}

TEST_F(ShaderTest, PreparationDerivesFlags) {
    registry.textures.emplace_back().name = "glow.png";
    registry.textures.back().loaded = 1;

    auto addLayer = [](int shader, Element element, float value) {
        const int layer = lvAddSurfaceShader(shader);
        lvSetSurfaceColor(shader, layer, element, value, value, value);
        return layer;
    };
    const int faint = lvAddShader();   // one face layer, barely emissive
    const int faintLayer = addLayer(faint, LV_ELEMENT_EMISSIVE, 0.0005f);
    lvSetSurfaceColor(faint, faintLayer, LV_ELEMENT_LAMBERTIAN, 0.5f, 0.5f, 0.5f);
    lvSetSurfaceSideness(faint, faintLayer, LV_SIDENESS_FACE);
    const int imaged = lvAddShader();   // a bright image on a black emission
    const int imagedLayer = addLayer(imaged, LV_ELEMENT_EMISSIVE, 0.0f);
    lvSetSurfaceImage(imaged, imagedLayer, LV_ELEMENT_EMISSIVE, "glow.png", 2.2f, nullptr, nullptr);
    const float uvMatrix[3][3] = {{2, 0, 0}, {0, 2, 0}, {0, 0, 1}};
    lvSetSurfaceImage(imaged, imagedLayer, LV_ELEMENT_NORMAL, "glow.png", 1.0f, nullptr, uvMatrix);
    lvSetSurfaceColor(imaged, imagedLayer, LV_ELEMENT_ANGLE, 0.25f, 0.25f, 0.25f);
    const int gloss = lvAddShader();   // a round corner past its limit of 1
    addLayer(gloss, LV_ELEMENT_GLOSSY, 0.5f);
    lvSetShaderRoundCorner(gloss, 5.0f);
    const int oak = FindShader("oak");   // named, never defined

    quietly(lvInitializeShaders);

    // A one-sided shader gets a black back layer of its own.
    const Shader& f = registry.shaders[size_t(faint)];
    ASSERT_EQ(f.layers.size(), 2u);
    EXPECT_EQ(f.layers[1].sideness, LV_SIDENESS_BACK);
    EXPECT_EQ(f.layers[1].elements[0].color, zero);
    EXPECT_EQ((std::vector<bool>{f.emits[kFaceSide], f.hasLambertian[kFaceSide], f.hasLambertian[kBackSide],
                                 f.layers[0].matte_only}),
              (std::vector<bool>{false, true, false, true}));

    const Shader& i = registry.shaders[size_t(imaged)];
    const SurfaceShader& il = i.layers[0];
    EXPECT_EQ(il.elements[4].imageIndex, 0);
    EXPECT_FALSE(i.emits[kFaceSide] || i.emits[kBackSide]);
    // A matrix handed to the exported setter is kept but not switched on.
    EXPECT_EQ(il.elements[7].sampler.uv_matrix[0], 2.0f);
    EXPECT_TRUE(il.elements[7].sampler.uvMatrixIdentity);

    EXPECT_EQ(registry.shaders[size_t(gloss)].geometry.round_corner, 1.0f);

    // An undefined name becomes the whole default shader, name and all.
    const Shader& o = registry.shaders[size_t(oak)];
    EXPECT_EQ(o.name, "undefined");
    ASSERT_EQ(o.layers.size(), 1u);
    EXPECT_EQ(o.layers[0].elements[0].color, (Color{0.85f, 0.85f, 0.85f}));
    EXPECT_TRUE(o.prepared && o.hasLambertian[kBackSide]);
}

TEST_F(ShaderTest, LayerChoiceFollowsWeights) {
    const int shader = lvAddShader();
    const float weights[4][3] = {{1, 1, 1}, {2, 2, 2}, {0, 0, 3}, {50, 50, 50}};
    for (const auto& w : weights) {
        const int layer = lvAddSurfaceShader(shader);
        lvSetSurfaceColor(shader, layer, LV_ELEMENT_WEIGHT, w[0], w[1], w[2]);
    }
    lvSetSurfaceSideness(shader, 3, LV_SIDENESS_FACE);   // the heavy one is never on the back
    const int single = lvAddShader();
    lvAddSurfaceShader(single);
    quietly(lvInitializeShaders);

    const float uv[2] = {0.5f, 0.5f};
    seedHardwareRandom(5);
    const int draws = 40000;
    int counts[4] = {};
    for (int n = 0; n < draws; ++n) ++counts[chooseLayer(registry.shaders[size_t(shader)], kBackSide, uv, hardwareRandomFloat())];
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(counts[k] / double(draws), k == 1 ? 0.5 : 0.25, 0.015) << k;
    EXPECT_EQ(counts[3], 0);
    EXPECT_EQ(chooseLayer(registry.shaders[size_t(shader)], kFaceSide, uv, 0.99f), 3);
    for (float u : {0.0f, 0.5f, 1.0f}) EXPECT_EQ(chooseLayer(registry.shaders[size_t(single)], kFaceSide, uv, u), 0);
}
