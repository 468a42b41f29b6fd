// The preview window: the beauty image shown as it refines, with the frames
// rendered between the window's events.
#pragma once

// Opens the window of the current camera's size and runs its event loop,
// which calls `renderFrame` whenever it is idle. Without a window system (a
// build without one, or no display to open) it says so and calls it once for
// each frame of the camera without a window. The window is told about
// frames; the renderer that makes them is the caller's.
void openPreview(void (*renderFrame)());
// Draws the first camera's beauty image into the window, linear.
void displayPreview();
// Draws the image and asks the window to draw again: the end of every frame.
void refreshPreview();
// Writes the running mean of the beauty image when the window closes.
void closePreview();
