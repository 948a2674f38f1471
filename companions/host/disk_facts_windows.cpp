// The machine's disks with what is known of each, by the storage queries, the drive layout and the volumes.
//
// The disks are those that have a name \\.\PhysicalDriveN. Names and layout are had without rights; the length that
// kestrix takes is had by an administrator only, and without it the geometry's is told. What is mounted is what a
// volume answers for.
#include "host/disk_ids_windows.h"
#include "host/disk_number.h"
#include "host/open_handle_windows.h"

#include <winioctl.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace host
{

// ---- Asking a device ----

static constexpr size_t firstAnswer = 4096;              // bytes
static constexpr size_t largestAnswer = size_t{1} << 20; // bytes, far above what any device has to say

using Device = std::unique_ptr<OpenHandle, CloseOpenHandle>;

// Its file is INVALID_HANDLE_VALUE, with the last error set, where it didn't open.
static Device OpenDevice(const std::wstring &path, DWORD access)
{
    Device device(new OpenHandle);
    device->file =
        CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    return device;
}

// An answer of whatever length; empty, with the last error set, if there is none.
static std::vector<uint8_t> Ask(HANDLE device, DWORD code, const void *question = nullptr, DWORD questionBytes = 0)
{
    std::vector<uint8_t> answer(firstAnswer);
    DWORD bytesReturned = 0;
    while (!DeviceIoControl(device, code, const_cast<void *>(question), questionBytes, answer.data(),
                            static_cast<DWORD>(answer.size()), &bytesReturned, nullptr)) {
        const DWORD error = GetLastError();
        if ((error != ERROR_INSUFFICIENT_BUFFER && error != ERROR_MORE_DATA) || answer.size() >= largestAnswer) {
            SetLastError(error);
            return {};
        }
        answer.resize(answer.size() * 2);
    }
    answer.resize(std::min<size_t>(bytesReturned, answer.size()));
    return answer;
}

static std::vector<uint8_t> AskProperty(HANDLE device, STORAGE_PROPERTY_ID property)
{
    STORAGE_PROPERTY_QUERY query = {};
    query.PropertyId = property;
    query.QueryType = PropertyStandardQuery;
    return Ask(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query));
}

// The record at the start of an answer, zeros where the answer is too short for it.
template <typename Record>
static Record RecordOf(const std::vector<uint8_t> &answer, size_t offset = 0)
{
    Record record = {};
    if (offset <= answer.size() && answer.size() - offset >= sizeof(record)) {
        memcpy(&record, answer.data() + offset, sizeof(record));
    }
    return record;
}

// ---- Volumes ----

struct Extent {
    uint32_t disk = 0;
    uint64_t offsetBytes = 0;
};

struct Volume {
    std::string name;
    std::vector<Extent> extents;
    std::vector<std::string> mounts;
    std::string fileSystem;
    std::string label;
    std::string unclear;
};

static std::vector<Extent> ExtentsOf(const std::wstring &devicePath)
{
    std::vector<Extent> extents;
    const Device device = OpenDevice(devicePath, 0);
    if (device->file == INVALID_HANDLE_VALUE) {
        return extents;
    }
    const std::vector<uint8_t> answer = Ask(device->file, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS);
    const auto count = RecordOf<DWORD>(answer);
    for (size_t i = 0; i < count; ++i) {
        const size_t offset = offsetof(VOLUME_DISK_EXTENTS, Extents) + i * sizeof(DISK_EXTENT);
        if (offset + sizeof(DISK_EXTENT) > answer.size()) {
            break;
        }
        const auto extent = RecordOf<DISK_EXTENT>(answer, offset);
        extents.push_back({extent.DiskNumber, static_cast<uint64_t>(extent.StartingOffset.QuadPart)});
    }
    return extents;
}

// The texts of a list in which each ends with a zero unit and the last is empty.
static std::vector<std::wstring> TextsOf(const std::vector<wchar_t> &list)
{
    std::vector<std::wstring> texts;
    for (size_t at = 0; at < list.size() && list[at] != L'\0';) {
        const auto end = std::find(list.begin() + static_cast<ptrdiff_t>(at), list.end(), L'\0');
        texts.emplace_back(list.begin() + static_cast<ptrdiff_t>(at), end);
        at += texts.back().size() + 1;
    }
    return texts;
}

static std::vector<std::string> MountsOf(const wchar_t *volumeName)
{
    std::vector<wchar_t> list(MAX_PATH);
    std::vector<std::string> mounts;
    DWORD length = 0;
    if (!GetVolumePathNamesForVolumeNameW(volumeName, list.data(), static_cast<DWORD>(list.size()), &length)) {
        if (GetLastError() != ERROR_MORE_DATA || length > largestAnswer) {
            return mounts;
        }
        list.resize(length);
        if (!GetVolumePathNamesForVolumeNameW(volumeName, list.data(), length, &length)) {
            return mounts;
        }
    }
    for (const std::wstring &text : TextsOf(list)) {
        mounts.push_back(PrintableText(Narrow(text.c_str())));
    }
    return mounts;
}

static Volume DescribeVolume(const std::wstring &name)
{
    Volume volume;
    wchar_t label[MAX_PATH + 1] = {};
    wchar_t fileSystem[MAX_PATH + 1] = {};
    volume.name = Narrow(name.c_str());
    volume.extents = ExtentsOf(name.substr(0, name.find_last_not_of(L'\\') + 1)); // with it, it is the root folder
    volume.mounts = MountsOf(name.c_str());
    if (GetVolumeInformationW(name.c_str(), label, MAX_PATH + 1, nullptr, nullptr, nullptr, fileSystem, MAX_PATH + 1)) {
        volume.label = FieldText(Narrow(label));
        volume.fileSystem = FieldText(Narrow(fileSystem));
    } else if (const DWORD error = GetLastError(); error != ERROR_UNRECOGNIZED_VOLUME) {
        volume.unclear = SystemText(error);
    }
    return volume;
}

// Where they can't be listed to their end, nothing is known of what lies on any disk.
static Trouble ListVolumes(std::vector<Volume> *volumes)
{
    wchar_t name[MAX_PATH + 1] = {};
    DWORD modeBefore = 0;
    SetThreadErrorMode(SEM_FAILCRITICALERRORS, &modeBefore); // an empty reader is not the user's to fill now
    const HANDLE listing = FindFirstVolumeW(name, MAX_PATH);
    DWORD error = listing == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
    while (error == ERROR_SUCCESS) {
        volumes->push_back(DescribeVolume(name));
        error = FindNextVolumeW(listing, name, MAX_PATH) ? ERROR_SUCCESS : GetLastError();
    }
    if (listing != INVALID_HANDLE_VALUE) {
        FindVolumeClose(listing);
    }
    SetThreadErrorMode(modeBefore, nullptr);
    return error == ERROR_NO_MORE_FILES ? Trouble() : Trouble("the volumes can't be listed: " + SystemText(error));
}

// The disks below C:, which is the system's for kestrix, and below the folder of the Windows that runs.
static std::vector<uint32_t> SystemDisks()
{
    std::vector<uint32_t> disks;
    wchar_t folder[MAX_PATH] = {};
    GetSystemWindowsDirectoryW(folder, MAX_PATH);
    for (const std::wstring &letter : {std::wstring(L"C:"), std::wstring(folder).substr(0, 2)}) {
        for (const Extent &extent : ExtentsOf(L"\\\\.\\" + letter)) {
            disks.push_back(extent.disk);
        }
    }
    return disks;
}

// ---- Names ----

static std::string BusName(STORAGE_BUS_TYPE bus)
{
    static const char *const names[] = {"",      "scsi", "atapi",   "ata",   "firewire", "ssa",
                                        "fibre", "usb",  "raid",    "iscsi", "sas",      "sata",
                                        "sd",    "mmc",  "virtual", "file",  "spaces",   "nvme"};
    const auto number = static_cast<size_t>(bus);
    return number < std::size(names) ? names[number] : "";
}

static void AskNames(HANDLE device, DiskFacts *disk)
{
    const std::vector<uint8_t> answer = AskProperty(device, StorageDeviceProperty);
    const auto descriptor = RecordOf<STORAGE_DEVICE_DESCRIPTOR>(answer);
    const std::string vendor = TextAt(answer, descriptor.VendorIdOffset);
    const std::string product = TextAt(answer, descriptor.ProductIdOffset);
    const bool isMaker = !vendor.empty() && vendor != "ATA" && vendor != "NVMe" && product.rfind(vendor, 0) != 0;
    disk->model = isMaker && !product.empty() ? vendor + " " + product : product;
    disk->serial = TextAt(answer, descriptor.SerialNumberOffset);
    disk->isRemovable = descriptor.RemovableMedia != FALSE;
    disk->bus = BusName(descriptor.BusType);
    disk->wwn = WwnOfIds(AskProperty(device, StorageDeviceIdProperty));
}

// ---- Size and sectors ----

static void AskSizes(HANDLE device, DiskFacts *disk)
{
    const std::vector<uint8_t> length = Ask(device, IOCTL_DISK_GET_LENGTH_INFO);
    const DWORD error = GetLastError();
    const auto geometry = RecordOf<DISK_GEOMETRY_EX>(Ask(device, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX));
    if (length.empty() && disk->unreadable.empty()) {
        disk->unreadable = SystemText(error);
    }
    const LARGE_INTEGER size = length.empty() ? geometry.DiskSize : RecordOf<GET_LENGTH_INFORMATION>(length).Length;
    disk->sizeBytes = static_cast<uint64_t>(size.QuadPart);
    disk->logicalSectorBytes = geometry.Geometry.BytesPerSector;
    const auto alignment =
        RecordOf<STORAGE_ACCESS_ALIGNMENT_DESCRIPTOR>(AskProperty(device, StorageAccessAlignmentProperty));
    disk->physicalSectorBytes = alignment.BytesPerPhysicalSector;
}

// ---- Partitions ----

static PartitionFacts DescribeEntry(const PARTITION_INFORMATION_EX &entry)
{
    PartitionFacts partition;
    partition.number = entry.PartitionNumber;
    partition.offsetBytes = static_cast<uint64_t>(entry.StartingOffset.QuadPart);
    partition.lengthBytes = static_cast<uint64_t>(entry.PartitionLength.QuadPart);
    if (entry.PartitionStyle == PARTITION_STYLE_GPT) {
        wchar_t name[std::size(decltype(entry.Gpt.Name){}) + 1] = {};
        memcpy(name, entry.Gpt.Name, sizeof(entry.Gpt.Name));
        partition.name = FieldText(Narrow(name));
    } else {
        partition.isExtended = entry.Mbr.PartitionType == 0x05 || entry.Mbr.PartitionType == 0x0F;
    }
    return partition;
}

static bool IsUsed(const PARTITION_INFORMATION_EX &entry)
{
    return entry.PartitionLength.QuadPart > 0 &&
           (entry.PartitionStyle == PARTITION_STYLE_GPT ||
            (entry.PartitionStyle == PARTITION_STYLE_MBR && entry.Mbr.PartitionType != 0));
}

static void AskLayout(HANDLE device, DiskFacts *disk)
{
    const std::vector<uint8_t> answer = Ask(device, IOCTL_DISK_GET_DRIVE_LAYOUT_EX);
    constexpr size_t entries = offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry);
    if (answer.size() < entries) {
        return;
    }
    const auto style = RecordOf<DWORD>(answer);
    const auto count = RecordOf<DWORD>(answer, sizeof(DWORD));
    disk->table = style == PARTITION_STYLE_GPT ? "gpt" : style == PARTITION_STYLE_MBR && count != 0 ? "dos" : "";
    for (size_t i = 0; i < count; ++i) {
        const size_t offset = entries + i * sizeof(PARTITION_INFORMATION_EX);
        if (offset + sizeof(PARTITION_INFORMATION_EX) > answer.size()) {
            break;
        }
        const auto entry = RecordOf<PARTITION_INFORMATION_EX>(answer, offset);
        if (IsUsed(entry)) {
            disk->partitions.push_back(DescribeEntry(entry));
        }
    }
}

// The partition that a volume's extent begins in; one for the disk itself where there is none.
static PartitionFacts *PartitionAt(uint64_t offsetBytes, DiskFacts *disk)
{
    for (PartitionFacts &partition : disk->partitions) {
        if (!partition.isExtended && offsetBytes >= partition.offsetBytes &&
            offsetBytes - partition.offsetBytes < partition.lengthBytes) {
            return &partition;
        }
    }
    PartitionFacts whole;
    whole.offsetBytes = offsetBytes;
    whole.lengthBytes = disk->sizeBytes - std::min(disk->sizeBytes, offsetBytes);
    disk->partitions.push_back(whole);
    return &disk->partitions.back();
}

static void TakeVolume(const Volume &volume, const Extent &extent, DiskFacts *disk)
{
    PartitionFacts *partition = PartitionAt(extent.offsetBytes, disk);
    partition->node = volume.name;
    partition->fileSystem = volume.fileSystem;
    partition->label = volume.label;
    partition->unclear = volume.unclear;
    partition->mounts.insert(partition->mounts.end(), volume.mounts.begin(), volume.mounts.end());
    disk->isInUse = disk->isInUse || !volume.fileSystem.empty() || !volume.mounts.empty();
}

static void TakeVolumes(const std::vector<Volume> &volumes, DiskFacts *disk)
{
    for (const Volume &volume : volumes) {
        for (const Extent &extent : volume.extents) {
            if (extent.disk == disk->number) {
                TakeVolume(volume, extent, disk);
            }
        }
    }
    std::sort(
        disk->partitions.begin(), disk->partitions.end(),
        [](const PartitionFacts &left, const PartitionFacts &right) { return left.offsetBytes < right.offsetBytes; });
}

// ---- The disks ----

// Of all names that the system has for devices.
static Trouble ListNumbers(std::vector<uint32_t> *numbers)
{
    std::vector<wchar_t> names(size_t{1} << 16);
    DWORD units = 0;
    while ((units = QueryDosDeviceW(nullptr, names.data(), static_cast<DWORD>(names.size()))) == 0) {
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || names.size() > (size_t{1} << 24)) {
            return "the disks can't be listed: " + SystemText(GetLastError());
        }
        names.resize(names.size() * 2);
    }
    names.resize(std::min<size_t>(units, names.size()));
    for (const std::wstring &name : TextsOf(names)) {
        if (const std::optional<uint32_t> number = NumberOfDiskName(Narrow(name.c_str()))) {
            numbers->push_back(*number);
        }
    }
    std::sort(numbers->begin(), numbers->end());
    return {};
}

static DiskFacts DescribeDisk(uint32_t number, const std::vector<Volume> &volumes)
{
    DiskFacts disk;
    disk.number = number;
    disk.node = "\\\\.\\PhysicalDrive" + std::to_string(number);
    Device device = OpenDevice(Widen(disk.node), GENERIC_READ);
    if (device->file == INVALID_HANDLE_VALUE) {
        disk.unreadable = SystemText(GetLastError());
        device = OpenDevice(Widen(disk.node), 0);
    }
    if (device->file != INVALID_HANDLE_VALUE) {
        AskNames(device->file, &disk);
        AskSizes(device->file, &disk);
        AskLayout(device->file, &disk);
    }
    TakeVolumes(volumes, &disk);
    return disk;
}

Trouble ListDisks(std::vector<DiskFacts> *disks)
{
    std::vector<uint32_t> numbers;
    disks->clear();
    if (const Trouble trouble = ListNumbers(&numbers)) {
        return trouble;
    }
    std::vector<Volume> volumes;
    const Trouble unlisted = ListVolumes(&volumes);
    const std::vector<uint32_t> systemDisks = SystemDisks();
    for (const uint32_t number : numbers) {
        disks->push_back(DescribeDisk(number, volumes));
        if (unlisted && disks->back().unreadable.empty()) {
            disks->back().unreadable = *unlisted;
        }
        disks->back().isSystemDisk = std::find(systemDisks.begin(), systemDisks.end(), number) != systemDisks.end();
    }
    return {};
}

Trouble FollowDeviceLink(const std::string &, DeviceAt *)
{
    return "Windows has no paths of devices";
}

} // namespace host
