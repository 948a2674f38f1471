// A handle on one disk: as long as it is open, the system gives the disk's number to no other.
#include "host/open_handle_windows.h"

#include <algorithm>

namespace host
{

struct HeldDiskState {
    DiskFacts facts;
    HANDLE disk = INVALID_HANDLE_VALUE;
};

void ReleaseHeldDisk::operator()(HeldDiskState *state) const
{
    if (state->disk != INVALID_HANDLE_VALUE) {
        CloseHandle(state->disk);
    }
    delete state;
}

static Trouble CheckFacts(const DiskFacts &wanted)
{
    std::vector<DiskFacts> disks;
    if (Trouble trouble = ListDisks(&disks)) {
        return trouble;
    }
    const auto found = std::find_if(disks.begin(), disks.end(),
                                    [&wanted](const DiskFacts &disk) { return disk.number == wanted.number; });
    const bool isSame = found != disks.end() && found->serial == wanted.serial && found->wwn == wanted.wwn &&
                        found->model == wanted.model && found->sizeBytes == wanted.sizeBytes;
    return isSame ? Trouble() : Trouble("another disk has taken its place since the disks were listed");
}

Trouble HoldDisk(const DiskFacts &disk, const std::vector<DiskFacts> &, const std::string &kestrix, HeldDisk *held)
{
    held->state.reset(new HeldDiskState);
    held->state->facts = disk;
    held->number = disk.number;
    held->program = kestrix;
    const std::wstring path = L"\\\\.\\PhysicalDrive" + std::to_wstring(disk.number);
    held->state->disk =
        CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (held->state->disk == INVALID_HANDLE_VALUE) {
        return SystemText(GetLastError());
    }
    return CheckFacts(disk);
}

Trouble CheckHeldDisk(const HeldDisk &held)
{
    return CheckFacts(held.state->facts);
}

} // namespace host
