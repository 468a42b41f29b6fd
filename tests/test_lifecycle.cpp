// What a second scene inherits from the first, the renderer's mode and its
// limits. The preparation report is in tests/golden/lvgo_report.txt.
#include <gtest/gtest.h>

#include <string>

#include "scene_fixture.h"

using LifecycleTest = SceneTest;

TEST_F(LifecycleTest, StartupPutsBackSomeValuesAndKeepsOthers) {
    lvSetRendererBounce(3);
    lvSetRendererDistance(2.5f);
    lvSetRendererResolution(0.5f);
    lvSetRendererClamp(5, 6, 7);
    lvSetDisplayGamma(1.8f);
    lvSetRendererRayDepth(3);
    lvSetRendererPhotonDepth(4);
    lvSetRendererSample(9);
    lvSetRendererRadius(0.3f);
    registry.skyLight.color = {1, 2, 3};
    registry.skyLight.photon = 5;
    registry.skyLightTurbidity = 4.0f;
    registry.geometryLight.sample = 5;
    registry.geometryLight.scale = 3.0f;
    registry.rayCount = 11;
    registry.imagePaths = {"a/"};
    quietly([] {
        lvFinalize();
        lvStartup();
        lvStartup();
    });
    // Inherited by the second scene.
    EXPECT_EQ(registry.bounce, 3);
    EXPECT_EQ((std::vector<float>{registry.distance, registry.resolution, registry.displayGamma,
                                  registry.skyLightTurbidity, registry.clamp[0], registry.clamp[1], registry.clamp[2]}),
              (std::vector<float>{2.5f, 0.5f, 1.8f, 4.0f, 5, 6, 7}));
    // Put back.
    EXPECT_EQ((std::vector<int>{registry.ray_depth, registry.photon_depth, registry.rendererSample,
                                registry.skyLight.photon, registry.geometryLight.sample}),
              (std::vector<int>{8, 8, 64, 1000000, 0}));
    EXPECT_TRUE(registry.radius == 1.0f && registry.geometryLight.scale == 1.0f && !registry.final_gather_mode &&
                registry.rayCount == 0u);
    EXPECT_EQ(registry.skyLight.color, (Color{0.75f, 0.75f, 0.75f}));
    EXPECT_TRUE(registry.cameras.empty());
    // The empty search path is added once, after what stood there, however often start-up runs.
    EXPECT_EQ(registry.imagePaths, (std::vector<std::string>{"a/", ""}));
}

TEST_F(LifecycleTest, RendererLimits) {
    lvSetRendererRayDepth(0);
    lvSetRendererPhotonDepth(-3);
    lvSetRendererBounce(-1);
    lvSetRendererClamp(-1.0f, 2.0f, -0.5f);
    lvSetRendererSample(5);
    lvSetRendererDistance(1.0f);   // a gather distance without a resolution traces paths
    lvSetRendererResolution(0.0f);
    registry.threadRays[3] = 12;
    registry.threadShadowRays[200] = 4;
    quietly(lvInitializeRenderer);
    EXPECT_EQ((std::vector<int>{registry.ray_depth, registry.photon_depth, registry.bounce}),
              (std::vector<int>{1, 1, 1}));
    EXPECT_EQ((std::vector<float>{registry.clamp[0], registry.clamp[1], registry.clamp[2]}),
              (std::vector<float>{0.0f, 2.0f, 0.0f}));
    EXPECT_EQ(registry.threadRays[3] + registry.threadShadowRays[200], 0u);
    EXPECT_FALSE(registry.final_gather_mode);

    lvSetRendererRayDepth(2);
    lvSetRendererPhotonDepth(12);
    quietly(lvInitializeRenderer);
    EXPECT_TRUE(registry.ray_depth == 2 && registry.photon_depth == 12);
}
