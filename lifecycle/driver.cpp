// lvGo: one call that reads a scene directory, prepares it, renders the
// current camera and releases everything again.
#include <algorithm>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/registry.h"
#include "core/report.h"
#include "lv.h"
#include "output/preview.h"
#include "render/frame.h"
#include "scene/directory_walk.h"

namespace {

constexpr std::size_t kBannerWidth = 80;

// The build date as "Apr 20 2015". The compiler pads a one-digit day with a
// blank ("Apr  5 2015"); the banner keeps the fixed form with a zero instead.
std::string buildDate() {
    std::string date = __DATE__;
    if (date.size() > 4 && date[4] == ' ') date[4] = '0';
    return date;
}

std::string banner() {
    std::string text = "            lumivane " + buildDate() + "  physically based rendering";
    if (text.size() < kBannerWidth) text.append(kBannerWidth - text.size(), ' ');
    return text;
}

}  // namespace

extern "C" {

LV_API void lvGo(const char* directory) {
    const std::string path = directory ? directory : "";

    lvStartup();
    reportRule();
    reportMessage(banner());
    reportRule();

    const uint64_t t0 = processClockMilliseconds();
    readSceneDirectory(path);
    const uint64_t t1 = processClockMilliseconds();
    reportReal("scene parsing", double(t1 - t0) / 1000.0, "seconds");
    reportRule();
    if (registry.host.sceneRead) registry.host.sceneRead();

    lvInitialize();
    registry.frameCounter = 0;

    // A scene without a camera has nothing to render: it says so and goes
    // straight to the release.
    const Camera* camera = registry.currentCameraRecord;
    if (!camera) {
        reportError("camera - the scene has no camera");
        reportRule();
    }
    if (camera) {
        if (registry.previewWindow) {
            openPreview(renderFrame);
            reportMessage("         click to close the preview window. happy rendering. thank you!         ");
            reportRule();
        } else {
            const int frames = camera->sample;
            for (int i = 0; i < frames; ++i) {
                renderFrame();
                if (registry.host.frameDone) registry.host.frameDone();
            }
        }
    }

    lvFinalize();
    lvShutdown();
}

}  // extern "C"
