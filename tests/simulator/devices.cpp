// The devices of the machine: its disks, its volumes with their shadow devices, and the tracker.
//
// Replies are written byte by byte at their published offsets, so that they don't depend on anybody's idea of a record.
#include "simulator/running.h"

#include <algorithm>
#include <cstring>

namespace
{
constexpr DWORD lengthQuery = 0x0007405C;
constexpr DWORD geometryQuery = 0x000700A0;
constexpr DWORD updateProperties = 0x00070140;
constexpr DWORD extentsQuery = 0x00560000;
constexpr DWORD trackerAttach = 0x8C7D2004;
constexpr DWORD trackerQuery = 0x8C7D2008;
constexpr DWORD trackerCommit = 0x8C7D200C;
constexpr size_t trackerHeaderBytes = 48;

constexpr DWORD errorFileNotFound = 2;
constexpr DWORD errorAccessDenied = 5;
constexpr DWORD errorInvalidFunction = 1;
constexpr DWORD errorSectorNotFound = 27;
constexpr DWORD errorSharingViolation = 32;
constexpr DWORD errorInvalidParameter = 87;
constexpr DWORD errorInsufficientBuffer = 122;
constexpr DWORD errorMoreData = 234;
constexpr DWORD errorNoMoreFiles = 18;
constexpr DWORD errorNameTooLong = 206;
constexpr DWORD errorWriteProtect = 19;
constexpr DWORD errorNotConnected = 1167;

constexpr char devicePrefix[] = "\\\\.\\";
constexpr char diskPrefix[] = "\\\\.\\PhysicalDrive";
constexpr char objectPrefix[] = "\\Device\\";
constexpr char globalRoot[] = "\\\\?\\GLOBALROOT";

Outcome Failure(DWORD error)
{
    return {false, error, ""};
}

void Store(std::vector<uint8_t> &bytes, size_t offset, uint64_t value, size_t width)
{
    if (bytes.size() < offset + width) {
        bytes.resize(offset + width);
    }
    for (size_t i = 0; i < width; ++i) {
        bytes[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

uint64_t Load(const std::vector<uint8_t> &bytes, size_t offset, size_t width)
{
    uint64_t value = 0;
    for (size_t i = 0; i < width && offset + i < bytes.size(); ++i) {
        value |= static_cast<uint64_t>(bytes[offset + i]) << (8 * i);
    }
    return value;
}

uint64_t SaidLength(const Disk &disk)
{
    return disk.lengthBytes != 0 ? disk.lengthBytes : disk.bytes.size();
}

uint64_t ContentLength(const Disk &disk)
{
    return disk.fill ? SaidLength(disk) : disk.bytes.size();
}

Disk *DiskOfPath(const std::string &path, uint32_t *number)
{
    if (path.compare(0, strlen(diskPrefix), diskPrefix) != 0) {
        return nullptr;
    }
    const std::string digits = path.substr(strlen(diskPrefix));
    for (auto &[diskNumber, disk] : running->machine->disks) {
        if (digits == std::to_string(diskNumber)) {
            *number = diskNumber;
            return &disk;
        }
    }
    return nullptr;
}

std::string VolumePath(const NamedVolume &volume)
{
    std::string path = Narrow(volume.name.c_str());
    if (!path.empty() && path.back() == '\\') {
        path.pop_back();
    }
    return path;
}

// The path that opens the shadow device: an object's name opens through the global root only, any other name is a path.
std::string ShadowPath(const NamedVolume &volume)
{
    const std::string name = Narrow(volume.shadowName ? volume.shadowName->c_str() : L"");
    return name.compare(0, strlen(objectPrefix), objectPrefix) == 0 ? globalRoot + name : name;
}

// The number of the volume that this path opens, as itself or as its shadow device; 0 if there is none.
uint32_t VolumeOfPath(const std::string &path, std::string (*pathOf)(const NamedVolume &volume))
{
    const std::vector<NamedVolume> &volumes = running->machine->volumes;
    const auto found = std::find_if(volumes.begin(), volumes.end(),
                                    [&](const NamedVolume &volume) { return !path.empty() && pathOf(volume) == path; });
    return found == volumes.end() ? 0 : static_cast<uint32_t>(found - volumes.begin()) + 1;
}

NamedVolume &VolumeByNumber(uint32_t number)
{
    return running->machine->volumes.at(number - 1);
}

// Null once the test has taken the disk out of the machine, or the snapshot of a shadow device is gone.
Disk *DiskOf(const Object &object)
{
    if (object.volumeNumber != 0) {
        return HasShadow(object.volumeNumber) ? &VolumeByNumber(object.volumeNumber).shadow : nullptr;
    }
    const auto found = running->machine->disks.find(object.diskNumber);
    return found == running->machine->disks.end() ? nullptr : &found->second;
}

bool SharingForbids(const std::string &name, DWORD share)
{
    for (const auto &[key, object] : running->objects) {
        const bool same = object.open && object.name.compare(0, name.size() + 1, name + "#") == 0;
        if (same && (share == 0 || object.share == 0)) {
            return true;
        }
    }
    return false;
}

// What a transfer at the handle's position may not look like on a real disk.
DWORD TransferError(const Object &object, const Disk &disk, const void *buffer, uint64_t length)
{
    if (disk.refusesUnaligned && (object.position % disk.sectorBytes != 0 || length % disk.sectorBytes != 0)) {
        return errorInvalidParameter;
    }
    const bool unbuffered = (object.flags & FILE_FLAG_NO_BUFFERING) != 0;
    if (unbuffered && disk.refusesUnalignedBuffers && AlignmentOf(buffer) < std::min(disk.sectorBytes, 4096U)) {
        return errorInvalidParameter;
    }
    return 0;
}

// Copies a reply out: all of it or, where the output is shorter, its beginning.
Outcome Reply(const std::vector<uint8_t> &reply, uint8_t *output, uint64_t outputLength, uint64_t limit, DWORD *moved)
{
    const uint64_t length = std::min({static_cast<uint64_t>(reply.size()), outputLength, limit});
    if (length != 0) {
        memcpy(output, reply.data(), length);
    }
    *moved = static_cast<DWORD>(length);
    return {true, 0, std::to_string(length)};
}

std::vector<uint8_t> GeometryReply(const Disk &disk)
{
    std::vector<uint8_t> reply(40);
    Store(reply, 0, SaidLength(disk) / (255ULL * 63 * disk.sectorBytes), 8); // cylinders
    Store(reply, 8, 12, 4);                                                  // a fixed disk
    Store(reply, 12, 255, 4);                                                // tracks per cylinder
    Store(reply, 16, 63, 4);                                                 // sectors per track
    Store(reply, 20, disk.sectorBytes, 4);
    Store(reply, 24, disk.geometryLengthBytes, 8);
    return reply;
}

std::vector<uint8_t> ExtentsReply(const Volume &volume)
{
    std::vector<uint8_t> reply(32);
    Store(reply, 0, volume.extents.size(), 4);
    for (size_t i = 0; i < volume.extents.size(); ++i) {
        Store(reply, 8 + 24 * i, volume.extents[i].diskNumber, 4);
        Store(reply, 16 + 24 * i, volume.extents[i].startingOffset, 8);
        Store(reply, 24 + 24 * i, volume.extents[i].lengthBytes, 8);
    }
    return reply;
}

std::vector<uint8_t> QueryReply(const TrackerReply &state)
{
    std::vector<uint8_t> reply(trackerHeaderBytes);
    Store(reply, 0, state.active, 4);
    Store(reply, 4, state.hasPreviousEpoch, 4);
    Store(reply, 8, state.previousEpoch, 8);
    Store(reply, 16, state.currentEpoch, 8);
    Store(reply, 24, state.secondaryGap, 4);
    Store(reply, 28, state.gap, 4);
    Store(reply, 32, state.trackedExtent, 8);
    Store(reply, 40, state.blockShift, 4);
    Store(reply, 44, state.bitmapBytes.value_or(static_cast<uint32_t>(state.bitmap.size())), 4);
    reply.insert(reply.end(), state.bitmap.begin(), state.bitmap.end());
    return reply;
}

Outcome ControlDisk(const Disk &disk, DWORD code, uint8_t *output, uint64_t outputLength, uint64_t limit, DWORD *moved)
{
    if (code == lengthQuery) {
        std::vector<uint8_t> reply;
        Store(reply, 0, SaidLength(disk), 8);
        if (disk.lengthError != 0 || outputLength < reply.size()) {
            return Failure(disk.lengthError != 0 ? disk.lengthError : errorInsufficientBuffer);
        }
        return Reply(reply, output, outputLength, limit, moved);
    }
    if (code == geometryQuery) {
        if (disk.geometryError != 0 || outputLength < 32) {
            return Failure(disk.geometryError != 0 ? disk.geometryError : errorInsufficientBuffer);
        }
        return Reply(GeometryReply(disk), output, outputLength, limit, moved);
    }
    return code == updateProperties ? Outcome() : Failure(errorInvalidFunction);
}

Outcome ControlVolume(const Volume &volume, DWORD code, uint8_t *output, uint64_t outputLength, uint64_t limit,
                      DWORD *moved)
{
    if (code != extentsQuery) {
        return Failure(errorInvalidFunction);
    }
    if (volume.extentsError != 0 || outputLength < 32) {
        return Failure(volume.extentsError != 0 ? volume.extentsError : errorInsufficientBuffer);
    }
    const std::vector<uint8_t> reply = ExtentsReply(volume);
    const Outcome outcome = Reply(reply, output, outputLength, limit, moved);
    return reply.size() > outputLength ? Failure(errorMoreData) : outcome;
}

bool WasGiven(const Tracker &tracker, uint64_t epoch)
{
    return std::find(tracker.epochsGiven.begin(), tracker.epochsGiven.end(), epoch) != tracker.epochsGiven.end();
}

// Moves on from an epoch that was given out, past one that comes out as none in the 56 bits that an image keeps.
void MoveOn(Tracker &tracker)
{
    uint64_t &epoch = tracker.reply.currentEpoch;
    while (WasGiven(tracker, epoch)) {
        epoch += (epoch + 1) << 8 == 0 ? 2 : 1;
    }
}

// All that no commit has covered.
TrackerReply StateOf(const Tracker &tracker)
{
    TrackerReply state = tracker.reply;
    for (size_t i = 0; i < std::min(state.bitmap.size(), tracker.olderBitmap.size()); ++i) {
        state.bitmap[i] = static_cast<uint8_t>(state.bitmap[i] | tracker.olderBitmap[i]);
    }
    state.gap |= tracker.olderGap;
    state.secondaryGap |= tracker.olderSecondaryGap;
    return state;
}

Outcome Attach(Tracker &tracker)
{
    MoveOn(tracker);
    const TrackerReply state = StateOf(tracker);
    tracker.olderBitmap = state.bitmap;
    tracker.olderGap = state.gap;
    tracker.olderSecondaryGap = state.secondaryGap;
    std::fill(tracker.reply.bitmap.begin(), tracker.reply.bitmap.end(), static_cast<uint8_t>(0));
    tracker.reply.gap = 0;
    tracker.reply.secondaryGap = 0;
    return Outcome();
}

Outcome AnswerQuery(Tracker &tracker, uint8_t *output, uint64_t outputLength, uint64_t limit, DWORD *moved)
{
    const bool isScripted = running->queries++ != 0 && tracker.laterReply.has_value();
    const TrackerReply state = isScripted ? *tracker.laterReply : StateOf(tracker);
    tracker.epochsGiven.push_back(state.currentEpoch);
    const std::vector<uint8_t> reply = QueryReply(state);
    if (outputLength < reply.size()) {
        Reply(reply, output, trackerHeaderBytes, limit, moved);
        return Failure(errorMoreData);
    }
    return Reply(reply, output, outputLength, limit, moved);
}

Outcome AcceptCommit(Tracker &tracker, uint64_t epoch)
{
    const bool isLast = !tracker.epochsGiven.empty() && tracker.epochsGiven.back() == epoch;
    const bool isSecond = !tracker.commits.empty() && tracker.commits.back() == epoch;
    if (!isLast || isSecond) {
        return Failure(errorInvalidParameter);
    }
    tracker.commits.push_back(epoch);
    tracker.reply.hasPreviousEpoch = 1;
    tracker.reply.previousEpoch = epoch;
    tracker.reply.currentEpoch = epoch;
    MoveOn(tracker);
    tracker.olderBitmap.clear();
    tracker.olderGap = 0;
    tracker.olderSecondaryGap = 0;
    return Outcome();
}

Outcome ControlTracker(Tracker &tracker, DWORD code, const std::vector<uint8_t> &input, uint8_t *output,
                       uint64_t outputLength, uint64_t limit, DWORD *moved)
{
    if (code == trackerAttach && input.size() == 8) {
        return tracker.attachError != 0 ? Failure(tracker.attachError) : Attach(tracker);
    }
    if (code == trackerQuery && input.size() == 8 && outputLength >= trackerHeaderBytes) {
        return tracker.queryError != 0 ? Failure(tracker.queryError)
                                       : AnswerQuery(tracker, output, outputLength, limit, moved);
    }
    if (code == trackerCommit && input.size() == 16) {
        return tracker.commitError != 0 ? Failure(tracker.commitError) : AcceptCommit(tracker, Load(input, 8, 8));
    }
    return Failure(errorInvalidParameter);
}
} // namespace

bool IsDevicePath(const std::string &path)
{
    return path.compare(0, strlen(devicePrefix), devicePrefix) == 0 || path.compare(0, 4, "\\\\?\\") == 0 ||
           VolumeOfPath(path, VolumePath) != 0 || VolumeOfPath(path, ShadowPath) != 0;
}

std::string DeviceObjectName(const std::string &path)
{
    if (path.compare(0, strlen(diskPrefix), diskPrefix) == 0) {
        return "disk" + path.substr(strlen(diskPrefix));
    }
    if (path == "\\\\.\\C:") {
        return "volume:C";
    }
    if (const uint32_t volume = VolumeOfPath(path, VolumePath)) {
        return "volume:" + std::to_string(volume);
    }
    if (const uint32_t volume = VolumeOfPath(path, ShadowPath)) {
        return "shadow:" + std::to_string(volume);
    }
    return path == "\\\\.\\Tallier" ? "tracker" : path;
}

Outcome OpenDevice(const std::string &path, DWORD access, DWORD share, DWORD disposition, DWORD flags, void **token)
{
    Machine &machine = *running->machine;
    Object object = {};
    object.name = DeviceObjectName(path);
    DWORD openError = 0;
    if (const Disk *disk = DiskOfPath(path, &object.diskNumber)) {
        object.kind = Kind::Disk;
        openError = disk->openError != 0 || share != 0 ? disk->openError : disk->exclusiveOpenError;
    } else if (object.name == "volume:C" && machine.volumeC) {
        object.kind = Kind::Volume;
        openError = machine.volumeC->openError;
    } else if (const uint32_t volume = VolumeOfPath(path, VolumePath)) {
        object.kind = Kind::Volume;
        object.volumeNumber = volume;
        openError = VolumeByNumber(volume).volume.openError;
    } else if (const uint32_t shadow = VolumeOfPath(path, ShadowPath)) {
        object.kind = Kind::Disk;
        object.volumeNumber = shadow;
        openError = HasShadow(shadow) ? VolumeByNumber(shadow).shadow.openError : errorFileNotFound;
    } else if (object.name == "tracker" && machine.tracker) {
        object.kind = Kind::Tracker;
        openError = machine.tracker->openError;
    } else {
        openError = errorFileNotFound;
    }
    if (openError != 0) {
        return Failure(openError);
    }
    if (disposition != OPEN_EXISTING) {
        return Failure(errorInvalidParameter);
    }
    if (SharingForbids(object.name, share)) {
        return Failure(errorSharingViolation);
    }
    object.access = access;
    object.share = share;
    object.flags = flags;
    *token = AddObject(object);
    return {true, 0, FindObject(*token)->name};
}

Outcome BeginVolumeSearch(wchar_t *name, DWORD nameUnits, void **token)
{
    Object search = {};
    search.kind = Kind::Search;
    search.name = "volumes";
    const Outcome outcome = ContinueVolumeSearch(search, name, nameUnits);
    if (outcome.succeeded) {
        *token = AddObject(search);
    }
    return outcome;
}

Outcome ContinueVolumeSearch(Object &search, wchar_t *name, DWORD nameUnits)
{
    const std::vector<NamedVolume> &volumes = running->machine->volumes;
    if (search.position >= volumes.size()) {
        return Failure(errorNoMoreFiles);
    }
    const std::wstring &next = volumes[search.position].name;
    if (next.size() >= nameUnits) {
        return Failure(errorNameTooLong);
    }
    std::copy(next.c_str(), next.c_str() + next.size() + 1, name);
    ++search.position;
    return {true, 0, Narrow(next.c_str())};
}

Outcome ReadDisk(Object &object, void *buffer, uint64_t length, uint64_t limit, DWORD *moved)
{
    const Disk *disk = DiskOf(object);
    if (disk == nullptr || (object.access & GENERIC_READ) == 0) {
        return Failure(disk == nullptr ? errorNotConnected : errorAccessDenied);
    }
    if (const DWORD error = TransferError(object, *disk, buffer, length)) {
        return Failure(error);
    }
    const uint64_t end = ContentLength(*disk);
    const uint64_t available = object.position < end ? end - object.position : 0;
    const uint64_t count = std::min({length, limit, available});
    if (disk->fill) {
        disk->fill(object.position, static_cast<uint8_t *>(buffer), count);
    } else if (count != 0) {
        memcpy(buffer, disk->bytes.data() + object.position, count);
    }
    object.position += count;
    *moved = static_cast<DWORD>(count);
    return {true, 0, std::to_string(count)};
}

Outcome WriteDisk(Object &object, const void *buffer, uint64_t length, uint64_t limit, DWORD *moved)
{
    Disk *disk = DiskOf(object);
    if (disk == nullptr || (object.access & GENERIC_WRITE) == 0) {
        return Failure(disk == nullptr ? errorNotConnected : errorAccessDenied);
    }
    if (disk->fill) {
        return Failure(errorWriteProtect);
    }
    if (const DWORD error = TransferError(object, *disk, buffer, length)) {
        return Failure(error);
    }
    if (object.position >= disk->bytes.size() && length != 0) {
        return Failure(errorSectorNotFound);
    }
    const uint64_t count = std::min({length, limit, disk->bytes.size() - object.position});
    if (count != 0) {
        memcpy(disk->bytes.data() + object.position, buffer, count);
    }
    object.position += count;
    *moved = static_cast<DWORD>(count);
    return {true, 0, std::to_string(count)};
}

Outcome ControlDevice(Object &device, DWORD code, const std::vector<uint8_t> &input, uint8_t *output,
                      uint64_t outputLength, uint64_t limit, DWORD *moved)
{
    Machine &machine = *running->machine;
    if (device.kind == Kind::Disk && DiskOf(device) != nullptr) {
        return ControlDisk(*DiskOf(device), code, output, outputLength, limit, moved);
    }
    if (device.kind == Kind::Volume && device.volumeNumber != 0) {
        return ControlVolume(VolumeByNumber(device.volumeNumber).volume, code, output, outputLength, limit, moved);
    }
    if (device.kind == Kind::Volume && machine.volumeC) {
        return ControlVolume(*machine.volumeC, code, output, outputLength, limit, moved);
    }
    if (device.kind == Kind::Tracker && machine.tracker) {
        return ControlTracker(*machine.tracker, code, input, output, outputLength, limit, moved);
    }
    return Failure(errorInvalidFunction);
}
