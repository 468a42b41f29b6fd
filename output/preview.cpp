#include "output/preview.h"

#include <chrono>
#include <thread>

#include "core/registry.h"
#include "core/report.h"
#include "output/write_image.h"

#if LV_HAVE_PREVIEW
#include <GL/freeglut.h>
#include <X11/Xlib.h>
#endif

namespace {

// The frame function that the window runs, given by openPreview.
void (*frameFunction)() = nullptr;

void renderWithoutWindow(const char* reason) {
    reportError(std::string("preview - ") + reason + "; rendering without the window");
    const Camera* camera = registry.currentCameraRecord;
    if (!camera) return;
    for (int i = 0; i < camera->sample; ++i) frameFunction();
}

#if LV_HAVE_PREVIEW
// Set while the window exists: drawing needs its context.
bool windowOpen = false;

// The frame function as the window's idle callback. Once the render is done
// the frame only redraws, so the loop rests between redraws rather than
// spinning a core.
void idleFrame() {
    frameFunction();
    const Camera* camera = registry.currentCameraRecord;
    if (camera && registry.frameCounter >= unsigned(camera->sample))
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// True when a display can be opened: freeglut ends the process when it
// cannot, which a host that loads the library must not suffer.
bool displayReachable() {
    Display* display = XOpenDisplay(nullptr);
    if (!display) return false;
    XCloseDisplay(display);
    return true;
}
#endif

}  // namespace

#if LV_HAVE_PREVIEW

void openPreview(void (*renderFrame)()) {
    frameFunction = renderFrame;
    const Camera* camera = registry.currentCameraRecord;
    if (!camera) return;
    if (!displayReachable()) return renderWithoutWindow("no display to open the window on");
    int argc = 1;
    char name[] = "lumivane";
    char* argv[] = {name, nullptr};
    glutInit(&argc, argv);
    // Closing the window returns from the loop, so that the run ends as the
    // batch run does, with its closing lines and its images.
    glutSetOption(GLUT_ACTION_ON_WINDOW_CLOSE, GLUT_ACTION_GLUTMAINLOOP_RETURNS);
    glutInitWindowSize(camera->width, camera->height);
    glutInitDisplayMode(GLUT_DOUBLE);
    glutCreateWindow("lumivane");
    windowOpen = true;
    glutDisplayFunc(displayPreview);
    glutIdleFunc(idleFrame);
    glutCloseFunc(closePreview);
    glutMainLoop();
    windowOpen = false;
    // Leaves freeglut ready for another window in the same process.
    glutExit();
}

void displayPreview() {
    if (!windowOpen || registry.cameras.empty()) return;
    const Camera* current = registry.currentCameraRecord;
    const ImageRecord& image = registry.cameras[0].aovs[0].image;
    if (!current || image.floatStore.size() < size_t(current->width) * size_t(current->height) * 3) return;
    glRasterPos2i(-1, 1);
    glPixelZoom(1.0f, -1.0f);
    glDrawPixels(current->width, current->height, GL_RGB, GL_FLOAT, image.floatStore.data());
    glFlush();
    glutSwapBuffers();
}

void refreshPreview() {
    if (!windowOpen) return;
    displayPreview();
    glutPostRedisplay();
}

#else

void openPreview(void (*renderFrame)()) {
    frameFunction = renderFrame;
    renderWithoutWindow("this build has no preview window");
}
void displayPreview() {}
void refreshPreview() {}

#endif

void closePreview() {
    if (registry.currentCameraRecord) writeImage(registry.currentCameraRecord->aovs[0].image);
}
