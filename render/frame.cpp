#include "render/frame.h"

#include <omp.h>

#include <cstring>
#include <vector>

#include "core/clock.h"
#include "core/registry.h"
#include "core/report.h"
#include "geometry/object.h"
#include "lights/geometry_light.h"
#include "lights/lights.h"
#include "lights/sky_light.h"
#include "output/write_image.h"
#include "lv.h"
#include "output/preview.h"
#include "render/camera.h"
#include "render/radiance.h"

namespace {

struct Region {
    int firstColumn, firstRow, endColumn, endRow;
};

Region regionOf(const Camera& camera) {
    return {camera.regionLeft, camera.regionTop, camera.regionRight, camera.regionBottom};
}

Color clamped(Color c) {
    const float* limit = registry.clamp;
    return {c.x > limit[0] ? limit[0] : c.x, c.y > limit[1] ? limit[1] : c.y, c.z > limit[2] ? limit[2] : c.z};
}

// The parallel pass shared by the frame loop and lvRenderPixels: rows go to
// the threads one at a time, columns run serially, and each clamped sample is
// handed to `take` with its pixel and the thread's pixel index.
template <typename Take>
void runPass(const Camera& camera, unsigned sampleIndex, Take take) {
    const Region r = regionOf(camera);
    const uint64_t t0 = systemTime100ns();
    // Every ray of the pass carries this index; set once here, the rays only
    // read it.
    registry.pass_index = uint16_t(sampleIndex);
#pragma omp parallel for schedule(dynamic, 1)
    for (int y = r.firstRow; y < r.endRow; ++y) {
        for (int x = r.firstColumn; x < r.endColumn; ++x) {
            RayState ray = freshRay();
            generateRay(camera, ray, x, y, sampleIndex);
            const Color c = clamped(radiance(ray));
            take(x, y, registry.threadPixelIndex[ray.thread], c);
        }
    }
    registry.elapsedMicroseconds += (systemTime100ns() - t0) / 10;
    for (int i = 0; i < kMaxThreads; ++i) {
        registry.rayCount += registry.threadRays[i];
        registry.threadRays[i] = 0;
        registry.shadowRayCount += registry.threadShadowRays[i];
        registry.threadShadowRays[i] = 0;
    }
}

void reportPerformance() {
    const float rays = float(registry.rayCount);
    const float micro = float(registry.elapsedMicroseconds);
    reportPair("performance", double(rays / micro), "M rays/second", "    ", double(1000000.0f / micro),
               "frames/second");
}

}  // namespace

void renderPixels(unsigned sampleIndex) {
    Camera& camera = *registry.currentCameraRecord;
    ImageRecord& image = camera.aovs[0].image;
    // The mean runs over this process's own passes: of several, every
    // size-th pass from its rank.
    const float s = float(uint16_t(sampleIndex / unsigned(registry.processes.size)));
    runPass(camera, sampleIndex, [&](int, int, uint32_t pixel, Color c) {
        const Color p = storedPixel(image, int(pixel));
        const Color mean{(p.x * s + c.x) / (s + 1.0f), (p.y * s + c.y) / (s + 1.0f), (p.z * s + c.z) / (s + 1.0f)};
        StorePixel(image, int(pixel), mean);
    });
}

void endOfRender() {
    if (registry.processes.combineAovs) registry.processes.combineAovs();
    Camera& camera = *registry.currentCameraRecord;
    const Aov& beauty = camera.aovs[0];
    const ImageRecord& image = beauty.image;
    const float n = float(image.width) * float(image.height);
    Color m = zero;
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) m += storedPixel(image, y * image.width + x) / n;
    float q = 0.0f;
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            const float l = largestChannel(storedPixel(image, y * image.width + x));
            q += l * l / n;
        }
    reportRule();
    reportVector("avgerage of " + image.name, m.x, m.y, m.z, "n/a");
    reportVector("variance of " + image.name, q - m.x * m.x, q - m.y * m.y, q - m.z * m.z, "n/a");
    reportRule();
    reportMessage("            close the window to exit. happy rendering :) thank you!");
    reportRule();
    writeAovs(camera.aovs);
    releaseSkyLight();
    releaseGeometryLight();
    releaseGaffer();
}

void renderFrame() {
    Camera& camera = *registry.currentCameraRecord;
    if (registry.frameCounter < unsigned(camera.sample) && !ownsIndex(registry.processes, registry.frameCounter)) {
        // Another process renders this pass.
        if (++registry.frameCounter == unsigned(camera.sample)) endOfRender();
    } else if (registry.frameCounter < unsigned(camera.sample)) {
        clearNodeHitCounters();
        registry.elapsedMicroseconds = 0;
        registry.rayCount = 0;
        registry.shadowRayCount = 0;
        std::memset(registry.threadStatistics, 0, sizeof registry.threadStatistics);
        renderPixels(registry.frameCounter);
        // This process's first pass.
        if (registry.frameCounter == unsigned(registry.processes.rank)) {
            for (int k = 0; k < 3; ++k)
                for (int i = 0; i < kMaxThreads; ++i) registry.firstFrameTotals[k] += registry.threadStatistics[k][i];
            reorderHierarchies();
        }
        ++registry.frameCounter;
        reportPerformance();
        if (registry.frameCounter == unsigned(camera.sample)) endOfRender();
    }
    if (registry.previewWindow) refreshPreview();
}

extern "C" {

LV_API void lvRender(void) {
    registry.frameCounter = 0;
    if (registry.previewWindow) {
        openPreview(renderFrame);
        return;
    }
    const Camera* camera = registry.currentCameraRecord;
    if (!camera || camera->sample < 1) return;
    for (int i = 0; i < camera->sample; ++i) renderFrame();
}

LV_API void lvRenderPixels(int count, float* rgb, int sampleIndex) {
    Camera& camera = *registry.currentCameraRecord;
    const Region r = regionOf(camera);
    const int regionWidth = r.endColumn - r.firstColumn;
    std::vector<Color> samples(size_t(regionWidth > 0 && r.endRow > r.firstRow ? regionWidth * (r.endRow - r.firstRow) : 0));
    ImageRecord& image = camera.aovs[0].image;
    const float sampleCount = float(camera.sample);
    runPass(camera, unsigned(sampleIndex), [&](int x, int y, uint32_t pixel, Color c) {
        samples[size_t((y - r.firstRow) * regionWidth + (x - r.firstColumn))] = c;
        float* p = &image.floatStore[size_t(pixel) * size_t(image.channels)];
        p[0] += c.x / sampleCount;
        p[1] += c.y / sampleCount;
        p[2] += c.z / sampleCount;
    });
    for (int i = 0; i < count && i < int(samples.size()); ++i) {
        rgb[3 * i + 0] = samples[size_t(i)].x;
        rgb[3 * i + 1] = samples[size_t(i)].y;
        rgb[3 * i + 2] = samples[size_t(i)].z;
    }
}

}  // extern "C"
