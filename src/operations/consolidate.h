// The body of the consolidate command: an image and everything it refers to, folded into one new full image.
#pragma once

#include <string>

// Writes the content of the image at inPath, thin or full, as a full image to outPath, where nothing may stand yet, and
// verifies it. The output is sealed under a new key if encrypt is set and plain otherwise, whatever the source was;
// passwordFile, empty for none, opens the source and seals the output. Returns only when the new image has passed its
// verify; every failure ends the process.
void ConsolidateImage(const std::string &inPath, const std::string &outPath, const std::string &passwordFile,
                      bool encrypt);
