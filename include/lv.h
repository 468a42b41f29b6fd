/* lumivane: the exported interface of the lv library.
 *
 * One scene per process. A host describes it through these functions (or with
 * lvGo over a scene directory), prepares it with lvInitialize, renders it with
 * lvRender and releases it with lvFinalize. Records are addressed by the int
 * index that their lvAdd... function returned. Nothing is checked: indices,
 * pointers and counts are the host's duty. Everything the library has to say
 * goes to standard output as a column-aligned report.
 */
#ifndef LV_H
#define LV_H

#include <stdbool.h>

#if defined(LV_BUILDING)
#define LV_API __attribute__((visibility("default")))
#else
#define LV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* What an AOV image receives; bits of a set. */
typedef enum Channel {
    LV_CHANNEL_BEAUTY = 1,
    LV_CHANNEL_LIGHT_PATH = 2,
    LV_CHANNEL_LAMBERTIAN = 4,
    LV_CHANNEL_LAMBERTIAN_COLOR = 8,
    LV_CHANNEL_TRANSMISSIVE = 16,
    LV_CHANNEL_TRANSMISSIVE_COLOR = 32,
    LV_CHANNEL_GLOSSY = 64,
    LV_CHANNEL_GLOSSY_COLOR = 128,
    LV_CHANNEL_SPECULAR = 256,
    LV_CHANNEL_SPECULAR_COLOR = 512,
    LV_CHANNEL_EMISSIVE = 1024,
    LV_CHANNEL_NORMAL = 2048,
    LV_CHANNEL_TANGENT = 4096,
    LV_CHANNEL_POSITION = 8192,
    LV_CHANNEL_DEPTH = 16384,
    LV_CHANNEL_USER = 32768
} Channel;

typedef enum Projection {
    LV_PROJECTION_PERSPECTIVE = 0,
    LV_PROJECTION_SPHERICAL = 1
} Projection;

/* Stored with the camera; the field of view is always read in degrees. */
typedef enum AngleMeasure {
    LV_ANGLE_DEGREES = 0,
    LV_ANGLE_RADIANS = 1
} AngleMeasure;

/* The sixteen elements of a surface layer. */
typedef enum Element {
    LV_ELEMENT_LAMBERTIAN = 0,
    LV_ELEMENT_TRANSMISSIVE = 1,
    LV_ELEMENT_GLOSSY = 2,
    LV_ELEMENT_SPECULAR = 3,
    LV_ELEMENT_EMISSIVE = 4,
    LV_ELEMENT_DIFFUSION = 5,
    LV_ELEMENT_SHADOW_TRANSPARENCY = 6,
    LV_ELEMENT_NORMAL = 7,
    LV_ELEMENT_WEIGHT = 8,
    LV_ELEMENT_ANISOTROPY = 9,
    LV_ELEMENT_ROUGHNESS = 10,
    LV_ELEMENT_ANGLE = 11,
    LV_ELEMENT_IOR = 12,
    LV_ELEMENT_13 = 13,
    LV_ELEMENT_THICKNESS = 14,
    LV_ELEMENT_15 = 15
} Element;

typedef enum Material {
    LV_MATERIAL_OPAQUE = 0,
    LV_MATERIAL_SOLID = 1,
    LV_MATERIAL_THIN = 2
} Material;

typedef enum Sideness {
    LV_SIDENESS_FACE = 0,
    LV_SIDENESS_BACK = 1,
    LV_SIDENESS_BOTH = 2
} Sideness;

typedef enum Visibility {
    LV_VISIBILITY_INVISIBLE = 0,
    LV_VISIBILITY_NOT_LIGHT_PRIMARY = 1,
    LV_VISIBILITY_NOT_CAMERA_PRIMARY = 2,
    LV_VISIBILITY_ALL = 3
} Visibility;

/* Lifecycle and stages. */
LV_API void lvStartup(void);
LV_API void lvShutdown(void);
LV_API void lvGo(const char* directory);
LV_API void lvInitialize(void);
LV_API void lvFinalize(void);
LV_API void lvRender(void);
LV_API void lvRenderPixels(int count, float* rgb, int sampleIndex);

LV_API void lvInitializeAccelerator(void);
LV_API void lvInitializeCameras(void);
LV_API void lvInitializeGaffer(void);
LV_API void lvInitializeGeometryLight(void);
LV_API void lvInitializeRenderer(void);
LV_API void lvInitializeShaders(void);
LV_API void lvInitializeSkyLight(void);
LV_API void lvFinalizeAccelerator(void);
LV_API void lvFinalizeCameras(void);
LV_API void lvFinalizeGaffer(void);
LV_API void lvFinalizeGeometryLight(void);
LV_API void lvFinalizeRenderer(void);
LV_API void lvFinalizeShaders(void);
LV_API void lvFinalizeSkyLight(void);

/* Renderer. */
LV_API void lvSetRendererBounce(int bounce);
LV_API void lvSetRendererClamp(float r, float g, float b);
LV_API void lvSetRendererDistance(float distance);
LV_API void lvSetRendererPhotonDepth(int depth);
LV_API void lvSetRendererRadius(float radius);
LV_API void lvSetRendererRayDepth(int depth);
LV_API void lvSetRendererResolution(float resolution);
LV_API void lvSetRendererSample(int sample);
LV_API void lvSetDisplayGamma(float gamma);
LV_API void lvSetPreviewWindow(bool on);

/* Cameras. Pose setters write the pose that lvSetCameraTime selected. */
LV_API int lvAddCamera(void);
LV_API void lvSetCameraName(int camera, const char* name);
LV_API void lvSetCameraResolution(int camera, int width, int height);
LV_API void lvSetCameraRegion(int camera, int left, int top, int right, int bottom);
LV_API void lvSetCameraSample(int camera, int sample);
LV_API void lvSetCameraExposure(int camera, float r, float g, float b);
LV_API void lvSetCameraProjection(int camera, Projection projection);
LV_API void lvSetCameraAngleMeasure(int camera, AngleMeasure measure);
LV_API void lvSetCameraTime(int camera, float t);
LV_API void lvSetCameraPosition(int camera, float x, float y, float z);
LV_API void lvSetCameraTarget(int camera, float x, float y, float z);
LV_API void lvSetCameraUpVector(int camera, float x, float y, float z);
LV_API void lvSetCameraBokeh(int camera, float bokeh);
LV_API void lvSetCameraFOV(int camera, float degrees);

/* Camera AOVs. AOV 0 of every camera is its beauty image. */
LV_API int lvAddCameraAOV(int camera);
LV_API void lvSetCameraAOVChannel(int camera, int aov, Channel channel);
LV_API void lvSetCameraAOVName(int camera, int aov, const char* name);
LV_API void lvSetCameraAOVUserData(int camera, int aov, const char* data);

/* Objects, their parts and instances. A count below 1 adds nothing. Triangles
 * and tetragons take the shader that lvSetShaderID last set on their part. */
LV_API int lvAddObject(void);
LV_API void lvSetObjectName(int object, const char* name);
LV_API int lvAddPart(int object);
LV_API void lvSetShaderID(int object, int part, int shader);
LV_API int lvAddInstance(int object);
LV_API void lvSetInstance(int object, int instance, int source, float (*matrix)[4]);
LV_API void lvAddPositions(int object, int part, int count, const float* xyz);
LV_API void lvAddNormals(int object, int part, int count, const float* xyz);
LV_API void lvAddTangents(int object, int part, int count, const float* xyz);
LV_API void lvAddUVs(int object, int part, int count, const float* uv);
LV_API void lvAddRadii(int object, int part, int count, const float* radii);
LV_API void lvAddParticles(int object, int part, int count, const int* indices);
LV_API void lvAddCylinders(int object, int part, int count, const int* indices);
LV_API void lvAddTriangles(int object, int part, int count, const int* indices);
LV_API void lvAddTetragons(int object, int part, int count, const int* indices);
LV_API void lvAddVertexData(int object, int part, const char* name, int count, int components, const float* data);

/* Shaders, their surface layers and displacement elements. Shader 0 is the
 * default "undefined". An image's matrices are stored, yet only the matrices
 * of a scene file's sampler block are applied. The displacement vector is the
 * element's colour. lvSetShaderTime has no effect. */
LV_API int lvAddShader(void);
LV_API void lvSetShaderName(int shader, const char* name);
LV_API void lvSetShaderVisibility(int shader, Visibility visibility);
LV_API void lvSetShaderSmoothAngle(int shader, float angle);
LV_API void lvSetShaderRoundCorner(int shader, float value);
LV_API void lvSetShaderTime(int shader, float time);
LV_API int lvAddSurfaceShader(int shader);
LV_API void lvSetSurfaceColor(int shader, int layer, Element element, float r, float g, float b);
LV_API void lvSetSurfaceImage(int shader, int layer, Element element, const char* file, float gamma,
                              const float (*colorMatrix)[4], const float (*uvMatrix)[3]);
LV_API void lvSetSurfaceMaterial(int shader, int layer, Material material);
LV_API void lvSetSurfaceSideness(int shader, int layer, Sideness sideness);
LV_API void lvSetSurfaceVirtualLight(int shader, int layer, bool flag);
LV_API int lvAddDisplacementShader(int shader);
LV_API void lvSetDisplacementImage(int shader, int displacement, const char* file, float gamma,
                                   const float (*colorMatrix)[4], const float (*uvMatrix)[3]);
LV_API void lvSetDisplacementLevel(int shader, int displacement, int level);
LV_API void lvSetDisplacementVector(int shader, int displacement, float x, float y, float z);

/* Point lights, spot lights through their inner and outer angles (degrees).
 * Blur is the radius of a sphere around the position. A light with shader
 * links lights only those shaders. AOV channels are added to the AOV's set. */
LV_API int lvAddPointLight(void);
LV_API void lvSetPointLightPosition(int light, float x, float y, float z);
LV_API void lvSetPointLightDirection(int light, float x, float y, float z);
LV_API void lvSetPointLightColor(int light, float x, float y, float z);
LV_API void lvSetPointLightPhoton(int light, int photon);
LV_API void lvSetPointLightSample(int light, int sample);
LV_API void lvSetPointLightBlur(int light, float blur);
LV_API void lvSetPointLightOffset(int light, float offset);
LV_API void lvSetPointLightInnerAngle(int light, float degrees);
LV_API void lvSetPointLightOuterAngle(int light, float degrees);
LV_API void lvSetPointLightShaderLink(int light, int shader);
LV_API int lvAddPointLightAOV(int light);
LV_API void lvSetPointLightAOVChannel(int light, int aov, Channel channel);
LV_API void lvSetPointLightAOVName(int light, int aov, const char* name);

/* Parallel lights. Blur is a cone angle in degrees around the direction;
 * links and AOVs as for point lights. */
LV_API int lvAddParallelLight(void);
LV_API void lvSetParallelLightDirection(int light, float x, float y, float z);
LV_API void lvSetParallelLightColor(int light, float x, float y, float z);
LV_API void lvSetParallelLightPhoton(int light, int photon);
LV_API void lvSetParallelLightSample(int light, int sample);
LV_API void lvSetParallelLightBlur(int light, float degrees);
LV_API void lvSetParallelLightOffset(int light, float offset);
LV_API void lvSetParallelLightShaderLink(int light, int shader);
LV_API int lvAddParallelLightAOV(int light);
LV_API void lvSetParallelLightAOVChannel(int light, int aov, Channel channel);
LV_API void lvSetParallelLightAOVName(int light, int aov, const char* name);

/* The geometry light: all emissive surfaces together. Sample is the number of
 * shadow samples per shading point (0: emission is found by rays alone).
 * Links and AOVs as for point lights; an AOV's shader name limits it to the
 * emission of that shader. */
LV_API void lvSetGeometryLightSample(int sample);
LV_API void lvSetGeometryLightPhoton(int photon);
LV_API void lvSetGeometryLightShaderLink(int shader);
LV_API int lvAddGeometryLightAOV(void);
LV_API void lvSetGeometryLightAOVChannel(int aov, Channel channel);
LV_API void lvSetGeometryLightAOVName(int aov, const char* name);
LV_API void lvSetGeometryLightAOVShaderName(int aov, const char* name);

/* The sky light: a constant colour, or an image in longitude and latitude
 * multiplied by the colour, turned by the north and zenith directions
 * (north is kept, zenith is made orthogonal to it). The backdrop is seen by
 * camera rays only. Links and AOVs as for point lights. */
LV_API void lvSetSkyLightColor(float x, float y, float z);
LV_API void lvSetSkyLightNorth(float x, float y, float z);
LV_API void lvSetSkyLightZenith(float x, float y, float z);
LV_API void lvSetSkyLightSample(int sample);
LV_API void lvSetSkyLightPhoton(int photon);
LV_API void lvSetSkyLightShaderLink(int shader);
LV_API void lvSetSkyLightImage(const char* file);
LV_API void lvSetSkyLightBackdrop(const char* file);
LV_API int lvAddSkyLightAOV(void);
LV_API void lvSetSkyLightAOVChannel(int aov, Channel channel);
LV_API void lvSetSkyLightAOVName(int aov, const char* name);

#ifdef __cplusplus
}
#endif

#endif
