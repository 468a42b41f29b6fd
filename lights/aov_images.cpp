#include "lights/aov_images.h"

#include "core/images.h"
#include "core/registry.h"

void prepareAov(Aov& aov, int width, int height) {
    aov.width = width;
    aov.height = height;
    SizeImage(aov.image, width, height, 3, 32, false);
    aov.shaderIndex = -1;
    for (size_t i = 0; i < registry.shaders.size(); ++i)
        if (registry.shaders[i].name == aov.shaderFilter) aov.shaderIndex = int(i);
}

void prepareLightAovs(std::vector<Aov>& aovs) {
    if (registry.cameras.empty()) return;
    const Camera& camera = registry.cameras[size_t(registry.currentCamera)];
    for (Aov& aov : aovs) prepareAov(aov, camera.width, camera.height);
}
