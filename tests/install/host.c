/* A tiny host program written in C against the installed library. */
#include <lv.h>
#include <stdio.h>

int main(void) {
    lvStartup();
    int camera = lvAddCamera();
    lvSetCameraResolution(camera, 8, 4);
    lvSetCameraSample(camera, 2);
    lvSetCameraFOV(camera, 60.0f);
    lvSetCameraTarget(camera, 0.0f, 1.0f, 0.0f);
    lvSetCameraUpVector(camera, 0.0f, 0.0f, 1.0f);
    lvSetCameraAOVName(camera, 0, "");
    lvInitialize();
    lvRender();
    lvFinalize();
    lvShutdown();
    printf("host ok\n");
    return 0;
}
