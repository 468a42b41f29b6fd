// Saving image records as files of the format that their names ask for.
#pragma once

#include "core/records.h"

// Saves the image under its name: floats for ".exr", ".hdr" and ".pfm"
// names, bytes clipped at 1.0 for all others. Returns 1 when a file was
// saved, 0 otherwise; nothing is printed either way.
int saveImage(const ImageRecord& image);

// Writes one image by the extension of its name; every AOV image of a list.
void writeImage(const ImageRecord& image);
void writeAovs(const std::vector<Aov>& aovs);
