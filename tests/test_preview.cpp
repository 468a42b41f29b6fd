// The preview window of `lumivane --preview`, on a virtual X server: what it
// shows is the beauty image, and closing it early leaves the running mean on
// disk. Skipped, with a message, where the build has no window or the
// machine no virtual server.
#include <gtest/gtest.h>

#include <regex>

#include "host_run.h"
#include "core/images.h"

#if LV_HAVE_PREVIEW
#include <X11/Xlib.h>
#include <X11/Xutil.h>

namespace {

Window findWindow(Display* display, Window under, const char* title) {
    char* name = nullptr;
    if (XFetchName(display, under, &name) && name) {
        const bool match = std::string(name) == title;
        XFree(name);
        if (match) return under;
    }
    Window root, parent, *children = nullptr, found = 0;
    unsigned count = 0;
    if (XQueryTree(display, under, &root, &parent, &children, &count)) {
        for (unsigned i = 0; i < count && !found; ++i) found = findWindow(display, children[i], title);
        if (children) XFree(children);
    }
    return found;
}

// What a window manager sends when the user closes a window.
void askToClose(Display* display, Window window) {
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = XInternAtom(display, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] = long(XInternAtom(display, "WM_DELETE_WINDOW", False));
    event.xclient.data.l[1] = CurrentTime;
    XSendEvent(display, window, False, NoEventMask, &event);
    XFlush(display);
}

// A channel of an X pixel through its mask, as 0 to 255.
int maskedChannel(unsigned long pixel, unsigned long mask) {
    if (mask == 0) return 0;
    int shift = 0;
    while (!((mask >> shift) & 1)) ++shift;
    const unsigned long top = mask >> shift;
    return int(((pixel & mask) >> shift) * 255 / top);
}

// A request on a window that is not yet shown fails; the tests look again.
int ignoreErrors(Display*, XErrorEvent*) { return 0; }

bool viewable(Display* display, Window window) {
    XWindowAttributes a;
    return XGetWindowAttributes(display, window, &a) && a.map_state == IsViewable && a.width >= 32 && a.height >= 24;
}

class PreviewTest : public SceneTest {
protected:
    void SetUp() override {
        SceneTest::SetUp();
        if (std::system("command -v Xvfb >/dev/null") != 0) GTEST_SKIP() << "Xvfb is not installed: the preview window is not tested";
#if defined(__SANITIZE_ADDRESS__)
        // The window system's libraries are not built for the sanitizers;
        // the plain build tests the window.
        GTEST_SKIP() << "the preview window is not tested in a sanitizer build";
#endif
        // The server picks a free display and writes its number.
        server_ = spawnHost({"Xvfb", "-displayfd", "1", "-screen", "0", "160x120x24", "-nolisten", "tcp"}, "",
                        dir / "xvfb.txt");
        ASSERT_TRUE(waitFor([&] { return slurp(dir / "xvfb.txt").find('\n') != std::string::npos; }, 20.0))
            << "the virtual server did not start";
        display_ = ":";
        display_ += slurp(dir / "xvfb.txt").substr(0, slurp(dir / "xvfb.txt").find('\n'));
        ASSERT_TRUE(waitFor([&] { return (x_ = XOpenDisplay(display_.c_str())) != nullptr; }, 20.0))
            << "cannot open the virtual server's display " << display_;
        XSetErrorHandler(ignoreErrors);
    }
    void TearDown() override {
        if (x_) XCloseDisplay(x_);
        if (server_ > 0) {
            ::kill(server_, SIGTERM);
            ::waitpid(server_, nullptr, 0);
        }
        SceneTest::TearDown();
    }
    // A floor in a sky, lit by a lamp, in a camera of 32 x 24 pixels.
    void writeScene(int frames, const std::string& floorLayer) {
        const std::string pose = " pose\n  position 0 -3 2\n  target 0 0 0\n  up_vector 0 0 1\n  field_of_view 60\n end\n";
        writeFile(dir / "scene/render/render.lv", "render\n sample 4\nend\n");
        writeFile(dir / "scene/camera/camera.lv",
                  "camera\n resolution 32 24\n sample " + std::to_string(frames) + "\n" + pose + pose + "end\n");
        writeFile(dir / "scene/shader/floor.lv",
                  "shader\n name \"floor\"\n surface_shader\n" + floorLayer + " end\nend\n");
        writeFile(dir / "scene/light/light.lv",
                  "sky_light\n color 0.2 0.4 0.9\n photon 0\n sample 4\nend\n"
                  "point_light\n position 1 -1 2\n color 6 5 4\nend\n");
        writeFile(dir / "scene/geometry/floor.obj", "v -4 -4 0\nv 4 -4 0\nv 4 4 0\nv -4 4 0\nf 1 2 3 4\n");
        writeFile(dir / "scene/geometry/floor.lv", "object\n name floor\n shader \"floor\"\n obj \"geometry/floor.obj\"\nend\n");
    }
    pid_t startPreview() {
        return spawnHost({LUMIVANE_EXE, "--preview", (dir / "scene").string()}, display_, dir / "out.txt");
    }
    std::string output() const { return slurp(dir / "out.txt"); }
    bool loadBeauty(ImageRecord& image) const {
        image.name = (dir / "scene/beauty.hdr").string();
        return LoadImage(image) == 1;
    }
    Window window() { return findWindow(x_, DefaultRootWindow(x_), "lumivane"); }

    std::string display_;
    pid_t server_ = -1;
    Display* x_ = nullptr;
};

// The window shows the finished beauty image as it is on disk, clipped to 1
// and without gamma, and stays open until it is closed.
TEST_F(PreviewTest, WindowShowsTheBeautyImage) {
    writeScene(4, "  lambertian\n   color 0.6 0.6 0.6\n  end\n");
    const pid_t host = startPreview();
    ASSERT_TRUE(waitFor([&] { return output().find("close the window to exit") != std::string::npos; }, 60.0))
        << output();
    Window w = 0;
    ASSERT_TRUE(waitFor([&] { return (w = window()) != 0 && viewable(x_, w); }, 10.0));
    // Without a window manager the window sits at the corner with its border
    // off the screen, where its pixels cannot be read: move it in.
    XMoveWindow(x_, w, 8, 8);
    XSync(x_, False);
    // The image is written just after the last frame's lines, and the window
    // keeps redrawing: read both again until they agree, or give up with the
    // differences of the last look.
    int worst = 0, lit = 0;
    waitFor([&] {
        ImageRecord beauty;
        XImage* shot = loadBeauty(beauty) ? XGetImage(x_, w, 0, 0, 32, 24, AllPlanes, ZPixmap) : nullptr;
        if (!shot) return false;
        worst = 0, lit = 0;
        for (int y = 0; y < 24; ++y)
            for (int x = 0; x < 32; ++x) {
                const unsigned long p = XGetPixel(shot, x, y);
                const Color c = FetchPixel(beauty, y * 32 + x);
                const int shown[3] = {maskedChannel(p, shot->red_mask), maskedChannel(p, shot->green_mask),
                                      maskedChannel(p, shot->blue_mask)};
                const float want[3] = {c.x, c.y, c.z};
                for (int k = 0; k < 3; ++k) {
                    const float v = want[k] > 1.0f ? 255.0f : want[k] < 0.0f ? 0.0f : want[k] * 255.0f;
                    worst = std::max(worst, int(std::fabs(float(shown[k]) - v) + 0.5f));
                    lit += shown[k] > 0;
                }
            }
        XDestroyImage(shot);
        return worst <= 3 && lit > 32 * 24;
    }, 10.0);
    EXPECT_LE(worst, 3) << "largest difference in 8-bit steps";
    EXPECT_GT(lit, 32 * 24);
    EXPECT_EQ(::waitpid(host, nullptr, WNOHANG), 0) << "the window closed by itself";

    askToClose(x_, w);
    EXPECT_EQ(exitStatus(host, 30.0), 0);
    EXPECT_NE(output().find("click to close the preview window"), std::string::npos);
}

// Closed after a few of many frames, the window leaves the mean of the frames
// so far: a surface that shows 0.5 in every sample shows 0.5 in the file.
TEST_F(PreviewTest, ClosingEarlyLeavesTheMeanOfFewerFrames) {
    writeScene(60000, "  emissive\n   color 0.5 0.5 0.5\n  end\n");
    const pid_t host = startPreview();
    const std::regex performance("performance");
    const auto frames = [&] {
        const std::string text = output();
        return std::distance(std::sregex_iterator(text.begin(), text.end(), performance), {});
    };
    ASSERT_TRUE(waitFor([&] { return frames() >= 3; }, 60.0)) << output();
    Window w = 0;
    ASSERT_TRUE(waitFor([&] { return (w = window()) != 0; }, 10.0));
    askToClose(x_, w);
    EXPECT_EQ(exitStatus(host, 30.0), 0);
    EXPECT_EQ(output().find("close the window to exit"), std::string::npos) << "the render ran to its end";

    ImageRecord beauty;
    ASSERT_TRUE(loadBeauty(beauty));
    // The middle rows see the floor; the top rows the sky beyond it.
    for (int x = 0; x < 32; ++x) EXPECT_EQ(FetchPixel(beauty, 20 * 32 + x), (Color{0.5f, 0.5f, 0.5f})) << x;
}

}  // namespace

#else

TEST(PreviewTest, WindowShowsTheBeautyImage) { GTEST_SKIP() << "built without the preview window"; }

#endif
