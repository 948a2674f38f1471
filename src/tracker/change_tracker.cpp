// The conversation with the driver: open and attach, the two-step query, the range test, the commit.
//
// The first step of the query is asked only for the record that tells the bitmap's size, with a buffer too small for
// the bitmap itself; its result says nothing, its bytes do. The second step's record counts, but the buffer's size
// stays that of the first.
#include "tracker/change_tracker.h"

#include <cstring>
#include <utility>

bool ChangeTracker::Open(uint32_t disk)
{
    diskNumber = disk;
    handle = CreateFileW(L"\\\\.\\Tallier", GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    TrackerDiskRequest request = {diskNumber, 0};
    DWORD bytesReturned = 0;
    attached =
        DeviceIoControl(handle, TrackerAttach, &request, sizeof(request), nullptr, 0, &bytesReturned, nullptr) != FALSE;
    return attached;
}

bool ChangeTracker::Query()
{
    TrackerDiskRequest request = {diskNumber, 0};
    TrackerStateHeader first = {};
    DWORD bytesReturned = 0;
    DeviceIoControl(handle, TrackerQuery, &request, sizeof(request), &first, sizeof(first), &bytesReturned, nullptr);
    if (first.active == 0 || first.trackedExtent == 0) {
        return false;
    }
    const uint64_t replyBytes = uint64_t{first.bitmapBytes} + sizeof(first);
    if (replyBytes > UINT32_MAX) {
        return false; // no output can take it whole, and a part proves nothing
    }
    std::vector<uint8_t> reply(replyBytes);
    if (!DeviceIoControl(handle, TrackerQuery, &request, sizeof(request), reply.data(), static_cast<DWORD>(replyBytes),
                         &bytesReturned, nullptr)) {
        return false;
    }
    memcpy(&state.header, reply.data(), sizeof(state.header));
    reply.erase(reply.begin(), reply.begin() + sizeof(state.header));
    state.bitmap = std::move(reply);
    return true;
}

bool ChangeTracker::IsRangeDirty(uint64_t offset, uint64_t length) const
{
    const uint32_t shift = state.header.blockShift;
    if (shift > 63) {
        return true; // no block of that size exists, so nothing is proved
    }
    const uint64_t first = offset >> shift;
    const uint64_t last = (offset + length - 1) >> shift;
    for (uint64_t block = first; block <= last; ++block) {
        if (block / 8 >= state.bitmap.size() || (state.bitmap[block / 8] >> (block % 8) & 1) != 0) {
            return true;
        }
    }
    return false;
}

bool ChangeTracker::Commit()
{
    TrackerCommitRequest request = {diskNumber, 0, state.header.currentEpoch};
    DWORD bytesReturned = 0;
    return DeviceIoControl(handle, TrackerCommit, &request, sizeof(request), nullptr, 0, &bytesReturned, nullptr) !=
           FALSE;
}
