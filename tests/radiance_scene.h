// Small scenes built through the exported functions and rendered at low
// resolution, for tests that check pixels against known answers.
#pragma once

#include <array>
#include <cstdio>
#include <functional>
#include <vector>

#include "core/random.h"
#include "geometry/object.h"
#include "render/radiance.h"
#include "scene_fixture.h"

// Path tracing alone (no photon cells stand in for light) under a black sky,
// with no photons from the sky or the emitters unless a test asks for them.
class RadianceScene : public SceneTest {
protected:
    void SetUp() override {
        SceneTest::SetUp();
        seedHardwareRandom(11);
        begin();
    }
    void begin() {
        registry.skyLight.color = zero;
        lvSetRendererDistance(0.0f), lvSetSkyLightPhoton(0), lvSetGeometryLightPhoton(0);
        object_ = lvAddObject(), faces_ = -1, faceCorners_ = 0;
    }

    static int shader(Color lambertian, Color emissive = zero) {
        const int s = lvAddShader();
        // An unnamed shader is "undefined", which a face trades for its part's.
        char name[16];
        std::snprintf(name, sizeof name, "s%d", s), lvSetShaderName(s, name);
        const int layer = lvAddSurfaceShader(s);
        lvSetSurfaceColor(s, layer, LV_ELEMENT_LAMBERTIAN, lambertian.x, lambertian.y, lambertian.z);
        lvSetSurfaceColor(s, layer, LV_ELEMENT_EMISSIVE, emissive.x, emissive.y, emissive.z);
        return s;
    }
    // A lamp of radiance `emission` whose points are sampled and send photons.
    static int lamp(Color emission) {
        const int s = shader(zero, emission);
        lvSetSurfaceVirtualLight(s, 0, true);
        return s;
    }
    // Sets the grey value `v` of `element` on the first layer of `s`.
    static void grey(int s, Element element, float v) { lvSetSurfaceColor(s, 0, element, v, v, v); }
    // A glossy part of weight `g`, roughness `r` and index `ior` on the first layer of `s`.
    static void glossy(int s, float g, float r, float ior) {
        grey(s, LV_ELEMENT_GLOSSY, g), grey(s, LV_ELEMENT_ROUGHNESS, r), grey(s, LV_ELEMENT_IOR, ior);
    }
    // A specular layer of colour `c` and index `ior`.
    static int specular(float c, float ior, Material material) {
        const int s = shader(zero);
        grey(s, LV_ELEMENT_SPECULAR, c), grey(s, LV_ELEMENT_IOR, ior);
        lvSetSurfaceMaterial(s, 0, material);
        return s;
    }
    // Corners in order around the face; its front is the side from which they
    // run counter-clockwise. All faces share one part.
    void quad(Vector a, Vector b, Vector c, Vector d, int s) {
        if (faces_ < 0) faces_ = lvAddPart(object_);
        const float xyz[12] = {a.x, a.y, a.z, b.x, b.y, b.z, c.x, c.y, c.z, d.x, d.y, d.z};
        const int corners[4] = {faceCorners_, faceCorners_ + 1, faceCorners_ + 2, faceCorners_ + 3};
        lvAddPositions(object_, faces_, 4, xyz), lvSetShaderID(object_, faces_, s);
        lvAddTetragons(object_, faces_, 1, corners), faceCorners_ += 4;
    }
    // A square of half side h in the plane z = z0.
    void square(float z0, float h, int s, bool facingUp = true) {
        if (facingUp) quad({-h, -h, z0}, {h, -h, z0}, {h, h, z0}, {-h, h, z0}, s);
        else quad({-h, -h, z0}, {-h, h, z0}, {h, h, z0}, {h, -h, z0}, s);
    }
    // A sphere is a part of one particle, with the shader of the part.
    void sphere(Vector centre, float radius, int s) {
        const int part = lvAddPart(object_), index = 0;
        lvAddPositions(object_, part, 1, &centre.x), lvAddRadii(object_, part, 1, &radius);
        lvAddParticles(object_, part, 1, &index), lvSetShaderID(object_, part, s);
    }
    // An axis-aligned block from `lo` to `hi`, its faces facing out, or in.
    void block(Vector lo, Vector hi, int s, bool inward = false) {
        Vector c[8];
        for (int i = 0; i < 8; ++i) c[i] = {i & 1 ? hi.x : lo.x, i & 2 ? hi.y : lo.y, i & 4 ? hi.z : lo.z};
        for (int axis = 0; axis < 3; ++axis) {
            const int a = 1 << axis, b = 1 << (axis + 1) % 3, d = 1 << (axis + 2) % 3;
            for (const std::array<Vector, 4>& q : {std::array{c[0], c[d], c[b + d], c[b]},
                                                   std::array{c[a], c[a + b], c[a + b + d], c[a + d]}})
                inward ? quad(q[3], q[2], q[1], q[0], s) : quad(q[0], q[1], q[2], q[3], s);
        }
    }
    // A box of half side 1 open towards -y, with red and green side walls,
    // two blocks on its floor and a lamp of radiance `lamp` under a square
    // hole in its ceiling. Each wall and the lamp is an object of its own; the
    // tall block is a half-sized object that an instance doubles.
    void room(float lamp) {
        const int white = shader(one * 0.7f), red = shader({0.7f, 0.1f, 0.1f}), green = shader({0.1f, 0.7f, 0.1f});
        const int emitter = RadianceScene::lamp(one * lamp);
        auto next = [&] { object_ = lvAddObject(), faces_ = -1, faceCorners_ = 0; };
        const float h = 0.25f;
        quad({-1, -1, -1}, {1, -1, -1}, {1, 1, -1}, {-1, 1, -1}, white);
        block({0.1f, -0.6f, -1}, {0.6f, -0.1f, -0.4f}, white);
        const int floor = object_;
        next(), block({-0.15f, -0.15f, -0.3f}, {0.15f, 0.15f, 0.3f}, white);
        float doubled[3][4] = {{2, 0, 0, -0.4f}, {0, 2, 0, 0.2f}, {0, 0, 2, -0.4f}};
        lvSetInstance(floor, lvAddInstance(floor), object_, doubled);
        next(), quad({-1, 1, -1}, {1, 1, -1}, {1, 1, 1}, {-1, 1, 1}, white);
        next(), quad({-1, -1, -1}, {-1, 1, -1}, {-1, 1, 1}, {-1, -1, 1}, red);
        next(), quad({1, -1, -1}, {1, -1, 1}, {1, 1, 1}, {1, 1, -1}, green);
        next(), quad({-1, -1, 1}, {-1, 1, 1}, {-h, 1, 1}, {-h, -1, 1}, white);
        quad({h, -1, 1}, {h, 1, 1}, {1, 1, 1}, {1, -1, 1}, white);
        quad({-h, -1, 1}, {-h, -h, 1}, {h, -h, 1}, {h, -1, 1}, white);
        quad({-h, h, 1}, {-h, 1, 1}, {h, 1, 1}, {h, h, 1}, white);
        next(), square(0.999f, h, emitter, false);
    }
    // A point light lighting all around, without a spot ramp.
    static int pointLight(Vector position, Color color) {
        const int l = lvAddPointLight();
        lvSetPointLightPosition(l, position.x, position.y, position.z), lvSetPointLightDirection(l, 0, 0, -1);
        lvSetPointLightColor(l, color.x, color.y, color.z), lvSetPointLightInnerAngle(l, 180.0f);
        return l;
    }
    // A sky image held in memory, so that the sky stage finds it loaded.
    static void skyImage(const std::function<Color(float u, float v)>& f) {
        registry.skyLight.image = memoryImage(64, 32, f);
    }
    // A sky of `sky` with a disc of `sun` of squared radius `r2` about (u, v).
    static void sunInSky(float u, float v, float r2, Color sun, Color sky) {
        skyImage([=](float x, float y) { return (x - u) * (x - u) + (y - v) * (y - v) < r2 ? sun : sky; });
    }
    // A parallel light along `direction` with `count` photons and no
    // terminator offset, so that its direct light is the plain cosine law.
    static int sun(Vector direction, Color color, int count) {
        const int l = lvAddParallelLight();
        lvSetParallelLightDirection(l, direction.x, direction.y, direction.z), lvSetParallelLightPhoton(l, count);
        lvSetParallelLightColor(l, color.x, color.y, color.z), lvSetParallelLightOffset(l, 0.0f);
        return l;
    }
    static int camera(Vector position, Vector target, float fov, int size, int frames) {
        const int c = lvAddCamera();
        lvSetCameraResolution(c, size, size), lvSetCameraSample(c, frames);
        for (float t : {0.0f, 1.0f}) {
            lvSetCameraTime(c, t), lvSetCameraPosition(c, position.x, position.y, position.z), lvSetCameraFOV(c, fov);
            lvSetCameraTarget(c, target.x, target.y, target.z), lvSetCameraUpVector(c, 0, 1, 0);
        }
        return c;
    }
    // Ends the scene and starts an empty one; the start-up puts the renderer
    // values back to their defaults.
    void restart() {
        quietly([] { lvFinalize(), lvStartup(); });
        begin();
    }
    static const ImageRecord& render() {
        quietly([] { lvInitialize(), lvRender(); });
        return registry.cameras[0].aovs[0].image;
    }
    // The means of (r + g + b) / 3 over the blocks of `size` x `size` pixels
    // of an image, row after row of blocks.
    static std::vector<double> blockMeans(const ImageRecord& image, int size) {
        const int columns = image.width / size;
        std::vector<double> means(size_t(columns * (image.height / size)), 0.0);
        for (int y = 0; y < image.height / size * size; ++y)
            for (int x = 0; x < columns * size; ++x) {
                const Color c = storedPixel(image, y * image.width + x);
                means[size_t(y / size * columns + x / size)] += (c.x + c.y + c.z) / (3.0 * size * size);
            }
        return means;
    }
    static double imageMean(const ImageRecord& image) { return blockMeans(image, image.width)[0]; }
    // The mean red value of the front cells of the root's first face, leaving
    // out a border of `margin` cells all round.
    static double innerCellMean(uint32_t margin) {
        const Part& part = registry.objects[size_t(registry.rootObject)].parts[0];
        const uint32_t n = part.tetragonCellResolution[0], m = n - 2 * margin;
        double mean = 0.0;
        for (uint32_t a = margin; a < n - margin; ++a)
            for (uint32_t b = margin; b < n - margin; ++b) mean += part.tetragonCellsFront[a * n + b].x / double(m * m);
        return mean;
    }
    // The mean over the square of pixels [from, to) in both axes is `expected`
    // within `relative`.
    static void expectMean(const ImageRecord& image, int from, int to, Color expected, float relative) {
        Color c = zero;
        for (int y = from; y < to; ++y)
            for (int x = from; x < to; ++x) c += storedPixel(image, y * image.width + x);
        c = c / float((to - from) * (to - from));
        for (float Color::*k : {&Color::x, &Color::y, &Color::z})
            EXPECT_NEAR(c.*k, expected.*k, relative * expected.*k + 1e-6f);
    }

    int object_ = 0, faces_ = -1, faceCorners_ = 0;
};
