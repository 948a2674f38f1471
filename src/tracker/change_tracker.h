// The client of the change-tracking driver: attaches a disk, reads its epochs and its bitmap of changed blocks once,
// tests byte ranges against the bitmap, and commits the epoch once an image is complete.
//
// Everything is best effort. Nothing here prints or ends the process; a tracker that is missing or refuses only makes a
// capture read more.
#pragma once

#include <windows.h>

#include <winioctl.h>

#include <cstddef>
#include <cstdint>
#include <vector>

// The wire records of the driver, little-endian as the machine's own.

struct TrackerDiskRequest {
    uint32_t diskNumber;
    uint32_t reserved; // 0
};

struct TrackerCommitRequest {
    uint32_t diskNumber;
    uint32_t reserved; // 0
    uint64_t epoch;
};

struct TrackerStateHeader {
    uint32_t active;           // 0: the disk has no usable tracking
    uint32_t hasPreviousEpoch; // 0: previousEpoch is not valid
    uint64_t previousEpoch;    // the last one committed
    uint64_t currentEpoch;     // that of the capture now running
    uint32_t secondaryGap;     // counts as gap does, but is not shown
    uint32_t gap;              // not 0: a write was seen that the bitmap does not hold
    uint64_t trackedExtent;    // 0: the disk has no usable tracking; the value has no other use
    uint32_t blockShift;       // a bitmap bit covers 2 to this power bytes of the disk
    uint32_t bitmapBytes;      // length of the bitmap behind this record
};

static_assert(sizeof(TrackerDiskRequest) == 8 && offsetof(TrackerDiskRequest, reserved) == 4);
static_assert(sizeof(TrackerCommitRequest) == 16 && offsetof(TrackerCommitRequest, epoch) == 8);
static_assert(sizeof(TrackerStateHeader) == 48 && offsetof(TrackerStateHeader, hasPreviousEpoch) == 4);
static_assert(offsetof(TrackerStateHeader, previousEpoch) == 8 && offsetof(TrackerStateHeader, currentEpoch) == 16);
static_assert(offsetof(TrackerStateHeader, secondaryGap) == 24 && offsetof(TrackerStateHeader, gap) == 28);
static_assert(offsetof(TrackerStateHeader, trackedExtent) == 32 && offsetof(TrackerStateHeader, blockShift) == 40);
static_assert(offsetof(TrackerStateHeader, bitmapBytes) == 44);

struct TrackerState {
    TrackerStateHeader header = {};
    std::vector<uint8_t> bitmap; // lowest bit of the first byte is block 0; a set bit means changed
};

constexpr DWORD trackerDeviceType = 0x8C7D;
constexpr DWORD TrackerAttach = CTL_CODE(trackerDeviceType, 0x801, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr DWORD TrackerQuery = CTL_CODE(trackerDeviceType, 0x802, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr DWORD TrackerCommit = CTL_CODE(trackerDeviceType, 0x803, METHOD_BUFFERED, FILE_ANY_ACCESS);

static_assert(TrackerAttach == 0x8C7D2004 && TrackerQuery == 0x8C7D2008 && TrackerCommit == 0x8C7D200C);

// One disk's tracker. The handle is closed by whoever called Open, also after a failure.
struct ChangeTracker {
    // Opens the driver's device and attaches the disk; true, and attached set, when both succeeded.
    bool Open(uint32_t disk);

    // Reads the state of an attached disk into state; false, with state as it was, when the disk has no usable
    // tracking.
    bool Query();

    // True unless the bitmap proves that no block of the length bytes at offset changed; length is not 0.
    bool IsRangeDirty(uint64_t offset, uint64_t length) const;

    // Names state's currentEpoch as that of the last finished image; true when the driver accepted it.
    bool Commit();

    HANDLE handle = INVALID_HANDLE_VALUE;
    uint32_t diskNumber = 0;
    bool attached = false;
    TrackerState state;
};
