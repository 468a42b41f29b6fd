// The frame loop: passes over the camera's region into a running mean.
#pragma once

// One frame: a pass, its report, and after the last pass the end of render.
void renderFrame();
// One pass over the current camera's region with the given sample index.
void renderPixels(unsigned sampleIndex);
// Statistics, writing and light release after the last frame.
void endOfRender();
