// What lies on a disk: its partition table as it stands there, the kernel's partitions, file systems and labels.
//
// All of it is read through the descriptor that the caller opened, and nothing is taken from a cache. The table on the
// disk and what the kernel took from it can differ; what only one of the two has is listed as well.
#include "host/disk_facts_linux.h"

#include <blkid/blkid.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

namespace host
{

static constexpr uint64_t blockBytes = 512;    // what the kernel and libblkid count places in, on any disk
static constexpr size_t mostPartitions = 1024; // more than any table in use has

struct EndProbe {
    void operator()(blkid_probe probe) const
    {
        blkid_free_probe(probe);
    }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, EndProbe>;

// Of a part of the disk; null where libblkid can't look at it.
static Probe ProbeAt(int descriptor, uint64_t offsetBytes, uint64_t lengthBytes)
{
    Probe probe(blkid_new_probe());
    if (probe == nullptr) {
        throw std::bad_alloc();
    }
    const int refused = blkid_probe_set_device(probe.get(), descriptor, static_cast<blkid_loff_t>(offsetBytes),
                                               static_cast<blkid_loff_t>(lengthBytes));
    return refused != 0 ? nullptr : std::move(probe);
}

// A value that the probe found; empty if it found none.
static std::string ValueOf(const Probe &probe, const char *name)
{
    const char *value = nullptr;
    size_t byteCount = 0;
    return blkid_probe_lookup_value(probe.get(), name, &value, &byteCount) == 0
               ? FieldText(std::string(value, strnlen(value, byteCount)))
               : std::string();
}

// ---- File systems ----

// Fills in the file system of a place, its label, or why it can't be told. Gives what libblkid says it is used for.
static std::string AskFileSystem(int descriptor, uint64_t diskBytes, PartitionFacts *place)
{
    constexpr int severalFit = -2;
    if (place->offsetBytes > diskBytes || place->lengthBytes > diskBytes - place->offsetBytes) {
        place->unclear = "it goes beyond the disk's end";
        return {};
    }
    if (place->lengthBytes == 0 || place->isExtended) {
        return {};
    }
    const Probe probe = ProbeAt(descriptor, place->offsetBytes, place->lengthBytes);
    if (probe == nullptr || blkid_probe_enable_superblocks(probe.get(), 1) != 0 ||
        blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_USAGE) !=
            0) {
        place->unclear = "it can't be looked at";
        return {};
    }
    const int result = blkid_do_safeprobe(probe.get());
    if (result < 0) {
        place->unclear = result == severalFit ? "it has the marks of several file systems" : "it can't be read";
        return {};
    }
    place->fileSystem = ValueOf(probe, "TYPE");
    place->label = ValueOf(probe, "LABEL");
    return ValueOf(probe, "USAGE");
}

// ---- The table on the disk ----

static std::string KindOfTable(int descriptor, uint64_t diskBytes)
{
    const Probe probe = ProbeAt(descriptor, 0, diskBytes);
    if (probe == nullptr || blkid_probe_enable_superblocks(probe.get(), 0) != 0 ||
        blkid_probe_enable_partitions(probe.get(), 1) != 0 || blkid_do_safeprobe(probe.get()) != 0) {
        return {};
    }
    return ValueOf(probe, "PTTYPE");
}

static PartitionFacts DescribeEntry(blkid_partition entry)
{
    PartitionFacts partition;
    const char *name = blkid_partition_get_name(entry);
    partition.number = static_cast<uint32_t>(blkid_partition_get_partno(entry));
    partition.offsetBytes = static_cast<uint64_t>(blkid_partition_get_start(entry)) * blockBytes;
    partition.lengthBytes = static_cast<uint64_t>(blkid_partition_get_size(entry)) * blockBytes;
    partition.name = name == nullptr ? std::string() : FieldText(name);
    partition.isExtended = blkid_partition_is_extended(entry) != 0;
    return partition;
}

static void ListEntries(int descriptor, DiskFacts *disk)
{
    const Probe probe = ProbeAt(descriptor, 0, disk->sizeBytes);
    const blkid_partlist list = probe == nullptr ? nullptr : blkid_probe_get_partitions(probe.get());
    const int count = list == nullptr ? 0 : blkid_partlist_numof_partitions(list);
    for (int i = 0; i < count && disk->partitions.size() < mostPartitions; ++i) {
        disk->partitions.push_back(DescribeEntry(blkid_partlist_get_partition(list, i)));
    }
}

// What stands on the disk itself is told where it has no partitions, and of a file system in any case: a disk can be
// made so that it is both.
static void AskWholeDisk(int descriptor, DiskFacts *disk)
{
    PartitionFacts whole;
    whole.node = disk->node;
    whole.deviceNumber = disk->deviceNumber;
    whole.lengthBytes = disk->sizeBytes;
    const std::string usage = AskFileSystem(descriptor, disk->sizeBytes, &whole);
    const bool isKnown = !whole.fileSystem.empty() || !whole.unclear.empty();
    if (isKnown && (disk->table.empty() || usage == "filesystem")) {
        disk->partitions.push_back(whole);
    }
}

// ---- The kernel's partitions ----

// Gives the entry of the table its device, or lists the device where the table has no such entry.
static void TakeDevice(const std::string &folder, DiskFacts *disk)
{
    PartitionFacts device;
    device.number = static_cast<uint32_t>(NumberIn(folder + "/partition"));
    device.offsetBytes = NumberIn(folder + "/start") * blockBytes;
    device.lengthBytes = NumberIn(folder + "/size") * blockBytes;
    device.node = NodeOfName(folder.substr(folder.find_last_of('/') + 1));
    device.deviceNumber = ReadLine(folder + "/dev");
    for (PartitionFacts &partition : disk->partitions) {
        if (partition.number == device.number && partition.offsetBytes == device.offsetBytes) {
            partition.node = device.node;
            partition.deviceNumber = device.deviceNumber;
            return;
        }
    }
    disk->partitions.push_back(device);
}

void AskContent(int descriptor, const std::string &deviceFolder, DiskFacts *disk)
{
    const bool isReadable = descriptor >= 0 && disk->sizeBytes != 0;
    if (isReadable) {
        disk->table = KindOfTable(descriptor, disk->sizeBytes);
        ListEntries(descriptor, disk);
    }
    for (const std::string &folder :
         deviceFolder.empty() ? std::vector<std::string>() : PartitionFolders(deviceFolder)) {
        TakeDevice(folder, disk);
    }
    for (PartitionFacts &partition : disk->partitions) {
        if (isReadable) {
            AskFileSystem(descriptor, disk->sizeBytes, &partition);
        }
    }
    if (isReadable) {
        AskWholeDisk(descriptor, disk);
    }
    const auto isBefore = [](const PartitionFacts &left, const PartitionFacts &right) {
        return std::tie(left.offsetBytes, left.number) < std::tie(right.offsetBytes, right.number);
    };
    std::sort(disk->partitions.begin(), disk->partitions.end(), isBefore);
}

} // namespace host
