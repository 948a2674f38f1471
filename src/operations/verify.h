// The body of the verify command, and the last step of a consolidation.
#pragma once

#include <string>

// Reads every chunk that a restore of the image at path would write and compares it with what the image recorded. A bad
// chunk of the image's own is named and counted, and the run goes on; anything else that goes wrong is fatal. Returns
// only if every chunk passed. passwordFile is empty for none.
void VerifyImage(const std::string &path, const std::string &passwordFile);
