/* The spot-light example (examples/spotlight) described in code through the
 * library's C interface: a small stage with a glossy ball, a frosted glass
 * ball and a tinted glass pane, under a warm spot light and a cool blurred
 * point light. It renders the same picture as `lumivane examples/spotlight`.
 *
 *     example-spotlight-host [WIDTH HEIGHT FRAMES]
 *
 * renders into the working directory (beauty.hdr), at 640 x 480 pixels and
 * 16 frames unless told otherwise.
 */
#include <stdlib.h>

#include "lv.h"

typedef struct Layer {
    Element element;
    float r, g, b;
} Layer;

static int addShader(const char* name, const Layer* elements, int count) {
    const int shader = lvAddShader();
    lvSetShaderName(shader, name);
    const int layer = lvAddSurfaceShader(shader);
    for (int i = 0; i < count; ++i)
        lvSetSurfaceColor(shader, layer, elements[i].element, elements[i].r, elements[i].g, elements[i].b);
    return shader;
}

/* A ball is one particle, an object of its own. */
static int addBall(const char* name, int shader, float x, float y, float z, float radius) {
    const int ball = lvAddObject();
    lvSetObjectName(ball, name);
    const int part = lvAddPart(ball);
    lvSetShaderID(ball, part, shader);
    const float centre[3] = {x, y, z};
    const int index = 0;
    lvAddPositions(ball, part, 1, centre);
    lvAddRadii(ball, part, 1, &radius);
    lvAddParticles(ball, part, 1, &index);
    return ball;
}

int main(int argc, char** argv) {
    const int width = argc > 3 ? atoi(argv[1]) : 640;
    const int height = argc > 3 ? atoi(argv[2]) : 480;
    const int frames = argc > 3 ? atoi(argv[3]) : 16;

    lvStartup();

    /* Path tracing with two diffuse or glossy bounces: 512 gather rays a
     * pixel over the frames. */
    lvSetRendererClamp(2.0f, 2.0f, 2.0f);
    lvSetRendererRayDepth(8);
    lvSetRendererSample(512);
    lvSetRendererBounce(2);
    lvSetRendererDistance(0.0f);
    lvSetRendererResolution(0.0f);

    const Layer floorLayer[] = {{LV_ELEMENT_LAMBERTIAN, 0.7f, 0.68f, 0.64f}};
    const Layer wallLayer[] = {{LV_ELEMENT_LAMBERTIAN, 0.6f, 0.62f, 0.66f}};
    const Layer glossyLayer[] = {{LV_ELEMENT_LAMBERTIAN, 0.45f, 0.06f, 0.04f},
                                 {LV_ELEMENT_GLOSSY, 0.7f, 0.7f, 0.7f},
                                 {LV_ELEMENT_ROUGHNESS, 0.12f, 0.12f, 0.12f},
                                 {LV_ELEMENT_IOR, 1.5f, 1.5f, 1.5f}};
    const Layer glassLayer[] = {{LV_ELEMENT_SPECULAR, 1.0f, 1.0f, 1.0f},
                                {LV_ELEMENT_TRANSMISSIVE, 0.9f, 0.9f, 0.9f},
                                {LV_ELEMENT_IOR, 1.5f, 1.5f, 1.5f},
                                {LV_ELEMENT_SHADOW_TRANSPARENCY, 0.7f, 0.7f, 0.7f}};
    const Layer paneLayer[] = {{LV_ELEMENT_SPECULAR, 1.0f, 1.0f, 1.0f},
                               {LV_ELEMENT_TRANSMISSIVE, 0.1f, 0.55f, 0.6f},
                               {LV_ELEMENT_IOR, 1.5f, 1.5f, 1.5f},
                               {LV_ELEMENT_SHADOW_TRANSPARENCY, 0.15f, 0.7f, 0.8f}};
    const int floorShader = addShader("floor", floorLayer, 1);
    const int wallShader = addShader("wall", wallLayer, 1);
    const int glossyShader = addShader("glossy", glossyLayer, 4);
    const int glassShader = addShader("glass", glassLayer, 4);
    const int paneShader = addShader("pane", paneLayer, 4);

    /* The stage: a floor, a back wall and a pane, one quadrangle each. */
    const int stage = lvAddObject();
    lvSetObjectName(stage, "stage");
    const int part = lvAddPart(stage);
    const float corners[3][12] = {
        {-2.5f, 0.0f, 3.0f, 2.5f, 0.0f, 3.0f, 2.5f, 0.0f, -1.5f, -2.5f, 0.0f, -1.5f},
        {-2.5f, 0.0f, -1.5f, 2.5f, 0.0f, -1.5f, 2.5f, 3.0f, -1.5f, -2.5f, 3.0f, -1.5f},
        {0.0f, 0.0f, 0.7f, 0.45f, 0.0f, -0.35f, 0.45f, 1.1f, -0.35f, 0.0f, 1.1f, 0.7f}};
    const int faceShaders[3] = {floorShader, wallShader, paneShader};
    for (int face = 0; face < 3; ++face) {
        const int quad[4] = {4 * face, 4 * face + 1, 4 * face + 2, 4 * face + 3};
        lvSetShaderID(stage, part, faceShaders[face]);
        lvAddPositions(stage, part, 4, corners[face]);
        lvAddTetragons(stage, part, 1, quad);
    }
    const int glossyBall = addBall("glossy_ball", glossyShader, -0.95f, 0.4f, 0.2f, 0.4f);
    const int glassBall = addBall("glass_ball", glassShader, 1.05f, 0.3f, 1.05f, 0.3f);

    /* The root places each object once, where it stands. */
    const int root = lvAddObject();
    lvSetObjectName(root, "scene");
    const int placed[3] = {stage, glossyBall, glassBall};
    for (int i = 0; i < 3; ++i) lvSetInstance(root, lvAddInstance(root), placed[i], NULL);

    /* A warm spot light whose cone falls off from 16 to 26 degrees around
     * its axis, and a cool point light blurred over a sphere of radius 0.35,
     * whose 64 shadow rays give soft shadows. The sky is nearly black. */
    const int spot = lvAddPointLight();
    lvSetPointLightColor(spot, 14.0f, 11.0f, 7.0f);
    lvSetPointLightPosition(spot, -2.2f, 3.0f, 1.2f);
    lvSetPointLightDirection(spot, 2.6f, -3.0f, -1.6f);
    lvSetPointLightInnerAngle(spot, 16.0f);
    lvSetPointLightOuterAngle(spot, 26.0f);
    const int fill = lvAddPointLight();
    lvSetPointLightColor(fill, 3.0f, 3.5f, 4.4f);
    lvSetPointLightPosition(fill, 1.8f, 1.3f, 2.4f);
    lvSetPointLightBlur(fill, 0.35f);
    lvSetPointLightSample(fill, 64);
    lvSetPointLightInnerAngle(fill, 180.0f);
    lvSetPointLightOuterAngle(fill, 180.0f);
    lvSetSkyLightColor(0.01f, 0.01f, 0.015f);
    lvSetSkyLightPhoton(0);
    lvSetGeometryLightPhoton(0);

    /* A still camera: both poses the same. Its first AOV is "beauty.hdr". */
    const int camera = lvAddCamera();
    lvSetCameraName(camera, "front");
    lvSetCameraResolution(camera, width, height);
    lvSetCameraSample(camera, frames);
    lvSetCameraProjection(camera, LV_PROJECTION_PERSPECTIVE);
    for (int pose = 0; pose < 2; ++pose) {
        lvSetCameraTime(camera, (float)pose);
        lvSetCameraPosition(camera, 0.0f, 1.5f, 5.0f);
        lvSetCameraTarget(camera, 0.0f, 0.6f, 0.0f);
        lvSetCameraUpVector(camera, 0.0f, 1.0f, 0.0f);
        lvSetCameraFOV(camera, 40.0f);
    }

    lvInitialize();
    lvRender();
    lvFinalize();
    lvShutdown();
    return 0;
}
