// Cameras: preparation, poses and primary rays.
#pragma once

#include "core/records.h"

void preparePose(CameraPose& pose, float width);
CameraPose interpolatePose(const Camera& camera, float t);
void generateRay(const Camera& camera, RayState& ray, int x, int y, unsigned sampleIndex);

void prepareCameras();
void releaseCameras();
