// The disks that the running system was started from: those of the volume that holds Windows. A system in memory, as
// that of an installation medium, does not tell.
#include "host/open_handle_windows.h"

namespace host
{

StartMedium FindStartMedium()
{
    wchar_t folder[MAX_PATH] = {};
    StartMedium medium;
    FileSystemFacts facts;
    const UINT length = GetSystemWindowsDirectoryW(folder, MAX_PATH);
    if (length != 0 && length < MAX_PATH && !FileSystemOf(Narrow(folder), &facts)) {
        medium.disks = facts.disks;
    }
    medium.isKnown = !medium.disks.empty();
    return medium;
}

} // namespace host
