// Bringing what was written to its disk. While the program works on the next chunk, the last ones are on their way, so
// that little is left to wait for at the close.
#pragma once

#include "port.h"

#include <string>

// Takes off the open file behind descriptor the fault of something that failed on its way to the disk since the last
// question, if there is one. True, with errno set, if there was, or if the question itself is refused.
bool TakeLateFault(int descriptor);

// Makes handle, an image that was just opened for writing at path, one that is written behind.
void StartWritingBehind(PortHandle &handle, const std::string &path);

// Hears whether something of an image failed on its way to the disk since the last write, then sends the whole windows
// behind the position on theirs; false with the last error set. An image that is told so at its header gets none. Does
// nothing for a disk.
bool WriteBehind(PortHandle &handle);

// What was written through handle is on its disk, an image with its name in the folder, a drive's own cache emptied;
// false with the last error set. Does nothing where nothing was written.
bool BringToDisk(const PortHandle &handle);
