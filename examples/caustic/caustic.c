/* The caustic example: a solid glass ball on a pale floor under a warm spot
 * light, rendered by progressive final gathering.
 *
 * Scene files cannot make a surface refract as a solid (the material of a
 * layer has no keyword), so this small host describes the whole scene through
 * the library's C interface and renders it. The spot light's photons that
 * pass through the ball are bent towards a point about half a radius below
 * it, and land on the floor as caustic photons: the bright spot in the ball's
 * shadow comes from their density estimate.
 *
 *     example-caustic [PHOTONS]
 *
 * renders into the working directory (beauty.hdr) from PHOTONS spot light
 * photons, 2000000 by default.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "lv.h"

enum { kSlices = 96, kStacks = 48 };

/* A ball of radius r centred at (cx, cy, cz) as a grid of latitude and
 * longitude lines, with the exact normal at every vertex so that it refracts
 * as a smooth ball. The poles are rows of coincident vertices; the grid's
 * cells that touch them degenerate to triangles of no area, which no ray
 * hits. */
static void addBall(int object, int part, float r, float cx, float cy, float cz) {
    static float positions[(kStacks + 1) * (kSlices + 1) * 3];
    static float normals[(kStacks + 1) * (kSlices + 1) * 3];
    static int triangles[kStacks * kSlices * 6];
    const double pi = 3.14159265358979323846;
    int v = 0;
    for (int i = 0; i <= kStacks; ++i) {
        const double theta = pi * i / kStacks;
        for (int j = 0; j <= kSlices; ++j, ++v) {
            const double phi = 2.0 * pi * j / kSlices;
            const float n[3] = {(float)(sin(theta) * cos(phi)), (float)cos(theta), (float)(-sin(theta) * sin(phi))};
            normals[3 * v + 0] = n[0];
            normals[3 * v + 1] = n[1];
            normals[3 * v + 2] = n[2];
            positions[3 * v + 0] = cx + r * n[0];
            positions[3 * v + 1] = cy + r * n[1];
            positions[3 * v + 2] = cz + r * n[2];
        }
    }
    int t = 0;
    for (int i = 0; i < kStacks; ++i) {
        for (int j = 0; j < kSlices; ++j) {
            const int a = i * (kSlices + 1) + j, b = a + kSlices + 1;
            const int quad[6] = {a, b, a + 1, a + 1, b, b + 1};
            for (int k = 0; k < 6; ++k) triangles[t++] = quad[k];
        }
    }
    lvAddPositions(object, part, v, positions);
    lvAddNormals(object, part, v, normals);
    lvAddTriangles(object, part, t / 3, triangles);
}

static int addShader(const char* name) {
    const int shader = lvAddShader();
    lvSetShaderName(shader, name);
    return shader;
}

int main(int argc, char** argv) {
    const int photons = argc > 1 ? atoi(argv[1]) : 2000000;

    lvStartup();

    /* Progressive final gathering: a gather ray from the floor reads the
     * photons' cell where it lands more than 0.3 away, or at its second
     * diffuse bounce. The caustic's own estimate takes the 32 nearest
     * caustic photons within the radius. */
    lvSetRendererRayDepth(10);
    lvSetRendererSample(512);
    lvSetRendererBounce(2);
    lvSetRendererDistance(0.3f);
    lvSetRendererResolution(0.002f);
    lvSetRendererRadius(0.05f);
    lvSetRendererClamp(16.0f, 16.0f, 16.0f);

    const int floor = addShader("floor");
    const int floorLayer = lvAddSurfaceShader(floor);
    lvSetSurfaceColor(floor, floorLayer, LV_ELEMENT_LAMBERTIAN, 0.7f, 0.68f, 0.64f);

    /* Clear glass: a Fresnel-weighted mirror and, as the layer is solid, the
     * refracted ray of the remaining light. */
    const int glass = addShader("glass");
    const int glassLayer = lvAddSurfaceShader(glass);
    lvSetSurfaceColor(glass, glassLayer, LV_ELEMENT_SPECULAR, 1.0f, 1.0f, 1.0f);
    lvSetSurfaceColor(glass, glassLayer, LV_ELEMENT_IOR, 1.5f, 1.5f, 1.5f);
    lvSetSurfaceMaterial(glass, glassLayer, LV_MATERIAL_SOLID);

    /* One object with two parts: photons deposit and gather rays read only
     * on the root object's own faces, not inside instances. */
    const int stage = lvAddObject();
    lvSetObjectName(stage, "stage");
    const int floorPart = lvAddPart(stage);
    lvSetShaderID(stage, floorPart, floor);
    const float corners[] = {-2, 0, 2, 2, 0, 2, 2, 0, -2, -2, 0, -2};
    const int square[] = {0, 1, 2, 3};
    lvAddPositions(stage, floorPart, 4, corners);
    lvAddTetragons(stage, floorPart, 1, square);
    const int ballPart = lvAddPart(stage);
    lvSetShaderID(stage, ballPart, glass);
    addBall(stage, ballPart, 0.5f, 0.0f, 0.5f, 0.0f);

    /* A warm spot light high on the back left, its cone holding the ball and
     * the floor around it. */
    const int spot = lvAddPointLight();
    lvSetPointLightColor(spot, 16.0f, 14.4f, 12.0f);
    lvSetPointLightPosition(spot, -1.2f, 3.6f, -1.2f);
    lvSetPointLightDirection(spot, 1.2f, -3.1f, 1.2f);
    lvSetPointLightInnerAngle(spot, 14.0f);
    lvSetPointLightOuterAngle(spot, 20.0f);
    lvSetPointLightPhoton(spot, photons);

    /* A faint blue sky for the shadowed floor; it casts no photons, and
     * there is no emitting surface. */
    lvSetSkyLightColor(0.02f, 0.025f, 0.035f);
    lvSetSkyLightPhoton(0);
    lvSetGeometryLightPhoton(0);

    /* A camera starts with its beauty image, "beauty.hdr". */
    const int camera = lvAddCamera();
    lvSetCameraName(camera, "front");
    lvSetCameraResolution(camera, 640, 480);
    lvSetCameraSample(camera, 16);
    for (int pose = 0; pose < 2; ++pose) {
        lvSetCameraTime(camera, (float)pose);
        lvSetCameraPosition(camera, 0.3f, 2.3f, 3.3f);
        lvSetCameraTarget(camera, 0.25f, 0.2f, 0.25f);
        lvSetCameraUpVector(camera, 0.0f, 1.0f, 0.0f);
        lvSetCameraFOV(camera, 40.0f);
    }

    lvInitialize();
    lvRender();
    lvFinalize();
    lvShutdown();
    return 0;
}
