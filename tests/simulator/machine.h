// A Windows machine in memory, for tests of the program.
//
// A test fills in a Machine, runs a command on it and looks at what came of it:
//
//     TEST(Capture, NamesTheReadThatFailed)
//     {
//         Scratch scratch; // an empty current folder, so that paths in messages and in the log are what the test wrote
//         Machine machine = MachineWithDisk(1, PatternBytes(16 * MiB, 7));
//         FailCall(machine, "ReadFile", 3, ERROR_CRC).object = "disk1";
//         RunResult result = RunCommand(machine, {"capture", "--disk", "1", "--out", "image.kstx"});
//         EXPECT_EQ(result.exitStatus, 1);
//         EXPECT_NE(result.errorText.find("ReadFile from source disk failed"), std::string::npos);
//         EXPECT_EQ(CountCalls(machine, "ReadFile", "disk1"), 3U);
//         EXPECT_EQ(machine.misuses, std::vector<std::string>());
//     }
//
// Disks, volumes, the tracker, the snapshot service, the clock and the last error are the machine's own. Ordinary
// files, memory and cryptography are the real platform's; the calls to them are logged and can be made to fail all the
// same. RunCommand, RunResult and Scratch stand in run_command.h, image bytes and patterns in images.h.
#pragma once

#include "simulator/snapshot_service.h"

#include <windows.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

constexpr uint64_t KiB = 1024;
constexpr uint64_t MiB = 1024 * KiB;
constexpr uint64_t GiB = 1024 * MiB;

constexpr uint32_t failedStatus = 0xC0000001U; // STATUS_UNSUCCESSFUL, for cryptography calls that shall fail

// A disk, named by its number in Machine::disks. Its content is bytes, or what fill makes up, and it may be shorter
// than the disk says it is: a transfer ends where the content ends.
struct Disk {
    uint64_t lengthBytes = 0; // what the disk says; 0: the size of bytes
    uint32_t sectorBytes = 512;
    std::vector<uint8_t> bytes;
    // Instead of bytes: fills buffer with the content from offset on. Such a disk is as long as it says, and read-only.
    std::function<void(uint64_t offset, uint8_t *buffer, uint64_t lengthBytes)> fill;
    DWORD openError = 0;                   // every open fails with it
    DWORD exclusiveOpenError = 0;          // an open with share mode 0 fails with it, as where a volume is mounted
    DWORD lengthError = 0;                 // the length query fails with it
    DWORD geometryError = 0;               // the geometry query fails with it
    uint64_t geometryLengthBytes = 0xBAD0; // DiskSize in the geometry, which nobody should use
    bool refusesUnaligned = true;          // position and length must be whole sectors
    bool refusesUnalignedBuffers = false;  // an unbuffered transfer's address must be a whole sector
};

struct Extent {
    uint32_t diskNumber;
    uint64_t startingOffset;
    uint64_t lengthBytes;
};

// The volume C:. One that spans more extents than the output has room for answers ERROR_MORE_DATA.
struct Volume {
    DWORD openError = 0;
    DWORD extentsError = 0;
    std::vector<Extent> extents = {{0, MiB, 64 * MiB}};
};

// A volume that enumeration finds. It opens by its name less one trailing backslash, and is "volume:1" in the log if it
// is the first of Machine::volumes; its shadow device is then "shadow:1".
struct NamedVolume {
    std::wstring name;
    Volume volume;
    bool isSupported = true;                 // what the snapshot service says of it
    std::map<std::string, uint32_t> results; // of the service's calls about it, by their names; else 0
    std::optional<std::wstring> shadowName;  // as the service gives it; unset: a null string
    Disk shadow;                             // what the shadow device holds while the snapshot exists
};

// What the tracker answers to a query: the fields of its 48-byte header in their order, and the bitmap behind it.
struct TrackerReply {
    uint32_t active = 1;
    uint32_t hasPreviousEpoch = 0;
    uint64_t previousEpoch = 0;
    uint64_t currentEpoch = 1;
    uint32_t secondaryGap = 0;
    uint32_t gap = 0;
    uint64_t trackedExtent = 1;
    uint32_t blockShift = 20;
    std::optional<uint32_t> bitmapBytes; // unset: the length of bitmap
    std::vector<uint8_t> bitmap;
};

// The change-tracking driver. As one should, it fills the header of a query whose output has no room for the bitmap,
// and then fails with ERROR_MORE_DATA; it keeps marks and gaps until a commit whose capture attached the disk behind
// them, and has those that came later in the next answer; an epoch that was given out once is passed over when a disk
// is attached, and none but the one given out last is committed, once. A commit makes its epoch the previous one and
// counts currentEpoch up.
struct Tracker {
    DWORD openError = 0;
    DWORD attachError = 0;
    DWORD queryError = 0; // every query fails with it and writes nothing
    DWORD commitError = 0;
    TrackerReply reply;                     // bitmap and gaps: those since the last attach
    std::optional<TrackerReply> laterReply; // is the whole answer to every query of a run but the first
    std::vector<uint64_t> commits;          // epochs that were accepted, oldest first

    std::vector<uint64_t> epochsGiven; // in answers, oldest first
    std::vector<uint8_t> olderBitmap;  // from before the last attach: what its commit covers
    uint32_t olderGap = 0;
    uint32_t olderSecondaryGap = 0;
};

// One line of the log: a replaced call that the program made, or text that it printed since the call before (name
// "stdout" or "stderr", the text in result, its field "flushed" the bytes of it that had left the program's buffer).
struct Call {
    std::string name;   // "ReadFile"
    std::string object; // what it was made on: "disk1#1", "file:image.kstx#1", "key#2"; for an open "disk1",
                        // "volume:C", "tracker" or "file:image.kstx"; empty where there is none
    std::map<std::string, uint64_t> fields; // the arguments by name, such as "offset", "length", "access"; "aligned" is
                                            // the largest power of two, up to 4096, that divides the buffer's address
    std::vector<uint8_t>
        input; // DeviceIoControl: the input; PBKDF2: the salt; seal and open: the nonce; property: value
    const void *buffer = nullptr; // the caller's buffer: to be compared with others, never to be printed
    bool failed = false;
    uint32_t error = 0;   // number or status of a failure
    bool faulted = false; // a fault of the test had a hand in it
    std::string result;   // what came back, as text
    std::string text;     // the whole line, without addresses or anything else that differs between two equal runs
};

// What a test wants to go wrong. FailCall, ShortenCall and FailControl make one; the fields can be set further.
struct Fault {
    std::string call;         // name of the call; empty: any call that can fail
    std::string object;       // empty: any; "disk1" takes "disk1" and "disk1#2", "file" every file
    DWORD controlCode = 0;    // DeviceIoControl: only this code, unless 0
    uint32_t nth = 1;         // the nth call that matches, counted in each run from 1 ...
    bool forGood = false;     // ... and every later one
    uint32_t error = 0;       // the failure's number, status, or errno of fopen_s; 0: no failure, a short transfer
    bool afterEffect = false; // the call does its work, up to transferBytes, and then reports the failure
    uint64_t transferBytes = UINT64_MAX; // at most so many bytes (fread: elements, fopen_s: streams) are moved
    uint32_t matched = 0;                // of the current run
};

struct Machine {
    std::map<uint32_t, Disk> disks;
    std::optional<Volume> volumeC = Volume();
    std::optional<Tracker> tracker;                 // unset: the driver is not loaded
    std::vector<NamedVolume> volumes;               // in the order of enumeration; C: is none of them
    std::optional<SnapshotService> snapshotService; // unset: its library is missing, and binding it raises 0xC06D007E

    uint64_t ticks = 1000;     // the next value of GetTickCount64
    uint64_t ticksPerCall = 0; // added after each call of it
    DWORD lastError = 0;
    // Unless 0, every replaced system call that succeeds leaves this as last error, as a system may: a report that took
    // the number too late then shows it.
    DWORD lastErrorAfterSuccess = 0;
    uint64_t memoryBytes = 64 * GiB; // a single request for more than that gets none
    // A key derivation really makes at most so many rounds, whatever the log says that it was asked for: the key is
    // then another one, and costs no time. For runs whose images no one else opens.
    uint64_t mostIterations = UINT64_MAX;

    std::deque<Fault> faults;
    uint32_t failingAllocation = 0; // the nth operator new of a run throws std::bad_alloc; 0: none does
    // Called ahead of each logged call's effect, with its arguments but no result: the place to change the machine or a
    // file in the middle of a run. Calls that it makes are neither logged nor faulted.
    std::function<void(Machine &machine, const Call &call)> onCall;

    // Of the latest run:
    std::vector<Call> calls;
    std::vector<std::string> misuses; // what no sound program does: closing twice, using a closed handle, and the like
    // What the snapshot side of the program took and never gave back: COM, references, strings, records, searches and
    // shadow devices, by their names in the log.
    std::vector<std::string> leaks;
    uint32_t fallibleCalls = 0; // calls that a fault could have hit
    uint32_t faultsFired = 0;
    uint32_t allocations = 0; // calls of operator new
};

// A machine with one disk of these bytes, C: on disk 0 (whether or not that is the disk), and no tracker.
Machine MachineWithDisk(uint32_t number, std::vector<uint8_t> bytes);

// Makes the nth call of that name fail with error: the effect stays away, and so does everything that it would have
// returned. The reference stays good until the faults are cleared. A failed close or release closes all the same.
Fault &FailCall(Machine &machine, const std::string &call, uint32_t nth, uint32_t error);
// The same for DeviceIoControl with that control code.
Fault &FailControl(Machine &machine, DWORD controlCode, uint32_t nth, uint32_t error);
// Makes the nth call of that name succeed with at most that many bytes moved.
Fault &ShortenCall(Machine &machine, const std::string &call, uint32_t nth, uint64_t transferBytes);
// For a sweep: the nth call of any kind fails (with forGood set, every later one too). A run that had fewer calls
// leaves Machine::faultsFired at 0, which ends the sweep.
Fault &FailAnyCall(Machine &machine, uint32_t nth, bool forGood);

// Adds a volume with a shadow device of these bytes, named \Device\HarddiskVolumeShadowCopyN for the Nth volume. The
// reference stays good until the next one is added.
NamedVolume &AddVolume(Machine &machine, const std::wstring &name, const std::vector<Extent> &extents,
                       std::vector<uint8_t> shadowBytes = {});

// Sets the tracker's bits for the blocks that hold these bytes of the disk, as the driver does at a write.
void MarkChanged(TrackerReply &reply, uint64_t offset, uint64_t lengthBytes);

// The calls of the latest run by name, and by object if one is given ("disk1" as in Fault::object).
std::vector<Call> CallsOf(const Machine &machine, const std::string &name, const std::string &object = "");
size_t CountCalls(const Machine &machine, const std::string &name, const std::string &object = "");
// The field of a call; std::out_of_range, which fails the test, when the call has none of that name.
uint64_t Field(const Call &call, const std::string &name);
// The log as text, a line for each call that takes passes; without one, all lines but the program's own output.
std::string LogText(const Machine &machine, const std::function<bool(const Call &call)> &takes = nullptr);
// As above, of the calls with these names, in the order in which they were made.
std::string LogOf(const Machine &machine, const std::vector<std::string> &names);
