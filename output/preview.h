// The preview window that shows the image as it refines.
#pragma once

// Opens the window and runs its loop, which calls the frame function when idle.
void runPreview();
// Draws the current image into the window.
void displayPreview();
