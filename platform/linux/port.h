// What the files of the port share: the record behind a handle, the last error, and the names of devices. None of it is
// part of the published API, and the port never goes through the published calls itself, so that a test program which
// replaces them sees the program's calls alone.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

// ---- errors.cpp ----

// Makes error the number that GetLastError gives to this thread.
void SetPortError(DWORD error);

// The Windows number of a system error, as a user of Windows would see it for the same fault.
DWORD WindowsError(int systemError);

// The same for a call on path: tells a missing file from a missing folder by looking at the parent.
DWORD WindowsErrorOfPath(int systemError, const std::string &path);

// The same for a transfer: bytes that can't be read are one fault, a device that doesn't take them another.
DWORD WindowsErrorOfTransfer(int systemError, bool isWrite);

// ---- handles ----

enum class HandleKind { File, Disk, Volume, ControlDevice };

struct ReadAhead;

// Behind each HANDLE, owned by it.
struct PortHandle {
    HandleKind kind = HandleKind::File;
    int descriptor = -1;
    uint64_t position = 0; // bytes; of the next transfer
    bool isBlockDevice = false;
    bool isDirect = false;         // the descriptor has O_DIRECT
    uint32_t sectorBytes = 512;    // of a disk: what unbuffered transfers are aligned to
    uint64_t lengthWhenOpened = 0; // bytes; of a block device
    void *bounceBuffer = nullptr;  // for transfers whose own buffer the device would refuse; made when first needed
    bool readsAhead = false;       // of a disk: reading in ascending order is met half-way
    int aheadDescriptor = -1;      // what is read ahead comes through this one, which holds no lock
    uint64_t endOfLastRead = UINT64_MAX; // bytes; where a read must begin to be the next in order
    ReadAhead *ahead = nullptr;          // made when first needed
    bool isWritten = false;              // what is closed is to be on the disk
    int folder = -1;                     // of an image being written: the folder that holds its name
    uint64_t underWayTo = 0;             // bytes; of an image being written: what lies before has been sent to its disk
    uint32_t diskNumber = 0;             // of a volume: the disk that it lies on
    uint64_t lengthBytes = 0;            // of a volume
    bool isBroken = false;               // of a control device: an exchange failed half-way
};

// The record behind handle, or null with the last error set. In opening.cpp.
PortHandle *HandleRecord(HANDLE handle);

// Moves up to byteCount bytes at the handle's position, and the position with them. True: *moved is short only at the
// end. False with the last error set: *moved is what went before the fault. In transfers.cpp.
bool Transfer(PortHandle &handle, void *buffer, uint64_t byteCount, DWORD *moved, bool isWrite);

// True for a block device that was there when it was opened and is none any more: the kernel says then that it has no
// bytes. In queries.cpp.
bool HasGoneAway(const PortHandle &handle);

// The length of the disk behind handle as it is now; false with the last error set. In queries.cpp.
bool LengthOfDisk(const PortHandle &handle, uint64_t *lengthBytes);

// ---- control_device.cpp ----

// Connects to the control device at folder/name; INVALID_HANDLE_VALUE with the last error set.
HANDLE OpenControlDevice(const std::string &folder, const std::string &name);

// One exchange with the device behind handle, with the arguments and the result of DeviceIoControl.
BOOL ExchangeWithDevice(PortHandle *handle, DWORD controlCode, const void *input, DWORD inputLength, void *output,
                        DWORD outputLength, DWORD *bytesReturned);

// ---- device_name.cpp ----

enum class DeviceKind { None, Disk, Volume, ControlDevice };

// A disk of the block layer when the list was taken.
struct OwnDisk {
    std::string name;
    uint64_t sequence = 0; // diskseq, which the kernel never gives twice; 0 where it gives none
    dev_t number = 0;
};

struct Device {
    DeviceKind kind = DeviceKind::None;
    std::string path;         // of a disk: its node or file
    OwnDisk ownDisk;          // of one of the machine's own disks
    uint32_t diskNumber = 0;  // of a volume: the disk that it lies on; noDisk for none of the disks
    uint64_t lengthBytes = 0; // of a volume
    std::string folder;       // of a control device: where its socket lies
    std::string name;
};

constexpr uint32_t noDisk = 0xFFFFFFFF;

// The device behind \\.\name on this machine. What the machine is, a folder or the real one, is settled by the first
// call.
Device FindDevice(const std::string &name);

// The same when the folder is the whole machine.
Device FindDeviceInFolder(const std::string &folder, const std::string &name);

// True, with *number set, for PhysicalDriveN with N written as printf writes it.
bool ParseDiskName(const std::string &name, uint32_t *number);

// ---- own_disks.cpp ----

// The device behind \\.\name among the machine's own. The disks are listed by the first call.
Device FindOwnDevice(const std::string &name);

// True when the open descriptor is the disk that stood in the list, and not another that has come under its name since;
// always for what no list holds.
bool IsDiskOfList(int descriptor, const OwnDisk &disk);

// The machine's own disks in the order of their numbers; sysRoot is the mount of sysfs. None if it can't be read whole.
std::vector<OwnDisk> ListOwnDisks(const std::string &sysRoot);

// The number among disks of the one that the block device major:minor lies on, through partitions, device mapper and
// md; noDisk if it lies on none.
uint32_t OwnDiskHolding(const std::string &sysRoot, const std::vector<OwnDisk> &disks, unsigned int majorNumber,
                        unsigned int minorNumber);

// The block device that the root folder's file system names as its source, for one without a device number of its own,
// such as btrfs; 0 if it names none. mountInfo is a file in the form of proc(5)'s /proc/PID/mountinfo.
dev_t SourceOfRoot(const std::string &mountInfo);
