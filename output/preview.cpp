#include "output/preview.h"

#include "core/registry.h"
#include "render/frame.h"

// Until the window exists, the preview runs the frames as the batch loop does.
void runPreview() {
    const Camera* camera = registry.currentCameraRecord;
    if (!camera) return;
    for (int i = 0; i < camera->sample; ++i) renderFrame();
}

void displayPreview() {}
