// The preparation and release work of each stage, called by the exported
// stage functions and by lvInitialize / lvFinalize in their fixed order.
#pragma once

#include "core/records.h"

// Cameras (render/camera.cpp).
void prepareCameras();
void releaseCameras();
// Textures and shaders (shading/).
void prepareTextures();
void releaseTextures();
void prepareShaders();
void releaseShaders();
// Objects and the root (geometry/).
void prepareAccelerator();
void releaseAccelerator();
// Lights (lights/).
void prepareSkyLight();
void releaseSkyLight();
void prepareGeometryLight();
void releaseGeometryLight();
void prepareGaffer();
void releaseGaffer();
// Renderer (render/renderer.cpp).
void prepareRenderer();
void releaseRenderer();

// Image files (output/).
void writeImage(const ImageRecord& image);
// Writes every AOV image of a list.
void writeAovs(const std::vector<Aov>& aovs);

// Per-node child hit counters of every hierarchy, cleared before each frame,
// and the one reordering of all hierarchies after the first frame (geometry/).
void clearNodeHitCounters();
void reorderHierarchies();
